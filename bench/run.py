#!/usr/bin/env python3
"""Runs the contests and prints, compares and stores what they measure.

Every contestant's processes stay up for a whole contest and take turns: ours, peer, ours, peer, in
many short rounds. What disturbs the machine then disturbs neighbours alike, and the ratio of each
pair is worth more than either time.
"""

import argparse
import contextlib
import json
import os
import pathlib
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile

KIB = 1024
MIB = 1024 * 1024
SERVICE = "com.norvane.qor.IControl"


# --- Processes -----------------------------------------------------------------------------------


class Program:
    """A benchmark program that takes commands and answers with lines of JSON."""

    def __init__(self, arguments, environment):
        self.name = pathlib.Path(arguments[0]).name
        self.process = subprocess.Popen(
            [str(word) for word in arguments],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            env=environment,
        )
        self.wait()

    def wait(self):
        line = self.process.stdout.readline()
        if not line:
            raise SystemExit(f"bench: {self.name} gave up")
        return json.loads(line)

    def ask(self, *words):
        self.process.stdin.write(" ".join(str(word) for word in words) + "\n")
        self.process.stdin.flush()
        return self.wait()

    def samples(self, *words):
        return self.ask(*words)["samples"]

    def processor_time(self):
        """Nanoseconds that all threads have run."""
        threads = pathlib.Path(f"/proc/{self.process.pid}/task").glob("*/schedstat")
        return sum(int(thread.read_text().split()[0]) for thread in threads)

    def stop(self):
        self.process.stdin.close()
        self.process.stdout.close()
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


class Bench:
    """What the contests share: the programs, the bus, the results."""

    def __init__(self, programs, quick, work, bus):
        self.programs = programs
        self.quick = quick
        self.work = work
        self.results = []
        self.pairs = {}
        self.environment = dict(os.environ)
        self.bus = self._start_bus(bus)

    def _start_bus(self, program):
        config = self.work / "bus.conf"
        config.write_text(
            "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN'\n"
            " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>\n"
            "<busconfig><type>system</type>"
            f"<listen>unix:path={self.work}/bus</listen><auth>EXTERNAL</auth>"
            "<policy context='default'><allow user='*'/><allow own='*'/>"
            "<allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/></policy>"
            "<limit name='max_connections_per_user'>4000</limit>"
            "<limit name='max_completed_connections'>4000</limit>"
            "<limit name='max_replies_per_connection'>4000</limit>"
            "<limit name='max_match_rules_per_connection'>4000</limit>"
            "</busconfig>\n"
        )
        daemon = subprocess.Popen(
            [program, "--nofork", "--nopidfile", "--nosyslog", "--print-address=1",
             f"--config-file={config}"],
            stdout=subprocess.PIPE,
            stderr=(self.work / "bus.log").open("w"),
            text=True,
        )
        if not daemon.stdout.readline():
            raise SystemExit(f"bench: {program} does not start")
        self.environment["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={self.work}/bus"
        return daemon

    def close(self):
        self.bus.terminate()
        self.bus.wait()
        self.bus.stdout.close()

    def path(self, program):
        return self.programs / program

    @contextlib.contextmanager
    def running(self, *command_lines):
        """Starts programs in this order and stops them in the reverse one."""
        started = []
        try:
            for words in command_lines:
                started.append(Program([self.path(words[0]), *words[1:]], self.environment))
            yield started
        finally:
            for program in reversed(started):
                program.stop()

    def rounds(self, full):
        return max(3, full // 6) if self.quick else full

    def generations(self):
        """How often to start all processes afresh: how an allocator lays out a process's memory is
        luck that lasts as long as the process, and should not decide a contest."""
        return range(1 if self.quick else 4)

    def compare(self, contest, case, ours, peers, rounds, unit="us"):
        """Lets us and each peer take turns, and keeps the outcome of every pair until report().

        ours and the values of peers measure one round and return its samples in nanoseconds.
        """
        ours()
        for measure in peers.values():
            measure()
        pairs = {peer: self.pairs.setdefault((contest, case, peer, unit), []) for peer in peers}
        for turn in range(rounds):
            for peer, measure in peers.items():
                if turn % 2 == 0:
                    mine = ours()
                    theirs = measure()
                else:
                    theirs = measure()
                    mine = ours()
                pairs[peer].append((mine, theirs))

    def report(self):
        """Compares the pairs that were collected, and stores and prints the results."""
        for (contest, case, peer, unit), pairs in self.pairs.items():
            scale = {"ns": 1.0, "us": 1e-3, "ms": 1e-6}[unit]
            mine = [sample * scale for pair in pairs for sample in pair[0]]
            theirs = [sample * scale for pair in pairs for sample in pair[1]]
            ratios = [statistics.median(a) / statistics.median(b) for a, b in pairs]
            self.add(
                {
                    "contest": contest,
                    "case": case,
                    "peer": peer,
                    "ours": statistics.median(mine),
                    "theirs": statistics.median(theirs),
                    "unit": unit,
                    "ratio": statistics.median(ratios),
                    "spread": [quantile(ratios, 0.25), quantile(ratios, 0.75)],
                    "ours_p99": quantile(mine, 0.99),
                    "theirs_p99": quantile(theirs, 0.99),
                    "rounds": len(pairs),
                    "samples": len(mine),
                }
            )
        self.pairs = {}

    def add(self, result):
        self.results.append(result)
        print(
            f"{result['contest']:<14} {result['case']:<24} {result['peer']:<26}"
            f" {number(result['ours']):>9} {number(result.get('ours_p99')):>9}"
            f" {number(result['theirs']):>9} {number(result.get('theirs_p99')):>9}"
            f" {result['unit']:<5} {result['ratio']:>7.3f}"
            f"  {result['spread'][0]:.3f} .. {result['spread'][1]:.3f}",
            flush=True,
        )


def quantile(values, part):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(part * len(ordered)))]


def number(value):
    if value is None:
        return ""
    return f"{value:.1f}" if value < 1000 else f"{value:.0f}"


def size_name(size):
    for unit, name in ((MIB, "MiB"), (KIB, "KiB")):
        if size >= unit:
            return f"{size // unit} {name}"
    return f"{size} B"


# --- Contests ------------------------------------------------------------------------------------

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
