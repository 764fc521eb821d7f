"""Tests script/check-client with a correct client and with faulty ones, on a simulated clock. A faulty
client breaks one rule or a few. With --client, this program is the correct client, on a real socket.

Usage: check_client_test.py [TEST...] | --client HOST PORT"""

import importlib
import pathlib
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parent.parent / "script"
sys.path.insert(0, str(SCRIPT / "lib"))
rules, simulation = importlib.import_module("client_rules"), importlib.import_module("client_stage")
C, SIZES_DOWN = simulation.C, simulation.SIZES_DOWN
TICK_S = 0.05
JOIN = b"\x0aExample".ljust(66, b"\0") + b"\x28\0"
PEERS = range(32)
BLOCK = b"\5" * 28
CAR = bytes(4) + BLOCK + bytes(32)
ASK = bytes([C.CAR_BLOCK_A]) + bytes(31)
ENTER = b"\x0f" + bytes(19) + b"\3" + bytes(79)


class Client:
    """A client that keeps all rules. A faulty client has other values for some attributes."""

    growth, silence_s, stop_wait_s, refused_wait_s, version_wait_s = 2, 25, 1, 0, 0
    known_s, unknown_s, all_s, report_s, replies, chats = 5, 1, 20, 3, 1, 1
    entry_growth, proof_s, most_asked, old_s, weapon_s = 2, 22, 10, 2, 9
    car_wait_s, car_repeats = 0.5, 7
    checks_size = checks_slot = checks_address = asks_slot = asks_again = believes_slot = True
    asks_named = believes_role = doubts_clock = drives_on = True
    counts_pings_only = counts_junk = counts_answers = believes_late_refusals = joins_again = False
    loses = frozenset()  # codes that it never sends
    loses_second = frozenset()  # codes that it sends only once
    join, enter, block_asked = JOIN, ENTER, BLOCK

    def __init__(self, **faults):
        vars(self).update({"dies_of": lambda datagram: False} | faults)
        self.out, self.heard_s, self.has_ended, self.slot, self.in_car = [], 0, False, None, False
        self.proved_s = self.questions = self.car_left = self.slot_due_s = self.car_sent_s = 0
        self.has_role = self.has_died = False
        self.begin("joining", 0)

    def begin(self, state, due_s):
        self.state, self.due_s, self.wait_s = state, due_s, 1

    def send(self, datagram):
        if datagram[0] not in self.loses:
            self.out.append(datagram)
        if datagram[0] in self.loses_second:
            self.loses |= {datagram[0]}

    def send_car(self, now):
        self.send(bytes([C.CAR_STATE]) + bytes(15) + CAR)
        self.car_sent_s = now

    def doubt_slot(self, due_s):
        if self.asks_slot and self.asks_again:
            self.questions, self.slot_due_s = 5, due_s

    def hear(self, datagram, now, from_stranger=False):
        self.has_ended |= self.dies_of(datagram)
        if self.checks_address and from_stranger or not datagram:
            return
        code, slot = datagram[0], datagram[1] if len(datagram) > 1 else 0
        self.heard_s = now if self.counts_junk else self.heard_s
        if self.checks_size and len(datagram) != SIZES_DOWN.get(code):
            return
        if self.checks_slot and code in simulation.WITH_SLOT and slot > 31:
            return
        if code == C.PING or not self.counts_pings_only:
            self.heard_s = now
        if code in rules.PROOFS or self.counts_answers:
            self.proved_s = now
        self.hear_right(code, slot, now)

    def hear_right(self, code, slot, now):
        if code == C.PING:
            for _ in range(self.replies):
                self.send(bytes([C.PING_REPLY]))
        elif code == C.JOIN_ACCEPTED and self.state == "joining":
            self.slot, self.heard_s = slot, now
            self.begin("asking" if self.asks_slot else "entering", now)
        elif code == C.JOIN_ACCEPTED and slot != self.slot:
            self.slot = self.slot if self.believes_slot else slot
            self.doubt_slot(now)
        elif code == C.NOT_IN_CAR:
            self.questions = 0
            if self.state == "asking" or slot != self.slot and self.believes_slot:
                self.slot = slot if self.believes_slot else self.slot
                self.begin("entering", now)
            elif self.in_car and now >= self.car_sent_s + self.car_wait_s:
                self.send_car(now)
        elif code == C.ENTER_GAME_REPLY and self.state == "entering":
            self.begin("playing", now)
            self.start_s, self.report_due_s = now, now + 1
            self.asked, self.known, self.named = dict.fromkeys(PEERS, now - 15), set(), set()
            self.unanswered, self.record_s = dict.fromkeys(PEERS, 0), {}
            self.named |= {slot} if self.asks_named else set()
        elif code in (C.JOIN_REFUSED_FULL, C.JOIN_REFUSED_VERSION):
            self.hear_refusal(code, now)
        elif code == C.SERVER_SHUTDOWN:
            self.begin("joining", now + self.stop_wait_s)
        elif code == C.GAME_CLOCK and not (self.has_died and self.doubts_clock):
            self.car_left = 0
        elif code == C.PINKPANTHER:
            self.has_role = slot == self.slot and self.believes_role
        elif self.state == "playing":
            self.hear_about(code, slot, now)

    def hear_about(self, code, slot, now):
        if code == C.PLAYER_INFO:
            self.known.add(slot)
            self.record_s[slot], self.unanswered[slot] = now, 0
        elif code == C.PLAYER_POSITION:
            self.named.add(slot)
        elif code == C.PLAYER_STATE_FLOATS:
            for each in self.known:
                if now > self.record_s[each] + self.old_s:
                    self.asked[each] = min(self.asked[each], now - 5)

    def hear_refusal(self, code, now):
        if self.state == "joining" or self.believes_late_refusals:
            if code == C.JOIN_REFUSED_FULL:
                self.send(bytes([C.PLAYER_LEFT]))
            sooner = self.refused_wait_s if code == C.JOIN_REFUSED_FULL else self.version_wait_s
            self.due_s = now + sooner if sooner else self.due_s

    def step(self, now):
        if self.state != "joining" and now - self.heard_s > self.silence_s:
            self.begin("joining", now)
        if self.state == "playing":
            self.play(now)
        is_unproved = now > self.proved_s + self.proof_s
        if now >= self.due_s and (self.state != "playing" or is_unproved):
            if self.state == "entering" and self.wait_s == 1:
                self.doubt_slot(now + 1)
            self.send({"joining": self.join, "asking": ASK}.get(self.state, self.enter))
            growth = {"joining": self.growth, "asking": 1}.get(self.state, self.entry_growth)
            self.due_s, self.wait_s = now + self.wait_s, min(growth * self.wait_s, 30)

    def play(self, now):
        for slot in PEERS:
            is_quick = slot in self.named | self.known and self.unanswered[slot]
            interval_s = (self.unknown_s if is_quick or slot in self.named - self.known else
                          self.known_s if slot in self.known else self.all_s)
            if slot != self.slot and now >= self.asked[slot] + interval_s:
                self.asked[slot] = now
                self.unanswered[slot] += 1
                self.send(bytes([C.GET_PLAYER_INFO, slot]))
                if self.unanswered[slot] == self.most_asked:
                    self.known.discard(slot)
                    self.named.discard(slot)
        if self.questions and now >= self.slot_due_s:
            self.questions, self.slot_due_s = self.questions - 1, now + 1
            self.send(bytes([C.CAR_BLOCK_A, 0, 0, 0]) + self.block_asked)
        if self.in_car and self.car_left and now >= self.car_sent_s + 2:
            self.car_left -= 1
            self.send_car(now)
        if now >= self.report_due_s:
            self.report_due_s += self.report_s
            self.report(now - self.start_s, now)

    def report(self, age_s, now):
        """On foot, in a car from 9 to 18 seconds, then dead, and in a car again from 21 to 33."""
        was_in_car, self.in_car = self.in_car, 9 < age_s < 18 or 21 < age_s < 33
        if self.in_car > was_in_car:
            self.send(bytes([C.VEHICLE, 1]) + bytes(14) + CAR)
            self.car_left, self.car_sent_s = self.car_repeats, now
        self.send(struct.pack("<Bxxx3f", C.POSITION_UPDATE, age_s, 0, 0))
        self.send(bytes([C.STATE_FLOATS]) + bytes(11))
        if age_s < self.weapon_s:
            self.send(bytes([C.WEAPON, 3]))
        if self.in_car:
            self.send(bytes([C.CAR_BLOCK_A, 0, 0, 0]) + BLOCK)
            self.send(bytes([C.CAR_BLOCK_B]) + bytes(27))
            self.send(bytes([C.CAR_STATUS]) + bytes(7))
        else:
            self.send(bytes([C.FOOT_UPDATE]) + bytes(7))
        if 18 < age_s < 26 and not self.has_role:
            self.has_died = True
            self.send(bytes([C.DIED, 1]))
            if self.in_car and self.drives_on:
                self.send_car(now)
        for _ in range(self.chats):
            self.send(bytes([C.CHAT]) + b"hello\0")
        if self.joins_again and age_s > 5:
            self.send(JOIN)


