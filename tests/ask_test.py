"""Tests zolask and the list with simulated servers, some of which do not answer.

Usage: ask_test.py ZOLLIST ZOLASK [TEST...]"""

import contextlib
import os
import select
import signal
import socket
import sqlite3
import struct
import subprocess
import sys
import time
import unittest

from list_case import LIMIT, OPEN, PATIENCE_S, SEEN, SILENT, ListCase

ZOLASK = os.path.realpath(sys.argv.pop(1))
SO_TIMESTAMPNS = 35
QUESTION = b"\n".ljust(68, b"\0")  # a join with version 0
REFUSED = b"\x0eYou need Version 9".ljust(65, b"\0")


class FakeServer:
    """Answers each try from this number on, or never if the answer is None."""

    def __init__(self, case, answer=REFUSED, first_try=1, other_port=False, address="127.0.0.1"):
        self.near, self.far = (socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2))
        for each in (self.near, self.far):
            each.bind((address, 0))
            case.addCleanup(each.close)
        self.address, self.port = self.near.getsockname()
        self.answer, self.first_try, self.other_port = answer, first_try, other_port
        self.questions, self.times = [], []
        self.near.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)

    def serve(self):
        heard, ((_, _, time_of_arrival),), _, asker = self.near.recvmsg(300, 100)
        self.questions.append(heard)
        self.times.append(struct.unpack("qq", time_of_arrival))
        if self.answer is not None and len(self.questions) >= self.first_try:
            (self.far if self.other_port else self.near).sendto(self.answer, asker)


