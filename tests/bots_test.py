"""Tests zolbots with a real server. A proxy between them alters the datagrams to the bots.

Usage: bots_test.py ZOLSERVER ZOLBOTS [TEST...]"""

import cmath
import concurrent.futures
import contextlib
import functools
import multiprocessing
import os
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import time
import unittest

from server_case import PATIENCE_S, RULE, ServerCase, bound_socket, port_for_server

ZOLBOTS = os.path.realpath(sys.argv.pop(1))

ENTERED = "42, just entered"  # this CMD_PLAYER_INFO is a relay, any other one an answer
ANSWERS = (12, 16, 17, 19, 41, 42, 43, 72)
PING = {"a ping before the bot has entered": b"\1"}
ADDED = {
    "a refused version": b"\x0e" + bytes(64),
    "an unknown command": b"\3",
    "an empty datagram": b"",
    "a position without a player": b"\xc8" + bytes(15),
    "a slot that does not exist": b"\xc9\x20" + bytes(6),
    "the time of day": b"\x48\0\0",
}
CHANGED = (0, 1, 2, -1, "lengthened")  # a number is the index of the changed byte
REORDERED = ("dropped", "repeated", "swapped")
EVERY_FAULT = (*REORDERED, *CHANGED)

# Each run of bots: a code, and the faults of the next datagrams with this code, in this order.
RUNS = [
    *((code, faults) for code in (220, 43) for faults in (REORDERED, CHANGED)),
    *((code, EVERY_FAULT) for code in (ENTERED, 42, *range(200, 209))),
    # These cannot be swapped: nothing follows a leave until a join takes the slot, and a chat line
    # contains no slot.
    *((code, ("dropped", "repeated", *CHANGED)) for code in (60, 30)),
    # All datagrams with these codes are equal, so a repeated one would replace a dropped one.
    *((code, faults) for code in (41, 72) for faults in (CHANGED, *((way,) for way in REORDERED))),
    # A bot does nothing else while it waits for one of these.
    *((16, (way,)) for way in EVERY_FAULT),
    *((code, (way,)) for code in (12, 17) for way in EVERY_FAULT if way != "swapped"),
    *((19, (way,)) for way in ("dropped", "repeated", 0, "lengthened")),
    (209, (0, "lengthened")),
    (200, tuple(ADDED)),
    (17, tuple(PING)),
]
# Bots cannot know when the server chooses a PinkPanther, and which player.
UNDETECTABLE = [(209, ("dropped", "repeated", 1))]
CORRECT = [(12, ()), (200, ())]
# Bots detect a missing datagram also without --alone.
NOT_ALONE = [*CORRECT, *((code, ("dropped", "swapped")) for code in (201, 42, ENTERED))]
MOVES = 3  # joins of bots in the game before a run without faults ends
DELAY_S = 0.02  # delay of the second bot's datagrams; twice that for the third bot's

PLAYING = multiprocessing.Semaphore(16)  # runs at a time; more would overflow the sockets' buffers
BEFORE = 50  # datagrams to the bots before the first fault, so that the bots are in the game
AFTER = 50  # datagrams after the last fault


def kind_of(datagram):
    return ENTERED if datagram[0] == 42 and datagram[2] else datagram[0]


def order_of(datagram):
    """Returns the sequence that a datagram belongs to. Bots know the order within the answers to one
    bot, and within the relays about one slot."""
    kind = kind_of(datagram)
    if kind in (1, 30, 209):
        return None
    return "answers" if kind in ANSWERS else datagram[{207: 4, 208: 2}.get(kind, 1)]


