#!/usr/bin/env python3
"""Replays an example session of docs/protocol.md on a server that has just started.

Usage: script/replay-session [HOST:PORT [SESSION]]      (default: 127.0.0.1:16309 session)

SESSION is the name after the ``` of the block: session or session-pinkpanther. Each player must receive
its datagrams in the order of the block, byte for byte, and no others. Exceptions: the time of day in
CMD_ENTER_GAME_REPLY and CMD_GAME_CLOCK may differ, and each player may receive CMD_PING.
"""

import re
import socket
import sys

from lib import ROOT, command_codes

DOCUMENT = ROOT / "docs/protocol.md"
CODES = command_codes()
TIME_OF_DAY = {16: slice(2, 4), 72: slice(1, 3)}  # bytes of the datagram, by code
PING = b"\x01"
REPLY_SECONDS = 2.0
SILENCE_SECONDS = 0.2


def expand(text):
    """Returns the bytes of a text such as "CMD_JOIN 42 00*3"."""
    name, *rest = text.split()
    datagram = bytearray([CODES[name]])
    for token in rest:
        byte, _, count = token.partition("*")
        datagram += bytes([int(byte, 16)]) * int(count or 1)
    return bytes(datagram)


def read_session(name):
    """Returns the lines of a block, as (player, "<" or ">", datagram)."""
    block = re.search(rf"^```{name}\n(.*?)^```$", DOCUMENT.read_text(), re.M | re.S)
    if block is None:
        sys.exit(f"replay-session: {DOCUMENT.name} has no block {name}")
    lines = [line for line in block[1].splitlines() if not line.startswith("#")]
    if not lines:
        sys.exit(f"replay-session: the block {name} of {DOCUMENT.name} is empty")
    return [(line[0], line[1], expand(line[2:])) for line in lines]


def without_time(datagram):
    masked = bytearray(datagram)
    time_of_day = TIME_OF_DAY.get(datagram[0])
    if time_of_day:
        masked[time_of_day] = b"\0\0"
    return bytes(masked)


def receive(player, seconds):
    """Returns the next datagram that is no ping, or None after this time."""
    player.settimeout(seconds)
    try:
        while (datagram := player.recv(65536)) == PING:
            pass
        return datagram
    except TimeoutError:
        return None


def replay(server, lines):
    players = {}
    for number, (name, direction, datagram) in enumerate(lines, 1):
        if name not in players:
            players[name] = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            players[name].connect(server)
        if direction == ">":
            players[name].send(datagram)
            continue
        received = receive(players[name], REPLY_SECONDS)
        if received is None or without_time(received) != without_time(datagram):
            shown = received.hex(" ") if received else "nothing"
            sys.exit(f"replay-session: datagram {number}: player {name} received {shown}\n"
                     f"instead of {datagram.hex(' ')}")
    for name, player in players.items():
        if (extra := receive(player, SILENCE_SECONDS)) is not None:
            sys.exit(f"replay-session: player {name} received {extra.hex(' ')}, "
                     "which is not in the session")


def main():
    address = sys.argv[1] if len(sys.argv) > 1 else "127.0.0.1:16309"
    session = sys.argv[2] if len(sys.argv) > 2 else "session"
    host, port = address.rsplit(":", 1)
    lines = read_session(session)
    try:
        replay((host, int(port)), lines)
    except ConnectionRefusedError:
        sys.exit(f"replay-session: no server listens at {address}; start one first")
    print(f"{session}: {len(lines)} datagrams as documented")


if __name__ == "__main__":
    main()
