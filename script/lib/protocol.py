#!/usr/bin/env python3
"""Checks the parts of other files that repeat server/protocol.h: the tables of the dissector, the
tables, index, headings and links of docs/protocol.md, the command codes of the sample firewall, and
the version. Prints the differences, or writes them with --write. In docs/protocol.md, people write
the last column of each table and all other text. Also reports a datagram without an assertion of
its size, without a session in tests/sessions, or without text in a column that people write.
"""

import argparse
import collections
import difflib
import itertools
import re

import clang.cindex as clang

from lib import ROOT, anchor_of, fail

DISSECTOR = "wireshark/zol.lua"
DOCUMENT = "docs/protocol.md"
FIREWALL = "packaging/zolserver.nft"
SESSIONS = "tests/sessions"
CHANGES = "CHANGELOG.md"
# The files that repeat the version. VERSION matches the text before the version, and the version.
VERSIONED = (DOCUMENT, "packaging/kubernetes.yaml", "tests/sessions/joining.session")
VERSION = re.compile(r"(zolserver:|You need Version )\d+(?:\.\d+)*")
HEADERS = ("server/protocol.h", "config/server_config.h")

SENDERS = {"ClientCommand": "client", "ServerCommand": "server"}
KINDS = {
    "std::uint8_t": "u8",
    "Slot": "u8",
    "std::uint16_t": "u16",
    "FloatBits": "float",
    "Position": "position",
    "CarBlockA": "bytes",
    "CarBlockB": "bytes",
}
LEAST_CHAT = 1  # bytes of CMD_CHAT, the only datagram that may be shorter than its record

# kind is a value of KINDS, "text", or the name of a block.
Field = collections.namedtuple("Field", "offset width name kind")
Block = collections.namedtuple("Block", "name size fields")
Datagram = collections.namedtuple("Datagram", "sender code name least size fields")
Protocol = collections.namedtuple("Protocol", "version blocks datagrams numbers")


# Reading the headers with the compiler's parser.


def parse():
    source = "".join(f'#include "{ROOT / name}"\n' for name in HEADERS)
    unit = clang.Index.create().parse(
        "headers.cpp", ["-std=c++20", f"-I{ROOT}"], unsaved_files=[("headers.cpp", source)])
    errors = [str(note) for note in unit.diagnostics if note.severity >= clang.Diagnostic.Error]
    if errors:
        fail("\n".join(errors))
    ours = {str(ROOT / name) for name in HEADERS}
    outer = [node for node in unit.cursor.get_children()
             if node.location.file and node.location.file.name in ours]
    spaces = [node for node in outer if node.kind == clang.CursorKind.NAMESPACE]
    return outer + [node for space in spaces for node in space.get_children()]


def type_name(node):
    return node.type.spelling.removeprefix("zol::")


def kind_of(field):
    name = type_name(field)
    if name.startswith("Unused<"):
        return "bytes"
    if re.match(r"std::array<char,|char ?\[", name):
        return "text"
    declared = field.type.get_declaration()
    is_block = declared.kind == clang.CursorKind.STRUCT_DECL and name == declared.spelling
    kind = KINDS.get(name, name if is_block else None)
    return kind or fail(f"{field.spelling}: unknown type {name}")


def fields_of(struct):
    return [Field(struct.type.get_offset(field.spelling) // 8, field.type.get_size(),
                  "unused" if field.spelling.startswith("unused_") else field.spelling,
                  kind_of(field))
            for field in struct.get_children() if type_name(field) not in SENDERS]


def literal(node):
    """Returns the number that initializes a variable or a field."""
    tokens = [part.spelling.strip('"') for inside in node.walk_preorder()
              if inside.kind in (clang.CursorKind.INTEGER_LITERAL, clang.CursorKind.STRING_LITERAL)
              for part in inside.get_tokens()]
    return int(tokens[-1])


def code_of(enumerator):
    return enumerator.enum_value % 256  # the library returns codes above 127 as negative numbers


