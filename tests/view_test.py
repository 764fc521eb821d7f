"""The real zolview in a terminal, on a real server; and zolbots in a flood.

Usage: view_test.py ZOLSERVER ZOLVIEW ZOLBOTS [TEST...]"""

import contextlib
import fcntl
import json
import os
import pty
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import termios
import threading
import time
import unittest

import pyte

from server_case import PATIENCE_S, PING, RULE, Player, ServerCase, bound_socket

ZOLVIEW, ZOLBOTS = (os.path.realpath(sys.argv.pop(1)) for _ in range(2))
MAP_COLUMNS, MAP_ROWS = 41, 17  # of a terminal of 80 columns and 24 rows
TITLE = "Welcome to this Harn Tor Multiplayer Server - have fun"

# One call sends many datagrams: the kernel cuts the bytes up, see UDP_SEGMENT in udp(7).
ONE_BYTE_EACH = (socket.IPPROTO_UDP, 103, struct.pack("H", 1))


def state(x=0.0, y=0.0, weapon=0):
    return struct.pack("<fffxxxxBxxxxxxxxxxx", x, y, float("nan"), weapon)


class Guest(Player):
    """A player of any name, in the game."""

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
    """zolview on a pseudo-terminal, and what is to be seen there."""

    def __init__(self, case, *arguments, term="linux", size=(24, 80)):
        self.case = case
        self.screen = pyte.Screen(size[1], size[0])
        self.stream = pyte.ByteStream(self.screen)
        self.bytes = b""
        self.master, self.slave = pty.openpty()
        case.addCleanup(self.hang_up)
        self.resize(*size)
        self.before = termios.tcgetattr(self.slave)
        self.process = subprocess.Popen(
            [ZOLVIEW, *arguments, f"127.0.0.1:{case.port}"], stdin=self.slave, stdout=self.slave,
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
        """Waits until a frame shows it."""
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
        """The rows of the list, less the time since they were heard of."""
        rows = self.screen.display[2:MAP_ROWS]
        return [row[MAP_COLUMNS + 1 :].rsplit(None, 1)[0] for row in rows if row[42:].strip()]

    def colour_of(self, text):
        for y, row in enumerate(self.screen.display):
            if text in row:
                return self.screen.buffer[y][row.index(text)].fg
        return None


class Unanswered:
    """A program that has sent a join, and a server that never answers."""

    def __init__(self, on_end, *command):
        self.server, port = bound_socket()
        self.server.settimeout(PATIENCE_S)
        on_end(self.server.close)
        self.process = subprocess.Popen(
            [*command, f"127.0.0.1:{port}"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
        )
        on_end(self.process.wait)
        on_end(self.process.kill)
        self.joins = [self.server.recv(300)]

    def end(self):
        """The number of joins, the datagram after them, and the exit status."""
        while (heard := self.server.recv(300)) == self.joins[0]:
            self.joins.append(heard)
        return len(self.joins), heard, self.process.wait(PATIENCE_S)


class FloodingServer:
    """Lets one client in, and sends it pings faster than any client takes them."""

    def __init__(self, case):
        self.case = case
        self.socket, self.port = bound_socket()
        case.addCleanup(self.socket.close)
        self.socket.settimeout(PATIENCE_S)

    def flood(self, process):
        """Begins once the client has joined. Both share a processor, of which it gets little."""
        client = self.socket.recvfrom(300)[1]
        self.socket.sendto(b"\x11\0\0Flood".ljust(67, b"\0"), client)
        processor = {min(os.sched_getaffinity(0))}
        os.sched_setaffinity(process.pid, processor)
        os.setpriority(os.PRIO_PROCESS, process.pid, 15)
        test, flooder = os.getpid(), os.fork()
        if flooder == 0:
            os.sched_setaffinity(0, processor)
            with contextlib.suppress(OSError):
                while os.getppid() == test:
                    self.socket.sendmsg([PING * 64], [ONE_BYTE_EACH], 0, client)
            os._exit(0)
        self.case.addCleanup(os.waitpid, flooder, 0)
        self.case.addCleanup(os.kill, flooder, signal.SIGKILL)


class ViewTest(ServerCase):
    @classmethod
    def setUpClass(cls):
        # It gives up after four seconds. Other tests run meanwhile.
        cls.unanswered = Unanswered(cls.addClassCleanup, ZOLVIEW, "--once")

    def guest(self, *arguments, **options):
        guest = Guest(self.port, *arguments, **options)
        self.addCleanup(guest.socket.close)
        return guest

    def once(self, *arguments, port=None):
        return subprocess.run(
            [ZOLVIEW, "--once", *arguments, f"127.0.0.1:{port or self.port}"], capture_output=True,
            text=True, timeout=PATIENCE_S, stdin=subprocess.DEVNULL,
        )  # fmt: skip

    def test_shows_a_played_session(self):
        self.start_and_wait("GameType=1\n")
        bob = self.guest(b"Bob", 0, 0, 7)
        view = Terminal(self, "--name", "Jörg")
        view.until_equal(view.list, ["0 Bob            foot      7   -"])
        self.assertEqual(bob.heard_of(42)[3:8], b"J\xf6rg\0")
        half = MAP_ROWS // 2
        view.until_equal(view.map, [""] * half + [" " * (MAP_COLUMNS // 2) + "0"] + [""] * half)
        view.until(lambda rows: re.fullmatch(r"\d\d:\d\d  CatchPinkPanther, 1 player", rows[0][42:]))
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
        # Slot 0 became the PinkPanther when the view came; its death passes the role on.
        view.until(lambda _: view.colour_of("Bob") == "magenta")
        self.assertNotEqual(view.colour_of("foot     99"), "magenta")
        bob.socket.send(b"\x67\x01")
        bob.socket.send(b"\x67\x02")
        view.until(lambda _: view.colour_of("Bob") != "magenta")

        bob.socket.send(b"\x1fat \x1b[2J\xe4!\0")
        view.until_text("Bob: at ?[2Jä!")
        view.press("\nhé\x7fällo 日\n")
        self.assertEqual(bob.heard_of(30), b"\x1eJ\xf6rg: h\xe4llo ?".ljust(65, b"\0"))
        view.until_text("Jörg: hällo ?")
        ida.say(60)
        view.until(lambda _: len(view.list()) == 1)
        self.assertNotIn(b"\x1b]0", view.bytes)
        self.assertEqual(len(view.bytes.split(b"\x1b[2J")), len(view.bytes.split(b"\x1b[H\x1b[2J")))

    def test_knows_no_place_but_all_players_where_there_is_no_room(self):
        self.start_and_wait("maxClients=32\n")
        for i in range(30):
            self.guest(b"" if i == 0 else b"P%d" % i, *[(float("inf"), 0), (1e30, 0), (i, i)][min(i, 2)])
        view = Terminal(self, term="vt100")
        view.until_text("and 16 more")
        view.until_equal(lambda: view.list()[:1], ["0                foot      0   -"])
        # Neither 0 nor 1 is anywhere.
        view.until_equal(lambda: "".join(view.marks()[:1])[:1] + "".join(view.marks())[-1:], "t2")
        for rows, columns in ((1, 1), (5, 20), (2, 200), (45, 132)):
            view.resize(rows, columns)
            view.read(0.2)
        view.until(lambda rows: len(rows) == 45 and rows[31][94:].startswith("t P29"))

    def test_comes_back_when_the_server_does(self):
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

    def test_gives_the_terminal_back(self):
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

    def test_leaves_a_server_that_does_not_answer(self):
        self.assertEqual(self.unanswered.end(), (4, b"<", 1))
        for stop in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM):
            with self.subTest(stop.name):
                once = Unanswered(self.addCleanup, ZOLVIEW, "--once")
                once.process.send_signal(stop)
                self.assertEqual(once.end(), (1, b"<", 128 + stop))
        bots = Unanswered(self.addCleanup, ZOLBOTS, "--players", "1", "--server")
        bots.process.send_signal(signal.SIGINT)
        self.assertEqual(bots.end(), (1, b"<", 1))

    def test_draws_and_ends_in_a_flood(self):
        for name, end in (
            ("q", lambda view: view.press("q")),
            ("SIGINT", lambda view: view.process.send_signal(signal.SIGINT)),
        ):
            with self.subTest(name):
                server = FloodingServer(self)
                self.port = server.port
                view = Terminal(self)
                server.flood(view.process)
                view.until_text("Flood")
                view.press("\nhello\n")
                view.until_text("Spectator: hello")
                end(view)
                self.assertEqual(view.process.wait(PATIENCE_S), 0)
                self.doCleanups()

    def test_bots_end_in_a_flood(self):
        runs = []
        for seconds in ("1", "1000"):
            server = FloodingServer(self)
            command = [ZOLBOTS, "--players", "1", "--seconds", seconds, "--server"]
            bots = subprocess.Popen([*command, f"127.0.0.1:{server.port}"], stdout=subprocess.DEVNULL)
            runs.append(bots)
            self.addCleanup(bots.wait)
            self.addCleanup(bots.kill)
            server.flood(bots)
        for _ in range(1000):  # pings answered: the flood is at its height
            server.socket.recv(300)
        runs[1].send_signal(signal.SIGINT)
        for bots in runs:
            bots.wait(15)  # seconds, of which it needs three

    def test_once_says_who_is_on(self):
        self.start_on_free_port('maxClients=3\nGameType=1\nWelcomeMessage=Hi "you"\n')
        self.read_to(RULE)
        empty = self.once()
        self.assertEqual((empty.returncode, empty.stdout), (0, 'Hi "you", CatchPinkPanther, 0 players\n'))
        self.guest(b"B\xf6b", 1.5, float("nan"), 7, car=9)
        self.assertEqual(self.once().stdout, 'Hi "you", CatchPinkPanther, 1 player\n'
                         " 0  car 9    weapon 7    Böb\n")
        self.assertEqual(json.loads(self.once("--json").stdout), {
            "welcome": 'Hi "you"', "game_type": 1, "players": [
                {"slot": 0, "name": "Böb", "position": [1.5, None, None], "car_type": 9, "weapon": 7}],
        })  # fmt: skip
        self.guest(b"A")
        self.guest(b"C")
        refused = self.once()
        self.assertEqual((refused.returncode, refused.stderr),
                         (3, "zolview: Maximum allowed players: 3\n"))
        nobody = self.once(port=1)
        self.assertEqual((nobody.returncode, nobody.stderr),
                         (1, "zolview: nobody answers at 127.0.0.1:1\n"))
        for arguments in (["--once"], ["--json", "x"], ["--name", "n" * 64, "x"], ["x", "y"], ["x"], []):
            wrong = subprocess.run([ZOLVIEW, *arguments], capture_output=True, stdin=subprocess.DEVNULL)
            self.assertEqual((wrong.returncode, wrong.stderr[:9]), (2, b"zolview: "), arguments)

    def relay(self):
        """A way to the server that loses the first datagram of each kind, of records that about each
        player, and swaps every fifth with the one behind it."""
        near, far = (socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2))
        near.bind(("127.0.0.1", 0))
        far.connect(("127.0.0.1", self.port))
        done = threading.Event()

        def work():
            seen, held, client, count = set(), [], None, 0
            while not done.is_set():
                ready = select.select([near, far], [], [], 0.02)[0]
                for source in ready:
                    datagram, sender = source.recvfrom(300)
                    client = sender if source is near else client
                    kind = (source, datagram[:2] if datagram[0] in (40, 42) else datagram[:1])
                    if kind in seen:
                        held.append((source, datagram))
                        count += 1
                    seen.add(kind)
                if ready and count % 5 == 0 and len(held) == 1:
                    continue
                while held:
                    source, datagram = held.pop()
                    far.send(datagram) if source is near else near.sendto(datagram, client)

        thread = threading.Thread(target=work)
        thread.start()
        self.addCleanup(far.close)
        self.addCleanup(near.close)
        self.addCleanup(thread.join)
        self.addCleanup(done.set)
        return near.getsockname()[1]

    def test_sees_all_through_a_bad_network(self):
        self.start_and_wait("maxClients=32\n")
        guests = [self.guest(b"P%d" % i, i, i) for i in range(5)]
        self.port = self.relay()
        self.assertEqual(self.once().stdout.count("\n"), 6)
        view = Terminal(self)
        view.until_text("5 players")
        for guest in guests[1:]:
            guest.move(50, 50)
            guest.say(60)
        view.until_text("1 player")


if __name__ == "__main__":
    unittest.main()
