"""The base class of the list's tests. Calls zollist as a web server does, with a list in a new
folder."""

import contextlib
import json
import os
import pathlib
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest

PATIENCE_S = 60
ZOLLIST = os.path.realpath(sys.argv.pop(1))
ANNOUNCE = "/cgi-bin/zol.pl"
AGENT = "ZOL/0.1 (master.example)"
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
        self.said = ""  # standard error of the last call

    def ask(self, path="/", query="", address="192.0.2.1", method="GET", ports=None, agent=AGENT, **options):
        """Calls zollist. Returns the status, the headers and the body."""
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
        """Announces a server. Returns the digit of the answer."""
        status, _, body = self.ask(ANNOUNCE, query_of(**changes), address, ports=ports)
        self.assertEqual((status, body[:4], body[5:]), ("200", b"  \r\n", b"\n"))
        return body[4:5].decode()

    def change(self, *statement):
        """Runs a statement on the database, as another program may do. Returns the rows."""
        with contextlib.closing(sqlite3.connect(self.path)) as database, database:
            return database.execute(*statement).fetchall()

    def fill(self, entries):
        """Adds entries (address, port, state, first_seen) without announces."""
        now = int(time.time())
        with contextlib.closing(sqlite3.connect(self.path)) as database, database:
            database.executemany(
                "INSERT INTO server VALUES (?1, ?2, 'x', 'lin', 0, 16, 0, 40, ?4, ?5, ?3)",
                [(*entry, now) for entry in entries],
            )

    def listed(self):
        return json.loads(self.ask("/servers.json")[2])["servers"]

    def page(self, query=""):
        return self.ask("/", query)[2].decode()

    def age(self, seconds):
        self.change("UPDATE server SET last_seen = last_seen - ?", (seconds,))
