#!/usr/bin/env python3
"""Checks the settings in the documents against CONFIG_KEYS in config/config_reader.h: the keys and their
order, the defaults and the limits.

Usage: script/checks/settings"""

import collections
import re

from lib import ROOT, fail

TABLE = "config/config_reader.h"
RECORD = "config/server_config.h"
PROTOCOL = "server/protocol.h"
# The pattern of a setting in each document. The numbers in its text are the limits.
DOCUMENTS = {
    "README.md": r"^\| `(?P<key>\w+)` \| `(?P<default>.*?)` \| (?P<text>.*) \|$",
    "packaging/zolserver.cfg": r"(?P<text>(?:^# .*\n)+)(?P<key>\w+)=(?P<default>.*)$",
    "packaging/zolserver.cfg.5": r"^\.It Ic (?P<key>\w+) .*\n(?P<text>(?s:.*?))"
                                 r"^The default is\s(?:\.\w+ )?(?P<default>.*?) ?\.$",
}  # fmt: skip

Setting = collections.namedtuple("Setting", "key kind default limits")


def read(name):
    return (ROOT / name).read_text()


def read_table():
    """Returns the settings in the order of the table. The limit of a text is its length."""
    record = read(RECORD)
    numbers = dict(re.findall(r"\b([A-Z_]+) = (\d+)\b", read(PROTOCOL) + record))
    fields = {name: (width, numbers.get(default, default)) for name, width, default in
              re.findall(r'^  \S+ (\w+)(?:\[(\d+)\])? = "?(.*?)"?;', record, re.M)}
    rows = re.findall(r'key_of\("(\w+)",\s+Kind::(\w+),\s+server_config\.(\w+)'
                      r"(?:,\s+(\w+),\s+(\w+))?\)", read(TABLE))
    if sorted(fields) != sorted(key for key, *_ in rows):
        fail(f"this check cannot parse {TABLE} or {RECORD}: their fields and keys differ")
    table = []
    for key, kind, field, *limits in rows:
        width, default = fields[field]
        limits = [str(int(width) - 1)] if width else [numbers.get(each, each) for each in limits]
        if kind == "BOOLEAN":
            default, limits = ("false", "true")[int(default)], []
        table.append(Setting(key, kind, default, limits))
    return table


def compare(name, what, found, expected):
    if found != expected:
        fail(f"{name}: {what} {found}, but in {TABLE} and {RECORD} {expected}")


def compare_document(name, table):
    entries = list(re.finditer(DOCUMENTS[name], read(name), re.M))
    compare(name, "the keys are", [entry["key"] for entry in entries], [each.key for each in table])
    for entry, setting in zip(entries, table):
        compare(name, f"the default of {setting.key} is", entry["default"], setting.default)
        is_port = setting.kind == "PORT"  # its text may contain other numbers
        limits = re.findall(r"\d+(?= characters)" if is_port else r"\d+", entry["text"])
        if limits or not is_port:
            compare(name, f"the limits of {setting.key} are", limits, setting.limits)


def main():
    table = read_table()
    for name in DOCUMENTS:
        compare_document(name, table)
    print(f"{len(table)} settings are the same in {TABLE}, {', '.join(DOCUMENTS)}")


if __name__ == "__main__":
    main()
