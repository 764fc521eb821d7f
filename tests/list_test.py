"""The server list, called as a web server calls it, and its asker, with servers that answer and that
do not.

Usage: list_test.py ZOLLIST ZOLASK [TEST...]"""

import contextlib
import json
import os
import pathlib
import resource
import select
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PATIENCE_S = 60
ZOLLIST = os.path.realpath(sys.argv.pop(1))
ZOLASK = os.path.realpath(sys.argv.pop(1))
ANNOUNCE = "/cgi-bin/zol.pl"
AGENT = "ZOL/0.1 (master.example)"
QUESTION = b"\n".ljust(68, b"\0")  # a join with version 0
REFUSED = b"\x0eYou need Version 9".ljust(65, b"\0")
LIMIT = 10_000  # entries
OPEN, SILENT, SEEN = range(3)  # states of an entry
GOOD = {"name": "A", "p": "0", "mp": "16", "gt": "0", "port": "16309", "v": "40", "os": "lin"}


def query_of(**changes):
    return "&".join(f"{key}={value}" for key, value in (GOOD | changes).items() if value is not None)


class ListCase(unittest.TestCase):
    asks = "yes"

    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        self.path = pathlib.Path(folder, "list.sqlite")
        self.bans = pathlib.Path(folder, "bans")
        self.said = ""  # by the last call, to the error log

    def ask(self, path="/", query="", address="192.0.2.1", method="GET", ports=None, agent=AGENT, **options):
        """The status, the headers and the body."""
        environment = {
            "REQUEST_METHOD": method, "SCRIPT_NAME": path, "QUERY_STRING": query,
            "REMOTE_ADDR": address, "ZOLLIST_DATABASE": str(self.path), "ZOLLIST_ASK": self.asks,
            "ZOLLIST_BANS": str(self.bans), "HTTP_USER_AGENT": agent,
        } | ({"ZOLLIST_PORTS_PER_ADDRESS": ports} if ports else {})  # fmt: skip
        done = subprocess.run(
            [ZOLLIST], env=environment, capture_output=True, timeout=PATIENCE_S, **options
        )
        self.said = done.stderr.decode()
        self.assertEqual(done.returncode, 0, self.said)
        head, body = done.stdout.split(b"\r\n\r\n", 1)
        headers = dict(line.split(": ", 1) for line in head.decode().split("\r\n"))
        if method != "HEAD":
            self.assertEqual(int(headers["Content-Length"]), len(body))
        return headers["Status"][:3], headers, body

    def announce(self, address="192.0.2.1", ports=None, **changes):
        """The digit that a server reads."""
        status, _, body = self.ask(ANNOUNCE, query_of(**changes), address, ports=ports)
        self.assertEqual((status, body[:4], body[5:]), ("200", b"  \r\n", b"\n"))
        return body[4:5].decode()

    def change(self, *statement):
        """Of the database by somebody else; the rows that it gives."""
        with contextlib.closing(sqlite3.connect(self.path)) as database, database:
            return database.execute(*statement).fetchall()

    def fill(self, entries):
        """Lists (address, port, state, first seen) without announces."""
        now = int(time.time())
        with contextlib.closing(sqlite3.connect(self.path)) as database, database:
            database.executemany(
                "INSERT INTO server VALUES (?1, ?2, 'x', 'lin', 0, 16, 0, 40, ?4, ?5, ?3)",
                [(*entry, now) for entry in entries],
            )

    def listed(self):
        return json.loads(self.ask("/servers.json")[2])

    def age(self, seconds):
        self.change("UPDATE server SET last_seen = last_seen - ?", (seconds,))


