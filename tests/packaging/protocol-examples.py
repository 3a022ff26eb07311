"""Compares the worked examples of the protocol's page with the envelopes that a client has shown.

A block of an example begins with the call as the client shows it, and goes on with lines of an
offset, bytes, and a remark after a semicolon. Only the version of the archive format may differ:
it is the writer's.

    protocol-examples.py PAGE CLIENT-OUTPUT
"""

import re
import sys

VERSION_AFTER = b"serialization::archive"
LINE = re.compile(r"^([0-9a-f]{4})  ((?:[0-9a-f]{2} )*[0-9a-f]{2}) *(?:;.*)?$")


def without_version(data):
    place = data.find(VERSION_AFTER)
    if place < 0:
        return data
    place += len(VERSION_AFTER)
    return data[:place] + b"??" + data[place + 2:]


def examples(page):
    for block in re.findall(r"^```text\n([<>] .*?)^```$", page, re.M | re.S):
        title, *lines = block.splitlines()
        data = b""
        for line in lines:
            match = LINE.match(line)
            if match is None or int(match[1], 16) != len(data):
                sys.exit("%s: not a line at offset %04x: %s" % (title, len(data), line))
            data += bytes.fromhex(match[2])
        yield title, data


def main():
    with open(sys.argv[1], encoding="utf-8") as page, open(sys.argv[2], encoding="utf-8") as shown:
        wanted = list(examples(page.read()))
        seen = [match.groups() for match in
                re.finditer(r"^([<>] \w+)((?: [0-9a-f]{2})*) ?$", shown.read(), re.M)]
    seen = {(title, without_version(bytes.fromhex(data))) for title, data in seen}
    missing = [title for title, data in wanted if (title, without_version(data)) not in seen]
    print("%d examples, not seen on the bus: %s" % (len(wanted), missing or "none"))
    sys.exit(1 if missing or len(wanted) < 6 else 0)


if __name__ == "__main__":
    main()
