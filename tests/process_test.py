"""Tests the server as a process: its console, its stop, and its processor time when idle.

Usage: process_test.py ZOLSERVER [TEST...]"""

import concurrent.futures
import contextlib
import ctypes
import fcntl
import os
import pathlib
import re
import resource
import signal
import socket
import subprocess
import sys
import tempfile
import termios
import threading
import time
import tty
import unittest

from server_case import (FULL_JOIN, PATIENCE_S, VERSION, ZOLSERVER, Player, ServerCase,
                         bound_socket)

LIBC, PR_SET_SECUREBITS, SECBIT_NOROOT = ctypes.CDLL(None), 28, 1


def pipe(mode):
    reader, writer = os.pipe()
    fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
    os.fchmod(writer, mode)
    return open(reader, "rb", buffering=0), open(writer, "wb", buffering=0)


def terminal():
    """Returns both ends of a terminal that the server cannot reopen by its path."""
    reader, writer = os.openpty()
    tty.setraw(writer)
    os.fchmod(writer, 0)
    return open(reader, "rb", buffering=0), open(writer, "wb", buffering=0)


def consoles():
    """Yields each kind of console: the test's end, the server's end, whether it is the server's
    controlling terminal, and a number of lines that exceeds its buffer."""
    yield *pipe(0o600), False, 300
    yield *pipe(0), False, 300
    yield *terminal(), True, 2000
    yield *terminal(), False, 2000
    reader, writer = socket.socketpair()
    writer.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1)
    yield reader, writer, False, 300


def server_on(reader, writer, is_controlling):
    """Starts a server on this console. Returns its case and a player in its game."""
    def prepare():
        LIBC.prctl(PR_SET_SECUREBITS, SECBIT_NOROOT)  # root may not open every file
        if is_controlling:
            os.setsid()
            fcntl.ioctl(1, termios.TIOCSCTTY, 0)

    case = ServerCase()
    case.addCleanup(reader.close)
    with writer:
        case.start_and_wait(console=reader, stdout=writer, preexec_fn=prepare)
    player = case.enter_game()
    case.read_to("Connected!\n")
    return case, player


def check_on_all_consoles(check):
    """Runs the check on all consoles at the same time, because each waits for seconds."""
    with contextlib.ExitStack() as cleanups, concurrent.futures.ThreadPoolExecutor() as pool:
        started = []
        for reader, writer, is_controlling, lines in consoles():
            case, player = server_on(reader, writer, is_controlling)
            cleanups.callback(case.doCleanups)
            started.append((case, player, reader, lines))
        return [result.result() for result in [pool.submit(check, *each) for each in started]]