# The faults, the rules that they break (None: not checked), and a text of the reasons.
FAULTY_CLIENTS = (
    ({"enter": b"\x0f\1" + bytes(98)}, {"bytes"}, "CMD_ENTER_GAME with the unused byte 1 not zero"),
    ({"join": JOIN[:66] + b"\x27\0"}, {"bytes"}, "CMD_JOIN with the version 39"),
    ({"growth": 1}, {"joins", "refusals", "version", "stop", "rates"}, "after a wait of 1.0 s"),
    ({"loses_second": {C.JOIN}}, None, "only 1 CMD_JOIN in 17 s"),
    ({"loses": {C.PLAYER_LEFT}}, {"refusals", "leaving"}, "no CMD_PLAYER_LEFT after CMD_JOIN_REF"),
    ({"loses": {C.PLAYER_LEFT}}, {"refusals", "leaving"}, "no CMD_PLAYER_LEFT after the signal"),
    ({"refused_wait_s": 0.3}, {"refusals"}, "CMD_JOIN after a wait of 0.4 s, 1 s expected"),
    ({"believes_late_refusals": True}, {"refusals"}, "for a refusal that came after"),
    ({"version_wait_s": 0.3}, {"version", "rates"}, "CMD_JOIN after a wait of 0.4 s"),
    ({"loses_second": {C.ENTER_GAME}}, None, "1 CMD_ENTER_GAME in 8.5 s without an answer"),
    ({"loses_second": {C.CAR_BLOCK_A}}, None, "an unanswered CMD_CAR_BLOCK_A is not repeated"),
    ({"asks_slot": False}, {"own-slot", "slot-again"}, "no CMD_CAR_BLOCK_A after two"),
    ({"believes_slot": False}, {"own-slot"}, "it asks for slot 3, its own by CMD_NOT_IN_CAR"),
    ({"loses": {C.PING_REPLY}}, {"pings"}, "0 CMD_PING_REPLY in 0.5 s to 1 CMD_PING"),
    ({"replies": 2}, {"pings"}, "2 CMD_PING_REPLY in 0.5 s to 1 CMD_PING"),
    ({"known_s": 9}, {"questions", "others"}, "for slot 0, a known player, for 7.5 s"),
    ({"unknown_s": 60}, {"questions", "others"}, "for slot 4, which a relay named"),
    ({"unknown_s": 0.3}, {"questions"}, "it asks for slot 4 again after 0.3 s"),
    ({"all_s": 60}, {"questions"}, "for slot 1, 3, 5 and more in 30 s"),
    ({"silence_s": 40}, {"silence"}, "no CMD_JOIN in 34 s of silence"),
    ({"silence_s": 15}, {"silence"}, "CMD_JOIN after 15.0 s of silence"),
    ({"counts_pings_only": True}, {"silence"}, "s after entering, though relays came"),
    ({"stop_wait_s": 0}, {"stop"}, "CMD_JOIN 0.0 s after CMD_SERVER_SHUTDOWN"),
    ({"stop_wait_s": 60}, {"stop"}, "no CMD_JOIN in 10 s after CMD_SERVER_SHUTDOWN"),
    ({"checks_size": False}, {"hostile", "silence"}, "a CMD_JOIN_ACCEPTED that is too short"),
    ({"checks_slot": False}, {"hostile"}, "because of a wrong datagram"),
    ({"checks_address": False}, {"hostile"}, "it accepts a CMD_JOIN_ACCEPTED that"),
    ({"dies_of": lambda datagram: datagram == b""}, {"hostile", "running"}, "it died with status"),
    ({"dies_of": lambda datagram: len(datagram) == 2 and datagram[0] == C.PLAYER_INFO}, None,
     "it died with status 1 (hostile-datagrams"),
    ({"counts_junk": True}, {"silence"}, "no CMD_JOIN in 34 s of silence (gone"),
    ({"asks_again": False}, None, "the request for its slot, after CMD_ENTER_GAME"),
    ({"block_asked": bytes(28)}, {"slot-again"}, "with an empty block instead of its own"),
    ({"counts_answers": True}, {"re-entry"}, "no CMD_ENTER_GAME for 31 s without proof"),
    ({"enter": b"\x0f" + bytes(23) + b"\1" + bytes(75)}, {"re-entry"}, "STATE_FLOATS before and"),
    ({"entry_growth": 1}, {"entering"}, "after waits of 1.0 s and 1.0 s, not doubled"),
    ({"asks_named": False}, {"others"}, "for the slot of CMD_ENTER_GAME_REPLY"),
    ({"most_asked": 3}, {"others"}, "for slot 7 for 3.5 s after 2 without an answer"),
    ({"old_s": 60}, {"others"}, "for a record 2.3 s old, after unknown floats"),
    ({"weapon_s": 60}, {"repeats"}, "CMD_WEAPON is repeated 11 times in 33 s"),
    ({"car_repeats": 0}, {"rides"}, "no CMD_CAR_STATE for 4 s in a new car"),
    ({"doubts_clock": False}, {"rides"}, "no CMD_CAR_STATE for 4 s in a new car"),
    ({"car_wait_s": 0}, {"car"}, "five CMD_CAR_STATE in a second"),
    ({"drives_on": False}, {"deaths"}, "no CMD_CAR_STATE after a repeated CMD_DIED of a driver"),
    ({"believes_role": False}, {"deaths"}, "after a CMD_PINKPANTHER that names the client"),
    ({"joins_again": True}, None, "CMD_JOIN in the game"),
    ({"report_s": 6}, {"reports", "deaths"}, "no CMD_FOOT_UPDATE for 3.8 s"),
    ({"loses": {C.STATE_FLOATS}}, {"reports"}, "no CMD_STATE_FLOATS for 3.8 s"),
    ({"loses": {C.CAR_STATE}}, {"car", "rides", "reports"}, "no CMD_CAR_STATE in 2.5 s after"),
    ({"loses_second": {C.DIED}}, {"deaths"}, "CMD_DIED 01 is not repeated"),
    ({"chats": 12}, {"rates"}, "more CMD_CHAT than 10 at once"),
)  # fmt: skip

