#!/usr/bin/env python3
"""Runs the contests and stores what they measure."""

import argparse
import contextlib
import json
import os
import pathlib
import resource
import shutil
import subprocess
import sys
import tempfile

from harness import KIB, MIB, Bench, size_name

SERVICE = "com.norvane.qor.IControl"
PEER_NAMES = {
    "bench-gdbus": ("raw GDBus", "com.norvane.bench.Gdbus"),
    "bench-sd-bus": ("sd-bus", "com.norvane.bench.SdBus"),
}


def round_trip(bench):
    servers = [("bench-qor", "server")]
    clients = [("bench-qor", "client")]
    for program, (_, bus_name) in PEER_NAMES.items():
        servers.append((program, "server", bus_name))
        clients.append((program, "client", bus_name))
    names = [name for name, _ in PEER_NAMES.values()]
    for _ in bench.generations():
        with bench.running(*servers, *clients) as started:
            mine, *others = started[len(servers):]
            round_trip_sizes(bench, mine, dict(zip(names, others)))


def round_trip_sizes(bench, mine, others):
    for size, calls, rounds in (
        (16, 200, 10),
        (4 * KIB, 200, 10),
        (64 * KIB, 50, 10),
        (1 * MIB, 5, 10),
        (16 * MIB, 1, 5),
    ):
        bench.compare(
            "round trip",
            size_name(size),
            lambda: mine.samples("call", size, calls),
            {
                name: lambda peer=peer: peer.samples("call", size, calls)
                for name, peer in others.items()
            },
            bench.rounds(rounds),
        )


def set_policy(bench):
    name = PEER_NAMES["bench-gdbus"][1]
    for _ in bench.generations():
        with bench.running(
            ("bench-qor", "server"),
            ("bench-gdbus", "server", name),
            ("bench-qor", "client"),
            ("bench-gdbus", "client", name),
        ) as (_, _, mine, other):
            for size, calls, rounds in ((4 * KIB, 100, 40), (1 * MIB, 5, 40)):
                bench.compare(
                    "set a policy",
                    size_name(size),
                    lambda: mine.samples("policy", size, calls),
                    {"raw GDBus by hand": lambda: other.samples("policy", size, calls)},
                    bench.rounds(rounds),
                )


@contextlib.contextmanager
def qord(bench, folder, copies):
    program = bench.programs.parent / "tools" / "qord"
    service = subprocess.Popen(
        [program, "--policy", folder / "policy.xml", "--keep", str(copies)],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=bench.environment)
    try:
        if "ready" not in service.stdout.readline():
            raise SystemExit("bench: qord does not start")
        yield
    finally:
        service.terminate()
        service.communicate()


def store_policies(bench):
    """On the disk of the build: a system's folder for passing files may have none behind it."""
    name = "com.norvane.bench.Store"
    for copies in (0, 1):
        for _ in bench.generations():
            folder = pathlib.Path(tempfile.mkdtemp(prefix="store-", dir=bench.programs))
            folder = folder.resolve()
            with qord(bench, folder, copies), bench.running(
                ("bench-gdbus", "store", f"{name}:{folder}"),
                ("bench-gdbus", "client", SERVICE),
                ("bench-gdbus", "client", name),
            ) as (_, mine, other):
                for size, calls, rounds in ((4 * KIB, 10, 20), (1 * MIB, 5, 20)):
                    bench.compare(
                        "store a policy",
                        f"{size_name(size)}, {copies} kept",
                        lambda: mine.samples("store", size, calls),
                        {"raw GDBus by hand": lambda: other.samples("store", size, calls)},
                        bench.rounds(rounds),
                    )
            shutil.rmtree(folder)


def fan_out(bench):
    name = PEER_NAMES["bench-gdbus"][1]
    for _ in bench.generations():
        with bench.running(
            ("bench-qor", "server"),
            ("bench-gdbus", "server", name),
            ("bench-event-clients", SERVICE, name),
        ) as (mine, other, crowd):
            fan_out_sizes(bench, crowd, mine, other)
    bench.report()
    growth(bench)


