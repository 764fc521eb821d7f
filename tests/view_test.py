"""Tests zolview in a terminal, on a real server.

Usage: view_test.py ZOLSERVER ZOLVIEW [TEST...]"""

import contextlib
import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import sys
import termios
import time
import unittest

import pyte

from server_case import PATIENCE_S, Player, ServerCase

ZOLVIEW = os.path.realpath(sys.argv.pop(1))
MAP_COLUMNS, MAP_ROWS = 41, 17  # the map's size on a terminal of 80 columns and 24 rows
TITLE = "Welcome to this Harn Tor Multiplayer Server - have fun"

def state(x=0.0, y=0.0, weapon=0):
    return struct.pack("<fffxxxxBxxxxxxxxxxx", x, y, float("nan"), weapon)


class Guest(Player):
    """A player in the game, with any bytes as its name."""

    def __init__(self, port, name, *place, car=None):
        super().__init__(port)
        self.socket.send(b"\n" + name.ljust(65, b"\0") + b"\x28\0")
        self.slot = self.heard()[1]
        ride = bytes([car is not None, 0, 0, 0, car or 0]) + bytes(63)
        self.socket.send(b"\x0f\0\0\0" + state(*place) + ride)
        while self.heard()[0] != 16:
            pass

    def move(self, x, y):
        self.socket.send(struct.pack("<Bxxxfff", 100, x, y, 0))

    def heard_of(self, code):
        while (heard := self.heard())[0] != code:
            pass
        return heard


class Terminal:
    """zolview on a pseudo-terminal, and the text that the terminal shows."""

    def __init__(self, case, *arguments, term="linux", size=(24, 80), server=None):
        self.case = case
        self.screen = pyte.Screen(size[1], size[0])
        self.stream = pyte.ByteStream(self.screen)
        self.bytes = b""
        self.master, self.slave = pty.openpty()
        case.addCleanup(self.hang_up)
        self.resize(*size)
        self.before = termios.tcgetattr(self.slave)
        self.process = subprocess.Popen(
            [ZOLVIEW, *arguments, server or f"127.0.0.1:{case.port}"], stdin=self.slave, stdout=self.slave,
            stderr=self.slave, env={"TERM": term, "LC_ALL": "C.UTF-8"}, start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
        )  # fmt: skip
        case.addCleanup(self.process.wait)
        case.addCleanup(self.process.kill)

    def hang_up(self):
        for handle in (self.master, self.slave):
            with contextlib.suppress(OSError):
                os.close(handle)

    def resize(self, rows, columns):
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        self.screen.resize(rows, columns)

    def press(self, keys):
        os.write(self.master, keys.encode())

    def read(self, wait_s):
        if select.select([self.master], [], [], wait_s)[0]:
            more = os.read(self.master, 65536)
            self.bytes += more
            self.stream.feed(more)

    def rows(self):
        return [row.rstrip() for row in self.screen.display]

    def until(self, is_shown):
        """Waits until the condition holds for the rows of the screen."""
        end = time.monotonic() + PATIENCE_S
        while not is_shown(self.rows()):
            if time.monotonic() > end:
                self.case.fail("not seen:\n" + "\n".join(self.rows()))
            self.read(0.05)

    def until_equal(self, seen, expected):
        self.until(lambda _: seen() == expected)

    def until_text(self, text):
        self.until(lambda rows: any(text in row for row in rows))

    def map(self):
        rows = self.screen.display[:MAP_ROWS]
        return [row[:MAP_COLUMNS].rstrip() for row in rows]

    def marks(self):
        return [line.strip() for line in self.map() if line]

    def list(self):
        """Returns the rows of the list, without the seconds since the last datagram."""
        rows = self.screen.display[2:MAP_ROWS]
        return [row[MAP_COLUMNS + 1 :].rsplit(None, 1)[0] for row in rows if row[42:].strip()]

    def colour_of(self, text):
        for y, row in enumerate(self.screen.display):
            if text in row:
                return self.screen.buffer[y][row.index(text)].fg
        return None


class ViewCase(ServerCase):
    def guest(self, *arguments, **options):
        guest = Guest(self.port, *arguments, **options)
        self.addCleanup(guest.socket.close)
        return guest


