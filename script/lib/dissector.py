#!/usr/bin/env python3
"""Captures real traffic of build/zolserver and checks that wireshark/zol.lua decodes all of it.

Usage: script/checks/dissector      (takes about 30 seconds)

Two servers get the example sessions of docs/protocol.md, and one of them also gets build/zolbots. Every
datagram must decode without an error, and every code must occur in each of its directions. Three
datagrams are wrong on purpose, and only these may cause errors. Capturing on the loopback interface
needs root or membership in the group wireshark (dpkg-reconfigure wireshark-common).

Generated captures check the links between requests and answers, the player of each datagram, that
hostile datagrams cause no Lua error, and that the commands in the documents work.
"""

import concurrent.futures
import contextlib
import importlib
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time

from lib import BUILD, ROOT, build, fail, free_port, start_server, wait_until_ready

replay = importlib.import_module("replay-session")

BOTS = BUILD / "zolbots"
DISSECTOR = ROOT / "wireshark/zol.lua"

CAPTURE = "capture.pcapng"
PING_PERIOD = 10.0  # seconds
SETTLE_SECONDS = 1.0  # time until dumpcap has captured a sent datagram

# Wrong datagrams and the dissector's error: too short, an unknown command, empty.
WRONG = {b"\x64\0\0\0": "malformed", b"\x03": "unknown command", b"": "malformed"}

# Filters that must match in a capture of both servers. "Decode As" sets the port of the second server,
# and the preference sets that of the first. LATIN is a join with a name in Latin-1.
LATIN = b"\x0aB\xf6b\xff" + bytes(61) + b"\x28\0"
DECODED_AS = [
    'zol.datagram == "CMD_JOIN" && zol.name == "B\u00f6b\u00ff" && zol.sender == "client"',
    'zol.datagram == "CMD_JOIN_ACCEPTED" && zol.sender == "server"',
    "zol.malformed",
]

# Texts at the end of the Info column.
INFO = ["CMD_PLAYER_POSITION slot=0 position=(4, 2, 3)", "CMD_POSITION_UPDATE [malformed]",
        "CMD_ENTER_GAME position=(-1, 0.25, 8) in_car=0",
        'CMD_PLAYER_INFO slot=1 just_entered=1 name="Bob" position=(-1, 0.25, 8) in_car=0']

# Display filters for the contents of the sessions. Each must match a datagram.
FLOATS = "zol.position.1 == -1 && zol.position.2 == 0.25 && zol.position.3 == 8"
VALUES = [
    'zol.datagram == "CMD_JOIN" && zol.name == "Alice" && zol.version == 40',
    'zol.datagram == "CMD_PLAYER_INFO" && zol.name == "Bob" && zol.state_f1 == 1.5',
    'zol.datagram == "CMD_PLAYER_GOT_CAR" && zol.car_type == 90 && zol.car_float == 7.5',
    f'zol.datagram == "CMD_ENTER_GAME" && {FLOATS}',
    f'zol.datagram == "CMD_PLAYER_INFO" && {FLOATS}',
    'zol.datagram == "CMD_CHAT_LINE" && zol.text == "Alice: hi"',
    'zol.sender == "server" && zol.command == 41 && zol.slot == 0',
    'zol.datagram == "CMD_ENTER_GAME" && zol.in_car == 0 && !zol.car_type',
]