class ProcessTest(ServerCase):
    def test_stop_signals(self):
        for number in (signal.SIGINT, signal.SIGHUP, signal.SIGTERM):
            self.start_and_wait()
            player = self.enter_game()
            self.assertEqual(self.read_to("\n"), "Bob, Player [0] Connected!\n")
            end = time.monotonic() + PATIENCE_S
            names = set()
            while "zol-ping\n" not in names and time.monotonic() < end:
                names = {task.read_text() for task in self.proc("task").glob("*/comm")}
            # The name of the program or of its emulator.
            own_name = self.proc("exe").readlink().name
            self.assertEqual(names, {"zol-ping\n", f"{own_name}\n"})
            self.server.send_signal(number)
            self.assertEqual(player.heard(), b"\x13")
            self.assert_stopped_in_order()

    # The tests of the game set all globals. Only the next two tests use the initial values.

    def test_begins_with_a_table_of_zeros(self):
        self.start_and_wait()
        with Player(self.port).socket as silent:
            silent.send(FULL_JOIN)
            self.assertEqual(silent.recv(300)[:2], b"\x11\0")
            record = self.enter_game().heard()
        self.assertEqual((record[:2], record[68:]), (b"\x2a\0", bytes(96)))

    def test_begins_without_a_pinkpanther(self):
        self.start_and_wait("GameType=1\n")
        self.enter_game()
        self.assertEqual(self.read_to("\n"), "Bob, Player [0] Connected!\n")
        second = self.enter_game()
        chosen = "Bob, Player [1] Connected!\nPlayer [0] is the PinkPanther now \n"
        self.assertEqual(self.read_to("now \n"), chosen)
        self.assertEqual(second.heard()[0], 42)
        self.assertEqual([second.heard(), second.heard()], [b"\xd1\x64", b"\xd1\0"])

    def test_leaks_no_descriptor(self):
        self.start_and_wait()
        for _ in range(50):
            self.enter_game().say(60)
        kept = sorted(int(path.name) for path in self.proc("fd").iterdir())
        self.assertEqual(kept, [0, 1, 2, 3])

    @unittest.skipIf(os.getuid() != 0, "needs root")
    def test_drops_privileges(self):
        self.start_and_wait(preexec_fn=lambda: os.setresuid(65534, 0, 0))
        users = re.search("^Uid:(.*)$", self.proc("status").read_text(), re.M)[1].split()
        self.assertEqual(users[:2], ["65534", "65534"])

    def test_reports_why_it_cannot_start(self):
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
            self.assertEqual(witness.heard()[0], 200, "the server handles the flood")
            self.server.send_signal(signal.SIGTERM)
            self.assert_stopped_in_order()
        finally:
            done.set()
            thread.join()

    def test_survives_a_closed_pipe_and_sleeps_when_idle(self):
        self.start_and_wait()
        player = self.enter_game()
        self.server.stdout.close()
        for _ in range(100):
            player.say(200)
        player.say(15, 100)
        self.assertEqual(player.heard()[0], 16)
        # The run time of the main thread in nanoseconds is constant while the thread sleeps.
        before = None
        while before != (ran := self.proc("schedstat").read_text().split()[0]):
            before = ran
            time.sleep(0.1)
        time.sleep(0.3)
        self.assertEqual(self.proc("schedstat").read_text().split()[0], before)

    def test_reopens_a_console_without_blocking(self):
        def never_blocks(case, *_):
            flags = re.search(r"^flags:\s*(\d+)$", case.proc("fdinfo/1").read_text(), re.M)[1]
            return int(flags, 8) & os.O_NONBLOCK != 0

        self.assertEqual(check_on_all_consoles(never_blocks), [True, False, True, False, False])

    def test_a_full_console_delays_neither_the_game_nor_the_stop(self):
        def check(case, player, reader, lines):
            case.say_unknown(player, lines)
            text, missing = b"", []
            os.set_blocking(reader.fileno(), False)
            while not missing or not text.endswith(b" here\nUnknown Command: 200 \n"):
                case.say_unknown(player, 1)  # the server tries a full console only once a second
                lines += 1
                with contextlib.suppress(BlockingIOError):
                    while more := os.read(reader.fileno(), 4096):
                        text += more
                missing = re.findall(rb"^(\d+) lines are missing here$", text, re.M)
            whole = re.findall(rb"^Unknown Command: 200 $", text, re.M)
            case.assertEqual(len(whole) + sum(map(int, missing)), lines)
            case.say_unknown(player, lines)
            case.server.send_signal(signal.SIGTERM)
            case.assertEqual(player.heard(), b"\x13")
            case.assertEqual(case.server.wait(3), 1)

        check_on_all_consoles(check)

    def test_waits_for_a_slow_reader(self):
        def check(case, player, reader, lines):
            # Another process reads, because this one is busy. It must begin well within the second that
            # the server waits, also on a busy machine. At the end of a terminal, cat reports an error.
            late = subprocess.Popen(["sh", "-c", "sleep 0.2; exec cat"], stdin=reader,
                                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
            case.say_unknown(player, lines)
            case.server.send_signal(signal.SIGTERM)
            everything = b"Unknown Command: 200 \n" * lines + b"Exitting...\n"
            case.assertEqual(late.communicate()[0], everything)
            case.assertEqual(case.server.wait(PATIENCE_S), 1)

        check_on_all_consoles(check)

    def test_survives_the_size_limit_of_a_console_file(self):
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (150, 150))
        with tempfile.TemporaryFile() as file:
            self.start_on_free_port(stdout=file, preexec_fn=limit)
            size = lambda: os.fstat(file.fileno()).st_size
            while size() < 50:
                time.sleep(0.01)
            self.say_unknown(self.enter_game(), 20)
            self.assertGreater(size(), 100)
            self.server.send_signal(signal.SIGTERM)
            self.assertEqual(self.server.wait(PATIENCE_S), 1)

    def test_no_socket_gets_a_standard_descriptor(self):
        close = lambda: [os.close(handle) for handle in range(3)]
        self.start_on_free_port(preexec_fn=close, stdout=None)
        player = Player(self.port)
        self.addCleanup(player.socket.close)
        player.socket.settimeout(0.1)
        answer, end = b"", time.monotonic() + PATIENCE_S
        while not answer and time.monotonic() < end:
            with contextlib.suppress(ConnectionRefusedError, TimeoutError):
                player.socket.send(FULL_JOIN)
                answer = player.heard()
        self.assertEqual(answer[:1], b"\x11", "it has started")
        opened = [os.readlink(self.proc(f"fd/{handle}")) for handle in range(3)]
        self.assertEqual(opened, ["/dev/null"] * 3)

    def test_options_start_no_server(self):
        for argument, status, out, err in (
            ("--version", 0, f"ZOL Server {VERSION} (", ""), ("--help", 0, "usage: zolserver\n", ""),
            ("-p", 2, "", 'zolserver: takes no argument like "-p"; see --help\n'),
            ("", 2, "", 'zolserver: takes no argument like ""; see --help\n'),
        ):
            done = subprocess.run([ZOLSERVER, argument], capture_output=True, text=True,
                                  timeout=PATIENCE_S)
            self.assertEqual((done.returncode, done.stderr), (status, err))
            self.assertEqual(done.stdout[: len(out) or None], out)

    def test_serves_the_client_of_the_document(self):
        document = pathlib.Path(__file__).resolve().parent.parent / "docs/protocol.md"
        program = document.read_text().split("```python\n")[1].split("```")[0]
        self.start_and_wait()
        with self.client(program) as client:
            self.assertEqual(client.stdout.readline()[:5], "17 0 ")
            self.assertEqual(client.stdout.readline(), "41 0\n")
            self.assertEqual(client.stdout.readline()[:7], "16 0 0 ")  # and the game's minute
            self.assertEqual(self.read_to("\n"), "Example, Player [0] Connected!\n")
            self.server.send_signal(signal.SIGTERM)
            self.server.wait(PATIENCE_S)
            self.start(f"Port={self.port}\nmaxClients=2\n")
            self.read_to("Connected!\n")
            others = [Player(self.port) for _ in range(2)]
            for other in others:
                other.socket.send(FULL_JOIN)
            self.assertEqual((others[0].heard()[0], others[1].heard()[0]), (17, 12))
            with self.client(program) as waiting:
                self.assertEqual(waiting.stdout.readline()[:3], "12 ")
                others[0].socket.send(b"\x3c")
                while (line := waiting.stdout.readline())[:3] == "12 ":
                    pass
                self.assertEqual(line[:5], "17 1 ")
            for other in others:
                other.socket.close()

    @contextlib.contextmanager
    def client(self, program):
        command = [sys.executable, "-c", program, "127.0.0.1", str(self.port)]
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True) as client:  # fmt: skip
            try:
                yield client
            finally:
                client.kill()


if __name__ == "__main__":
    unittest.main()