class FaultyProxy:
    def __init__(self, port, delay_s, code, faults):
        self.port, self.code, self.faults = port, code, list(faults)
        self.delay_s, self.delayed = delay_s, []  # (time, call that sends)
        self.in_game, self.moves = set(), 0
        self.front, self.front_port = bound_socket()
        self.poll = select.poll()
        self.poll.register(self.front, select.POLLIN)
        self.upstream = {}  # a bot's socket to the server, by the bot's address
        self.address = {}  # the bot's address, by the handle of that socket
        self.held = None  # a datagram to swap with the next one, and its sequence
        self.passed, self.last_fault = 0, BEFORE

    def altered(self, address, datagram):
        """Returns the datagrams that the bot receives instead of this one."""
        order = address, order_of(datagram)
        if self.held and self.held[1] == order and self.held[0][0] != datagram[0]:
            held, self.held, self.last_fault = self.held[0], None, self.passed
            return [datagram, held]
        if not self.faults or self.held or kind_of(datagram) != self.code:
            return [datagram]
        if self.passed < BEFORE and self.faults[0] not in PING:
            return [datagram]
        self.last_fault = self.passed
        match self.faults.pop(0):
            case "dropped":
                return []
            case "swapped":
                self.held = datagram, order
                return []
            case "lengthened":
                return [datagram + bytes(1)]
            case int(byte):
                changed = bytearray(datagram)
                changed[byte % len(changed)] ^= 16
                return [changed]
            case way:
                return [datagram, (PING | ADDED).get(way, datagram)]

    def pass_up(self):
        datagram, address = self.front.recvfrom(300)
        if address not in self.upstream:
            upstream = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            upstream.connect(("127.0.0.1", self.port))
            upstream.setblocking(False)
            self.poll.register(upstream, select.POLLIN)
            self.upstream[address] = upstream
            self.address[upstream.fileno()] = address
        if datagram[0] == 15:
            self.in_game.add(address)
        elif datagram[0] in (10, 60):
            self.moves += datagram[0] == 10 and address in self.in_game
            self.in_game.discard(address)
        self.delay(address, self.upstream[address].send, datagram)

    def delay(self, address, *call):
        wait_s = list(self.upstream).index(address) * self.delay_s
        self.delayed.append((time.monotonic() + wait_s, functools.partial(*call)))

    def pass_down(self, address):
        datagram = self.upstream[address].recv(300)
        self.passed += 1
        for each in self.altered(address, datagram):
            self.delay(address, self.front.sendto, each, address)

    def send_delayed(self):
        """Sends the datagrams that are due. Returns the milliseconds until the next one, or None."""
        now = time.monotonic()
        due = sorted((each for each in self.delayed if each[0] <= now), key=lambda each: each[0])
        self.delayed = [each for each in self.delayed if each[0] > now]
        for _, send in due:
            with contextlib.suppress(ConnectionRefusedError):
                send()
        return min((1000 * (when - now) for when, _ in self.delayed), default=None)

    def pass_some(self):
        """Handles waiting datagrams. Returns False when the bots have ended."""
        for handle, _ in self.poll.poll(self.send_delayed()):
            # After the server has stopped, one call fails, and the next one finds no datagram.
            with contextlib.suppress(ConnectionRefusedError, BlockingIOError):
                if handle == self.front.fileno():
                    self.pass_up()
                elif handle in self.address:
                    self.pass_down(self.address[handle])
                else:
                    return False
        return True

    def has_more_faults(self):
        waits = self.held or (self.faults and self.code != 19)
        return waits or self.passed < self.last_fault + AFTER

    def close(self):
        for each in (self.front, *self.upstream.values()):
            each.close()


def run_through_proxy(run, options, port, server):
    """Returns the bots' exit status and table. For CMD_SERVER_SHUTDOWN, stops the server."""
    with contextlib.closing(FaultyProxy(port, 0, *run)) as proxy:
        command = [ZOLBOTS, "--server", f"127.0.0.1:{proxy.front_port}", "--players", "3",
                   "--rate", "200", "--seconds", str(PATIENCE_S), *options]  # fmt: skip
        with PLAYING:
            bots = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
            proxy.poll.register(bots.stdout, 0)  # the end of its output
            while proxy.has_more_faults() and proxy.pass_some():
                pass
        os.kill(server if run[0] == 19 else bots.pid, signal.SIGTERM)
        while proxy.pass_some():
            pass
        table = bots.communicate()[0]
    return bots.returncode, table