# Generated captures and the expected links. Each case has a separate server. The lines:
#   a A> NAME bytes   client A sends this datagram, padded with zeros; "a" labels it
#   A< NAME = a       A receives the answer to "a"; without "=", the datagram has no link
#   A< NAME ~ a       the same, but the dissector knows the link only after later answers
#   A> NAME | 3:A 4   the dissector shows these players, with their names if it knows them; "-": none
#   A< NAME @ 3       the dissector shows slot 3 for client A; "-": none
#   A! NAME bytes     A receives an ICMP error that quotes this datagram of A
#   A= 03             A joins with the name "A" and gets slot 3
#   +3                three seconds pass
CASES = {
    "a newer join replaces an older one": """
        A> CMD_JOIN 41 00*64 28
        b A> CMD_JOIN 41 00*64 28
        A< CMD_JOIN_ACCEPTED 00 = b
        A< CMD_JOIN_ACCEPTED 01
        A> CMD_JOIN 41 00*64 27
        d A> CMD_JOIN 41 00*64 28
        A< CMD_JOIN_REFUSED_VERSION
        A< CMD_JOIN_REFUSED_FULL = d
        e A> CMD_JOIN 41 00*64 27
        A< CMD_JOIN_REFUSED_VERSION = e
        A< CMD_JOIN_REFUSED_VERSION""",
    "requests differ by slot and by kind of answer": """
        A= 00
        A> CMD_GET_PLAYER_INFO 01
        b A> CMD_GET_PLAYER_INFO 02
        c A> CMD_GET_PLAYER_STATE 01
        A< CMD_PLAYER_INFO 02 = b
        A< CMD_PLAYER_INFO 01
        A< CMD_PLAYER_STATE 02
        A< CMD_PLAYER_STATE 01 = c""",
    "the records after an entry answer no request": """
        A= 01
        A> CMD_GET_PLAYER_INFO 02
        b A> CMD_ENTER_GAME
        A< CMD_ENTER_GAME_REPLY 03 = b
        c A> CMD_GET_PLAYER_INFO 02
        d A> CMD_GET_PLAYER_INFO 03
        A< CMD_PLAYER_INFO 00
        A< CMD_PING
        A< CMD_PLAYER_INFO 02
        A< CMD_PLAYER_INFO 02 = c
        A< CMD_PLAYER_INFO 03 = d
        e A> CMD_GET_PLAYER_INFO 00
        A< CMD_PLAYER_INFO 00 01
        A< CMD_PLAYER_INFO 00 = e
        f A> CMD_ENTER_GAME
        A< CMD_ENTER_GAME_REPLY 03 = f
        A< CMD_PLAYER_INFO 00
        g A> CMD_GET_PLAYER_INFO 03
        A< CMD_PLAYER_INFO 03 = g
        A> CMD_ENTER_GAME
        A> CMD_GET_PLAYER_INFO 02
        A< CMD_PLAYER_INFO 02""",
    "answers without a slot are linked if none is lost": """
        A= 00
        a A> CMD_CAR_STATE
        b A> CMD_LEAVE_CAR
        A< CMD_GAME_CLOCK ~ a
        A< CMD_GAME_CLOCK = b
        A> CMD_CAR_STATE
        A> CMD_CAR_STATE
        A< CMD_GAME_CLOCK
        e A> CMD_GET_PLAYER_STATE 01
        A< CMD_PLAYER_STATE 01 = e
        f A> CMD_CAR_STATE
        A! CMD_CAR_STATE
        A< CMD_GAME_CLOCK = f
        A> CMD_CAR_STATE
        +3
        h A> CMD_CAR_STATE
        B< CMD_GAME_CLOCK
        A< CMD_GAME_CLOCK = h
        A> CMD_CAR_STATE
        i A> CMD_GET_PLAYER_STATE 01
        j A> CMD_CAR_STATE
        A< CMD_PLAYER_STATE 01 = i
        A< CMD_GAME_CLOCK = j""",
    "the server answers only some requests": """
        A= 00
        A> CMD_STATE_FLOATS
        a A> CMD_CAR_STATE
        A< CMD_GAME_CLOCK = a
        A> CMD_DIED 01
        b A> CMD_STATE_FLOATS
        A< CMD_GAME_CLOCK = b
        c A> CMD_CAR_BLOCK_A
        A< CMD_NOT_IN_CAR 00 = c
        A> CMD_VEHICLE 01
        A> CMD_CAR_BLOCK_A
        A> CMD_FOOT_UPDATE
        d A> CMD_CAR_BLOCK_B
        A< CMD_NOT_IN_CAR 00 = d
        A> CMD_VEHICLE 01
        A= 01
        A> CMD_STATE_FLOATS
        e A> CMD_CAR_STATUS
        A< CMD_NOT_IN_CAR 01 = e
        g A> CMD_LEAVE_CAR
        A< CMD_GAME_CLOCK = g
        A> CMD_ENTER_GAME 00*31 01
        A> CMD_CAR_STATUS
        A> CMD_LEAVE_CAR
        f A> CMD_CAR_STATUS
        A< CMD_NOT_IN_CAR 01 = f""",
    "a death and the end of a ride are not captured": """
        A= 00
        A> CMD_STATE_FLOATS
        A< CMD_GAME_CLOCK
        a A> CMD_STATE_FLOATS
        A< CMD_GAME_CLOCK = a
        A> CMD_VEHICLE 01
        A> CMD_CAR_STATUS
        A< CMD_NOT_IN_CAR 00
        b A> CMD_CAR_STATUS
        A< CMD_NOT_IN_CAR 00 = b""",
    "the capture starts in the middle of a game": """
        A> CMD_STATE_FLOATS
        A> CMD_CAR_STATE
        A< CMD_GAME_CLOCK
        B> CMD_STATE_FLOATS
        B> CMD_CAR_BLOCK_A
        a B> CMD_GET_PLAYER_STATE 01
        B< CMD_PLAYER_STATE 01 = a
        B> CMD_STATE_FLOATS
        b B> CMD_LEAVE_CAR
        B< CMD_GAME_CLOCK = b
        c B> CMD_CAR_STATUS
        B< CMD_NOT_IN_CAR 04 = c
        C> CMD_STATE_FLOATS
        C> CMD_STATE_FLOATS
        C> CMD_CAR_BLOCK_A
        C< CMD_GAME_CLOCK
        d C> CMD_GET_PLAYER_STATE 01
        C< CMD_PLAYER_STATE 01 = d
        e C> CMD_STATE_FLOATS
        C< CMD_GAME_CLOCK = e
        C> CMD_CAR_BLOCK_A
        C> CMD_FOOT_UPDATE
        f C> CMD_CAR_BLOCK_A
        C< CMD_NOT_IN_CAR 05 = f""",
    "pings": """
        a A< CMD_PING
        A> CMD_PING_REPLY = a
        A> CMD_PING_REPLY
        A< CMD_PING
        b A< CMD_PING
        A> CMD_PING_REPLY = b""",
    "the player of a datagram": """
        A> CMD_WEAPON @ - | -
        j A> CMD_JOIN 41 00*64 28 @ 3 | 3:A
        A< CMD_JOIN_ACCEPTED 03 = j @ 3 | 3:A
        B= 04
        A> CMD_WEAPON @ 3 | 3:A
        B< CMD_PLAYER_WEAPON 03 @ 4 | 3:A
        B< CMD_PLAYER_STATE_FLOATS @ 4 | -
        B< CMD_PING @ 4 | 4:B
        B< CMD_PINKPANTHER 64 @ 4 | -
        B< CMD_PLAYER_INFO 03 01 41 @ 4 | 3:A
        a B> CMD_GET_PLAYER_INFO 03 @ 4 | 4:B 3:A
        B< CMD_PLAYER_INFO 03 00 41 6c = a @ 4 | 4:B 3:Al
        A> CMD_CHAT 68 @ 3 | 3:Al
        A= 05
        D= 03
        A> CMD_WEAPON @ 5 | 5:A
        B< CMD_PLAYER_LEFT 05 @ 4 | 5:A
        A> CMD_WEAPON @ - | -
        C= 04
        B> CMD_WEAPON @ - | -
        C> CMD_WEAPON @ 4 | 4:C
        C> CMD_PLAYER_LEFT @ 4 | 4:C
        C> CMD_WEAPON @ - | -""",
    "the join of a player is not captured": """
        A> CMD_WEAPON @ - | -
        A< CMD_NOT_IN_CAR 06 @ 6 | 6
        A> CMD_WEAPON @ 6 | 6
        B< CMD_PLAYER_INFO 06 01 41 @ - | 6:A
        A> CMD_WEAPON @ 6 | 6:A
        A< CMD_SERVER_SHUTDOWN @ 6 | 6:A
        A> CMD_WEAPON @ - | -""",
}

