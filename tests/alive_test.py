"""Tests two checks of a server: zolview --alive sends it a datagram, and zolalive reads the queue of
its port. Both run with real servers and with simulated ones.

Usage: alive_test.py ZOLSERVER ZOLVIEW [TEST...]"""

import concurrent.futures
import contextlib
import os
import pathlib
import select
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

from server_case import FULL_JOIN, PATIENCE_S, Player, ServerCase, bound_socket, free_port

ZOLVIEW = os.path.realpath(sys.argv.pop(1))
ZOLALIVE = pathlib.Path(__file__).resolve().parent.parent / "packaging/zolalive"
QUESTION = b"\n".ljust(68, b"\0")  # a join with version 0
REFUSED = b"\x0eYou need Version 9".ljust(65, b"\0")
SILENT = ": check the address, the server, and whether firewalls and routers let UDP through\n"


def run(*command):
    """Returns the exit status, standard output with standard error, and the duration in seconds."""
    start = time.monotonic()
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                          stderr=subprocess.STDOUT, timeout=PATIENCE_S)  # fmt: skip
    return done.returncode, done.stdout, time.monotonic() - start


def alive(port, *options):
    return run(ZOLVIEW, "--alive", *options, f"127.0.0.1:{port}")


class FakeServer:
    """Answers each try from this number on, with these datagrams."""

    def __init__(self, answers, first_try=1, other_port=False):
        self.answers, self.first_try, self.other_port = answers, first_try, other_port
        self.questions = []

    def serve(self, near, far):
        while (heard := near.recvfrom(300))[0]:
            self.questions.append(heard[0])
            for answer in self.answers if len(self.questions) >= self.first_try else []:
                (far if self.other_port else near).sendto(answer, heard[1])

    def run_alive(self):
        """Returns the port, and the result of zolview --alive on it."""
        near, port = bound_socket()
        with near, bound_socket()[0] as far:
            thread = threading.Thread(target=self.serve, args=(near, far))
            thread.start()
            try:
                return port, alive(port)
            finally:
                far.sendto(b"", ("127.0.0.1", port))
                thread.join()


class AliveCase(ServerCase):
    def player(self, port):
        player = Player(port)
        self.addCleanup(player.socket.close)
        return player


class ZolviewTest(AliveCase):
    def test_fake_servers(self):
        accepted, full = b"\x11".ljust(67, b"\0"), b"\x0c".ljust(65, b"\0")
        once, three_times = (1, 2), (3,)  # on a busy machine, the answer to the first try may be late
        cases = (  # the server, the exit status, the possible numbers of tries
            (FakeServer([REFUSED]), 0, once),
            (FakeServer([REFUSED], first_try=3), 0, three_times),
            (FakeServer([full, REFUSED[:64], REFUSED]), 0, once),
            (FakeServer([]), 1, three_times),
            (FakeServer([REFUSED[:64], b"\x0e", REFUSED + b"\0"]), 1, three_times),
            (FakeServer([accepted]), 1, three_times),
            (FakeServer([full]), 1, three_times),
            (FakeServer([REFUSED], other_port=True), 1, three_times),
        )
        with concurrent.futures.ThreadPoolExecutor(len(cases)) as pool:
            results = list(pool.map(lambda case: case[0].run_alive(), cases))
        for (server, status, tries), (port, result) in zip(cases, results):
            with self.subTest(answers=server.answers, first_try=server.first_try):
                said = (f"a server answers at 127.0.0.1:{port}\n" if status == 0
                        else f"zolview: no server answers at 127.0.0.1:{port}{SILENT}")  # fmt: skip
                self.assertEqual(result[:2], (status, said))
                self.assertEqual(set(server.questions), {QUESTION})
                self.assertIn(len(server.questions), tries)
                if status == 1:
                    self.assertGreater(result[2], 1.5, "seconds")

    def test_closed_ports(self):
        port = free_port()
        status, said, seconds = alive(port)
        self.assertEqual((status, said), (1, f"zolview: no server listens at 127.0.0.1:{port}: "
                                             "check the port, and that the server runs\n"))  # fmt: skip
        self.assertLess(seconds, 2)
        said = run(ZOLVIEW, "--alive", "127.255.255.255")
        self.assertEqual(said[:2], (1, "zolview: cannot send to 127.255.255.255 (127.255.255.255:16309): "
                                       "Permission denied\n"))  # fmt: skip

    def test_takes_no_slot_and_prints_nothing(self):
        self.start_and_wait("maxClients=2\nGameType=1\n")
        for slot in (0, 1, None):  # None: the server is full
            self.assertEqual(alive(self.port)[:2], (0, f"a server answers at 127.0.0.1:{self.port}\n"))
            player = self.player(self.port)
            player.socket.send(FULL_JOIN)
            self.assertEqual(player.heard()[:2], b"\x0cM" if slot is None else bytes([17, slot]))
            if slot is not None:
                self.assertEqual(self.read_to("\n"), f"Bob, Player [{slot}] Connected!\n")
        self.server.send_signal(signal.SIGTERM)
        self.assert_stopped_in_order()

    def test_signals(self):
        for stop in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM):
            server, port = bound_socket()
            with server, subprocess.Popen([ZOLVIEW, "--alive", f"127.0.0.1:{port}"]) as question:
                self.assertTrue(select.select([server], [], [], PATIENCE_S)[0])
                question.send_signal(stop)
                self.assertEqual(question.wait(PATIENCE_S), 128 + stop)

    def test_bad_arguments(self):
        for arguments, complaint in (
            (["--alive"], "HOST is missing; see --help"),
            (["--alive", "--once", "x"], "--alive takes no other option; see --help"),
            (["--alive", "--name", "n", "x"], "--alive takes no other option; see --help"),
            (["--alive", "--json", "x"], "--json needs --once; see --help"),
            (["--alive", "x:0"], 'a server is HOST or HOST:PORT, not "x:0"'),
        ):
            self.assertEqual(run(ZOLVIEW, *arguments)[:2], (2, f"zolview: {complaint}\n"))


