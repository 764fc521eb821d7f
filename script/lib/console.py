#!/usr/bin/env python3
"""Checks that a slow console delays no player: two players exchange positions while a third one makes
the server print more lines than its console takes.

Usage: script/checks/console [ZOLSERVER]      (default: build/zolserver; takes half a minute)

Runs all kinds of consoles at the same time, each with a separate server."""

import contextlib
import os
import re
import select
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time
import tty

from lib import BUILD, Player, build, fail, free_port

WEAPONS_PER_S = 1900
POSITIONS_PER_S, SECONDS = 20, 15
SETTLE_S = 2  # time to handle the datagrams queued while the server first waited for its console
LEAST_SHARE, MOST_P90_S = 0.98, 0.030
NOTICE = re.compile(rb"^\d+ lines are missing here$", re.M)
WEAPON, POSITION, RELAY = 122, 100, 200

# For each console: its kind, the bytes per second that the reader takes, and whether the server is
# allowed to reopen it.
CONSOLES = {
    "fast pipe": ("pipe", 1_000_000, True),
    "pipe": ("pipe", 11_500, True),
    "pipe of another user": ("pipe", 11_500, False),
    "terminal": ("terminal", 11_500, True),
    "terminal of another user": ("terminal", 11_500, False),
    "slow terminal": ("terminal", 3_000, True),
    "socket": ("socket", 11_500, True),
}


def open_console(kind):
    """Returns the reader's and the server's end of a new console."""
    if kind == "pipe":
        return os.pipe()
    if kind == "terminal":
        reader, writer = os.openpty()
        tty.setraw(writer)
        return reader, writer
    reader, writer = socket.socketpair()
    return reader.detach(), writer.detach()


def read_slowly(reader, rate, log):
    """Reads at this rate until the server has ended. At a terminal's end, the read fails."""
    start, taken = time.monotonic(), 0
    with contextlib.suppress(OSError):
        while True:
            due = int((time.monotonic() - start) * rate) - taken
            if due > 0:
                select.select([reader], [], [])
                text = os.read(reader, min(due, 4096))
                if not text:
                    return
                log += text
                taken += due  # does not read faster after a pause
            time.sleep(0.005)


def change_weapons(player, done):
    start, sent = time.monotonic(), 0
    while not done.is_set():
        while sent < (time.monotonic() - start) * WEAPONS_PER_S:
            player.socket.send(bytes([WEAPON, sent % 256]))
            sent += 1
        time.sleep(0.001)


def exchange_positions(sender, receiver):
    """Sends positions for SECONDS. Returns the delays of those that arrived, in seconds."""
    delays = []
    start = time.monotonic()
    end = start + SECONDS
    sent = 0
    while (now := time.monotonic()) < end + 1:
        if now >= start + sent / POSITIONS_PER_S and now < end:
            sender.socket.send(struct.pack("<Bxxxdi", POSITION, now, 0))
            sent += 1
        due = start + sent / POSITIONS_PER_S if now < end else end + 1
        receiver.socket.settimeout(max(due - time.monotonic(), 0.001))
        with contextlib.suppress(TimeoutError):
            relay = receiver.socket.recv(256)
            if relay[0] == RELAY:
                delays.append(time.monotonic() - struct.unpack_from("<d", relay, 4)[0])
    return delays


def complaints(delays, log, is_slow):
    """Yields the problems with the sorted delays and the log of a console."""
    if len(delays) < LEAST_SHARE * POSITIONS_PER_S * SECONDS:
        yield f"only {len(delays)} of {POSITIONS_PER_S * SECONDS} positions arrived"
    elif statistics.quantiles(delays, n=10)[-1] > MOST_P90_S:
        yield f"the delay's p90 is {statistics.quantiles(delays, n=10)[-1] * 1000:.1f} ms"
    if is_slow != bool(NOTICE.search(log)):
        yield "no notice of missing lines" if is_slow else "lines are missing on a fast console"


def check_complaints():
    """Checks that complaints() detects each problem."""
    whole, line, notice = [0.001] * 300, b"Player 1 reconnected\n", b"12 lines are missing here\n"
    for delays, log, is_slow, wanted in (
        (whole, line + notice, True, 0), (whole, line, False, 0), (whole[:294], line, False, 0),
        (whole[:293], line, False, 1), ([0.001] * 260 + [0.1] * 40, line, False, 1),
        (whole, line, True, 1), (whole, line + notice, False, 1), ([], line, True, 2),
    ):
        if len(list(complaints(delays, log, is_slow))) != wanted:
            fail(f"complaints() is wrong about {len(delays)} delays and {log}")


def try_console(program, name):
    kind, rate, may_reopen = CONSOLES[name]
    reader, writer = open_console(kind)
    if not may_reopen:
        os.fchmod(writer, 0)
    port, log, done = free_port(), bytearray(), threading.Event()
    with tempfile.TemporaryDirectory() as folder:
        with open(f"{folder}/zolserver.cfg", "w", encoding="ascii") as settings:
            settings.write(f"Port={port}\n")
        # Removes root's privilege to open every file.
        command = ["setpriv", "--securebits=+noroot"] if os.getuid() == 0 else []
        server = subprocess.Popen([*command, program], cwd=folder, stdout=writer)
        os.close(writer)
        reading = threading.Thread(target=read_slowly, args=(reader, rate, log), daemon=True)
        reading.start()
        while b"---\n" not in log and server.poll() is None:
            time.sleep(0.01)
        players = [Player(("127.0.0.1", port)) for _ in range(3)]
        flood = threading.Thread(target=change_weapons, args=(players[2], done))
        flood.start()
        is_slow = rate < 1_000_000
        end = time.monotonic() + 30
        while is_slow and not NOTICE.search(log) and time.monotonic() < end:
            time.sleep(0.1)
        time.sleep(SETTLE_S)
        delays = sorted(exchange_positions(*players[:2]))
        done.set()
        flood.join()
        server.send_signal(signal.SIGTERM)
        server.wait(20)
        reading.join(30)
    if delays:
        milliseconds = [delays[len(delays) * part // 100] * 1000 for part in (50, 90)]
        milliseconds.append(delays[-1] * 1000)
        print(f"{name:26} {len(delays):4}  {'  '.join(f'{each:8.2f}' for each in milliseconds)}")
    problems = list(complaints(delays, bytes(log), is_slow))
    for problem in problems:
        print(f"{name}: {problem}")
    return not problems


def main():
    program = os.path.realpath(sys.argv[1]) if len(sys.argv) > 1 else str(BUILD / "zolserver")
    if len(sys.argv) == 3:
        sys.exit(0 if try_console(program, sys.argv[2]) else 1)
    check_complaints()
    if len(sys.argv) == 1:
        build("zolserver")
    print(f"{'console':26} {'of 300':>6} {'median':>7} {'p90':>9} {'max, ms':>10}", flush=True)
    tries = [subprocess.Popen([sys.executable, __file__, program, name]) for name in CONSOLES]
    if any([each.wait() != 0 for each in tries]):
        fail("a console delays players or loses its notice; see above")
    print("console: no console delays a player")


if __name__ == "__main__":
    main()