def read_headers():
    nodes = parse()
    header = (ROOT / HEADERS[0]).read_text()
    asserted = re.findall(r"\w+", "".join(re.findall(r"all_have_size<\d+(, [^>]*)>", header)))
    structs = {node.spelling: node for node in nodes if node.kind == clang.CursorKind.STRUCT_DECL}
    port = next(field for field in structs.pop("ServerConfig").get_children()
                if field.spelling == "Port")
    numbers = {node.spelling: literal(node) for node in nodes
               if node.spelling in ("NOBODY", "RECEIVE_BUFFER_SIZE")}
    records, blocks = {}, []
    for struct in structs.values():
        first = next(struct.get_children())
        if first.kind == clang.CursorKind.CXX_BASE_SPECIFIER:
            continue  # a std::span with another name
        if struct.spelling not in asserted:
            fail(f"{HEADERS[0]}: no all_have_size for {struct.spelling}")
        sender = SENDERS.get(type_name(first))
        if not sender:
            blocks.append(Block(struct.spelling, struct.type.get_size(), fields_of(struct)))
            continue
        codes = [code_of(part.referenced) for part in first.walk_preorder()
                 if part.kind == clang.CursorKind.DECL_REF_EXPR]
        if len(codes) != 1 or (sender, *codes) in records:
            fail(f"{struct.spelling} does not start with its command code")
        records[sender, codes[0]] = (struct.type.get_size(), fields_of(struct))
    datagrams = []
    for enum in (node for node in nodes if node.spelling in SENDERS):
        for code in enum.get_children():
            sender, name = SENDERS[enum.spelling], code.spelling
            size, fields = records.get((sender, code_of(code)), (1, []))
            least = LEAST_CHAT if name == "CMD_CHAT" else size
            datagrams.append(Datagram(sender, code_of(code), name, least, size, fields))
    version = re.search(r'SERVER_VERSION = "([\d.]+)"', header)
    return Protocol(version[1], blocks, datagrams, numbers | {"PORT": literal(port)})


# The parts of other files that this script writes.


def replace(source, text, pattern, new):
    found = re.findall(pattern, text, re.M | re.S)
    if len(found) != 1:
        fail(f"{source}: {len(found)} matches instead of 1 for: {pattern}")
    return re.sub(pattern, lambda _: new, text, flags=re.M | re.S)


def write_version(protocol, source, text):
    text, count = VERSION.subn(rf"\g<1>{protocol.version}", text)
    return text if count else fail(f"{source}: no text matches {VERSION.pattern}")


def lua_rows(fields):
    return "".join(f'    {{{f.offset}, {f.width}, "{f.name}", "{f.kind}"}},\n' for f in fields)


def write_dissector(protocol, text):
    tables = "".join(f"local {name} = {number}\n" for name, number in protocol.numbers.items())
    tables += "\n-- {name, size, fields}\nlocal BLOCKS = {\n"
    for block in protocol.blocks:
        tables += f'  {{"{block.name}", {block.size}, {{\n{lua_rows(block.fields)}  }}}},\n'
    tables += "}\n\n-- {sender, code, name, least size, fields}\nlocal LAYOUTS = {\n"
    for each in protocol.datagrams:
        tables += f'  {{"{each.sender}", {each.code}, "{each.name}", {each.least}, {{\n'
        tables += lua_rows(each.fields) + "  }},\n"
    return replace(DISSECTOR, text, r"(?<=^-- BEGIN\n).*(?=^-- END\n)", tables + "}\n")


def write_firewall(protocol, text):
    codes = {each.name: each.code for each in protocol.datagrams if each.sender == "client"}
    ranges = []
    for _, run in itertools.groupby(enumerate(codes.values()), lambda pair: pair[1] - pair[0]):
        run = [str(code) for _, code in run]
        ranges += run if len(run) < 3 else [f"{run[0]}-{run[-1]}"]
    text = replace(FIREWALL, text, r"^define ZOL_COMMANDS = [^\n]*$",
                   f"define ZOL_COMMANDS = {{ {', '.join(ranges)} }}")
    return re.sub(r"^define (CMD_\w+) = .*$", lambda line: f"define {line[1]} = {codes[line[1]]}",
                  text, flags=re.M)


