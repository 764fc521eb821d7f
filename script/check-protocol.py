#!/usr/bin/env python3
"""Compares the three descriptions of the protocol: server/protocol.h, wireshark/zol.lua and
docs/protocol.md. Codes, names, sizes and every field's offset, width and name must agree.

Usage: script/check-protocol          (needs a C++20 compiler, $CXX or g++)

Sizes and offsets of the header come from the compiler; the other two are read line by line. A line
that is not understood is an error, so nothing can be left out unnoticed.
"""

import os
import re
import subprocess
import tempfile

from lib import ROOT, fail

HEADER = "server/protocol.h"
DISSECTOR = "wireshark/zol.lua"
DOCUMENT = "docs/protocol.md"

# Client commands without a record in the header: size, fields behind the code.
BARE = (1, [])
WITHOUT_RECORD = {
    "CMD_PING_REPLY": BARE,
    "CMD_PLAYER_LEFT": BARE,
    "CMD_LEAVE_CAR": BARE,
    "CMD_CHAT": (2, [(1, 255, "text", "text")]),  # size and width: the least and the most
}
KINDS = {
    "std::uint8_t": "u8",
    "ClientCommand": "u8",
    "ServerCommand": "u8",
    "Slot": "u8",
    "std::array<std::uint8_t, 2>": "u16",
    "FloatBits": "float",
    "Position": "position",
    "CarBlockA": "bytes",
    "CarBlockB": "bytes",
    "PlayerState": "PlayerState",
    "CarState": "CarState",
}
SENDERS = {"Client to server": "client", "Server to client": "server"}


def read(name):
    return (ROOT / name).read_text()


def kind_of(type_name, array):
    if type_name.startswith("Unused<"):
        return "bytes"
    if type_name.startswith("std::array<char,") or (type_name == "char" and array):
        return "text"
    return KINDS.get(type_name) or fail(f"{HEADER}: no kind known for the type {type_name}")


class Description:
    """What one of the files says. layouts: (sender, code) -> (name, size, fields); blocks: name ->
    (size, fields); a field is (offset, width, name, kind); numbers: what else is compared."""

    def __init__(self, source):
        self.source = source
        self.layouts = {}
        self.blocks = {}
        self.numbers = {}

    def add(self, sender, code, name, size, fields):
        if (sender, code) in self.layouts:
            fail(f"{self.source}: two layouts for code {code} from the {sender}")
        self.layouts[sender, code] = (name, size, fields)


# The header.

STRUCT = re.compile(r"^struct (\w+) \{\n(.*?)^\};", re.M | re.S)
MEMBER = re.compile(r"(\S.*?) (\w+)(\[\w+\])?(?: = ([^;]+)|\{\});\s*(?://\s*(.*))?")
ENUM = re.compile(r"^enum class (\w+) : std::uint8_t \{\n(.*?)^\};", re.M | re.S)
ENUMERATOR = re.compile(r"  (CMD_\w+) = (\d+),")


def header_records(text):
    """Per struct: its name and its members (type, name, array, default, remark)."""
    records = {}
    for struct in STRUCT.finditer(text):
        members = []
        for line in struct[2].splitlines():
            member = MEMBER.fullmatch(line.strip())
            members.append(member.groups() if member else fail(f"{HEADER}: not understood: {line}"))
        records[struct[1]] = members
    return records


def measure(records):
    """Sizes and fields of the records, as the compiler lays them out."""
    lines = []
    for record, members in records.items():
        lines.append(f'std::printf("{record} - %zu 0\\n", sizeof({record}));')
        for _, name, *_ in members:
            lines.append(f'std::printf("{record} {name} %zu %zu\\n", offsetof({record}, {name}), '
                         f"sizeof({record}::{name}));")
    source = f'#include <cstdio>\n#include "{HEADER}"\nint main() {{ {" ".join(lines)} }}\n'
    with tempfile.TemporaryDirectory() as directory:
        program = os.path.join(directory, "measure")
        compiler = os.environ.get("CXX", "g++").split()
        command = [*compiler, "-std=c++20", "-I.", "-xc++", "-", "-o", program]
        if subprocess.run(command, input=source, text=True, cwd=ROOT, check=False).returncode != 0:
            fail(f"{HEADER} does not compile")
        output = subprocess.run([program], capture_output=True, text=True, check=True).stdout
    rows = (line.split() for line in output.splitlines())
    return {(record, name): (int(a), int(b)) for record, name, a, b in rows}


def header_fields(record, members, measured):
    fields = []
    for type_name, name, array, *_ in members:
        shown = "unused" if type_name.startswith("Unused<") else name
        fields.append((*measured[record, name], shown, kind_of(type_name, array)))
    return fields


