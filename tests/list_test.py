"""The server list, called as a web server calls it.

Usage: list_test.py ZOLLIST [TEST...]"""

import contextlib
import json
import os
import pathlib
import re
import resource
import sqlite3
import subprocess
import sys
import tempfile
import threading
import unittest

PATIENCE_S = 60
ZOLLIST = os.path.realpath(sys.argv.pop(1))
GOOD = {"name": "A", "p": "0", "mp": "16", "gt": "0", "port": "16309", "v": "40", "os": "lin"}


def query_of(**changes):
    return "&".join(f"{key}={value}" for key, value in (GOOD | changes).items() if value is not None)


class ListTest(unittest.TestCase):
    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        self.path = pathlib.Path(folder, "list.sqlite")

    def ask(self, path="/", query="", address="192.0.2.1", method="GET", ports=None, **options):
        """The status, the headers and the body."""
        environment = {
            "REQUEST_METHOD": method, "SCRIPT_NAME": path, "QUERY_STRING": query,
            "REMOTE_ADDR": address, "ZOLLIST_DATABASE": str(self.path),
        } | ({"ZOLLIST_PORTS_PER_ADDRESS": ports} if ports else {})  # fmt: skip
        done = subprocess.run(
            [ZOLLIST], env=environment, capture_output=True, timeout=PATIENCE_S, **options
        )
        self.assertEqual(done.returncode, 0, done.stderr)
        head, body = done.stdout.split(b"\r\n\r\n", 1)
        headers = dict(line.split(": ", 1) for line in head.decode().split("\r\n"))
        if method != "HEAD":
            self.assertEqual(int(headers["Content-Length"]), len(body))
        return headers["Status"][:3], headers, body

    def announce(self, address="192.0.2.1", ports=None, **changes):
        """The digit that a server reads."""
        status, _, body = self.ask("/cgi-bin/zol.pl", query_of(**changes), address, ports=ports)
        self.assertEqual((status, body[:4], body[5:]), ("200", b"  \r\n", b"\n"))
        return body[4:5].decode()

    def listed(self):
        return json.loads(self.ask("/servers.json")[2])["servers"]

    def page(self, query=""):
        return self.ask("/", query)[2].decode()

    def age(self, seconds):
        with contextlib.closing(sqlite3.connect(self.path)) as database, database:
            database.execute("UPDATE server SET last_seen = last_seen - ?", (seconds,))

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
            "%c3%b6%20%E8%BB%8A\udcf0": "ö 車", "x" * 30 + "ö": "x" * 30, "Caf%E9": "Café",
            "A%e2%80%aeB%ef%bb%bf": "A?B?",
        }.items():  # fmt: skip
            self.announce(name=sent)
            self.assertEqual(self.listed()[0]["name"], shown, sent)
        self.announce(name="&mp=1&p=99&port=7&v=1&gt=9")
        self.assertEqual(self.listed()[0]["port"], 16309, "the last one of a key counts")
        self.announce(name="<b>'\"&amp")
        self.assertIn("<td>&lt;b&gt;&#39;&quot;</td>", self.page())

    def test_shows_the_address_for_a_name_that_is_blank(self):
        for name in ("", "+", "%20%C2%A0+", "%E3%80%80"):
            self.announce(name=name)
            self.assertIn("<tr class=\"free\"><td>192.0.2.1:16309</td><td><code>", self.page(), name)

    def test_counts_and_filters(self):
        """The page and JSON give the same servers for each query."""
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

    def test_links_keep_the_other_choice(self):
        self.announce()
        for query, links in (
            ("", ["?empty=no", "?game=0", "?game=1"]),
            ("x=1", ["?empty=no", "?game=0", "?game=1"]),
            ("empty=no", ["./", "?empty=no&amp;game=0", "?empty=no&amp;game=1"]),
            ("game=1", ["?empty=no&amp;game=1", "./", "?game=0"]),
            ("empty=no&game=0", ["?game=0", "?empty=no", "?empty=no&amp;game=1"]),
        ):
            self.assertEqual(re.findall('href="(.*?)"', self.page(query)), links, query)

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
        with contextlib.closing(sqlite3.connect(self.path)) as database, database:
            database.executemany(
                "INSERT INTO server SELECT ?, port, name, os, players, max_players, game_type, version,"
                " first_seen, last_seen FROM server WHERE address = '192.0.2.2'",
                [(f"10.0.{i // 256}.{i % 256}",) for i in range(9996)],
            )
        self.assertEqual(self.announce("198.51.100.1"), "0", "10,000 entries")
        self.assertEqual(self.announce("192.0.2.2"), "2")

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

    def assert_unavailable(self, **options):
        for path, query in (("/", ""), ("/servers.json", ""), ("/cgi-bin/zol.pl", query_of(port="1"))):
            status, _, body = self.ask(path, query, **options)
            self.assertEqual(status, "503", path)
            self.assertIn(b"unavailable", body)
            self.assertNotIn(b"  \r\n", body)

    def test_says_when_it_is_unavailable(self):
        self.path.write_bytes(b"this is no database, but it is long enough to look like one" * 20)
        self.assert_unavailable()
        self.path.unlink()
        self.announce()
        with contextlib.closing(sqlite3.connect(self.path)) as database:
            database.execute("PRAGMA user_version = 2")
        self.assert_unavailable()
        self.path = self.path / "no" / "folder"
        self.assert_unavailable()

    def test_keeps_what_it_has_when_the_disk_is_full(self):
        self.announce()
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (8192, 8192))
        status, _, body = self.ask("/cgi-bin/zol.pl", query_of(port="1", name="x" * 31), preexec_fn=limit)
        self.assertEqual((status, body), ("503", b"unavailable\n"))
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


if __name__ == "__main__":
    unittest.main()