def sizes(least, most):
    return str(most) if least == most else f"{least} to {most}"


def heading(name, least, size, code=None):
    numbered = f" ({code})" if code is not None else ""
    return f"`{name}`{numbered}, {sizes(least, size)} byte{'s' if size > 1 else ''}"


def heading_of(datagram):
    return heading(datagram.name, datagram.least, datagram.size, datagram.code)


def link(datagram):
    return f"[`{datagram.name}`](#{anchor_of(heading_of(datagram))})"


def write_links(protocol, text):
    """Corrects the links to datagrams. Keeps a link if both sides send a datagram with its name."""
    links = collections.defaultdict(list)
    for each in protocol.datagrams:
        links[each.name].append(link(each))

    def corrected(old):
        of_name = links[old[1]]
        return of_name[0] if len(of_name) == 1 else old[0]

    return re.sub(r"\[`(\w+)`\]\(#[^)]*\)", corrected, text)


def shown_kind(field):
    if field.name == "unused":
        return ""
    if field.kind == "position":
        return "3 x 4 bytes"
    return f"`{field.kind}`" if field.kind[0].isupper() else field.kind


def table_of(rows):
    lines = ["|".join(f" {cell} " if cell else " " for cell in row) for row in rows]
    lines.insert(1, "|".join("---" for _ in rows[0]))
    return "".join(f"|{line}|\n" for line in lines)


def table(fields, old_rows, shortest=0):
    """Returns the table of these fields, with the last column of the old table."""
    meanings = {row[2].strip("`"): row[-1] for row in old_rows}
    rows = [["offset", "width", "field", "type", "meaning"]]
    for field in fields:
        name = field.name if field.name == "unused" else f"`{field.name}`"
        rows.append([str(field.offset), sizes(field.width - shortest, field.width), name,
                     shown_kind(field), meanings.get(field.name, "")])
    return table_of(rows)


def split_section(text):
    """Returns the text before the table, the cells of its rows, and the text after it."""
    before, rows, after = re.fullmatch(r"((?:^(?!\|)[^\n]*\n)*)((?:^\|[^\n]*\n)*)(.*)", text,
                                       re.M | re.S).groups()
    cells = [[cell.strip() for cell in row.strip("|").split("|")] for row in rows.splitlines()]
    return before, cells, after


def same_layout(protocol, datagram):
    """Returns the line for a datagram of the server whose layout is that of a client's datagram, except
    for the slot; None for any other datagram."""
    def used(fields):
        return [field for field in fields if field.name != "unused"]

    slot = Field(1, 1, "slot", "u8")
    for each in protocol.datagrams:
        fields = used(each.fields)
        if (each.sender, each.size) != ("client", datagram.size) or fields in ([], [slot]):
            continue
        if used(datagram.fields) == fields:
            return f"The layout of {link(each)}.\n"
        if used(datagram.fields) == [slot, *fields]:
            return f"The layout of {link(each)}, with `slot` (u8) at offset 1.\n"
    return None


def section(protocol, datagram, text):
    """Returns the section of a datagram. If a datagram of the client has the same layout, the section
    of the server's datagram links to it instead of a table."""
    before, rows, after = split_section(text)
    before = re.sub(r"^The layout of (?:[^\n]+\n)+\n?", "", before, flags=re.M)
    layout = datagram.sender == "server" and same_layout(protocol, datagram)
    if not layout and datagram.fields:
        layout = table(datagram.fields, rows, datagram.size - datagram.least)
    return f"### {heading_of(datagram)}\n" + f"{before}{layout or ''}{after}".rstrip() + "\n\n"


def write_sections(protocol, sections):
    """The sections of the blocks, of the client's datagrams and of the server's."""
    written = collections.defaultdict(str)
    for block in protocol.blocks:
        before, rows, after = split_section(sections.get((None, block.name), "\n"))
        written[None] += (f"### {heading(block.name, block.size, block.size)}\n{before}"
                          f"{table(block.fields, rows)}{after or chr(10)}")
    for each in protocol.datagrams:
        text = sections.get((each.sender, each.name), "\n")
        written[each.sender] += section(protocol, each, text)
    return written


