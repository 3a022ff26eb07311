#!/usr/bin/env python3
"""Runs the commands of a document's session and compares what they print: terminal-session.py PAGE

A session is a block of lines "$ COMMAND", which goes on after a backslash, each followed by its
output. What is different each time (times, numbers of processes, names on the bus, the user) may
differ.
"""

import re
import subprocess
import sys

BLOCK = re.compile(r"^(?:```console|\.Bd -literal[^\n]*)\n(\$ (?:qorctl|busctl) .*?)^(?:```|\.Ed)$",
                   re.M | re.S)
COMMAND = r"^\$ (?:.*\\\n)*.*"
CHANGING = [
    (r"\d{4}-\d\d-\d\dT[\d:.]+[+-]\d\d:\d\d", "TIME"),
    (r"\S+ \(qorctl, process \d+\)", "SOMEBODY"),
    (r":1\.\d+", "NAME"),
]


def steady(text):
    for pattern, word in CHANGING:
        text = re.sub(pattern, word, text)
    # Columns are as wide as the widest of what changes.
    return re.sub(r"(?<=\S) {2,}", "  ", text)


def main():
    with open(sys.argv[1], encoding="utf-8") as page:
        text = page.read().replace("\\e", "\\")  # as a man page writes a backslash
    session = "".join(BLOCK.findall(text))
    steps = re.findall("(" + COMMAND + r")\n((?:(?!\$ ).*\n)*)", session, re.M)
    faults = 0
    for command, wanted in steps:
        printed = subprocess.run(["bash", "-c", command[2:]], stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, timeout=60, check=False).stdout.decode()
        if steady(printed) != steady(wanted):
            faults += 1
            print("%s\n%s--- and not\n%s" % (command, printed, wanted))
    shown = sum(re.search(r"\b(qorctl|busctl|gdbus)\b", command) is not None
                for command in re.findall(COMMAND, text, re.M))
    print("%d commands of %d" % (len(steps), shown))
    sys.exit(0 if steps and len(steps) == shown and not faults else 1)


if __name__ == "__main__":
    main()
