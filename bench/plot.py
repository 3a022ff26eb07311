#!/usr/bin/env python3
"""Draws what bench/run.py stored: latency over payload size, and fan-out over clients."""

import json
import pathlib
import re
import sys

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "qor"  # the same results give the same file

import matplotlib.pyplot as pyplot  # noqa: E402 (the backend comes first)

UNITS = {"B": 1, "KiB": 1024, "MiB": 1024 * 1024}
# Fixed places in a palette that tells apart well, also for the colour-blind.
STYLES = {
    "libQOR": ("#0072b2", "o"),
    "raw GDBus": ("#e69f00", "s"),
    "sd-bus": ("#009e73", "^"),
}


def size(text):
    number, unit = text.split()
    return int(number) * UNITS[unit]


def lines(results, contest, position):
    """One line for us and one for each peer: sorted points of position and median."""
    found = {}
    for result in results:
        if result["contest"] != contest or result["peer"] not in STYLES:
            continue
        x = position(result["case"])
        if x is None:
            continue
        found.setdefault("libQOR", {}).setdefault(x, []).append(result["ours"])
        found.setdefault(result["peer"], {}).setdefault(x, []).append(result["theirs"])
    return {
        name: sorted((x, sum(values) / len(values)) for x, values in points.items())
        for name, points in found.items()
    }


def draw(found, path, title, x_label, y_label, ticks):
    if not found:
        return
    figure, axes = pyplot.subplots(figsize=(7.5, 4.5))
    for name in STYLES:
        if name in found:
            colour, marker = STYLES[name]
            axes.plot(*zip(*found[name]), color=colour, marker=marker, label=name,
                      linewidth=2.2 if name == "libQOR" else 1.3, markersize=5)
    axes.set(xscale="log", yscale="log", title=title, xlabel=x_label, ylabel=y_label)
    axes.set_xticks(list(ticks), list(ticks.values()))
    axes.minorticks_off()
    axes.grid(True, alpha=0.3)
    axes.legend(frameon=False)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def clients_of(case, wanted):
    found = re.fullmatch(r"(\d+) clients?, (.*)", case)
    return int(found[1]) if found and found[2] == wanted else None


def main():
    results = json.loads(pathlib.Path(sys.argv[1]).read_text())
    folder = pathlib.Path(sys.argv[2])
    folder.mkdir(exist_ok=True)
    sizes = ["16 B", "4 KiB", "64 KiB", "1 MiB", "16 MiB"]
    draw(
        lines(results, "round trip", size),
        folder / "round-trip.svg",
        "Synchronous Send, reply of one byte",
        "payload",
        "median round trip, µs",
        {size(name): name for name in sizes},
    )
    for payload, name in (("64 B", "fan-out-64B.svg"), ("64 KiB", "fan-out-64KiB.svg")):
        draw(
            lines(results, "fan-out", lambda case, wanted=payload: clients_of(case, wanted)),
            folder / name,
            f"One event of {payload} to all clients, until all have answered",
            "clients",
            "median, µs",
            {count: str(count) for count in (1, 10, 100, 500)},
        )


if __name__ == "__main__":
    sys.exit(main())
