"""Writes the first inputs of a fuzz target: sessions, settings files and queries of the tests, in the
format that the target reads.

Usage: corpus.py TARGET FOLDER"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DATAGRAM, PASS, RESELECT, WAIT = range(4)  # events of fuzz_game
JOIN, ENTER = 10, 15
SENDERS = [number for number in range(40) if number % 10 != 0]
OWN_VERSION = 160  # added to a sender's number, makes fuzz_game keep the version in a join
WELCOME, ENTERED = b"\x11" + bytes(66), b"\x10" + bytes(3)

DOCUMENT = (ROOT / "docs/protocol.md").read_text()
CODES = {name: int(code) for name, code in re.findall(r"^### `(CMD_\w+)` \((\d+)\)", DOCUMENT, re.M)}


def bytes_of(words):
    """Returns the bytes that the words describe: see tests/bytes.h."""
    written = b""
    for word in re.findall(r'"(?:\\.|[^"])*"|\S+', words):
        if word[0] == '"':
            written += re.sub(r"\\(.)", r"\1", word[1:-1]).encode()
        elif word in CODES:
            written += bytes([CODES[word]])
        elif word.startswith(".."):
            written = written.ljust(int(word[2:]), b"\0")
        else:
            byte, _, count = word.partition("*")
            written += bytes([int(byte, 16)]) * int(count or 1)
    return written


def names_of(word):
    """Returns the players of a word: P0..P9 means ten."""
    if ".." not in word:
        return [word]
    first, last = word.split("..")
    return [f"{word[0]}{i}" for i in range(int(first[1:]), int(last[1:]) + 1)]


def sessions():
    """Yields the steps for each server in the sessions: the first word and the rest of each line."""
    for file in sorted((ROOT / "tests/sessions").glob("*.session")):
        lets = {}
        steps = []
        for line in file.read_text().splitlines():
            word, _, rest = line.partition(" ")
            rest = re.sub(r"\$(\w+)", lambda found: lets.get(found[1], found[0]), rest)
            if word == "let":
                name, _, lets[name] = rest.partition(" ")
            elif word == "server":
                yield steps
                steps = [(word, rest)]
            elif word and word[0] != "#":
                steps.append((word, rest))
        yield steps


def game_inputs():
    for steps in sessions():
        settings, senders, events = {}, {}, b""

        def send(name, datagram, more=0):
            number = senders.setdefault(name, SENDERS[len(senders) % len(SENDERS)]) + more
            size = min(len(datagram), 255)
            return bytes([DATAGRAM, datagram[0], number, size - 1]) + datagram[1:size]

        for word, rest in steps:
            if word in ("server", "set"):
                pairs = dict(pair.split("=") for pair in rest.split())
                settings = pairs | settings
                if int(pairs.get("pinkpanther_reselect", "0")):
                    events += bytes([RESELECT])
            elif word in ("join", "seat"):
                for name in [name for each in rest.split() for name in names_of(each)]:
                    events += send(name, bytes([JOIN]) + name.encode() + b"\0")
                    events += send(name, bytes([ENTER])) if word == "seat" else b""
            elif word[-1] == ">" and bytes_of(rest):
                events += send(word[:-1], bytes_of(rest), OWN_VERSION)
            elif word == "wait":
                seconds = -(-int(rest) // 1000)
                events += bytes([WAIT, 255]) * (seconds // 255) + bytes([WAIT, seconds % 255])
            elif word == "pass":
                events += bytes([PASS])
        clock = int(settings.get("clock", "1000"), 0)
        most, kind = int(settings.get("maxClients", "16")), int(settings.get("GameType", "0"))
        yield bytes([clock >> 24, most - 2, kind]) + events


def client_inputs():
    """Yields the datagrams to each player of the sessions, after the two answers to its join and its
    entry."""
    for steps in sessions():
        received = {}
        for word, rest in steps:
            for name in names_of(word[:-1]) if word[-1] == "<" else []:
                received.setdefault(name, [WELCOME, ENTERED]).append(bytes_of(rest))
        for datagrams in received.values():
            yield b"".join(bytes([5, len(datagram)]) + datagram for datagram in datagrams)


def config_inputs():
    yield (ROOT / "packaging/zolserver.cfg").read_bytes()
    for line in (ROOT / "tests/config_cases.txt").read_text().splitlines():
        if line.startswith("file "):
            yield bytes_of(line[5:])


def announcement_inputs():
    yield b"name=A+%41%C3%B6%00%1b%zz%4&p=32&mp=32&gt=1&port=65535&v=40&os=lin"
    yield b"name=%E8%BB%8A%E2%80%AE%F0%9F%9A%97%ED%A0%80&p=0&mp=2&gt=0&port=1&v=40&os=%EF%BB%BF"
    yield b"name=1234567890123456789012345678%E8%BB%8A&p=0&mp=2&gt=0&port=1&v=40"
    for word, rest in (step for steps in sessions() for step in steps):
        if word == "M|":
            yield rest.partition("?")[2].encode()


def bans_inputs():
    yield b"# these\n198.51.100.7 # and why\n203.0.113.0/24\r\n192.0.2.80:16309\n0.0.0.0/0\n"
    yield b"1.2.3\n1.2.3.4/33\n1.2.3.4:0\n1.2.3.4/8:1\n::1\nexample.org\n"


def master_reply_inputs():
    for word, rest in (step for steps in sessions() for step in steps):
        if word != "master":
            continue
        pieces = re.sub(r"late \d+|reset", "", rest)
        reply, *others = map(bytes_of, pieces.split(" / "))
        split = min(max((len(reply) + 1) // 2 - 1, 0), 255)
        yield bytes([split]) + reply + b"".join(others)


def main():
    target, folder = sys.argv[1], pathlib.Path(sys.argv[2])
    inputs = globals()[target.removeprefix("fuzz_") + "_inputs"]()
    for number, content in enumerate(inputs):
        (folder / f"{number:03}").write_bytes(content)


if __name__ == "__main__":
    main()