# The request codes that each answer code may link to, for the hostile datagrams.
ANSWERS = {2: {1}, 12: {10}, 14: {10}, 17: {10}, 16: {15}, 42: {40}, 43: {41}, 72: {101, 102, 123},
           41: {120, 121, 124}}
HOSTILE = 2000  # datagrams

# The user that runs the commands of each document. The stand-in programs have the permissions of
# Debian: root may capture but not decode, because Wireshark ignores Lua scripts for root.
STARTS_AS = {"docs/wireshark.md": "user", "docs/operating.md": "root"}
STAND_IN = """#!/bin/sh
case ${0##*/} in
sudo) ZOL_USER=root exec "$@" ;;
runuser)
  [ "$ZOL_USER $1 $2 $3" = "root -u nobody --" ] || exit 1
  shift 3
  ZOL_USER=nobody exec "$@" ;;
dumpcap)
  [ "$ZOL_USER" = root ] || exit 1
  case " $* " in *" -w - "*) exec cat CAPTURE ;; *) exit 1 ;; esac ;;
tshark | wireshark)
  [ "$ZOL_USER" != root ] || exit 1
  exec TSHARK "$@" ;;
esac
"""
INSTALLED = "/usr/share/doc/zolserver/examples/zol.lua"
# For each document, lines of the commands' output: each must contain all words of a list.
SHOWN = {
    "docs/wireshark.md": [["ZOL", "CMD_ENTER_GAME position=(1, 2, 3)"]],
    "docs/operating.md": [["10.0.0.10", "50001", "Bob"], ["10.0.0.9", "50000", "Alice", "hi"]],
}