def header_codes(sender, text):
    """The codes of one direction, which must be one enum's: name -> code."""
    enums = ENUM.findall(text)
    if [name for name, _ in enums] != [command_type(sender)]:
        fail(f"{HEADER}: expected the codes of the {sender} in one enum {command_type(sender)}")
    codes = {}
    for line in enums[0][1].splitlines():
        code = ENUMERATOR.fullmatch(line) or fail(f"{HEADER}: not understood: {line}")
        codes[code[1]] = int(code[2])
    return codes


def command_type(sender):
    return f"{sender.capitalize()}Command"


def commands_of(members, sender):
    """The codes that a record is sent with: its default, or those that the remark names."""
    type_name, name, _, default, remark = members[0]
    if (type_name, name) != (command_type(sender), "command"):
        return []
    if default is None:
        return re.findall(r"CMD_\w+", remark or "")
    return re.findall(rf"^{type_name}::(CMD_\w+)$", default)


def read_header():
    text = read(HEADER)
    description = Description(HEADER)
    # Codes by direction; then blocks and records, by direction as well.
    parts = re.split(r"^// (Client to server|Server to client)\.$", text, flags=re.M)
    if parts[1::2] != ["Client to server", "Server to client"] * 2:
        fail(f"{HEADER}: expected codes and then records, each by direction")
    codes = {}
    for heading, part in zip(parts[1:5:2], parts[2:5:2]):
        codes[SENDERS[heading]] = header_codes(SENDERS[heading], part)
    if sum(map(len, codes.values())) != len(re.findall(r"\bCMD_\w+ *=", text)):
        fail(f"{HEADER}: a CMD_ code stands outside of the enums")

    records = header_records(text)
    measured = measure(records)
    directions = {}
    for heading, part in zip(parts[5::2], parts[6::2]):
        directions |= {name: SENDERS[heading] for name in header_records(part)}
    for record, members in records.items():
        size = measured[record, "-"][0]
        fields = header_fields(record, members, measured)
        if record not in directions:
            description.blocks[record] = (size, fields)
            continue
        sender = directions[record]
        for command in commands_of(members, sender) or fail(f"{HEADER}: {record} has no command"):
            code = codes[sender].get(command)
            if code is None:
                fail(f"{HEADER}: {command} of {record} is no command of the {sender}")
            description.add(sender, code, command, size, fields[1:])
    for command, (size, fields) in WITHOUT_RECORD.items():
        description.add("client", codes["client"][command], command, size, fields)
    for sender, commands in codes.items():
        for command, code in commands.items():
            if description.layouts.get((sender, code), ("",))[0] != command:
                fail(f"{HEADER}: {command} ({code}) has no record of its own")

    description.numbers = {
        "protocol version": number(HEADER, r"PROTOCOL_VERSION = (\d+);"),
        "nobody": number(HEADER, r" NOBODY = (\d+);"),
        "receive buffer": number(HEADER, r"RECEIVE_BUFFER_SIZE = (\d+);"),
        "port": number("config/server_config.h", r'char Port\[\d+\] = "(\d+)";'),
    }
    return description


def number(source, pattern):
    found = re.search(pattern, read(source))
    return int(found[1]) if found else fail(f"{source}: nothing matches {pattern}")


# The dissector.

LUA_BLOCK = re.compile(r'\{"(\w+)", (\d+), \{')
LUA_LAYOUT = re.compile(r'\{"(client|server)", (\d+), "(CMD_\w+)", (\d+), \{')
LUA_FIELD = re.compile(r'\{(\d+), (\d+), "(\w+)", "(\w+)"\},')


def lua_table(text, name):
    table = re.search(rf"^local {name} = \{{\n(.*?)^\}}$", text, re.M | re.S)
    if table is None:
        fail(f"{DISSECTOR}: no table {name}")
    lines = (line.strip() for line in table[1].splitlines())
    return [line for line in lines if line and not line.startswith("--") and line != "}},"]


def read_dissector():
    text = read(DISSECTOR)
    description = Description(DISSECTOR)
    fields = None
    for line in lua_table(text, "BLOCKS") + lua_table(text, "LAYOUTS"):
        if block := LUA_BLOCK.fullmatch(line):
            fields = []
            description.blocks[block[1]] = (int(block[2]), fields)
        elif layout := LUA_LAYOUT.fullmatch(line):
            fields = []
            description.add(layout[1], int(layout[2]), layout[3], int(layout[4]), fields)
        elif (field := LUA_FIELD.fullmatch(line)) and fields is not None:
            fields.append((int(field[1]), int(field[2]), field[3], field[4]))
        else:
            fail(f"{DISSECTOR}: not understood: {line}")
    description.numbers = {
        "protocol version": number(DISSECTOR, r"ZOL protocol, version (\d+)"),
        "nobody": number(DISSECTOR, r"local NOBODY = (\d+)"),
        "receive buffer": number(DISSECTOR, r"local RECEIVE_BUFFER_SIZE = (\d+)"),
        "port": number(DISSECTOR, r'Pref\.uint\("Server port", (\d+),'),
    }
    return description