class ViewTest(ViewCase):
    def test_keeps_its_columns_with_wide_names(self):
        self.start_and_wait("")
        self.guest("車".encode() * 9, 0, 0, 7)
        self.guest("e\u0301é\u202e".encode() + b"\xe8\xbb", 0, 0, 7)
        view = Terminal(self)
        view.until_equal(view.list, ["0 車車車車車車車 foot      7   -",
                                     "1 éé?" + " " * 12 + "foot      7   -"])  # fmt: skip

    def test_shows_a_played_session(self):
        self.start_and_wait("GameType=1\n")
        bob = self.guest(b"Bob", 0, 0, 7)
        view = Terminal(self, "--name", "Jörg")
        view.until_equal(view.list, ["0 Bob            foot      7   -"])
        self.assertEqual(bob.heard_of(42)[3:8], b"J\xf6rg\0")
        half = MAP_ROWS // 2
        view.until_equal(view.map, [""] * half + [" " * (MAP_COLUMNS // 2) + "0"] + [""] * half)
        view.until(lambda rows: re.fullmatch(r"│\d\d:\d\d  CatchPinkPanther, 1 player", rows[0][41:]))
        view.until(lambda rows: rows[MAP_ROWS].startswith(f"── {TITLE} ─"))

        ida = self.guest(b"J\xf6\x1b]0;a\x07\x9b" + bytes([0xFF]) * 56, 5, -3, 1, car=200)
        view.until_equal(lambda: view.list()[1:], ["2 Jö?]0;a??ÿÿÿÿÿ car 200   1   -"])
        view.until_equal(view.marks, ["0", "[2]"])
        ida.socket.send(b"\x66")  # leaves its car
        ida.socket.send(b"\x7a\x63")  # a weapon
        ida.socket.send(b"\x67\x05")  # dies
        ida.move(-5, 3)
        view.until_equal(view.marks, ["2", "0"])
        view.until_equal(lambda: view.list()[1:], ["2 Jö?]0;a??ÿÿÿÿÿ foot     99   5"])
        # Slot 0 became the PinkPanther when the view entered. Its death passes the role on.
        view.until(lambda _: view.colour_of("Bob") == "magenta")
        ida.move(0, 0)
        view.until_equal(view.marks, ["0"])  # both are at the same place
        self.assertEqual(view.colour_of("foot     99"), "cyan")
        bob.socket.send(b"\x67\x01")
        bob.socket.send(b"\x67\x02")
        view.until(lambda _: view.colour_of("Bob") == "green")
        # The view in slot 1 got the role and passed it on.
        while bob.heard_of(220) != b"\xdc\1\0":
            pass
        self.assertEqual(bob.heard_of(209), b"\xd1\2")

        bob.socket.send(b"\x1fat \x1b[2J\xe4!\0")
        view.until_text("Bob: at ?[2Jä!")
        view.press("\nhé\x7f\x1b[Aällo~ 日")
        view.until(lambda rows: rows[-1] == "> hällo~ ?_")
        view.press("\n")
        view.until_text("Jörg: hällo~ ?")
        self.assertEqual(bob.heard_of(30), b"\x1eJ\xf6rg: h\xe4llo~ ?".ljust(65, b"\0"))
        ida.say(60)
        view.until(lambda _: len(view.list()) == 1)
        lines = [f"Bob: line {i}, which is longer than the prompt" for i in range(40)]
        for line in lines:
            bob.socket.send(b"\x1f" + line[5:].encode() + b"\0")
        view.until(lambda rows: rows[MAP_ROWS + 1 :] == [*lines[-5:], "Enter: chat   q: quit"])
        view.until(lambda rows: 2 <= int(re.fullmatch(r".* (\d+)s", rows[2])[1]) < 100)
        view.until(lambda rows: re.match(r"00:(?!00)\d\d", rows[0][42:]))
        self.assertNotIn(b"\x1b]0", view.bytes)
        self.assertEqual(len(view.bytes.split(b"\x1b[2J")), len(view.bytes.split(b"\x1b[H\x1b[2J")))

    def test_small_terminals_and_unknown_positions(self):
        self.start_and_wait("maxClients=32\n")
        for i in range(30):
            self.guest(b"" if i == 0 else b"P%d" % i, *[(float("inf"), 0), (1e30, 0), (i, i)][min(i, 2)])
        view = Terminal(self, term="vt100")
        view.until_text("and 16 more")
        view.until_equal(lambda: view.list()[:1], ["0                foot      0   -"])
        # The map does not show players 0 and 1, whose positions are infinite or too large.
        view.until_equal(lambda: "".join(view.marks()[:1])[:1] + "".join(view.marks())[-1:], "t2")
        for rows, columns in ((1, 1), (5, 20), (2, 200)):
            view.resize(rows, columns)
            view.read(0.2)
        view.resize(24, 50)
        view.until(lambda rows: re.match(r"\D\d\d:\d\d  Deathmatch", rows[0][24:]))
        # The status is cut at the end of its line, and does not continue on the chat line below.
        view.until(lambda rows: re.fullmatch(f"[q─]{{2}} {TITLE[:45]}[q─]{{2}}", rows[MAP_ROWS])
                   and not rows[MAP_ROWS + 1])
        view.resize(38, 132)
        view.until_text("and 2 more")
        view.resize(39, 132)
        view.until(lambda rows: len(rows) == 39 and rows[31][94:].startswith("t P29"))

    def test_joins_again_after_a_restart_of_the_server(self):
        self.start_and_wait()
        view = Terminal(self)
        view.until_text(TITLE)
        self.server.send_signal(signal.SIGTERM)
        view.until_text("the server has stopped; trying to join again")
        self.server.wait(PATIENCE_S)
        self.start(f"Port={self.port}\n")
        view.until_text(TITLE)
        self.read_to("Connected!\n")
        view.until(lambda rows: rows[0][42:].startswith("00:"))

    def test_restores_the_terminal(self):
        self.start_and_wait()
        for name, end in (
            ("q", lambda view: view.press("q")),
            ("Ctrl-C", lambda view: view.press("\x03")),
            ("Ctrl-\\", lambda view: view.press("\x1c")),
            ("SIGTERM", lambda view: view.process.send_signal(signal.SIGTERM)),
        ):
            with self.subTest(name):
                view = Terminal(self, term="xterm")
                view.until_text(TITLE)
                self.assertNotEqual(termios.tcgetattr(view.slave), view.before)
                end(view)
                self.assertEqual(view.process.wait(PATIENCE_S), 0)
                view.read(0)
                self.assertEqual(termios.tcgetattr(view.slave), view.before)
                self.assertIn(b"\x1b[?1049l", view.bytes)
                self.assertIn("disconnected\n", self.read_to("disconnected\n"))
        view = Terminal(self)
        view.until_text(TITLE)
        view.hang_up()
        self.assertEqual(view.process.wait(PATIENCE_S), 0)
        self.assertIn("disconnected\n", self.read_to("disconnected\n"))


if __name__ == "__main__":
    unittest.main()