def stop(process, how):
    process.send_signal(how)
    process.wait(timeout=10)


@contextlib.contextmanager
def killed_at_the_end(process):
    try:
        yield process
    finally:
        process.kill()
        process.wait()


def start_capture(port, directory):
    """Starts dumpcap. Returns its process and the file of its output."""
    command = ["dumpcap", "-q", "-i", "lo", "-f", f"udp port {port}", "-B", "32", "-w", CAPTURE]
    log = directory / "dumpcap.log"
    with log.open("w") as output:
        process = subprocess.Popen(command, cwd=directory, stdout=output, stderr=output)
    wait_until_ready(process, log, "File:")
    return process, log


def end_capture(process, log):
    stop(process, signal.SIGINT)
    counts = re.search(r"received/dropped on interface .*: (\d+)/(\d+)", log.read_text())
    if not counts or counts[2] != "0":
        fail(f"dumpcap dropped datagrams or printed no count: {counts and counts[0]}")


def run(*command):
    if subprocess.run([str(word) for word in command], check=False).returncode != 0:
        fail(f"{pathlib.Path(command[0]).name} failed")


def play_default(port):
    run(ROOT / "script/replay-session", f"127.0.0.1:{port}", "session")
    run(BOTS, "--server", f"127.0.0.1:{port}", "--players", "8", "--seconds", "3")


def play_pinkpanther(port):
    """Leaves a player in the game, so that the capture contains CMD_PING and CMD_SERVER_SHUTDOWN."""
    started = time.monotonic()
    run(ROOT / "script/replay-session", f"127.0.0.1:{port}", "session-pinkpanther")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
        for datagram in [LATIN, *WRONG]:
            stranger.sendto(datagram, ("127.0.0.1", port))
    time.sleep(max(0.0, started + PING_PERIOD + SETTLE_SECONDS - time.monotonic()))


