#!/usr/bin/python3
"""Writes what the platform monitoring service tells, for node_exporter: qor_metrics.py FILE.prom

FILE.prom stands in the directory of node_exporter's textfile collector. It is replaced in one step:
a reader finds the old or the new one, whole. A service that does not answer is told by qor_up 0;
where qorctl cannot be run or FILE.prom not be written, the old one stays, and the exit status is 1.
"""

import argparse
import datetime
import json
import os
import subprocess
import sys
import tempfile

NO_ANSWER = (2, 3)  # exit statuses of qorctl

# Name, type, help.
METRICS = (
    ("qor_up", "gauge", "Whether the service answers."),
    ("qor_healthy", "gauge", "Whether the service answers and has no problem."),
    ("qor_problems", "gauge", "How many problems the service tells; qorctl status --check has them."),
    ("qor_info", "gauge", "Always 1; the version of the service."),
    ("qor_start_time_seconds", "gauge", "When the service was started, since 1970."),
    ("qor_policies_stored_total", "counter", "Policies that were stored, or in force already."),
    ("qor_policies_refused_total", "counter", "Policies that were refused or not stored."),
    ("qor_events_delivered_total", "counter", "Applications that took an event."),
    ("qor_events_failed_total", "counter", "Applications that did not take an event."),
    ("qor_clients", "gauge", "Applications that have registered."),
    ("qor_clients_suspended", "gauge", "Those of them that leave an event unanswered."),
    ("qor_policies_kept", "gauge", "Policies before the one in force that are kept."),
    ("qor_policy_present", "gauge", "Whether there is a policy in force."),
    ("qor_policy_well_formed", "gauge", "Whether the service would accept the policy in force."),
    ("qor_policy_size_bytes", "gauge", "Size of the policy in force."),
    ("qor_policy_set_timestamp_seconds", "gauge", "When the policy in force was set, since 1970."),
)


def read_status(qorctl, timeout):
    """Gives back the exit status of the check, and the status."""
    command = [qorctl, "--json", "--timeout", str(timeout), "status", "--check"]
    done = subprocess.run(command, stdout=subprocess.PIPE, check=False)
    if done.returncode in NO_ANSWER:
        return done.returncode, {}
    if done.returncode not in (0, 1):
        raise ValueError("%s ended with status %d" % (qorctl, done.returncode))
    return done.returncode, json.loads(done.stdout)


def seconds(time):
    try:
        return datetime.datetime.fromisoformat(time).timestamp()
    except (TypeError, ValueError):
        return None  # not known


def values_of(check, status):
    """Name and value of each metric; None for what the service does not tell this user."""
    service, counts = status.get("service", {}), status.get("since_start", {})
    policy, clients = status.get("policy", {}), status.get("clients")
    kept, problems = status.get("kept"), status.get("problems")
    return {
        "qor_up": bool(status),
        "qor_healthy": bool(status) and check == 0,
        "qor_problems": problems if problems is None else len(problems),
        "qor_start_time_seconds": seconds(service.get("up_since")),
        "qor_policies_stored_total": counts.get("stored"),
        "qor_policies_refused_total": counts.get("refused"),
        "qor_events_delivered_total": counts.get("delivered"),
        "qor_events_failed_total": counts.get("failed"),
        "qor_clients": clients if clients is None else len(clients),
        "qor_clients_suspended": clients if clients is None else
                                 sum(client.get("suspended") is True for client in clients),
        "qor_policies_kept": kept if kept is None else len(kept),
        "qor_policy_present": policy.get("present"),
        "qor_policy_well_formed": policy.get("well_formed"),
        "qor_policy_size_bytes": policy.get("bytes"),
        "qor_policy_set_timestamp_seconds": seconds(policy.get("set_at")),
    }


def label(text):
    return text.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n")


def exposition(check, status):
    values = values_of(check, status)
    lines = []
    for name, kind, words in METRICS:
        samples = []
        if name == "qor_info" and status:
            version = str(status.get("service", {}).get("version") or "unknown")
            samples.append('qor_info{version="%s"} 1' % label(version))
        elif values.get(name) is not None:
            samples.append("%s %d" % (name, values[name]))
        if samples:
            lines += ["# HELP %s %s" % (name, words), "# TYPE %s %s" % (name, kind), *samples]
    return "\n".join(lines) + "\n"


def replace(path, text):
    directory, name = os.path.split(os.path.abspath(path))
    # The collector reads only what ends in .prom.
    descriptor, beside = tempfile.mkstemp(prefix="." + name + ".", suffix=".tmp", dir=directory)
    try:
        with open(descriptor, "w", encoding="utf-8") as file:
            file.write(text)
            os.fchmod(descriptor, 0o644)
        os.replace(beside, path)
    except BaseException:
        os.unlink(beside)
        raise


def main():
    parser = argparse.ArgumentParser(description="Writes the service's metrics for node_exporter.")
    parser.add_argument("file", metavar="FILE.prom")
    parser.add_argument("--qorctl", default="qorctl", metavar="PROGRAM")
    parser.add_argument("--timeout", type=int, default=5, metavar="SECONDS",
                        help="how long the service may take to answer")
    arguments = parser.parse_args()
    try:
        replace(arguments.file, exposition(*read_status(arguments.qorctl, arguments.timeout)))
    except (OSError, ValueError) as error:
        print("qor_metrics.py: %s" % error, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