class AskTest(ListCase):
    def start_asker(self, **options):
        asker = subprocess.Popen([ZOLASK], env={"ZOLLIST_DATABASE": str(self.path)},
                                 stderr=subprocess.PIPE, text=True, **options)  # fmt: skip
        self.addCleanup(asker.stderr.close)
        self.addCleanup(asker.wait)
        self.addCleanup(asker.kill)
        return asker

    def announced(self, server, **changes):
        return self.announce(server.address, port=str(server.port), **changes)

    def state_of(self, server):
        rows = self.change("SELECT state FROM server WHERE address = ? AND port = ?",
                           (server.address, server.port))  # fmt: skip
        return rows[0][0] if rows else None

    def serve_until(self, holds, servers=()):
        end = time.monotonic() + PATIENCE_S
        while not holds():
            self.assertLess(time.monotonic(), end, "it never happens")
            for near in select.select([each.near for each in servers], [], [], 0.02)[0]:
                next(each for each in servers if each.near is near).serve()

    def serve_until_answered(self, servers):
        self.serve_until(lambda: all(self.state_of(each) != OPEN for each in servers), servers)

    def page_reports_no_asker(self):
        return b"New servers do not appear now" in self.ask()[2]

    def test_shows_servers_that_answer(self):
        cases = (  # the server, its state, the possible numbers of tries
            (FakeServer(self), SEEN, (1, 2)),  # on a busy machine, the first answer may be late
            (FakeServer(self, address="127.3.2.1"), SEEN, (1, 2)),
            (FakeServer(self, first_try=3), SEEN, (3,)),
            (FakeServer(self, answer=None), SILENT, (3,)),
            (FakeServer(self, other_port=True), SILENT, (3,)),
            (FakeServer(self, answer=REFUSED[:64]), SILENT, (3,)),
            (FakeServer(self, answer=REFUSED + b"\0"), SILENT, (3,)),
            (FakeServer(self, answer=b"\x0c" + REFUSED[1:]), SILENT, (3,)),
            (FakeServer(self, answer=b""), SILENT, (3,)),
        )
        servers = [case[0] for case in cases]
        for server in servers:
            self.assertEqual(self.announced(server), "1")
            self.assertEqual(self.announced(server), "2", "the server has not answered yet")
        self.assertEqual(self.listed(), [])
        self.start_asker()
        self.serve_until_answered(servers)
        for i, (server, state, tries) in enumerate(cases):
            with self.subTest(i):
                self.assertEqual(self.state_of(server), state)
                self.assertEqual(set(server.questions), {QUESTION})
                self.assertIn(len(server.questions), tries)
        self.assertEqual({each["port"] for each in self.listed()}, {each.port for each in servers[:3]})

    def test_asks_again_at_the_next_announce(self):
        late = FakeServer(self, first_try=4)
        self.assertEqual(self.announced(late), "1")
        self.start_asker()
        self.serve_until_answered([late])
        self.assertEqual(self.announced(late), "0")
        self.serve_until_answered([late])
        self.assertEqual((self.state_of(late), len(late.questions)), (SEEN, 4))
        self.assertEqual(self.announced(late, name="New", p="3"), "2")
        (entry,) = self.listed()
        self.assertEqual((entry["name"], entry["players"]), ("New", 3))
        self.announced(late, p="0", os=None, disconnect="1")
        self.assertEqual(self.announced(late), "1", "zolask asks it like a new server")
        self.assertEqual(self.listed(), [])

    def test_a_crowd_does_not_delay_the_others(self):
        """Fills the list with servers of 200 addresses, and then announces 20 of another address."""
        self.announce()
        last = FakeServer(self, address="127.9.0.1")
        self.fill((f"127.9.{i % 200}.1", 1 + i // 200, OPEN, 0) for i in range(LIMIT - 2))
        self.fill([(last.address, last.port, OPEN, -1)])
        self.change("UPDATE server SET last_seen = last_seen - 9 WHERE first_seen = -1")
        honest = [FakeServer(self, address="127.9.200.1") for _ in range(20)]
        self.assertEqual({self.announced(each) for each in honest}, {"1"})
        self.assertEqual(self.change("SELECT count(*) FROM server"), [(LIMIT,)])
        self.start_asker()
        self.serve_until_answered([*honest, last])
        self.assertLess(max(each.times[0] for each in honest), last.times[0], "the oldest server of the largest address comes last")
        self.assertEqual({self.state_of(each) for each in honest}, {SEEN})

    def test_a_full_list_drops_invisible_entries_first(self):
        def left(address):
            return sorted(self.change("SELECT port, state FROM server WHERE address = ?", (address,)))

        self.announce(disconnect="1")
        mass = [(f"10.0.{i // 250}.{i % 250}", 1, SEEN, 0) for i in range(LIMIT - 12)]
        seen = [("10.9.0.1", port, SEEN, port) for port in range(1, 7)]
        others = [("10.9.0.2", 1, OPEN, 1), ("10.9.0.2", 2, OPEN, 2), ("10.9.0.2", 3, OPEN, 3),
                  ("10.9.0.3", 1, OPEN, 4), ("10.9.0.4", 1, SILENT, 0), ("10.9.0.5", 1, OPEN, 0)]  # fmt: skip
        self.fill(mass + seen + others)
        for newcomer, crowd, rest in (
            ("10.8.0.1", "10.9.0.4", []),  # the silent entry
            ("10.8.0.2", "10.9.0.2", [(1, OPEN), (2, OPEN)]),  # the newest entry of the address with most
            ("10.8.0.3", "10.9.0.2", [(1, OPEN)]),
            ("10.8.0.4", "10.9.0.1", [(port, SEEN) for port in range(1, 6)]),  # no address has more invisible entries
            ("10.8.0.4", "10.9.0.1", [(port, SEEN) for port in range(1, 5)]),
            ("10.8.0.5", "10.8.0.4", [(16309, OPEN)]),
            ("10.8.0.6", "10.9.0.1", [(port, SEEN) for port in range(1, 4)]),
        ):
            known = left(newcomer)
            self.assertEqual(self.announce(newcomer, port=str(16309 + len(known))), "1")
            self.assertEqual(left(crowd), rest, newcomer)
            self.assertEqual(left(newcomer)[: len(known) + 1], known + [(16309 + len(known), OPEN)])
        self.change("DELETE FROM server WHERE address = '10.9.0.1' AND port > 1")
        self.fill(("10.7.0.1", port, SILENT, 0) for port in (1, 2))
        seen = self.change("SELECT count(*) FROM server WHERE state = 2")
        for i in range(9):
            self.assertEqual(self.announce(f"10.6.0.{i}"), "1", "it replaces an older entry")
        self.assertEqual(self.announce("10.6.0.8", port="1"), "0", "it may not replace the entry of another address")
        self.assertEqual(self.change("SELECT count(*) FROM server WHERE state = 2"), seen)

    def test_silent_entries_do_not_use_up_the_limit_of_an_address(self):
        self.announce(disconnect="1")
        self.fill(("192.0.2.1", port, SILENT, 0) for port in range(1, 65))
        self.assertEqual(self.announce(), "1")
        self.change("UPDATE server SET state = 0")
        self.assertEqual(self.announce(port="1000"), "0", "an address has at most 64 open entries")

    def test_page_reports_that_no_asker_runs(self):
        self.assertTrue(self.page_reports_no_asker())
        self.asks = "no"
        self.assertFalse(self.page_reports_no_asker())
        self.asks = "yes"
        for stop, status in ((signal.SIGTERM, 0), (signal.SIGINT, 0), (signal.SIGKILL, -9)):
            asker = self.start_asker()
            self.serve_until(lambda: not self.page_reports_no_asker())
            asker.send_signal(stop)
            self.assertEqual(asker.wait(PATIENCE_S), status)
            self.assertEqual(asker.stderr.read(), "")
            self.assertTrue(self.page_reports_no_asker())

    def test_survives_failures_of_the_database(self):
        self.path.write_bytes(b"this is no database, but it is long enough to look like one" * 20)
        asker = self.start_asker()
        self.assertIn("file is not a database", asker.stderr.readline())
        self.assertFalse(select.select([asker.stderr], [], [], 1.2)[0], "it repeats no message")
        self.path.unlink()
        server = FakeServer(self)
        self.serve_until(lambda: not self.page_reports_no_asker())
        second = self.start_asker()
        self.assertIn("another zolask is running for this list", second.stderr.readline())
        for file in self.path.parent.glob("list.sqlite*"):  # an operator deletes the list
            file.unlink()
        self.assertEqual(self.announced(server), "1")
        self.serve_until_answered([server])
        self.assertEqual(self.state_of(server), SEEN)
        other = FakeServer(self)
        self.announced(other)
        with contextlib.closing(sqlite3.connect(self.path)) as database:
            database.execute("BEGIN IMMEDIATE")
            self.serve_until(lambda: other.questions, [other])
            self.assertIn("database is locked", asker.stderr.readline())
        self.serve_until_answered([other])
        self.assertEqual(self.state_of(other), SEEN)
        for each in (second, asker):
            each.terminate()
            self.assertEqual((each.wait(PATIENCE_S), each.stderr.read()), (0, ""))

    def test_needs_the_path_of_the_database(self):
        done = subprocess.run([ZOLASK], env={}, stderr=subprocess.PIPE, text=True)
        self.assertEqual((done.returncode, done.stderr),
                         (2, "zolask: ZOLLIST_DATABASE is not set: set it to the file of the list\n"))  # fmt: skip


if __name__ == "__main__":
    unittest.main()