def record(settings, play, directory):
    """Captures the traffic of a server from start to stop. Returns its port and the capture file."""
    directory.mkdir()
    port = free_port()
    capturing, log = start_capture(port, directory)
    with killed_at_the_end(capturing):
        server, _ = start_server(directory, f"Port={port}\n{settings}")
        with killed_at_the_end(server):
            play(port)
            stop(server, signal.SIGTERM)
        time.sleep(SETTLE_SECONDS)
        end_capture(capturing, log)
    return port, directory / CAPTURE


def reader(*paths):
    """Makes these paths readable, and returns a command prefix: for root, it runs the command as the
    user nobody, because Wireshark 4.4 and later ignore Lua scripts for root."""
    for path in paths:
        os.chmod(path, 0o755 if path.is_dir() else 0o644)
    if os.geteuid() != 0:
        return []
    return ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"]


def tshark(port, capture, *options):
    """Returns the lines that tshark prints for a capture."""
    directory = capture.parent
    script = pathlib.Path(shutil.copy(DISSECTOR, directory))
    prefix = reader(directory.parent, directory, script, capture)
    environment = os.environ | {"HOME": str(directory), "WIRESHARK_CONFIG_DIR": str(directory)}
    result = subprocess.run(
        [*prefix, "tshark", "-n", "-r", capture, "-X", f"lua_script:{script}", "-o",
         f"zol.port:{port}", *options],
        capture_output=True, text=True, errors="replace", env=environment, check=False)
    if result.returncode != 0 or "lua" in result.stderr.lower():
        fail(f"tshark failed:\n{result.stderr}")
    return result.stdout.splitlines()


def fields_of(port, capture, columns, *options):
    """Returns the columns of each datagram, as text. Decodes all ports as ZOL, because a client's
    random port may belong to another protocol in Wireshark."""
    columns = [word for column in columns for word in ("-e", column)]
    lines = tshark(port, capture, "-d", "udp.port==1-65535,zol", "-T", "fields",
                   "-E", "separator=/t", "-E", "aggregator=|", *columns, *options)
    return [line.split("\t") for line in lines]


def check_found(port, capture, filters, *options):
    """Checks that each display filter matches a datagram."""
    lines = tshark(port, capture, *options, "-q", "-z", ",".join(["io,stat,0", *filters]))
    total = [line for line in lines if "<>" in line][-1]
    counts = [int(number) for number in re.findall(r"\d+", total.split("|", 2)[2])][::2]
    if len(counts) != len(filters):
        fail(f"tshark printed no count for some of {len(filters)} filters:\n" + "\n".join(lines))
    for text, count in zip(filters, counts):
        if count == 0:
            fail(f"no datagram matches the filter {text}")


def decode(port, capture):
    """Returns protocols, sender, code, errors and Info column of each datagram."""
    return fields_of(port, capture, ["frame.protocols", "zol.sender", "zol.command",
                                     "_ws.expert.message", "_ws.col.Info"])


def check_datagrams(rows):
    """Returns the pairs (sender, code) found. The errors must be exactly those of WRONG."""
    complaints = []
    seen = set()
    for protocols, sender, code, messages, info in rows:
        if not sender:
            fail(f"not decoded as ZOL: {protocols} {info}")
        # Wireshark adds this message for some port numbers, and the random port may be one of them.
        of_datagram = [text for text in messages.split("|")
                       if text and not text.startswith("Possible traceroute")]
        complaints += [(text, info) for text in of_datagram]
        if not of_datagram:
            seen.add((sender, int(code)))
    expected = sorted(WRONG.values())
    if sorted(text.split(":")[0] for text, _ in complaints) != expected:
        fail(f"expected the errors {expected}, got:\n" + "\n".join(map(str, complaints)))
    return seen


