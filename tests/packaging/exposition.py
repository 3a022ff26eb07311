#!/usr/bin/python3
"""Checks a file for node_exporter's textfile collector: exposition.py FILE NAME=VALUE...

Each metric has its help and type in that order, once, and then its samples; names, labels, numbers
and units are as the text format and the conventions for names want them. The values must be there.
"""

import re
import sys

NAME = r"[a-zA-Z_:][a-zA-Z0-9_:]*"
LABEL = r'[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\[\\"n])*"'
SAMPLE = re.compile(r"(%s)(\{%s(?:,%s)*\})? (-?\d+(?:\.\d+)?(?:e[+-]?\d+)?)" % (NAME, LABEL, LABEL))
DEFINITION = re.compile(r"# HELP (%s) (\S.*)\n# TYPE (%s) (counter|gauge)\n" % (NAME, NAME))


def faults(text, wanted):
    seen = {}
    at = 0
    while at < len(text):
        definition = DEFINITION.match(text, at)
        if definition is None:
            yield "no definition: %r" % text[at:].split("\n", 1)[0]
            return
        name, words, same, kind = definition.groups()
        at = definition.end()
        if same != name or name in seen or "\\" in words:
            yield "a wrong definition of %s" % name
        if (kind == "counter") != name.endswith("_total"):
            yield "%s is a %s" % (name, kind)
        if ("size" in name) != name.endswith("_bytes") or \
           ("time" in name) != name.endswith("_seconds"):
            yield "%s does not end with its unit" % name
        seen[name] = None
        while at < len(text) and text[at] != "#":
            line, end, _ = text[at:].partition("\n")
            at += len(line) + 1
            sample = SAMPLE.fullmatch(line)
            if sample is None or not end or sample.group(1) != name or seen[name] is not None:
                yield "a wrong sample: %r" % line
            else:
                seen[name] = sample.group(3)
        if seen[name] is None:
            yield "%s has no value" % name
    for name, value in wanted:
        if seen.get(name) != value:
            yield "%s is %s and not %s" % (name, seen.get(name), value)


def main():
    with open(sys.argv[1], encoding="utf-8", newline="") as file:
        text = file.read()
    found = list(faults(text, [pair.split("=") for pair in sys.argv[2:]]))
    print("\n".join(found) or text)
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