# Sends from two ports, answers every address, and does not leave.
FAULTY_PROGRAM = """if True:
    import socket, sys
    one, two = (socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2))
    join, enter = (bytes.fromhex(word) for word in sys.argv[3:])
    for link, datagram in (one, join), (two, join), (two, enter):
        link.sendto(datagram, (sys.argv[1], int(sys.argv[2])))
    while True:
        two.sendto(b"\\2", two.recvfrom(2000)[1])"""

# Faults that no client above has: the rule, the events, and a text of the reason.
ACCEPTED = simulation.accepted(2)
IN_GAME = ((0, ">", JOIN), (0, "<", ACCEPTED), (0.1, ">", ENTER),
           (0.2, "<", bytes([C.ENTER_GAME_REPLY, 2, 0, 0])))  # fmt: skip
MOVED = ((0, "<", simulation.accepted(3)), (0, "<", ACCEPTED), (1, ">", ASK),
         (1, "<", bytes([C.NOT_IN_CAR, 3])), (9, ">", bytes([C.GET_PLAYER_INFO, 5])),
         (12, "<", simulation.accepted(6)), (13, ">", ASK))  # fmt: skip
STOP = (30, "mark", "stop")
TRANSCRIPTS = (
    ("bytes", (*IN_GAME, (1, "mark", "another port")), "another source port"),
    ("joins", (STOP,), "no CMD_JOIN"),
    ("refusals", ((0, "<", simulation.refused(C.JOIN_REFUSED_FULL)), (1, "<", ACCEPTED),
                  (1, "mark", "refusals come late"), (2, "mark", "died")), "it died for a refusal"),
    ("entering", ((0, "<", ACCEPTED), STOP), "no CMD_ENTER_GAME after CMD_JOIN_ACCEPTED"),
    ("entering", ((0, "<", ACCEPTED), (3, ">", ASK)), "CMD_CAR_BLOCK_A 3.0 s after"),
    ("entering", ((0, "<", ACCEPTED), (3, ">", ENTER)), "CMD_ENTER_GAME 3.0 s after the answer"),
    ("entering", (*IN_GAME, (0.3, ">", ENTER)), "an unanswered datagram is repeated after 0.2 s"),
    ("entering", (*IN_GAME, (4, ">", JOIN)), "CMD_JOIN while it waits to enter"),
    ("own-slot", (*MOVED, STOP), "no CMD_ENTER_GAME in 5 s after the server named another slot"),
    ("own-slot", (*MOVED, STOP), "it never asks for slot 2"),
    ("questions", (*IN_GAME, (3, "<", simulation.position(4, 0)),
                   (4, ">", bytes([C.GET_PLAYER_INFO, 4])), STOP),
     "an unanswered CMD_GET_PLAYER_INFO for slot 4 is not repeated"),
    ("questions", (*IN_GAME, (3, "<", simulation.position(4, 0)),
                   (5.5, ">", bytes([C.GET_PLAYER_INFO, 4]))), "slot 4, which a relay named"),
    ("own-slot", (*MOVED[:4], (1.5, ">", bytes([C.GET_PLAYER_INFO, 3]))), "it asks for slot 3"),
    ("pings", ((0, "<", b"\1"), (0.6, ">", b"\2"), STOP), "0 CMD_PING_REPLY in 0.5 s"),
    ("silence", ((0, "<", ACCEPTED), (0, "mark", "the server is gone"), (33, ">", JOIN)),
     "CMD_JOIN after 33.0 s of silence"),
    ("stop", ((0, "<", bytes([C.SERVER_SHUTDOWN])), (0.6, ">", JOIN), STOP), "JOIN 0.6 s after"),
    ("rates", [(0.001 * count, ">", b"\2") for count in range(450)], "more datagrams than 300"),
    ("rates", [(count, ">", ENTER) for count in range(18)], "more CMD_ENTER_GAME than 16 at once"),
    ("hostile", ((0, "to stranger", b"\2"),), "CMD_PING_REPLY to another address"),
    ("hostile", ((0, ">", bytes([C.GET_PLAYER_INFO, 32])),), "it asks for slot 32"),
    ("leaving", ((0, "mark", "stop"),), "it still runs 3 s after the signal"),
    *(("repeats", [(2 * count, ">", bytes([code, 1]).ljust(size, b"\0")) for count in range(11)],
       f"CMD_{name} is repeated 10 times in 20 s") for name, code, size in
      (("CAR_STATE", C.CAR_STATE, 80), ("DIED", C.DIED, 2))),
    ("re-entry", (*IN_GAME, (3, "mark", "the server forgets the entry"), (9, ">", JOIN)),
     "CMD_JOIN while the server answers"),
    ("bad-network", ((0, ">", JOIN),), "it did not get into the game"),
    ("bad-network", (*IN_GAME, STOP), "it was not in the game in the end"),
)  # fmt: skip


