"""What the contests share: the programs and the bus that they run on, and what came of it.

Every contestant's processes stay up for a whole contest and take turns: ours, peer, ours, peer, in
many short rounds. What disturbs the machine then disturbs neighbours alike, and the ratio of each
pair is worth more than either time.
"""

import contextlib
import json
import os
import pathlib
import statistics
import subprocess

KIB = 1024
MIB = 1024 * 1024


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
