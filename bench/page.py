#!/usr/bin/env python3
"""Writes the tables of the performance page from the results that are kept.

    page.py [--check]     --check changes nothing, and fails where the page tells something else
"""

import json
import pathlib
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
PAGE = TOP / "docs" / "performance.md"
ELSEWHERE = "[see below](#against-sd-bus)"
GDBUS, BY_HAND, TEN = "raw GDBus", "raw GDBus by hand", "a client of 10"


def load(name):
    results = json.loads((TOP / "bench" / name).read_text())
    return {(r["contest"], r["case"], r["peer"]): r for r in results}


def targets():
    """What is compared, and the ratio that is wanted: None where it is only shown."""
    for size, most in (("16 B", 0.85), ("4 KiB", 0.90), ("64 KiB", 1.05), ("1 MiB", 1.0), ("16 MiB", 1.0)):
        yield "round trip", size, GDBUS, most
    yield "round trip", "16 B", "sd-bus", None
    yield "round trip", "1 MiB", "sd-bus", 1.10
    for size in ("4 KiB", "1 MiB"):
        yield "set a policy", size, BY_HAND, 1.05
    for copies, most in ((0, 1.25), (1, 1.5)):
        for size in ("4 KiB", "1 MiB"):
            yield "store a policy", f"{size}, {copies} kept", BY_HAND, most
    for contest, counts in (("fan-out", (1, 10, 100, 500)), ("fan-out, CPU", (10, 100, 500))):
        for count in counts:
            for size in ("64 B", "64 KiB"):
                yield contest, f"{count} client{'s'[:count > 1]}, {size}", GDBUS, 1.05
        for size in ("64 B", "64 KiB"):
            yield contest, f"a client of 500, {size}", TEN, 1.30
    yield "start-up", "to the first answer", "raw GDBus, same steps", 1.10
    yield "start-up", "dlopen", "libgio-2.0", 1.10
    yield "log statement", "file", "spdlog", 1.0
    yield "log statement", "standard output", "spdlog", 1.0


def target_rows(debian12, debian13, broker):
    for contest, case, peer, most in targets():
        key = contest, case, peer
        result = debian12[key]
        ratio = result["ratio"]
        spread = "" if peer == TEN else "%.2f .. %.2f" % tuple(result["spread"])
        others = ["%.2f" % found[key]["ratio"] if key in found else "" for found in (debian13, broker)]
        wanted = "shown" if most is None else "%.2f" % most
        reached = ELSEWHERE if most is None else "yes" if round(ratio, 2) <= most else "no"
        yield f"{contest}, {case}", peer, "%.2f" % ratio, spread, *others, wanted, reached


def amount(value):
    if value is None:
        return ""
    return "%.0f" % value if value >= 100 else "%.3g" % value


def result_rows(results):
    for result in results.values():
        yield (result["contest"], result["case"], result["peer"],
               amount(result["ours"]), amount(result.get("ours_p99")),
               amount(result["theirs"]), amount(result.get("theirs_p99")),
               {"us": "µs"}.get(result["unit"], result["unit"]), "%.2f" % result["ratio"])


def with_table(page, heading, rows):
    """The page with these rows in the first table below a heading."""
    before, section = page.split(f"\n## {heading}\n", 1)
    lines = section.split("\n")
    start = next(i for i, line in enumerate(lines) if line.startswith("|---")) + 1
    end = next(i for i in range(start, len(lines)) if not lines[i].startswith("|"))
    lines[start:end] = ["| " + " | ".join(row) + " |" for row in rows]
    return f"{before}\n## {heading}\n" + "\n".join(lines)


def main():
    results = [load(name) for name in ("results.json", "results-debian13.json", "results-debian13-broker.json")]
    page = PAGE.read_text(encoding="utf-8")
    written = with_table(page, "Targets", target_rows(*results))
    written = with_table(written, "All results", result_rows(results[0]))
    if "--check" not in sys.argv:
        PAGE.write_text(written, encoding="utf-8")
    elif written != page:
        sys.exit("performance.md does not tell what bench/results*.json say; bench/page.py rewrites it")


main()
