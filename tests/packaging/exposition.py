#!/usr/bin/python3
"""Checks a file for node_exporter's textfile collector: exposition.py FILE NAME=VALUE...

Each metric has its help and type in that order, once, and then its one sample; names, labels, numbers
and units are as the text format and the conventions for names want them. The values must be there.
"""

import re
import sys

METRIC = re.compile(
    r"# HELP ([a-z_]+) [^\\\n]+\n# TYPE \1 (counter|gauge)\n"
    r'\1(?:\{[a-z_]+="(?:[^"\\\n]|\\[\\"n])*"\})? (-?\d+(?:\.\d+)?(?:e[+-]?\d+)?)\n')

with open(sys.argv[1], encoding="utf-8", newline="") as file:
    text = file.read()
metrics = METRIC.findall(text)
values = {name: value for name, _, value in metrics}
faults = [line for line in METRIC.sub("", text).splitlines()]
faults += ["%s is a %s" % (name, kind) for name, kind, _ in metrics
           if (kind == "counter") != name.endswith("_total")]
faults += ["%s does not end with its unit" % name for name in values
           if ("size" in name) != name.endswith("_bytes")
           or ("time" in name) != name.endswith("_seconds")]
faults += ["%s is %s" % (name, values.get(name)) for name, value in
           (pair.split("=") for pair in sys.argv[2:]) if values.get(name) != value]
print("\n".join(faults) or text)
sys.exit(1 if faults or len(values) != len(metrics) else 0)
