#!/usr/bin/python3
"""Checks the documents of a tree against the tree: documents.py TOP

Links between them lead to a file, each example is shown as it is, the README shows no other C++,
programs on other pages compile, the page of messages has every message of the library, and its error
numbers are those of GLib.
"""

import pathlib
import re
import subprocess
import sys

from gi.repository import Gio


def broken_links(top, pages):
    """To files; those to places in them are looked for in the HTML."""
    count = 0
    for page in pages:
        code = r"^```.*?^```$|`[^`\n]*`"
        text = re.sub(code, "", page.read_text(encoding="utf-8"), flags=re.M | re.S)
        for target in re.findall(r"\]\(([^)#:]+)[)#]", text):
            count += 1
            if not (page.parent / target).exists():
                yield "%s: no file for %s" % (page.relative_to(top), target)
    if count < 40:
        yield "only %d links found" % count


def missing_examples(top):
    def blocks(page):
        text = (top / page).read_text(encoding="utf-8")
        return re.findall(r"^```cpp\n(.*?)^```$", text, re.M | re.S)

    readme = blocks("README.md")
    guides = blocks("docs/application-guide.md") + blocks("docs/service-guide.md")
    examples = {file.name: file.read_text(encoding="utf-8")
                for file in sorted((top / "examples").glob("*.cpp"))}
    for name, code in examples.items():
        if code not in readme + guides:
            yield "no page shows examples/%s as it is" % name
    policy = (top / "examples" / "python" / "policy.py").read_text(encoding="utf-8")
    if "```python\n%s```\n" % policy not in (top / "README.md").read_text(encoding="utf-8"):
        yield "README.md: does not show examples/python/policy.py as it is"
    for block in readme:
        if block not in examples.values():
            yield "README.md: shows code that is no example:\n" + block


def broken_programs(top):
    """Of those that are no examples, which are built elsewhere."""
    glib = subprocess.run(["pkg-config", "--cflags", "glib-2.0"], check=True, capture_output=True, text=True)
    compiler = ["c++", "-std=c++17", "-fsyntax-only", "-I", top / "include", "-x", "c++", "-", *glib.stdout.split()]
    page = (top / "docs" / "service-guide.md").read_text(encoding="utf-8")
    programs = [code for code in re.findall(r"^```cpp\n(#include.*?)^```$", page, re.M | re.S) if "int main(" in code]
    for code in programs:
        done = subprocess.run(compiler, input=code, text=True, stderr=subprocess.PIPE, check=False)
        if done.returncode != 0:
            yield "docs/service-guide.md: a program does not compile:\n" + done.stderr
    if not programs:
        yield "no programs found"


def missing_messages(top):
    page = (top / "docs" / "operations.md").read_text(encoding="utf-8")
    sources = [*(top / "api" / "impl" / "src").glob("*.cpp"), *(top / "platform" / "src").glob("*.c")]
    logged = r'(?:QOR_LOG_(?:DEBUG|ERROR)\(|__dlog_print\([^"]*"[A-Z]+",)\s*"((?:[^"\\]|\\.)*)"'
    count = 0
    for source in sources:
        text = source.read_text(encoding="utf-8")
        if "QOR_ASSERT_FAILED()" in text and "In `%s`" % source.name not in page.replace("and `", "In `"):
            yield "docs/operations.md: no assertion of %s" % source.name
        for message in re.findall(logged, text):
            count += 1
            if "`%s`" % message.replace("%s: %s(%d) > ", "") not in page:
                yield "docs/operations.md: no %r of %s" % (message, source.relative_to(top))
    if count < 40:
        yield "only %d messages found in the sources" % count


def wrong_error_numbers(top):
    page = (top / "docs" / "operations.md").read_text(encoding="utf-8")
    rows = re.findall(r"^\| (\d[^|]*) \|([^|]*)\|([^|]*)\|$", page, re.M)
    count = 0
    for numbers, *columns in rows:
        for errors, column in zip((Gio.DBusError, Gio.IOErrorEnum), columns):
            for number, name in zip(re.findall(r"\d+", numbers), re.findall("`([A-Z_]+)`", column)):
                count += 1
                if int(getattr(errors, name)) != int(number):
                    yield "docs/operations.md: %s is not %s" % (name, number)
    if count < 20:
        yield "only %d error numbers found" % count


def main():
    top = pathlib.Path(sys.argv[1]).resolve()
    pages = [*top.glob("*.md"), *(top / "docs").glob("*.md")]
    faults = [*broken_links(top, pages), *missing_examples(top), *broken_programs(top),
              *missing_messages(top), *wrong_error_numbers(top)]
    print("\n".join(faults) or "%d pages" % len(pages))
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
