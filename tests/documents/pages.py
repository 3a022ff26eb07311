#!/usr/bin/env python3
"""Checks that the links of a set of HTML pages lead to a file of it, and to a place in that."""

import html.parser
import pathlib
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    def __init__(self, file):
        super().__init__()
        self.names, self.links = set(), []
        self.feed(file.read_text(encoding="utf-8"))

    def handle_starttag(self, _, attributes):
        for name, value in attributes:
            if name in ("id", "name"):
                self.names.add(value)
            elif name in ("href", "src") and value and not urllib.parse.urlparse(value).scheme:
                self.links.append(value)


top = pathlib.Path(sys.argv[1]).resolve()
pages = {file: Page(file) for file in top.rglob("*.html") if "examples" not in file.parts}
faults = []
for file, page in pages.items():
    for link in page.links:
        path, _, place = urllib.parse.unquote(link).partition("#")
        if place.startswith("index_"):  # Doxygen 1.17 forgets some letters of its own indexes
            continue
        target = (file.parent / path).resolve() if path else file
        if not target.exists() or (place and target in pages and place not in pages[target].names):
            faults.append("%s: %s" % (file.relative_to(top), link))
print("\n".join(faults) or "%d pages" % len(pages))
sys.exit(1 if faults or len(pages) < 20 else 0)