def write_index(protocol, text):
    """Returns the index by code, with the last column of the old index."""
    before, rows, after = split_section(text)
    by_hand = {(row[2], row[1].split("`")[1]): row[-1] for row in rows[2:]}
    cells = [["code", "datagram", "sent by", "bytes", *rows[0][-1:]]]
    for each in sorted(protocol.datagrams, key=lambda each: (each.code, each.sender)):
        cells.append([str(each.code), link(each), each.sender, sizes(each.least, each.size),
                      by_hand.get((each.sender, each.name), "")])
    return before + table_of(cells) + after


def write_document(protocol, text):
    parts = re.split(r"^(?=## )", text, flags=re.M)
    titles = {"## Shared blocks": None, "## Client to server": "client",
              "## Server to client": "server"}
    sections, places = {}, {}
    for number, part in enumerate(parts):
        title = part.split("\n")[0]
        if title == "## Index by code":
            parts[number] = write_index(protocol, part)
        if title not in titles:
            continue
        places[titles[title]] = number
        parts[number], *subsections = re.split(r"^### ", part, flags=re.M)
        for each in subsections:
            first, rest = each.split("\n", 1)
            sections[titles[title], first.split("`")[1]] = rest
    for sender, written in write_sections(protocol, sections).items():
        parts[places[sender]] += written
    return write_links(protocol, "".join(parts))


# The parts that people write.


def commands_in_sessions():
    """Returns ">" and the name for a client's datagram, "<" and the name for a server's."""
    return {sign + name for path in (ROOT / SESSIONS).glob("*.session")
            for sign, name in re.findall(r"^[\w.]+([<>]) (CMD_\w+)", path.read_text(), re.M)}


def missing_by_hand(protocol, document):
    played = commands_in_sessions()
    missing = [f"{SESSIONS}: no session with {each.name} ({each.code}) of the {each.sender}"
               for each in protocol.datagrams
               if {"client": ">", "server": "<"}[each.sender] + each.name not in played]
    empty = re.findall(r"^(?!.*\| unused \|)\|.*\| \|.*$", document, re.M)
    missing += [f"{DOCUMENT}: an empty cell in {row}" for row in empty]
    if f"\n## [{protocol.version}]" not in (ROOT / CHANGES).read_text():
        missing.append(f"{CHANGES}: no section for version {protocol.version}")
    return missing


def main():
    parser = argparse.ArgumentParser(prog="script/checks/protocol", description=__doc__)
    parser.add_argument("--write", action="store_true", help="write the parts that differ")
    options = parser.parse_args()
    protocol = read_headers()
    writers = {DISSECTOR: write_dissector, DOCUMENT: write_document, FIREWALL: write_firewall}
    changes = []
    for name in dict.fromkeys([*writers, *VERSIONED]):
        old = (ROOT / name).read_text()
        new = writers[name](protocol, old) if name in writers else old
        if name in VERSIONED:
            new = write_version(protocol, name, new)
        if options.write:
            (ROOT / name).write_text(new)
        changes += difflib.unified_diff(old.splitlines(), new.splitlines(), name,
                                        f"{name} of {HEADERS[0]}", lineterm="")
    print("\n".join(changes), end="\n" if changes else "")
    if changes and not options.write:
        fail(f"run script/checks/protocol --write, or correct {HEADERS[0]}")
    if missing := missing_by_hand(protocol, (ROOT / DOCUMENT).read_text()):
        fail("\n".join(missing))
    fields = sum(len(each.fields) for each in protocol.datagrams)
    print(f"{len(protocol.datagrams)} datagrams with {fields} fields are the same in {HEADERS[0]}, "
          f"{', '.join(writers)}; the version in {', '.join(VERSIONED)}")


if __name__ == "__main__":
    main()