def check_coverage(seen):
    layouts = re.findall(r'^  \{"(client|server)", (\d+), "CMD_', DISSECTOR.read_text(), re.M)
    missing = {(sender, int(code)) for sender, code in layouts} - seen
    if missing or not layouts:
        fail(f"datagrams that were not captured: {sorted(missing)}")


def layout_sizes():
    rows = re.findall(r'^  \{"(client|server)", \d+, "(CMD_\w+)", (\d+)', DISSECTOR.read_text(),
                      re.M)
    return {(sender, name): int(size) for sender, name, size in rows}


SIZES = layout_sizes()
SERVER_PORT = 16309


def client_address(client):
    return bytes([10, 0, 0, ord(client) - 56]), ord(client) - 65 + 50000


def ip_packet(source, destination, payload, protocol):
    return struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), 0, 0, 64, protocol, 0,
                       source, destination) + payload


def packet(client, direction, payload, server=0):
    """Returns a datagram between a client and a server, as an IP packet."""
    peers = [client_address(client), (bytes([127, 0, 1, server]), SERVER_PORT)]
    source, destination = peers if direction != "<" else reversed(peers)
    udp = struct.pack("!HHHH", source[1], destination[1], 8 + len(payload), 0) + payload
    quoted = ip_packet(source[0], destination[0], udp, 17)
    if direction != "!":
        return quoted
    return ip_packet(destination[0], source[0], b"\3\3" + bytes(6) + quoted, 1)