def fan_out_sizes(bench, crowd, mine, other):
    for count in (1, 10, 100, 500):
        crowd.ask("connect", count)
        for server in (mine, other):
            if server.ask("clients")["clients"] != count:
                raise SystemExit(f"bench: {server.name} does not know its {count} clients")
        for size in (64, 64 * KIB):
            events = max(1, (200 if size == 64 else 40) // count)
            case = f"{count} client{'s' if count > 1 else ''}, {size_name(size)}"
            bench.compare(
                "fan-out",
                case,
                lambda: mine.samples("event", size, events),
                {"raw GDBus": lambda: other.samples("event", size, events)},
                bench.rounds(12 if count < 500 else 6),
            )
            if count > 1:
                bench.compare(
                    "fan-out, CPU",
                    case,
                    lambda: processor_time(mine, size, events),
                    {"raw GDBus": lambda: processor_time(other, size, events)},
                    bench.rounds(6),
                )


def processor_time(server, size, events):
    """What an event costs the server, which other work on the machine hardly changes."""
    before = server.processor_time()
    server.samples("event", size, events)
    return [(server.processor_time() - before) / events]


def growth(bench):
    """What a client costs with 500 of them, over what one costs with 10."""
    for contest in ("fan-out", "fan-out, CPU"):
        own = {r["case"]: r["ours"] for r in bench.results if r["contest"] == contest}
        for size in ("64 B", "64 KiB"):
            few, many = own[f"10 clients, {size}"] / 10, own[f"500 clients, {size}"] / 500
            bench.add(
                {
                    "contest": contest,
                    "case": f"a client of 500, {size}",
                    "peer": "a client of 10",
                    "ours": many,
                    "theirs": few,
                    "unit": "us",
                    "ratio": many / few,
                    "spread": [many / few, many / few],
                    "rounds": 1,
                    "samples": 1,
                }
            )


def start_up(bench):
    name = PEER_NAMES["bench-gdbus"][1]
    count = 5
    library = bench.programs.parent / "api" / "libQOR.so"
    with bench.running(
        ("bench-qor", "server"), ("bench-gdbus", "server", name), ("bench-launcher",)
    ) as (_, _, launcher):
        gdbus = bench.path("bench-gdbus")
        bench.compare(
            "start-up",
            "to the first answer",
            lambda: launcher.samples("first-byte", count, bench.path("bench-qor"), "first-call"),
            {
                "raw GDBus, same steps": lambda: launcher.samples(
                    "first-byte", count, gdbus, "first-call", name),
            },
            bench.rounds(60),
            "ms",
        )
        opener = [bench.path("bench-launcher"), "dlopen"]
        bench.compare(
            "start-up",
            "dlopen",
            lambda: launcher.samples("reported", count, *opener, library),
            {
                "libgio-2.0": lambda: launcher.samples(
                    "reported", count, *opener, "libgio-2.0.so.0"),
            },
            bench.rounds(60),
            "ms",
        )


def log_statement(bench):
    for sink, title in (("off", "all sinks off"), ("file", "file"), ("stdout", "standard output")):
        with bench.running(
            ("bench-qor-log", sink, bench.work / "ours.out"),
            ("bench-spdlog", sink, bench.work / "theirs.out"),
        ) as (mine, other):
            bench.compare(
                "log statement",
                title,
                lambda: mine.samples("log", 10, 500),
                {"spdlog": lambda: other.samples("log", 10, 500)},
                bench.rounds(80),
                "ns",
            )
            log = pathlib.Path(f"/tmp/qor_bench-qor-log_{mine.process.pid}.log")
        log.unlink(missing_ok=True)


def lookup(bench):
    settings = bench.work / "settings.ini"
    settings.write_text("[db/bench]\nvalue=what the platform has said\n")
    bench.environment["QOR_VCONF_FILE"] = str(settings)
    with bench.running(("bench-qor-lookup",), ("bench-map-lookup",)) as (mine, other):
        for threads in (1, 2):
            bench.compare(
                "cached lookup",
                f"{threads} thread" + ("s" if threads > 1 else ""),
                lambda: mine.samples("lookup", threads, 5, 20000),
                {"mutex and map": lambda: other.samples("lookup", threads, 5, 20000)},
                bench.rounds(60),
                "ns",
            )


CONTESTS = {
    "round-trip": round_trip,
    "set-policy": set_policy,
    "store-policy": store_policies,
    "fan-out": fan_out,
    "start-up": start_up,
    "log": log_statement,
    "lookup": lookup,
}


# --- Main ----------------------------------------------------------------------------------------


def parse_arguments():
    parser = argparse.ArgumentParser(description="Runs the contests.")
    parser.add_argument("--programs", type=pathlib.Path, required=True)
    parser.add_argument("--output", type=pathlib.Path, required=True)
    parser.add_argument("--quick", action="store_true", help="fewer rounds: about a minute")
    parser.add_argument("--bus", default="dbus-daemon", help="the daemon, or what takes its options")
    parser.add_argument("--only", choices=CONTESTS, action="append", help="this contest")
    return parser.parse_args()


def store(path, results):
    """Replaces the contests that ran; the others keep what an earlier run has found."""
    ran = {result["contest"] for result in results}
    earlier = json.loads(path.read_text()) if path.exists() else []
    kept = [result for result in earlier if result["contest"] not in ran]
    path.write_text(json.dumps(kept + results, indent=1) + "\n")


def main():
    arguments = parse_arguments()
    # One descriptor for each client of the fan-out.
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(most, 8192), most))
    work = pathlib.Path(tempfile.mkdtemp(prefix="qor-bench-"))
    bench = None
    try:
        # Relative, for the launcher takes its words apart at spaces.
        programs = pathlib.Path(os.path.relpath(arguments.programs))
        bench = Bench(programs, arguments.quick, work, arguments.bus)
        print(
            f"{'contest':<14} {'case':<24} {'peer':<26} {'ours':>9} {'p99':>9} {'theirs':>9}"
            f" {'p99':>9} {'unit':<5} {'ratio':>7}  spread (quartiles)"
        )
        for name, contest in CONTESTS.items():
            if not arguments.only or name in arguments.only:
                contest(bench)
                bench.report()
    finally:
        if bench is not None:
            bench.close()
        shutil.rmtree(work, ignore_errors=True)
    store(arguments.output, bench.results)


if __name__ == "__main__":
    sys.exit(main())
