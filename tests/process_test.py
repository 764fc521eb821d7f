"""The real program: what it prints, how it stops, what it costs when idle.

Usage: process_test.py ZOLSERVER [TEST...]"""

import os
import pathlib
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PATIENCE_S = 20  # until a test gives a stuck server up
RULE = "-" * 38 + "\n"
PING, FULL_JOIN = b"\1", b"\nBob" + bytes(62) + b"\x28\0"
ZOLSERVER = os.path.realpath(sys.argv.pop(1))


def bound_socket():
    taken = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    taken.bind(("127.0.0.1", 0))
    return taken, taken.getsockname()[1]


class Player:
    def __init__(self, port):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(("127.0.0.1", port))
        self.socket.settimeout(PATIENCE_S)

    def say(self, code, size=1):
        self.socket.send(bytes([code]) + bytes(size - 1))

    def heard(self):
        """The next datagram but for pings."""
        while (heard := self.socket.recv(300)) == PING:
            pass
        return heard


class ProcessTest(unittest.TestCase):
    def start(self, settings):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        pathlib.Path(folder, "zolserver.cfg").write_text(settings)
        self.server = subprocess.Popen(
            [ZOLSERVER], cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.addCleanup(self.server.stdout.close)
        self.addCleanup(self.server.wait)
        self.addCleanup(self.server.kill)

    def start_and_wait(self, settings=""):
        taken, self.port = bound_socket()
        taken.close()
        self.start(f"Port={self.port}\n{settings}")
        online = f"ZOL Server 0.4 ONLINE [Port: {self.port}]!!!\n{RULE}"
        self.assertEqual(self.read_to(RULE), online)

    def read_to(self, last):
        """What the server prints up to and including this text, or to its end."""
        text = ""
        while not text.endswith(last):
            ready = select.select([self.server.stdout], [], [], PATIENCE_S)[0]
            byte = os.read(self.server.stdout.fileno(), 1) if ready else b""
            if not byte:
                break
            text += byte.decode()
        return text

    def enter_game(self):
        player = Player(self.port)
        self.addCleanup(player.socket.close)
        player.socket.send(FULL_JOIN)
        self.assertEqual(player.heard()[0], 17)
        player.say(15, 100)
        reply = player.heard()
        self.assertEqual(reply[0], 16)
        self.assertEqual(reply[2], 0, "hour")
        self.assertLess(reply[3], 20, "minute of a server that has just started")
        return player

    def proc(self, name):
        return pathlib.Path(f"/proc/{self.server.pid}", name)

    def assert_stopped_in_order(self):
        self.assertEqual(self.read_to("none"), "Exitting...\n")
        self.assertEqual(self.server.wait(PATIENCE_S), 1)

    def test_each_stop_signal_ends_it_in_order(self):
        for number in (signal.SIGINT, signal.SIGHUP, signal.SIGTERM):
            self.start_and_wait()
            player = self.enter_game()
            self.assertEqual(self.read_to("\n"), "Bob, Player [0] Connected!\n")
            end = time.monotonic() + PATIENCE_S
            names = set()
            while "zol-ping\n" not in names and time.monotonic() < end:
                names = {task.read_text() for task in self.proc("task").glob("*/comm")}
            self.assertEqual(names, {"zol-ping\n", "zolserver\n"})
            self.server.send_signal(number)
            self.assertEqual(player.heard(), b"\x13")
            self.assert_stopped_in_order()

    def test_begins_without_a_pinkpanther(self):
        """The tests of the game set every global first; here all are as the program has them."""
        self.start_and_wait("GameType=1\n")
        self.enter_game()
        self.assertEqual(self.read_to("\n"), "Bob, Player [0] Connected!\n")
        second = self.enter_game()
        chosen = "Bob, Player [1] Connected!\nPlayer [0] is the PinkPanther now \n"
        self.assertEqual(self.read_to("now \n"), chosen)
        self.assertEqual(second.heard()[0], 42)
        self.assertEqual([second.heard(), second.heard()], [b"\xd1\x64", b"\xd1\0"])

    def test_keeps_no_descriptor_but_its_socket(self):
        self.start_and_wait()
        for _ in range(50):
            self.enter_game().say(60)
        kept = sorted(int(path.name) for path in self.proc("fd").iterdir())
        self.assertEqual(kept, [0, 1, 2, 3])

    def test_says_why_it_cannot_start(self):
        taken, port = bound_socket()
        self.addCleanup(taken.close)
        for text, reason in ((port, 7), (65536, 3)):
            self.start(f"Port={text}\n")
            line = f"error building socket: error num: {reason}\n"
            self.assertEqual(self.read_to("none"), line)
            self.assertEqual(self.server.wait(PATIENCE_S), 1)

    def test_stops_under_full_load(self):
        self.start_and_wait()
        player, witness = self.enter_game(), self.enter_game()
        self.read_to("[1] Connected!\n")
        self.assertEqual(witness.heard()[0], 42)
        done = threading.Event()

        def flood():
            while not done.is_set():
                try:
                    player.say(100, 16)
                except ConnectionRefusedError:
                    pass  # it has stopped

        thread = threading.Thread(target=flood)
        thread.start()
        try:
            self.assertEqual(witness.heard()[0], 200, "the flood is being handled")
            self.server.send_signal(signal.SIGTERM)
            self.assert_stopped_in_order()
        finally:
            done.set()
            thread.join()

    def test_lives_on_without_a_reader_and_costs_nothing_when_idle(self):
        self.start_and_wait()
        player = self.enter_game()
        self.server.stdout.close()
        for _ in range(100):
            player.say(200)
        player.say(15, 100)
        self.assertEqual(player.heard()[0], 16)
        # Nanoseconds that the main thread has run. It is back in its wait when they stand still.
        before = None
        while before != (ran := self.proc("schedstat").read_text().split()[0]):
            before = ran
            time.sleep(0.1)
        time.sleep(0.3)
        self.assertEqual(self.proc("schedstat").read_text().split()[0], before)


if __name__ == "__main__":
    unittest.main()