def write_capture(path, packets):
    """Writes a capture file. `packets` are pairs (microseconds, IP packet)."""
    path.parent.mkdir()
    raw_ip = 101
    with path.open("wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, raw_ip))
        for time_us, data in packets:
            seconds, rest = divmod(time_us, 1000000)
            file.write(struct.pack("<IIII", seconds, rest, len(data), len(data)) + data)


def expand_joins(lines):
    for line in lines.split("\n"):
        if joined := re.match(r" *([A-Z])= (\S+)$", line):
            client, slot = joined.groups()
            number = int(slot, 16)
            yield f"join{client}{slot} {client}> CMD_JOIN {ord(client):02x} 00*64 28"
            yield f"{client}< CMD_JOIN_ACCEPTED {slot} = join{client}{slot} | {number}:{client}"
        elif line.strip():
            yield line


LINE = re.compile(r" *(?:(?P<label>\w+) )?(?P<client>[A-Z])(?P<direction>[<>!]) "
                  r"(?P<text>CMD_[^=~@|]*)"
                  r"(?:(?P<sure>[=~]) (?P<request>\w+) ?)?(?:@ (?P<slot>\S+) ?)?"
                  r"(?:\| (?P<players>.+))?$")


def read_cases():
    """Returns the packets of all cases, and for each the match of its line and the number of the frame
    that it answers."""
    packets, expected = [], []
    time_us = 0
    for server, lines in enumerate(CASES.values()):
        frames = {}
        for line in expand_joins(lines):
            if line.strip()[0] == "+":
                time_us += 1000000 * int(line.strip()[1:])
                continue
            parts = LINE.match(line) or fail(f"cannot parse a line of CASES: {line}")
            sender = "server" if parts["direction"] == "<" else "client"
            datagram = replay.expand(parts["text"])
            datagram = datagram.ljust(SIZES[sender, parts["text"].split()[0]], b"\0")
            time_us += 1500
            packets.append((time_us, packet(parts["client"], parts["direction"], datagram, server)))
            frames[parts["label"]] = len(packets)
            expected.append((parts, frames[parts["request"]] if parts["request"] else None))
    return packets, expected


def check_case(parts, answers, answered_in, row, packets):
    """Checks the links and the players that the dissector shows for a frame."""
    number, response_in, response_to, response_time, slot, players, names = row
    wanted = {"response to": str(answers or ""), "response in": str(answered_in or "")}
    shown = {"response to": response_to, "response in": response_in}
    if answers:
        wanted["time"] = f"{(packets[int(number) - 1][0] - packets[answers - 1][0]) / 1e6:.9f}"
        shown["time"] = response_time
    if parts["slot"]:
        wanted["slot"], shown["slot"] = parts["slot"].strip("-"), slot
    if parts["players"]:
        pairs = [pair.partition(":") for pair in parts["players"].strip("-").split()]
        wanted["players"] = ["|".join(pair[0] for pair in pairs),
                             "|".join(pair[2] for pair in pairs if pair[2])]
        shown["players"] = [players, names]
    if shown != wanted:
        fail(f"frame {number}, {parts[0].strip()}:\nexpected {wanted}\nshown    {shown}")


LINK_COLUMNS = ["frame.number", "zol.response_in", "zol.response_to", "zol.response_time",
                "zol.client", "zol.player", "zol.player_name"]


def check_cases(directory):
    packets, expected = read_cases()
    capture = directory / CAPTURE
    write_capture(capture, packets)
    rows = fields_of(SERVER_PORT, capture, LINK_COLUMNS, "-2")
    if len(rows) != len(expected):
        fail(f"the capture has {len(expected)} datagrams, but tshark shows {len(rows)}")
    answered_in = {answers: frame for frame, (_, answers) in enumerate(expected, 1)}
    for frame, ((parts, answers), row) in enumerate(zip(expected, rows), 1):
        check_case(parts, answers, answered_in.get(frame), row, packets)
    # Again with resolved names, where all servers have the same name and different addresses.
    hosts = directory / "hosts"
    hosts.write_text("".join(f"127.0.1.{server} server\n" for server in range(len(CASES))))
    once = fields_of(SERVER_PORT, capture, [*LINK_COLUMNS, "_ws.col.Source"],
                     "-N", "n", "-H", hosts)
    if not any(row[-1] == "server" for row in once):
        fail("tshark does not show the servers' name")
    for (parts, answers), row in zip(expected, once):
        if row[2] != (str(answers) if answers and parts["sure"] == "=" else ""):
            fail(f"frame {row[0]}, {parts[0].strip()}: in a single pass, a response to {row[2]}")
        if parts["slot"] == "-" and row[4]:
            fail(f"frame {row[0]}, {parts[0].strip()}: in a single pass, the slot {row[4]}")


def hostile_packets():
    """Returns datagrams of the sessions that are reordered, repeated, cut or changed, with random
    addresses and times."""
    source = random.Random(40)
    datagrams = [(direction, datagram) for name in ("session", "session-pinkpanther")
                 for _, direction, datagram in replay.read_session(name)]
    packets = []
    while len(packets) < HOSTILE:
        direction, datagram = source.choice(datagrams)
        kind = source.randrange(10)
        if kind == 0:
            datagram = datagram[:source.randrange(len(datagram))]
        elif kind == 1:
            datagram = source.randbytes(source.randrange(300))
        elif kind == 2:
            datagram = datagram[:1] + source.randbytes(len(datagram) - 1)
        elif kind == 3:
            direction = source.choice("<>!")
        data = packet(source.choice("ABC"), direction, datagram, source.randrange(2))
        copies = [(source.randrange(1 << 50), data)] * source.choice([1, 1, 1, 2])
        packets += copies
    return packets


def check_hostile(directory):
    """Checks with one pass and with two that no Lua error occurs, and that each link is between one
    request and one later answer to the same client."""
    capture = directory / CAPTURE
    write_capture(capture, hostile_packets())
    for options in ((), ("-2",)):
        columns = ["zol.response_in", "zol.response_to", "zol.command", "zol.sender", "ip.src",
                   "ip.dst", "_ws.expert.message"]
        rows = fields_of(SERVER_PORT, capture, columns, *options)
        if any("Lua" in row[6] or "rror" in row[6] for row in rows):
            fail("a hostile datagram causes an error:\n" +
                 "\n".join(row[6] for row in rows if "rror" in row[6])[:2000])
    links = 0
    for frame, (_, response_to, command, sender, source, destination, _) in enumerate(rows, 1):
        if not response_to:
            continue
        links += 1
        request = rows[int(response_to) - 1]
        if (int(request[2]) not in ANSWERS[int(command)] or int(response_to) >= frame or
                request[0] != str(frame) or request[3] == sender or
                (request[4], request[5]) != (destination, source)):
            fail(f"frame {frame} is shown as the answer to frame {response_to}")
    if links < HOSTILE // 100:
        fail(f"only {links} hostile datagrams have a link, so the check proves little")


def commands_of(document):
    """Returns the blocks of code that capture or decode."""
    text = (ROOT / document).read_text()
    blocks = re.findall(r"^```sh\n(.*?)^```$", text, re.M | re.S)
    blocks += re.findall(r"(?:^    .*\n)+", text, re.M)
    return [block for block in blocks if re.search(r"\b(tshark|wireshark|dumpcap) ", block)]


def check_commands(directory):
    """Checks that the documented commands show the example session, and do not run tshark as root."""
    capture = directory / CAPTURE
    write_capture(capture, [(1000 * frame, packet(player, direction, datagram))
                            for frame, (player, direction, datagram)
                            in enumerate(replay.read_session("session"))])
    programs, script = directory / "bin", directory / "wireshark" / DISSECTOR.name
    programs.mkdir()
    script.parent.mkdir()
    shutil.copy(DISSECTOR, script)
    for name in ("sudo", "runuser", "dumpcap", "tshark", "wireshark"):
        text = STAND_IN.replace("CAPTURE", str(capture)).replace("TSHARK", shutil.which("tshark"))
        (programs / name).write_text(text)
        (programs / name).chmod(0o755)
    prefix = reader(directory.parent, directory, script.parent, script, programs, capture)
    directory.chmod(0o777)
    for document, user in STARTS_AS.items():
        shown = ""
        for block in commands_of(document):
            environment = os.environ | {"HOME": "/root", "ZOL_USER": user,
                                        "PATH": f"{programs}:{os.environ['PATH']}"}
            result = subprocess.run(
                [*prefix, "sh", "-ec", block.replace(INSTALLED, str(script))], cwd=directory,
                capture_output=True, text=True, errors="replace", env=environment, check=False)
            if result.returncode != 0 or not result.stdout:
                fail(f"{document}: these commands fail or print nothing:\n{block}{result.stderr}")
            shown += result.stdout
        for words in SHOWN[document]:
            if not any(all(word in line for word in words) for line in shown.splitlines()):
                fail(f"{document}: no command prints a line with {words}:\n{shown}")


def main():
    build("zolserver", "zolbots")
    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name)
        with concurrent.futures.ThreadPoolExecutor() as pool:
            recording = pool.submit(record, "GameType=1\nmaxClients=2\n", play_pinkpanther,
                                    directory / "pinkpanther")  # waits 10 seconds for a ping
            check_cases(directory / "cases")
            check_hostile(directory / "hostile")
            check_commands(directory / "commands")
            default = record("", play_default, directory / "default")
            pinkpanther = recording.result()
        rows = decode(*default) + decode(*pinkpanther)
        check_coverage(check_datagrams(rows))
        for text in INFO:
            if not any(info.endswith(text) for *_, info in rows):
                fail(f"no Info column ends with {text}")
        check_found(*default, VALUES, "-d", "udp.port==1-65535,zol")
        merged = directory / "merged.pcapng"
        run("mergecap", "-w", merged, default[1], pinkpanther[1])
        check_found(default[0], merged, DECODED_AS, "-d", f"udp.port=={pinkpanther[0]},zol")
    print(f"dissector: {len(rows)} datagrams decoded, with every command")


if __name__ == "__main__":
    main()
