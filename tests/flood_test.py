"""Tests zolview and zolbots with servers that never answer, and with servers that flood them.

Usage: flood_test.py ZOLSERVER ZOLVIEW ZOLBOTS [TEST...]"""

import contextlib
import os
import signal
import socket
import struct
import subprocess
import sys
import unittest

from server_case import PATIENCE_S, PING, ServerCase, bound_socket
from view_test import ZOLVIEW, Terminal

ZOLBOTS = os.path.realpath(sys.argv.pop(1))

# Ancillary data: the kernel splits the bytes of one call into datagrams. See UDP_SEGMENT in udp(7).
ONE_BYTE_EACH = (socket.IPPROTO_UDP, 103, struct.pack("H", 1))


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
        """Returns the number of joins, the datagram after them, and the exit status."""
        while (heard := self.server.recv(300)) == self.joins[0]:
            self.joins.append(heard)
        return len(self.joins), heard, self.process.wait(PATIENCE_S)


class FloodingServer:
    """Accepts one client, and sends it pings faster than any client can read them."""

    def __init__(self, case):
        self.case = case
        self.socket, self.port = bound_socket()
        case.addCleanup(self.socket.close)
        self.socket.settimeout(PATIENCE_S)

    def flood(self, process):
        """Waits for the client's join. Both programs share a processor core, at the client's cost."""
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


class FloodTest(ServerCase):
    @classmethod
    def setUpClass(cls):
        # This program ends after four seconds. Other tests run meanwhile.
        cls.unanswered = Unanswered(cls.addClassCleanup, ZOLVIEW, "--once")

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
        for _ in range(1000):  # the answers to pings show that the flood is at full rate
            server.socket.recv(300)
        runs[1].send_signal(signal.SIGINT)
        for bots in runs:
            bots.wait(15)  # seconds; it needs about three


if __name__ == "__main__":
    unittest.main()