class BotsTest(ServerCase):
    def start_servers(self, runs):
        servers = []
        for code, _ in runs:
            holder, port = port_for_server()
            self.start(f"Port={port}\nGameType=1\nmaxClients={2 if code == 12 else 8}\n")
            servers.append((self.server, self.console, holder, port))
        for _, self.console, holder, _ in servers:
            self.assertIn("ONLINE", self.read_to(RULE))
            self.console.close()
            holder.close()
        return [port for *_, port in servers], [server.pid for server, *_ in servers]

    def test_reports_exactly_the_faults(self):
        runs = [*RUNS, *UNDETECTABLE, *CORRECT, *NOT_ALONE]
        options = [["--alone"]] * (len(runs) - len(NOT_ALONE)) + [[]] * len(NOT_ALONE)
        fork = multiprocessing.get_context("fork")
        with concurrent.futures.ProcessPoolExecutor(len(runs), fork) as pool:
            ends = list(pool.map(run_through_proxy, runs, options, *self.start_servers(runs)))
        for run, (status, table) in zip(runs, ends):
            faults = () if run in UNDETECTABLE else run[1]
            counts = re.findall(r"^(?:relays|answers) +\d+ +\d+ +(\d+) +(\d+)$", table, re.M)
            lost, wrong = (sum(map(int, column)) for column in zip(*counts))
            with self.subTest(run=run, table=table):
                self.assertEqual(status, 1 if faults else 0)
                self.assertGreaterEqual(wrong, len(faults) - faults.count("dropped"))
                self.assertGreaterEqual(lost, faults.count("dropped"))

    def test_reports_a_lost_notice_of_a_bot_that_joins_again(self):
        self.start_and_wait("maxClients=8\n")
        self.console.close()
        with contextlib.closing(FaultyProxy(self.port, 0, 60, ())) as proxy:
            command = [ZOLBOTS, "--server", f"127.0.0.1:{proxy.front_port}", "--players", "3",
                       "--rate", "100", "--seed", "7", "--seconds", str(PATIENCE_S)]  # fmt: skip
            bots = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
            self.addCleanup(bots.kill)
            proxy.poll.register(bots.stdout, 0)  # the end of its output
            while proxy.moves == 0 and proxy.pass_some():
                pass
            proxy.faults = ["dropped"]
            while proxy.has_more_faults() and proxy.pass_some():
                pass
            bots.terminate()
            while proxy.pass_some():
                pass
            self.assertRegex(bots.communicate()[0], r"\nrelays +\d+ +\d+ +1 +0\n")

    def test_bots_that_join_again_report_no_fault(self):
        """On a network, datagrams of different bots can overtake each other. Bots expect their order
        only at loopback addresses. 0.0.0.0 is also this machine, but no loopback address."""
        self.start_and_wait("maxClients=8\n")
        self.console.close()
        for host, delay_s, alone in (("127.0.0.1", 0, ["--alone"]), ("0.0.0.0", DELAY_S, [])):
            with contextlib.closing(FaultyProxy(self.port, delay_s, 200, ())) as proxy:
                command = [ZOLBOTS, "--server", f"{host}:{proxy.front_port}", "--players", "3",
                           "--rate", "100", "--seed", "7", "--seconds", str(PATIENCE_S), *alone]  # fmt: skip
                bots = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
                self.addCleanup(bots.kill)
                proxy.poll.register(bots.stdout, 0)  # the end of its output
                while proxy.moves < MOVES and proxy.pass_some():
                    pass
                bots.terminate()
                while proxy.pass_some():
                    pass
                table = bots.communicate()[0]
            delays = re.search(r"p50 ([\d.]+) ms, p99 ([\d.]+) ms, max ([\d.]+) ms", table)
            with self.subTest(host, table=table):
                p50, p99, most = map(float, delays.groups())
                self.assertTrue(0 < p50 <= p99 <= most < 1000 * PATIENCE_S)
                self.assertGreater(most, 1000 * delay_s)
                self.assertGreaterEqual(proxy.moves, MOVES)
                self.assertEqual(bots.returncode, 0)

    def test_moves_at_plausible_speeds(self):
        self.start_and_wait()
        self.console.close()
        watcher, places, cars = self.enter_game(), [], []
        command = [ZOLBOTS, "--server", f"127.0.0.1:{self.port}", "--players", "1", "--rate", "200"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as bot:
            self.addCleanup(bot.kill)
            while len(places) < 400:
                if (heard := watcher.heard())[0] == 200:
                    places.append(complex(*struct.unpack("<ff", heard[4:12])))
                elif heard[0] == 204:
                    cars.append(heard[16:])
            bot.send_signal(signal.SIGSTOP)
            watcher.socket.settimeout(0.5)
            with contextlib.suppress(TimeoutError):
                while True:
                    watcher.heard()
            bot.send_signal(signal.SIGCONT)
            watcher.socket.settimeout(PATIENCE_S)
            for _ in range(100):
                watcher.heard()
            bot.terminate()
            table = bot.communicate()[0]
        for begin, end in ((0, 1), (1, 2), (2, 3), (4, 32), (32, 56)):  # the fields of a car
            self.assertTrue(any(any(car[begin:end]) for car in cars), (begin, cars))
        seconds, positions, skipped = (
            float(re.search(expression, table)[1])
            for expression in (r" for ([\d.]+) s,", r" (\d+) of them pos", r"\n(\d+) position updates sk")
        )  # fmt: skip
        self.assertLess(positions + skipped, 200 * (seconds + 0.1), "it does not send skipped updates later")
        self.assertGreater(skipped, 90)
        steps = [after - before for before, after in zip(places, places[1:])]
        lengths = [abs(step) for step in steps]
        self.assertAlmostEqual(min(lengths), 8 / 200, 3)
        # Up to two more steps pass before the next position: the bot enters, gets in or gets out.
        self.assertLess(max(lengths), 3.1 * 30 / 200)
        self.assertIn(round(30 / 200, 3), [round(length, 3) for length in lengths])
        turns = [cmath.phase(after / before) for before, after in zip(steps, steps[1:])]
        self.assertLess(max(map(abs, turns)), 3.1 * 2 / 200)
        self.assertGreater(max(map(abs, turns)), 0.9 * 2 / 200)
        # The bot's first path is a curve and then a straight line.
        self.assertLess(len([turn for turn in turns if abs(turn) > 0.001]), 200)

    def test_judges_other_players_only_with_alone(self):
        self.start_and_wait()
        self.console.close()
        watcher = self.enter_game()
        command = [ZOLBOTS, "--server", f"127.0.0.1:{self.port}", "--players", "2", "--rate", "200",
                   "--seconds"]  # fmt: skip
        with subprocess.Popen([*command, str(PATIENCE_S)], stdout=subprocess.PIPE) as bots:
            while (heard := watcher.heard())[0] != 30:
                pass
            self.assertRegex(heard, rb"^\x1e(Ada|Bruno): [A-Za-z 0-9%!]+ the [a-z]+\b")
            bots.terminate()
            self.assertRegex(bots.communicate()[0], b"\n1 other player watched or played\n")
        self.assertEqual(bots.returncode, 0)
        refused = subprocess.run([ZOLBOTS, "--server", "127.255.255.255"], capture_output=True)
        self.assertEqual((refused.returncode, refused.stdout), (1, b""))
        alone = subprocess.run([*command, "1", "--alone"], stdout=subprocess.PIPE)
        self.assertIn(b"not the first free slot", alone.stdout)
        self.assertEqual(alone.returncode, 1)


if __name__ == "__main__":
    unittest.main()