def play(scenario, client):
    """Runs a client in a scenario, on a simulated clock. Returns the events."""
    arrived, now = [], 0
    sim = simulation.Simulation(simulation.SCENARIOS[scenario], 1,
                                lambda *datagram: arrived.append(datagram))  # fmt: skip
    while not (sim.is_done or client.has_ended):
        now += TICK_S
        sim.step(now)
        heard, arrived[:] = arrived[:], []
        for datagram, from_stranger in heard:
            client.hear(datagram, now, from_stranger)
            if from_stranger:
                for answer in client.out:
                    sim.note("to stranger", answer)
                client.out.clear()
        client.step(now)
        for datagram in client.out:
            sim.hear(datagram, now + 0.001)
        client.out.clear()
    if client.has_ended:
        sim.note("mark", "died with status 1")
        return sim.log
    sim.note("mark", "stop in the game" if sim.in_game else "stop")
    client.send(bytes([C.PLAYER_LEFT]))
    for datagram in client.out:
        sim.hear(datagram, now + 0.01)
    sim.note("mark", "ended with status 0")
    return sim.log


def verdicts_on(**faults):
    logs = {scenario: play(scenario, Client(**faults)) for scenario in simulation.SCENARIOS}
    return {name: rules.verdict_on(rule, logs) for name, rule in rules.RULES.items()}


