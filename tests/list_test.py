"""Tests zollist without zolask.

Usage: list_test.py ZOLLIST [TEST...]"""

import contextlib
import json
import re
import resource
import sqlite3
import threading
import unittest

from list_case import AGENT, ANNOUNCE, LIMIT, SEEN, ListCase, query_of


class ListTest(ListCase):
    asks = "no"

    def test_adds_updates_and_removes(self):
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

    def test_accepts_any_name(self):
        for sent, shown in {
            "": "", "A%20b%2Bc+d": "A b+c d", "100%": "100%", "%4": "%4", "%zz%41": "%zzA",
            "%C3%B6\udcf6": "Ã¶ö", "%00%1b%7f%9b%0a": "?????", "x" * 40: "x" * 31,
            "%E4" * 40: "ä" * 31, '"\\</td><script>&p=1': '"\\</td><script>', "a=b;c": "a=b;c",
            "%c3%b6%20%E8%BB%8A\udcf0": "ö 車", "x" * 30 + "ö": "x" * 30, "Caf%E9": "Café",
            "A%e2%80%aeB%ef%bb%bf": "A?B?",
        }.items():  # fmt: skip
            self.announce(name=sent)
            self.assertEqual(self.listed()[0]["name"], shown, sent)
        self.announce(name="&mp=1&p=99&port=7&v=1&gt=9")
        self.assertEqual(self.listed()[0]["port"], 16309, "the last value of a key counts")
        self.announce(name="<b>'\"&amp")
        self.assertIn("<td>&lt;b&gt;&#39;&quot;</td>", self.page())

    def test_shows_the_address_instead_of_a_blank_name(self):
        for name in ("", "+", "%20%C2%A0+", "%E3%80%80"):
            self.announce(name=name)
            self.assertIn("<tr class=\"free\"><td>192.0.2.1:16309</td><td><code>", self.page(), name)

    def test_counts_and_filters(self):
        """The page and the JSON must contain the same servers for each query."""
        self.assertEqual(json.loads(self.ask("/servers.json")[2]),
                         {"total_players": 0, "total_servers": 0, "servers": []})  # fmt: skip
        self.assertIn("No server is listed now", self.page("empty=no"))
        self.announce(name="Quiet")
        self.assertIn("<p>0 players on 1 server</p>", self.page())
        self.assertIn("<p>0 players on 0 of 1 server</p>", self.page("empty=no"))
        self.assertIn("No listed server matches", self.page("empty=no"))
        self.announce(name="Solo", port="1", p="1")
        self.assertIn("<p>1 player on 2 servers</p>", self.page())
        self.announce(name="Pink", port="2", gt="1", p="3")
        self.announce(name="Calm", port="3", gt="1")
        for query, count, names in (
            ("", "4 players on 4 servers", "Pink Solo Calm Quiet"),
            ("empty=no", "4 players on 2 of 4 servers", "Pink Solo"),
            ("game=0", "1 player on 2 of 4 servers", "Solo Quiet"),
            ("game=1", "3 players on 2 of 4 servers", "Pink Calm"),
            ("empty=no&game=0", "1 player on 1 of 4 servers", "Solo"),
            ("game=1&empty=no", "3 players on 1 of 4 servers", "Pink"),
            ("empty=yes&game=2", "4 players on 4 servers", "Pink Solo Calm Quiet"),
            ("empty&game=&game=01&x=<b>", "4 players on 4 servers", "Pink Solo Calm Quiet"),
        ):
            with self.subTest(query):
                page, answer = self.page(query), json.loads(self.ask("/servers.json", query)[2])
                self.assertIn(f"<p>{count}</p>", page)
                self.assertEqual(re.findall(r"<tr[^>]*><td>(.*?)</td>", page), names.split())
                self.assertEqual([each["name"] for each in answer["servers"]], names.split())
                self.assertEqual(answer["total_servers"], len(answer["servers"]))
                self.assertEqual(answer["total_players"], int(count.split()[0]))

    def test_links_keep_the_other_filter(self):
        self.announce()
        for query, links in (
            ("", ["?empty=no", "?game=0", "?game=1"]),
            ("x=1", ["?empty=no", "?game=0", "?game=1"]),
            ("empty=no", ["./", "?empty=no&amp;game=0", "?empty=no&amp;game=1"]),
            ("game=1", ["?empty=no&amp;game=1", "./", "?game=0"]),
            ("empty=no&game=0", ["?game=0", "?empty=no", "?empty=no&amp;game=1"]),
        ):
            self.assertEqual(re.findall('href="(.*?)"', self.page(query)), links, query)

    def test_removes_old_entries(self):
        self.announce()
        self.age(658)
        self.assertEqual(len(self.listed()), 1)
        self.age(2)
        self.assertEqual(self.listed(), [])
        self.assertEqual(self.announce(), "1", "it is new again")

    def test_has_limits(self):
        verdicts = [self.announce(port=str(1000 + i), ports="3") for i in range(5)]
        self.assertEqual(verdicts, ["1", "1", "1", "0", "0"])
        self.assertEqual(self.announce(port="1000", ports="3"), "2", "the limit does not apply to known servers")
        self.assertEqual(self.announce("192.0.2.2", ports="3"), "1")
        self.announce(port="1000", disconnect="1")
        self.assertEqual(self.announce(port="1003", ports="3"), "1")
        self.fill((f"10.0.{i // 256}.{i % 256}", 1, SEEN, 0) for i in range(LIMIT - 4))
        self.assertEqual(self.announce("198.51.100.1"), "1", "an entry of an address with three is dropped")
        self.assertEqual(self.announce("198.51.100.1", port="1"), "0", "no address has more than two entries")
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

    def test_accepts_announces_only_from_servers(self):
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

    def test_removes_entries_of_the_future(self):
        self.announce()
        self.age(-5)
        self.assertEqual(len(self.listed()), 1, "another process may have read the clock a little later")
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
            self.assertEqual(self.said, f'zollist: {self.bans}:3: "{wrong}" is ignored; write ADDRESS, '
                                        "ADDRESS/BITS or ADDRESS:PORT\n")  # fmt: skip
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

    def test_does_not_change_other_files(self):
        other = "another program's database, not changed: name another file in ZOLLIST_DATABASE"
        table = "CREATE TABLE server (name)"
        for statements, reason in (
            ([table], other),
            ([table, "PRAGMA user_version = 1"], other),
            (["PRAGMA user_version = 1"], other),
            ([table, "PRAGMA user_version = 2", "PRAGMA application_id = 7"], other),
            (["PRAGMA user_version = 3", f"PRAGMA application_id = {0x5A4F4C4C}"],
             "version 3 of the list; this program supports no version after 2: install a newer"),
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
        self.assertEqual([each["name"] for each in self.listed()], ["A"], "an old entry is visible")
        self.assertEqual(self.announce(), "2")
        self.assertEqual(self.change("PRAGMA user_version"), [(2,)])

    def test_reports_a_damaged_database(self):
        self.announce()
        page = self.change("SELECT rootpage FROM sqlite_schema WHERE name = 'server'")[0][0] - 1
        size = self.change("PRAGMA page_size")[0][0]
        self.change("PRAGMA journal_mode = DELETE")
        content = self.path.read_bytes()
        self.path.write_bytes(content[: page * size] + b"\x55" * size + content[(page + 1) * size :])
        self.assert_unavailable("database disk image is malformed: the file is damaged; stop the list")

    def test_reports_a_locked_database(self):
        self.announce()
        with contextlib.closing(sqlite3.connect(self.path)) as database:
            database.execute("BEGIN IMMEDIATE")
            self.assert_unavailable("database is locked: another process held its lock for 5000 ms",
                                    [ANNOUNCE])  # fmt: skip
            self.assertEqual(len(self.listed()), 1)

    def test_keeps_its_entries_when_the_disk_is_full(self):
        self.announce()
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (8192, 8192))
        reason = "the disk or the quota is full: free some space"
        self.assert_unavailable(reason, [ANNOUNCE], preexec_fn=limit)
        self.assertEqual([each["port"] for each in self.listed()], [16309])

    def test_loses_no_concurrent_announce(self):
        """The database does not exist before, so many processes create it at the same time."""
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


if __name__ == "__main__":
    unittest.main()
