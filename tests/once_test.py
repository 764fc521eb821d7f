"""Tests zolview --once, and zolview on a server that answers late or never.

Usage: once_test.py ZOLSERVER ZOLVIEW [TEST...]"""

import json
import os
import select
import signal
import socket
import subprocess
import threading
import unittest

from server_case import PATIENCE_S, RULE, bound_socket
from view_test import MAP_ROWS, ZOLVIEW, Terminal, ViewCase


class OnceTest(ViewCase):
    def once(self, *arguments):
        return subprocess.run(
            [ZOLVIEW, "--once", *arguments, f"127.0.0.1:{self.port}"], capture_output=True,
            text=True, timeout=PATIENCE_S, stdin=subprocess.DEVNULL,
        )  # fmt: skip

    def test_does_not_wait_for_a_closed_port(self):
        nobody = subprocess.run([ZOLVIEW, "--once", "127.0.0.1:1"], capture_output=True, text=True,
                                timeout=3)
        self.assertEqual((nobody.returncode, nobody.stdout, nobody.stderr),
                         (1, "", "zolview: no server answers at 127.0.0.1:1: check the address, the server, "
                          "and whether firewalls and routers let UDP through\n"))
        silent, self.port = bound_socket()
        with silent:
            view = Terminal(self)
            view.until(lambda rows: rows[MAP_ROWS].startswith(f"── joining 127.0.0.1:{self.port} ─"))
            self.assertEqual(view.rows()[0][42:], "--:--  Deathmatch, 0 players")
        for option in ([], ["--once"]):
            broadcast = Terminal(self, *option, server="127.255.255.255")
            broadcast.until_text("zolview: cannot send to 127.255.255.255: ")
            self.assertEqual(broadcast.process.wait(PATIENCE_S), 1)

    def test_asks_three_times_for_unknown_slots(self):
        server, port = bound_socket()
        server.settimeout(PATIENCE_S)
        client = subprocess.Popen([ZOLVIEW, "--once", f"127.0.0.1:{port}"], stdout=subprocess.PIPE)
        with server, client:
            address = server.recvfrom(300)[1]
            client.send_signal(signal.SIGSTOP)  # it then reads three datagrams at once
            os.waitpid(client.pid, os.WUNTRACED)
            for datagram in (bytes([17, 0]).ljust(67), bytes([42, 1]).ljust(164), bytes([42, 2]).ljust(164)):
                server.sendto(datagram, address)
            client.send_signal(signal.SIGCONT)
            questions = []
            while (datagram := server.recv(300)) != b"\x3c":
                questions.append(datagram)
            self.assertEqual(questions, [bytes([40, slot]) for slot in range(3, 32)] * 3)
            self.assertEqual(client.stdout.read().count(b"\n"), 3)

    def test_prints_the_players(self):
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
                         (3, "zolview: the server refused: Maximum allowed players: 3\n"))
        Terminal(self).until_text("refused, will try again: Maximum allowed players: 3")
        help = subprocess.run([ZOLVIEW, "--help"], capture_output=True, text=True)
        self.assertEqual((help.returncode, help.stdout[:40]),
                         (0, "usage: zolview [--name NAME] HOST[:PORT]"))
        for arguments, complaint in (
            (["--once"], "HOST is missing; see --help"), ([], "HOST is missing; see --help"),
            (["--json", "x"], "--json needs --once; see --help"),
            (["--name", "n" * 64, "x"], "--name takes 1 to 63 characters"),
            (["--name", "", "x"], "--name takes 1 to 63 characters"),
            (["--name"], "--name needs a value; see --help"),
            (["x", "y"], 'unknown argument "y"; see --help'),
            (["-x"], 'unknown argument "-x"; see --help'),
            (["x"], "the view needs a terminal; --once prints a table without one"),
        ):  # fmt: skip
            wrong = subprocess.run([ZOLVIEW, *arguments], capture_output=True, text=True,
                                   stdin=subprocess.DEVNULL)  # fmt: skip
            self.assertEqual((wrong.returncode, wrong.stderr), (2, f"zolview: {complaint}\n"))

    def relay(self):
        """Starts a proxy that loses the first datagram of each kind and the first record of each
        player, and swaps every fifth datagram with the next one. Returns its port."""
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

    def test_finds_all_players_on_a_bad_network(self):
        self.start_and_wait("maxClients=32\n")
        for i in range(5):
            self.guest(b"P%d" % i, i, i)
        self.port = self.relay()
        self.assertEqual(self.once().stdout.count("\n"), 6)
        view = Terminal(self)
        view.until_text("5 players")


if __name__ == "__main__":
    unittest.main()