def start_script(*arguments):
    command = [sys.executable, "-B", SCRIPT / "lib/check-client.py", *arguments]
    return subprocess.Popen(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)


class CheckClientTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        """Starts programs that take seconds. The other tests run meanwhile."""
        cls.correct = start_script("--only", "other-version", sys.executable, "-B", __file__,
                                   "--client", "HOST", "PORT")  # fmt: skip
        cls.faulty = start_script("--only", "hostile-datagrams", sys.executable, "-c", FAULTY_PROGRAM,
                                  "HOST", "PORT", JOIN.hex(), ENTER.hex())  # fmt: skip
        for each in (cls.correct, cls.faulty):
            cls.addClassCleanup(each.wait)

    def test_correct_client_keeps_all_rules(self):
        self.assertEqual(verdicts_on(), dict.fromkeys(rules.RULES, ("kept", "")))

    def test_tolerates_a_busy_machine(self):
        """The script's pause and the client's delay of a reply, 0.2 s, both widen the tolerance."""
        for pause_s, text in ((0.1, "JOIN after a wait of 0.3 s"), (0.3, "[]")):
            events = ((0, ">", JOIN), (0.1, "mark", f"paused {pause_s}"), (0.3, ">", JOIN),
                      (1, "<", b"\1"), (1.2, ">", b"\2"), (1, "<", bytes([C.SERVER_SHUTDOWN])),
                      (0.2, "<", bytes([C.JOIN_REFUSED_VERSION]) + bytes(64)))  # fmt: skip
            events = [simulation.Event(*event) for event in events]
            self.assertIn(text, str(rules.findings(rules.RULES["version"].check, events)))

    def test_describes_wrong_datagrams(self):
        for datagram, wrong in (
            (b"", "an empty datagram"), (b"\3", "the unknown code 3"), (b"\x0f", "GAME of 1 byte"),
            (b"\x1f" + bytes(256), "CMD_CHAT of 257 bytes"), (b"\x1f", None), (b"\x1fhello", None),
            (b"\x0f" + bytes(92) + b"\1" + bytes(6), "CMD_ENTER_GAME with the unused byte 93"),
            (b"\x0a" + b"n" * 64 + b"\0\x28\0", "a name without a NUL"), (JOIN, None),
        ):  # fmt: skip
            self.assertIn(wrong or "None", str(rules.wrong_bytes(datagram)))

    def test_detects_the_fault_in_each_transcript(self):
        for name, events, text in TRANSCRIPTS:
            events = [simulation.Event(*event) for event in events]
            self.assertIn(text, str(rules.findings(rules.RULES[name].check, events)))

    def test_detects_each_faulty_client(self):
        undetected = set(rules.RULES)
        for faults, broken, text in FAULTY_CLIENTS:
            with self.subTest(text):
                verdicts = verdicts_on(**faults)
                seen = {name for name, (verdict, _) in verdicts.items() if verdict == "broken"}
                if broken:
                    self.assertEqual(seen, broken)
                self.assertIn(text, str(verdicts.values()))
                undetected -= seen
        self.assertEqual(undetected, set())

    def test_runs_real_programs(self):
        dying = start_script("--only", "hostile-datagrams", "sh", "-c",
                             "echo 'PORT is\033[1m no good'; exit 3")  # fmt: skip
        said, errors = dying.communicate()
        self.assertEqual((dying.returncode, errors), (1, ""))
        self.assertIn("\nrunning: broken: it died with status 3 (hostile-datagrams, 0.", said)
        self.assertRegex(said, r"its last lines:\n  \d+ is no good\n")
        for arguments, complaint in (
            ((), "COMMAND must contain the word PORT"), (("true", "PORTS"), "the word PORT"),
            (("/nothing", "PORT"), "cannot start /nothing: No such file or directory"),
            (("--record", "/nothing", "true", "PORT"), "/nothing is no directory"),
            (("--only", "PORT", "true"), "invalid choice: 'PORT'"),
        ):  # fmt: skip
            wrong = start_script(*arguments)
            said, errors = wrong.communicate()
            self.assertEqual((wrong.returncode, said), (2, ""))
            self.assertIn(complaint, errors)
        said, errors = self.correct.communicate()
        self.assertEqual((self.correct.returncode, errors), (0, ""))
        self.assertIn("\nversion: kept\n", said)
        said, errors = self.faulty.communicate()
        self.assertEqual((self.faulty.returncode, errors), (1, ""))
        self.assertIn("bytes: broken: a datagram from another source port (", said)
        self.assertIn("\nhostile: broken: CMD_PING_REPLY to another address (", said)
        self.assertIn("\nleaving: broken: no CMD_PLAYER_LEFT after the signal (", said)
        self.assertIn("\nstop: not tested: no scenario for it was played\n", said)

    def test_ends_the_client_when_the_script_ends(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        program = f"trap '' TERM; echo $$ >{folder}/new; mv {folder}/new {folder}/id; sleep 60; : PORT"
        ended = start_script("--only", "silent-server", "sh", "-c", program)
        while not (folder / "id").exists():
            self.assertIsNone(ended.poll())
            time.sleep(0.02)
        ended.terminate()
        ended.communicate()
        self.assertEqual(ended.returncode, 1)
        self.assertFalse(pathlib.Path("/proc", (folder / "id").read_text().strip()).exists())


def main():
    client, start = Client(), time.monotonic()
    signal.signal(signal.SIGTERM, lambda *_: vars(client).update(has_ended=True))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as link:
        link.connect((sys.argv[2], int(sys.argv[3])))
        link.settimeout(TICK_S)
        while not client.has_ended:
            try:
                client.hear(link.recv(2000), time.monotonic() - start)
            except OSError:
                pass
            client.step(time.monotonic() - start)
            for datagram in client.out:
                link.send(datagram)
            client.out.clear()
        link.send(bytes([C.PLAYER_LEFT]))


if __name__ == "__main__":
    main() if sys.argv[1:2] == ["--client"] else unittest.main()