# The document.

OVERVIEW_ROW = re.compile(r"\| (\d+) \| `(CMD_\w+)` \| (\d+)(?: to (\d+))? \|.*")
LAYOUT_HEADING = re.compile(r"### `(CMD_\w+)` \((\d+)\), (\d+)(?: to (\d+))? bytes?")
BLOCK_HEADING = re.compile(r"### `(\w+)`, (\d+) bytes")
FIELD_ROW = re.compile(r"\| (\d+) \| (?:1 to )?(\d+) \| (`\w+`|unused) \| (.*)\|")


def document_kind(name, meaning):
    """The document tells only some kinds; None fits all."""
    if name == "unused":
        return "bytes"
    first = re.match(r"`(\w+State)`|(float|text)\b", meaning)
    return first and (first[1] or first[2])


def read_document():
    description = Description(DOCUMENT)
    overview = {}
    most = None
    sender = fields = code = None
    for line in read(DOCUMENT).splitlines():
        if line.startswith("## "):
            sender = SENDERS.get(line[3:])
            fields = code = None
        elif block := BLOCK_HEADING.fullmatch(line):
            fields, code = [], None
            description.blocks[block[1]] = (int(block[2]), fields)
        elif layout := LAYOUT_HEADING.fullmatch(line):
            fields, code = [], int(layout[2])
            description.add(sender, code, layout[1], int(layout[3]), fields)
            most = int(layout[4] or 0) or most
        elif line.startswith("### "):
            fail(f"{DOCUMENT}: not understood: {line}")
        elif (row := OVERVIEW_ROW.fullmatch(line)) and fields is None:
            overview[sender, int(row[1])] = (row[2], int(row[3]))
        elif (row := FIELD_ROW.fullmatch(line)) and fields is not None:
            name, meaning = row[3].strip("`"), row[4].strip()
            if name == "command":
                if (row[1], row[2], meaning) != ("0", "1", str(code)) or fields:
                    fail(f"{DOCUMENT}: wrong command in the table of code {code}")
                continue
            fields.append((int(row[1]), int(row[2]), name, document_kind(name, meaning)))
        elif re.match(r"\| *\d", line):
            fail(f"{DOCUMENT}: not understood: {line}")
    stated = {key: layout[:2] for key, layout in description.layouts.items()}
    for key in sorted(stated.keys() | overview.keys()):
        if stated.get(key) != overview.get(key):
            fail(f"{DOCUMENT}: {key}: {overview.get(key)} in the overview, {stated.get(key)} below")
    description.numbers = {
        "protocol version": number(DOCUMENT, r"# The ZOL protocol, version (\d+)"),
        "version in CMD_JOIN": number(DOCUMENT, r"\| `version` \| (\d+) \|"),
        "nobody": number(DOCUMENT, r"\| the PinkPanther, or (\d+) for nobody \|"),
        "receive buffer": most,
        "port": number(DOCUMENT, r"\((\d+) unless configured otherwise\)"),
    }
    return description


# The comparison.


def same_field(left, right):
    return left[:3] == right[:3] and (left[3] == right[3] or right[3] is None)


def compare_fields(what, expected, found, source):
    problems = []
    for i in range(max(len(expected), len(found))):
        left = expected[i] if i < len(expected) else None
        right = found[i] if i < len(found) else None
        if left is None or right is None or not same_field(left, right):
            problems.append(f"{source}: {what}: field {right}, in {HEADER} {left}")
    return problems


def compare(header, other):
    problems = []
    for kind in ("blocks", "layouts"):
        ours, theirs = getattr(header, kind), getattr(other, kind)
        for key in sorted(ours.keys() | theirs.keys()):
            if key not in ours or key not in theirs:
                problems.append(f"{key}: missing in {other.source if key in ours else HEADER}")
            elif ours[key][:-1] != theirs[key][:-1]:
                problems.append(f"{other.source}: {key}: {theirs[key][:-1]}, in {HEADER} "
                                f"{ours[key][:-1]}")
            else:
                problems += compare_fields(key, ours[key][-1], theirs[key][-1], other.source)
    for name, value in other.numbers.items():
        expected = header.numbers["protocol version" if name.startswith("version") else name]
        if value != expected:
            problems.append(f"{other.source}: {name} is {value}, not {expected}")
    return problems


def main():
    header = read_header()
    problems = compare(header, read_dissector()) + compare(header, read_document())
    if problems:
        fail("\n  ".join(["the descriptions differ", *problems]))
    count = sum(len(layout[2]) for layout in header.layouts.values())
    print(f"{len(header.layouts)} datagrams with {count} fields agree in {HEADER}, {DISSECTOR} "
          f"and {DOCUMENT}")


if __name__ == "__main__":
    main()