class ListTest(ListCase):
    asks = "no"

    def test_enters_refreshes_and_removes(self):
        self.assertEqual(self.announce(), "1")
        entry = self.listed()[0]
        self.assertRegex(entry["first_seen"], r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        self.assertEqual(
            {key: value for key, value in entry.items() if not key.endswith("_seen")},
            {"address": "192.0.2.1", "port": 16309, "name": "A", "players": 0, "max_players": 16,
             "game_type": "Deathmatch", "version": 40, "os": "lin"},
        )  # fmt: skip
        self.age(600)
        self.assertEqual(self.announce(p="5", gt="1", name="B+b", mp="8"), "2")
        (again,) = self.listed()
        self.assertEqual((again["players"], again["max_players"], again["name"]), (5, 8, "B b"))
        self.assertEqual(again["game_type"], "CatchPinkPanther")
        self.assertEqual(again["first_seen"], entry["first_seen"])
        self.assertGreaterEqual(again["last_seen"], entry["last_seen"])
        self.assertEqual(self.announce(port="16310"), "1")
        self.assertEqual(self.announce(address="192.0.2.2"), "1")
        self.assertEqual([each["players"] for each in self.listed()], [5, 0, 0])
        self.announce(p="0", os=None, disconnect="1")
        self.assertEqual([each["port"] for each in self.listed()], [16310, 16309])

    def test_refuses_and_stores_nothing(self):
        for key, values in {
            "port": ["", "0", "65536", "-1", "+1", " 1", "1x", "http", "99999999999999999999", None],
            "v": ["39", "41", "", "40.0", None],
            "mp": ["1", "33", "", None],
            "p": ["17", "-1", "33", "", None],
            "gt": ["2", "-1", "", None],
        }.items():
            for value in values:
                self.assertEqual(self.announce(**{key: value}), "0", f"{key}={value}")
        for address in ("", "2001:db8::1", "192.0.2.300", "'"):
            self.assertEqual(self.announce(address), "0", address)
        self.assertEqual(self.listed(), [])

    def test_takes_any_name(self):
        for sent, shown in {
            "": "", "A%20b%2Bc+d": "A b+c d", "100%": "100%", "%4": "%4", "%zz%41": "%zzA",
            "%C3%B6\udcf6": "Ã¶ö", "%00%1b%7f%9b%0a": "?????", "x" * 40: "x" * 31,
            "%E4" * 40: "ä" * 31, '"\\</td><script>&p=1': '"\\</td><script>', "a=b;c": "a=b;c",
        }.items():  # fmt: skip
            self.announce(name=sent)
            self.assertEqual(self.listed()[0]["name"], shown, sent)
        self.announce(name="&mp=1&p=99&port=7&v=1&gt=9")
        self.assertEqual(self.listed()[0]["port"], 16309, "the last one of a key counts")
        self.announce(name="<b>'\"&amp")
        page = self.ask()[2].decode()
        self.assertIn("<td>&lt;b&gt;&#39;&quot;</td>", page)

    def test_forgets_who_is_silent(self):
        self.announce()
        self.age(658)
        self.assertEqual(len(self.listed()), 1)
        self.age(2)
        self.assertEqual(self.listed(), [])
        self.assertEqual(self.announce(), "1", "it is new again")

    def test_has_limits(self):
        verdicts = [self.announce(port=str(1000 + i), ports="3") for i in range(5)]
        self.assertEqual(verdicts, ["1", "1", "1", "0", "0"])
        self.assertEqual(self.announce(port="1000", ports="3"), "2", "who is on it stays")
        self.assertEqual(self.announce("192.0.2.2", ports="3"), "1")
        self.announce(port="1000", disconnect="1")
        self.assertEqual(self.announce(port="1003", ports="3"), "1")
        self.fill((f"10.0.{i // 256}.{i % 256}", 1, SEEN, 0) for i in range(LIMIT - 4))
        self.assertEqual(self.announce("198.51.100.1"), "1", "10,000 entries: one with three goes")
        self.assertEqual(self.announce("198.51.100.1", port="1"), "0", "an address has two at most")
        self.assertEqual(self.announce("192.0.2.2"), "2")
        self.assertEqual(self.change("SELECT count(*) FROM server"), [(LIMIT,)])

    def test_pages(self):
        self.announce()
        for path, kind in (("/", "text/html; charset=utf-8"), ("/servers.json", "application/json")):
            status, headers, _ = self.ask(path)
            self.assertEqual((status, headers["Content-Type"]), ("200", kind))
        self.assertEqual(headers["Access-Control-Allow-Origin"], "*")
        self.assertEqual(headers["Cache-Control"], "public, max-age=15")
        status, headers, body = self.ask("/", method="HEAD")
        self.assertEqual((status, body), ("200", b""))
        self.assertEqual(int(headers["Content-Length"]), len(self.ask("/")[2]))
        self.assertEqual(self.ask("/x")[0], "404")
        self.assertEqual(self.ask("/", method="POST")[0], "405")

    def test_takes_announces_of_servers_only(self):
        self.announce(port="7")
        for method, agent, status in (
            ("GET", "Mozilla/5.0", "403"), ("GET", "", "403"), ("GET", "ZOL/0.1", "403"),
            ("GET", " ZOL/0.1 (x)", "403"), ("HEAD", AGENT, "405"), ("POST", AGENT, "405"),
        ):  # fmt: skip
            for changes in ({}, {"port": "7", "disconnect": "1"}):
                answer = self.ask(ANNOUNCE, query_of(**changes), method=method, agent=agent)
                self.assertEqual(answer[0], status, (method, agent))
                self.assertNotIn(b"  \r\n", answer[2])
        self.assertIn(b"User-Agent", self.ask(ANNOUNCE, query_of(), agent="x")[2])
        self.assertEqual([each["port"] for each in self.listed()], [7])

    def test_drops_entries_of_the_future(self):
        self.announce()
        self.age(-5)
        self.assertEqual(len(self.listed()), 1, "a process may have read the clock a moment ago")
        self.age(-60)
        self.assertEqual(self.listed(), [])
        self.assertEqual(self.announce(), "1", "it is new again")
        self.assertEqual(len(self.listed()), 1)

    def test_bans(self):
        def listed(*bans):
            self.bans.write_text("\n".join(bans))
            return [f"{each['address'][8:]}:{each['port']}" for each in self.listed()]

        for address, port in (("192.0.2.1", "1"), ("192.0.2.1", "2"), ("192.0.2.9", "1")):
            self.announce(address, port=port)
        every = ["1:1", "1:2", "9:1"]
        for ban, rest in {
            "192.0.2.1": ["9:1"], "192.0.2.1:2": ["1:1", "9:1"], "192.0.2.0/29": ["9:1"],
            "192.0.2.7/24": [], "0.0.0.0/0": [], " 192.0.2.9\t# why\r": ["1:1", "1:2"],
            "192.0.2.9/32": ["1:1", "1:2"], "#192.0.2.1": every, "": every, "192.0.3.0/24": every,
        }.items():  # fmt: skip
            self.assertEqual((listed(ban), self.said), (rest, ""), ban)
        for wrong in ("192.0.2", "192.0.2.1/33", "192.0.2.1/", "192.0.2.1:0", "192.0.2.1:65536", "::1",
                      "192.0.2.1/24:1", "192.0.2.1 192.0.2.9", "example.org", "192.0.2.1/-1"):  # fmt: skip
            self.assertEqual(listed("192.0.2.9", "", wrong + " # x"), ["1:1", "1:2"], wrong)
            self.assertEqual(self.said, f'zollist: {self.bans}:3: "{wrong}" is no ADDRESS, ADDRESS/BITS '
                                        "or ADDRESS:PORT; ignored\n")  # fmt: skip
        self.assertNotIn(b"192.0.2.9", self.ask()[2])
        self.assertEqual(self.announce("192.0.2.9", port="3"), "0")
        self.assertEqual(self.announce("192.0.2.1", port="3"), "1")
        self.bans.unlink()
        self.assertEqual([each["port"] for each in self.listed()], [1, 2, 3, 1])
        self.bans.mkdir()
        self.assertEqual(len(self.listed()), 4)
        self.assertIn(f"zollist: {self.bans}: Is a directory: nobody is banned", self.said)

    def assert_unavailable(self, reason, paths=("/", "/servers.json", ANNOUNCE), **options):
        for path in paths:
            status, _, body = self.ask(path, query_of(port="1", name="x" * 31), **options)
            self.assertEqual(status, "503", path)
            self.assertIn(b"unavailable", body)
            self.assertNotIn(b"  \r\n", body)
            self.assertRegex(self.said, rf"^zollist: {self.path}: {reason}.*\n$")

    def foreign(self, *statements):
        self.path.unlink(missing_ok=True)
        with contextlib.closing(sqlite3.connect(self.path)) as database, database:
            for statement in statements:
                database.execute(statement)

    def test_refuses_other_files_and_leaves_them_alone(self):
        other = "another program's database, left as it is: name another file in ZOLLIST_DATABASE"
        table = "CREATE TABLE server (name)"
        for statements, reason in (
            ([table], other),
            ([table, "PRAGMA user_version = 1"], other),
            (["PRAGMA user_version = 1"], other),
            ([table, "PRAGMA user_version = 2", "PRAGMA application_id = 7"], other),
            (["PRAGMA user_version = 3", f"PRAGMA application_id = {0x5A4F4C4C}"],
             "version 3 of the list, and this program knows no later one than 2: install a newer"),
        ):  # fmt: skip
            self.foreign(*statements)
            before = self.path.read_bytes()
            self.assert_unavailable(reason)
            self.assertEqual(self.path.read_bytes(), before, statements)
        self.path.write_bytes(b"this is no database, but it is long enough to look like one" * 20)
        self.assert_unavailable("file is not a database: name another file")
        self.path = self.path / "no" / "folder"
        self.assert_unavailable("unable to open database file .*: this program's user must be able to")

    def test_upgrades_a_list_of_version_1(self):
        self.announce()
        text = self.change("SELECT sql FROM sqlite_schema WHERE name = 'server'")[0][0]
        columns = [row[1] for row in self.change("PRAGMA table_info(server)")][:-1]
        (row,) = self.change(f"SELECT {', '.join(columns)} FROM server")
        self.foreign(text.replace("  state INTEGER NOT NULL DEFAULT 2,\n", ""),
                     "CREATE INDEX server_last_seen ON server (last_seen)",
                     f"INSERT INTO server VALUES {row}", "PRAGMA user_version = 1")  # fmt: skip
        self.asks = "yes"
        self.assertEqual([each["name"] for each in self.listed()], ["A"], "it counts as seen")
        self.assertEqual(self.announce(), "2")
        self.assertEqual(self.change("PRAGMA user_version"), [(2,)])

    def test_says_why_it_fails_after_it_was_opened(self):
        self.announce()
        page = self.change("SELECT rootpage FROM sqlite_schema WHERE name = 'server'")[0][0] - 1
        size = self.change("PRAGMA page_size")[0][0]
        self.change("PRAGMA journal_mode = DELETE")
        content = self.path.read_bytes()
        self.path.write_bytes(content[: page * size] + b"\x55" * size + content[(page + 1) * size :])
        self.assert_unavailable("database disk image is malformed: the file is damaged; stop the list")

    def test_says_who_is_in_the_way(self):
        self.announce()
        with contextlib.closing(sqlite3.connect(self.path)) as database:
            database.execute("BEGIN IMMEDIATE")
            self.assert_unavailable("database is locked: another process held its lock for 5000 ms",
                                    [ANNOUNCE])  # fmt: skip
            self.assertEqual(len(self.listed()), 1)

    def test_keeps_what_it_has_when_the_disk_is_full(self):
        self.announce()
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (8192, 8192))
        reason = "the disk or the quota is full: free some space"
        self.assert_unavailable(reason, [ANNOUNCE], preexec_fn=limit)
        self.assertEqual([each["port"] for each in self.listed()], [16309])

    def test_many_at_once_lose_nothing(self):
        """From an empty file, which all of them find."""
        verdicts = {}

        def work(first):
            for port in range(first, first + 8):
                verdicts[port] = self.announce(port=str(port))

        threads = [threading.Thread(target=work, args=(1000 + 8 * i,)) for i in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(set(verdicts.values()), {"1"})
        self.assertEqual(sorted(each["port"] for each in self.listed()), sorted(verdicts))


class FakeServer:
    """Answers its try of this number and all later ones; None is no answer. It hears from one asker at
    a time."""

    def __init__(self, case, answer=REFUSED, first_try=1, other_port=False, address="127.0.0.1"):
        self.near, self.far = (socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2))
        for each in (self.near, self.far):
            each.bind((address, 0))
            case.addCleanup(each.close)
        self.address, self.port = self.near.getsockname()
        self.answer, self.first_try, self.other_port = answer, first_try, other_port
        self.questions = []

    def serve(self):
        heard, asker = self.near.recvfrom(300)
        self.questions.append(heard)
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

    def page_says_nobody_asks(self):
        return b"New servers do not appear now" in self.ask()[2]

    def test_shows_servers_that_answer(self):
        cases = (  # the server, its state, how often it may be asked
            (FakeServer(self), SEEN, (1, 2)),  # a busy machine may take the first answer late
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
            self.assertEqual(self.announced(server), "2", "the question is open")
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
        self.assertEqual(self.announced(late), "1", "it is asked like a new one")
        self.assertEqual(self.listed(), [])

    def test_a_crowd_does_not_delay_the_others(self):
        """As many as the list holds, of 200 addresses, and then 20 servers of another address."""
        self.announce()
        crowd = [(f"127.9.{i % 200}.1", 1 + i // 200, OPEN, 0) for i in range(LIMIT - 1)]
        self.fill(crowd)
        honest = [FakeServer(self, address="127.9.200.1") for _ in range(20)]
        self.assertEqual({self.announced(each) for each in honest}, {"1"})
        self.assertEqual(self.change("SELECT count(*) FROM server"), [(LIMIT,)])
        self.start_asker()
        started = time.monotonic()
        self.serve_until_answered(honest)
        self.assertLess(time.monotonic() - started, 10)
        self.assertEqual({self.state_of(each) for each in honest}, {SEEN})
        self.assertGreater(self.change("SELECT count(*) FROM server WHERE state = 0")[0][0], LIMIT / 2)

    def test_what_nobody_sees_goes_first(self):
        def left(address):
            return sorted(self.change("SELECT port, state FROM server WHERE address = ?", (address,)))

        self.announce(disconnect="1")
        mass = [(f"10.0.{i // 250}.{i % 250}", 1, SEEN, 0) for i in range(LIMIT - 12)]
        seen = [("10.9.0.1", port, SEEN, port) for port in range(1, 7)]
        others = [("10.9.0.2", 1, OPEN, 1), ("10.9.0.2", 2, OPEN, 2), ("10.9.0.2", 3, OPEN, 3),
                  ("10.9.0.3", 1, OPEN, 4), ("10.9.0.4", 1, SILENT, 0), ("10.9.0.5", 1, OPEN, 0)]  # fmt: skip
        self.fill(mass + seen + others)
        for newcomer, crowd, rest in (
            ("10.8.0.1", "10.9.0.4", []),  # the silent one
            ("10.8.0.2", "10.9.0.2", [(1, OPEN), (2, OPEN)]),  # the newest of most
            ("10.8.0.3", "10.9.0.2", [(1, OPEN)]),
            ("10.8.0.4", "10.9.0.1", [(port, SEEN) for port in range(1, 6)]),  # no crowd of others
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
            self.assertEqual(self.announce(f"10.6.0.{i}"), "1", "it takes the place of an older one")
        self.assertEqual(self.announce("10.6.0.8", port="1"), "0", "it would drive out another")
        self.assertEqual(self.change("SELECT count(*) FROM server WHERE state = 2"), seen)

    def test_silent_ports_of_an_address_leave_room(self):
        self.announce(disconnect="1")
        self.fill(("192.0.2.1", port, SILENT, 0) for port in range(1, 65))
        self.assertEqual(self.announce(), "1")
        self.change("UPDATE server SET state = 0")
        self.assertEqual(self.announce(port="1000"), "0", "of open questions there are 64 at most")

    def test_says_on_the_page_that_nobody_asks(self):
        self.assertTrue(self.page_says_nobody_asks())
        self.asks = "no"
        self.assertFalse(self.page_says_nobody_asks())
        self.asks = "yes"
        for stop, status in ((signal.SIGTERM, 0), (signal.SIGINT, 0), (signal.SIGKILL, -9)):
            asker = self.start_asker()
            self.serve_until(lambda: not self.page_says_nobody_asks())
            asker.send_signal(stop)
            self.assertEqual(asker.wait(PATIENCE_S), status)
            self.assertEqual(asker.stderr.read(), "")
            self.assertTrue(self.page_says_nobody_asks())

    def test_the_asker_survives_its_database(self):
        self.path.write_bytes(b"this is no database, but it is long enough to look like one" * 20)
        asker = self.start_asker()
        self.assertIn("file is not a database", asker.stderr.readline())
        self.assertFalse(select.select([asker.stderr], [], [], 1.2)[0], "it says so once in two looks")
        self.path.unlink()
        server = FakeServer(self)
        self.serve_until(lambda: not self.page_says_nobody_asks())
        second = self.start_asker()
        self.assertIn("another zolask asks for this list", second.stderr.readline())
        for file in self.path.parent.glob("list.sqlite*"):  # as when it is deleted by hand
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

    def test_the_asker_needs_a_name(self):
        done = subprocess.run([ZOLASK], env={}, stderr=subprocess.PIPE, text=True)
        self.assertEqual((done.returncode, done.stderr),
                         (2, "zolask: ZOLLIST_DATABASE is not set: name the file of the list\n"))  # fmt: skip


if __name__ == "__main__":
    unittest.main()
