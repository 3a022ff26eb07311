"""Sums up the counters that scripts/coverage has taken.

    coverage-summary.py COUNTERS LEAST     gcovr's JSON; fails below that share of branches, in percent
"""

import json
import sys

PARTS = {"library": ("include/", "api/"), "host layer": ("platform/",), "tools": ("tools/",)}


def outcomes(line):
    """How many of a line's branches were taken, and how many there are."""
    decision = line.get("gcovr/decision") or {"type": "none"}
    if decision["type"] == "conditional":
        return (decision["count_true"] > 0) + (decision["count_false"] > 0), 2
    if decision["type"] == "switch":
        return int(decision["count"] > 0), 1
    return 0, 0


def tell(part, files):
    """The share of branches that were taken, in percent."""
    lines = [(f"{file['file']}:{line['line_number']}", line["count"] > 0, *outcomes(line))
             for file in files if file["file"].startswith(PARTS[part])
             for line in file["lines"] if not line.get("gcovr/noncode")]
    hit = sum(is_hit for _, is_hit, _, _ in lines)
    taken = sum(some for _, _, some, _ in lines)
    branches = sum(both for _, _, _, both in lines)
    share = 100 * taken / branches
    print(f"{part}: {100 * hit / len(lines):.1f} % of {len(lines)} lines,"
          f" {share:.1f} % of {branches} branches; a branch is missed at")
    for place, _, some, both in lines:
        if some < both:
            print(f"  {place}")
    return share


counted = json.load(open(sys.argv[1], encoding="utf-8"))["files"]
shares = {part: tell(part, counted) for part in PARTS}
sys.exit(min(shares["library"], shares["tools"]) < float(sys.argv[2]))
