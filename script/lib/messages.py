#!/usr/bin/env python3
"""Checks that the table in docs/operating.md explains every line that the server prints, and no other
line. In the table, words in capitals are placeholders.

Usage: script/checks/messages"""

import re

from lib import ROOT, fail

DOCUMENT = "docs/operating.md"
PRINT = (r"(?:console_print\((?!const)|reader\.print\(|std::printf\(|std::fprintf\(\s*stderr,|"
         r"std::snprintf\(line\.data\(\), line\.size\(\),)")
CALL = re.compile(PRINT + r"\s*((?:\"(?:[^\"\\]|\\.)*\"\s*)+)")
ANY_PRINT = re.compile(r"console_print\((?!const)|reader\.print\(|std::f?printf\(|std::snprintf\(line")
STRING = re.compile(r'"((?:[^"\\]|\\.)*)"')


def printed_formats():
    """Returns the format of every line that the server prints."""
    formats = set()
    for folder in ("announce", "config", "net", "server", "util"):
        for source in (ROOT / folder).glob("*.cpp"):
            text = source.read_text()
            calls = CALL.findall(text)
            if len(calls) != len(ANY_PRINT.findall(text)):
                fail(f"{folder}/{source.name}: this check cannot parse the arguments of a print call")
            for call in calls:
                joined = "".join(STRING.findall(call)).replace('\\"', '"')
                formats |= {line.strip() for line in joined.split("\\n") if line.strip()}
    return formats


def pattern_of(text):
    """Returns the pattern that the table's row must match for this format."""
    parts = re.split(r"%(?:\.\*)?[sdu]", text)
    return re.compile("[A-Z]*".join(map(re.escape, parts)))


def main():
    section = (ROOT / DOCUMENT).read_text().split("## What the lines mean\n")
    if len(section) != 2:
        fail(f"{DOCUMENT} has no section \"What the lines mean\"")
    rows = re.findall(r"^\| `(.+?)` \|", section[1].split("\n## ")[0], re.M)
    patterns = {text: pattern_of(text) for text in printed_formats()}
    missing = [text for text, pattern in patterns.items() if not any(map(pattern.fullmatch, rows))]
    stale = [row for row in rows if not any(p.fullmatch(row) for p in patterns.values())]
    if missing or stale:
        fail(f"{DOCUMENT}: rows to add: {missing}; rows that the server never prints: {stale}")
    print(f"{DOCUMENT} explains all {len(patterns)} console lines")


if __name__ == "__main__":
    main()