class ZolaliveTest(AliveCase):
    def port_with(self, datagrams, reads_per_second=0):
        """Returns a port where these datagrams wait. A program may read them slowly."""
        reader, port = bound_socket()
        self.addCleanup(reader.close)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for datagram in datagrams:
                sender.sendto(datagram, ("127.0.0.1", port))
        done = threading.Event()

        def read():
            with contextlib.suppress(OSError):
                while not done.wait(1 / reads_per_second):
                    reader.recv(300, socket.MSG_DONTWAIT)

        if reads_per_second > 0:
            thread = threading.Thread(target=read)
            thread.start()
            self.addCleanup(thread.join)
            self.addCleanup(done.set)
        return port

    def stopped_server(self):
        self.start_and_wait()
        self.server.send_signal(signal.SIGSTOP)
        os.waitpid(self.server.pid, os.WUNTRACED)
        return self.port

    def client_port(self):
        """Returns the port of a client that never reads its answer."""
        server, client = bound_socket()[0], bound_socket()[0]
        self.addCleanup(server.close)
        self.addCleanup(client.close)
        client.connect(server.getsockname())
        server.sendto(b"x", client.getsockname())
        return client.getsockname()[1]

    def test_ports(self):
        idle = self.stopped_server()
        stopped = self.stopped_server()
        self.player(stopped).say(200)
        hangs = "zolalive: the server on UDP port {} hangs: "
        closed = "zolalive: no program has UDP port {} open; check the port, and that the server runs\n"
        cases = (  # the port, the exit status, the start of the output
            (self.port_with([]), 0, ""),
            (idle, 0, ""),
            (self.port_with([b"x"] * 100, reads_per_second=20), 0, ""),
            (self.port_with([b"x"]), 1, hangs),
            (self.port_with([b"x" * 9000] * 100), 1, hangs),
            (stopped, 1, hangs),
            (free_port(), 1, closed),
            (self.client_port(), 1, closed),
            ("", 2, "usage: zolalive PORT\n"),
            ("127.0.0.1:1", 2, "usage: zolalive PORT\n"),
        )
        with concurrent.futures.ThreadPoolExecutor(len(cases)) as pool:
            results = list(pool.map(lambda case: run("sh", ZOLALIVE, str(case[0])), cases))
        for (port, status, start), (real_status, said, seconds) in zip(cases, results):
            with self.subTest(port=port, start=start):
                self.assertEqual((real_status, said[: len(start.format(port))]),
                                 (status, start.format(port)))  # fmt: skip
                self.assertEqual(said.count("\n"), min(status, 1))
                if start == hangs:
                    self.assertGreater(seconds, 1.9)
        self.server.send_signal(signal.SIGCONT)  # this is the server on the port `stopped`
        self.assertEqual(run("sh", ZOLALIVE, str(stopped))[:2], (0, ""))


if __name__ == "__main__":
    unittest.main()
