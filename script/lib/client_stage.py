"""The server and the network that script/check-client simulates for a client, and its scenarios.

A simulation has no socket and no clock. The caller passes the time and the client's datagrams, and a
function that delivers datagrams to the client. So a test runs a scenario in milliseconds."""

import collections
import heapq
import itertools
import random
import re
import struct
import types

from lib import ROOT, command_codes

C = types.SimpleNamespace(**{name[4:]: code for name, code in command_codes().items()})
MAX_PLAYERS = 32
EVERYTHING = frozenset(range(256))


def sizes():
    """Returns the sizes of the client's and of the server's datagrams, by code. The size of CMD_CHAT
    is its maximum."""
    text = (ROOT / "docs/protocol.md").read_text()
    heading = re.compile(r"^### `CMD_\w+` \((\d+)\), (?:1 to )?(\d+) byte", re.M)
    return [{int(code): int(size) for code, size in heading.findall(part)}
            for part in text.split("\n## Server to client\n")]  # fmt: skip


SIZES_UP, SIZES_DOWN = sizes()
# The server's datagrams with a slot in their second byte.
WITH_SLOT = (C.JOIN_ACCEPTED, C.NOT_IN_CAR, C.PLAYER_INFO, C.PLAYER_STATE, C.PLAYER_LEFT,
             *range(C.PLAYER_POSITION, C.PLAYER_WEAPON + 1), C.PLAYER_DIED)  # fmt: skip
START_S = 10  # time limit for the client's first join
END_S = 3  # time limit for the client's end after the signal

# An event has a time, a way, and `what`: a datagram or a text. The ways are:
#   ">"            the client sent the datagram to the server
#   "<"            the client got the datagram from the server
#   "stranger"     the client got the datagram from another address
#   "to stranger"  the client sent the datagram to that address
#   "mark"         `what` is a note of the simulation or of its caller
Event = collections.namedtuple("Event", "time way what")
# may_end: the client may end by itself in this scenario.
Scenario = collections.namedtuple("Scenario", "play seconds may_end about")


def accepted(slot, game_type=0):
    return bytes([C.JOIN_ACCEPTED, slot, game_type]) + b"Welcome".ljust(64, b"\0")


def refused(code):
    text = b"Maximum allowed players: 4" if code == C.JOIN_REFUSED_FULL else b"You need Version 0.4"
    return bytes([code]) + text.ljust(64, b"\0")


def record(slot, just_entered=0):
    head = bytes([C.PLAYER_INFO, slot, just_entered]) + b"Peer%d" % slot
    return head.ljust(68, b"\0") + struct.pack("<3f", slot, 1, 0) + bytes(84)


def place(slot):
    return struct.pack("<BBxx3f", C.PLAYER_STATE, slot, slot, 1, 0) + bytes(64)


def position(slot, x):
    return struct.pack("<BBxx3f", C.PLAYER_POSITION, slot, x, 1, 0)


def state_floats(second):
    """Returns state floats. The datagram contains no slot."""
    return struct.pack("<Bxxx2f", C.PLAYER_STATE_FLOATS, second, 77)


class Simulation:
    def __init__(self, scenario, seed, deliver):
        """`deliver(datagram, from_stranger)` sends a datagram to the client."""
        self.now, self.log, self.deliver = 0.0, [], deliver
        self.random = random.Random(seed)
        self.due, self.numbers = [], itertools.count()  # delayed actions: (time, number, action)
        self.loss = self.repeats = self.delays = 0.0  # shares of the datagrams
        self.lost_last = set()
        self.count = collections.Counter()  # the client's datagrams, by code
        self.slot, self.in_game, self.in_car, self.has_died = None, False, False, False
        self.entry = None  # the latest entry; pings of earlier ones stop
        self.peers = {0}  # slots of other players in the game
        self.unanswered = set()  # codes of client datagrams that the network loses
        self.lose_next = collections.Counter()  # how many more of each code it loses
        self.pings = self.answers_car_state = True
        self.game_type = 0
        self.named = None  # the slot that CMD_ENTER_GAME_REPLY names instead of the client's own
        self.mute = set()  # slots of players whose answers are lost
        self.record_times = {0: 0.0}  # time of the last record that the client got, by slot
        self.drives = False  # by all reports of the client, including the lost ones
        self.is_done = False
        self.script = scenario.play(self)
        self.wake = 0.0
        self.step(0.0)

    # For the caller.

    def step(self, now):
        """Handles everything that is due at this time."""
        self.now = now
        while self.due and self.due[0][0] <= now:
            heapq.heappop(self.due)[2]()
        while not self.is_done and self.wake <= now:
            try:
                # Catches up at most 0.1 s, so that a long pause of the caller causes no burst.
                self.wake = max(self.wake, now - 0.1) + next(self.script)
            except StopIteration:
                self.is_done = True

    def next_due(self):
        return min(self.wake, self.due[0][0]) if self.due else self.wake

    def hear(self, datagram, now):
        """`now` may be earlier than the last step, because the caller may read a datagram late."""
        self.log.append(Event(now, ">", datagram))
        self.now = max(now, self.now)
        if datagram:
            self.count[datagram[0]] += 1
            self.drives = is_in_car(datagram.ljust(256, b"\0"), self.drives)
            self.carry("up", datagram, lambda: self.serve(datagram))

    def note(self, way, what):
        self.log.append(Event(self.now, way, what))

    # The network.

    def later(self, seconds, action):
        heapq.heappush(self.due, (self.now + seconds, next(self.numbers), action))

    def carry(self, direction, datagram, arrive):
        """Loses, repeats or delays a datagram. Never loses two in a row with the same code, so that
        no scenario gets stuck."""
        key = (direction, datagram[:1])
        if self.random.random() < self.loss and key not in self.lost_last:
            self.lost_last.add(key)
            return
        self.lost_last.discard(key)
        for _ in range(1 + (self.random.random() < self.repeats)):
            if self.random.random() < self.delays:
                self.later(self.random.uniform(0.01, 0.3), arrive)
            else:
                arrive()

    def send(self, datagram):
        def arrive():
            self.note("<", datagram)
            self.deliver(datagram, False)

        self.carry("down", datagram, arrive)

    def send_as_stranger(self, datagram):
        self.note("stranger", datagram)
        self.deliver(datagram, True)

    # The server.

    def serve(self, datagram):
        code = datagram[0]
        if code in self.unanswered:
            return
        if self.lose_next[code] > 0:
            self.lose_next[code] -= 1
            return
        if code == C.JOIN:
            self.serve_join()
        elif self.slot is not None:
            self.serve_player(code, datagram.ljust(256, b"\0"))

    def serve_join(self):
        if self.in_game:
            self.note("mark", "the server moved the client")
        # The first free slot other than the old one.
        self.put_into(next(slot for slot in (2, 3, 6) if slot not in {self.slot, *self.peers}))
        self.send(accepted(self.slot, self.game_type))

    def put_into(self, slot):
        self.slot, self.in_game, self.in_car, self.has_died = slot, False, False, False

    def serve_player(self, code, datagram):
        if code == C.ENTER_GAME:
            self.serve_entry(datagram)
        elif code in (C.GET_PLAYER_INFO, C.GET_PLAYER_STATE):
            if (asked := datagram[1]) in self.peers - {self.slot} - self.mute:
                self.send_record(asked) if code == C.GET_PLAYER_INFO else self.send(place(asked))
        elif code in (C.CAR_BLOCK_A, C.CAR_BLOCK_B, C.CAR_STATUS) and not self.in_car:
            self.send(bytes([C.NOT_IN_CAR, self.slot]))
        elif code == C.PLAYER_LEFT:
            self.put_into(None)
        else:
            self.has_died |= code == C.DIED
            self.in_car = is_in_car(datagram, self.in_car)
            is_answered = code == C.CAR_STATE and self.answers_car_state or code == C.LEAVE_CAR
            if is_answered or code == C.STATE_FLOATS and self.has_died:
                self.send(bytes([C.GAME_CLOCK, 1, 2]))

    def send_record(self, slot):
        self.record_times[slot] = self.now
        self.send(record(slot))

    def serve_entry(self, datagram):
        was_in_game, self.in_game = self.in_game, True
        self.in_car = is_in_car(datagram, self.in_car)
        named = self.slot if self.named is None else self.named
        self.send(bytes([C.ENTER_GAME_REPLY, named, 1, 2]))
        for peer in sorted(self.peers - {named}):
            self.send_record(peer)
        if not was_in_game:
            self.entry = entry = object()
            self.later(2, lambda: self.ping(entry))

    def ping(self, entry):
        if entry is self.entry and self.in_game and self.pings:
            self.send(bytes([C.PING]))
            self.later(10, lambda: self.ping(entry))

    # For the scenarios.

    def until(self, is_so, limit_s):
        """Waits until the condition holds. Returns False after `limit_s`."""
        end = self.now + limit_s
        while not is_so():
            if self.now >= end:
                return False
            yield 0.02
        return True

    def heard(self, code, count=1):
        return lambda: self.count[code] >= count

    def until_in_game(self):
        return (yield from self.until(lambda: self.in_game, START_S))

    def repeat(self, seconds, interval_s, act):
        """Calls `act` with 0, 1, 2 and so on, at this interval."""
        end = self.now + seconds
        for number in itertools.count():
            if self.now >= end:
                return
            act(number)
            yield interval_s


def is_in_car(datagram, before):
    """Returns whether the server considers the sender to be in a car after this datagram."""
    code = datagram[0]
    if code in (C.ENTER_GAME, C.VEHICLE):
        return datagram[32 if code == C.ENTER_GAME else 1] != 0
    if code == C.CAR_STATE:
        return True
    return before and code not in (C.LEAVE_CAR, C.DIED, C.FOOT_UPDATE, C.JOIN, C.PLAYER_LEFT)


# The scenarios. Each yields the seconds until its next step.


def silent_server(sim):
    sim.unanswered = EVERYTHING
    yield from sim.until(sim.heard(C.JOIN), START_S)
    yield 16.5


def full_server(sim):
    """Refuses three joins and accepts the fourth. Late refusals arrive after that."""
    sim.unanswered = {C.JOIN}
    for count in (1, 2, 3):
        if not (yield from sim.until(sim.heard(C.JOIN, count), START_S)):
            return
        sim.send(refused(C.JOIN_REFUSED_FULL))
    sim.unanswered = set()
    if not (yield from sim.until(lambda: sim.slot is not None, 12)):
        return
    sim.note("mark", "refusals come late")
    sim.send(refused(C.JOIN_REFUSED_FULL))
    yield from sim.until_in_game()
    yield 1
    sim.send(refused(C.JOIN_REFUSED_FULL))
    sim.send(refused(C.JOIN_REFUSED_VERSION))
    yield 5


def other_version(sim):
    sim.unanswered = {C.JOIN}
    yield from sim.until(sim.heard(C.JOIN), START_S)
    answered = 0
    end = sim.now + 5
    while sim.now < end:
        while answered < sim.count[C.JOIN]:
            answered += 1
            sim.send(refused(C.JOIN_REFUSED_VERSION))
        yield 0.02


def lost_entry(sim):
    """Loses the client's first two requests for its slot, and its first three entries."""
    sim.lose_next.update({C.CAR_BLOCK_A: 2, C.ENTER_GAME: 3})
    if not (yield from sim.until(sim.heard(C.JOIN), START_S)):
        return
    yield from sim.until(sim.heard(C.ENTER_GAME), 8)
    yield from sim.until(lambda: sim.in_game, 9)
    yield 3


def long_game(sim):
    """Slot 0 is in the game from the beginning. Relays name slot 4 three seconds after the client's
    entry, and four seconds later its record is available. All other slots are silent."""
    # The first report of a car is lost, so the server considers the client to be on foot.
    sim.lose_next.update({C.VEHICLE: 1, C.CAR_STATE: 1})
    sim.game_type = 1
    if not (yield from sim.until_in_game()):
        return
    yield 3
    sim.later(4, lambda: sim.peers.add(4))
    told, driven = set(), 0

    def once(is_so, code, count, delay_s):
        """Sends a datagram with the client's own slot, only once for each code."""
        if is_so and sim.in_game and code not in told:
            told.add(code)
            datagram = bytes([code, sim.slot])
            for _ in range(count):
                sim.later(delay_s, lambda: sim.send(datagram))

    def act(number):
        nonlocal driven
        driven = driven + 1 if sim.drives else 0
        once(driven == 5, C.NOT_IN_CAR, 6, 0)
        once(sim.count[C.DIED], C.PINKPANTHER, 1, 5)
        sim.send(position(4, number / 5))
        sim.send(position(0, number / 5))
        if number == 20:
            for _ in range(3):
                sim.send(bytes([C.PING]))

    yield from sim.repeat(28.5, 0.2, act)


def gone_server(sim):
    """After three seconds, the client gets only wrong datagrams: an unknown code, two that are too
    short, and one that is too long."""
    if (yield from sim.until_in_game()):
        yield 3
        sim.unanswered, sim.pings = EVERYTHING, False
        sim.note("mark", "the server is gone")
        junk = (bytes([99]), position(0, 1)[:2], bytes([C.PING, 0]), record(0)[:2])
        yield from sim.repeat(33, 3, lambda number: sim.send(junk[number % len(junk)]))


def vanished_server(sim):
    """The server accepts the join, and is silent from then on."""
    sim.unanswered = EVERYTHING - {C.JOIN}
    if (yield from sim.until(sim.heard(C.JOIN), START_S)):
        sim.unanswered = EVERYTHING
        sim.note("mark", "the server is gone")
        yield 33


def lost_pings(sim):
    sim.pings = False
    if not (yield from sim.until_in_game()):
        return

    def act(number):
        sim.send(position(0, number))
        if number % 5 == 0:
            sim.send(bytes([C.CHAT_LINE]) + b"Peer0: hello".ljust(64, b"\0"))

    yield from sim.repeat(31, 1, act)


def stopped_server(sim):
    if not (yield from sim.until_in_game()):
        return
    yield 2
    sim.put_into(None)
    sim.lose_next[C.JOIN] = 3
    sim.send(bytes([C.SERVER_SHUTDOWN]))
    joins = sim.count[C.JOIN]
    yield from sim.until(sim.heard(C.JOIN, joins + 1), 12)
    if (yield from sim.until(lambda: sim.slot is not None, 12)):
        yield 3


def moved_client(sim):
    """The answers to two joins arrive late and in the wrong order: the client is in slot 3, and
    another player gets slot 2. Later the server moves the client to slot 6."""
    sim.unanswered = {C.JOIN}
    if not (yield from sim.until(sim.heard(C.JOIN), START_S)):
        return
    if not (yield from sim.until(sim.heard(C.JOIN, 2), 5)):
        return
    sim.unanswered = set()
    sim.put_into(3)
    sim.peers.add(2)
    sim.send(accepted(3))
    sim.send(accepted(2))
    yield from sim.repeat(11, 0.2, lambda number: sim.send(position(2, number)))
    if sim.in_game:
        sim.put_into(6)
        sim.send(accepted(6))
        yield 6


def hostile_datagrams(sim):
    """Sends datagrams that a client must ignore, from the server's address and from another one."""
    sim.lose_next[C.JOIN] = 1
    if not (yield from sim.until(sim.heard(C.JOIN), START_S)):
        return
    sim.send_as_stranger(accepted(7))
    sim.send(accepted(7)[:-1])
    if not (yield from sim.until_in_game()):
        return
    sim.send_as_stranger(accepted(7))
    sim.send_as_stranger(bytes([C.SERVER_SHUTDOWN]))
    sim.send_as_stranger(bytes([C.PING]))
    datagrams = list(hostile(sim.random))
    sim.random.shuffle(datagrams)
    for number, datagram in enumerate(datagrams):
        sim.send(datagram)
        if number % 100 == 0:
            sim.send(bytes([C.PING]))
        yield 0.005
    yield 1
    sim.send(bytes([C.PING]))
    yield 2


def hostile(chance):
    yield from [b""] * 3
    for code, size in SIZES_DOWN.items():
        for wrong in sorted({1, 2, size - 1, size + 1, 256, 257, 1500} - {0, size}):
            yield (bytes([code, 1]) + chance.randbytes(wrong))[:wrong]
    for code in set(range(256)) - set(SIZES_DOWN):
        yield bytes([code]) + chance.randbytes(chance.choice((0, 1, 63, 1400)))
    for code in WITH_SLOT:
        for slot in (MAX_PLAYERS, 100, 255):
            yield bytes([code, slot]) + chance.randbytes(SIZES_DOWN[code] - 2)
    # The size is right, but the bytes are random.
    yield from (bytes([C.CHAT_LINE]) + chance.randbytes(64) for _ in range(5))


def other_players(sim):
    """CMD_ENTER_GAME_REPLY names slot 29. All answers about slot 7 are lost. Three times, when the
    record of slot 0 is 2.3 to 2.8 seconds old, state floats arrive that match no record."""
    sim.peers |= {7, 29}
    sim.mute, sim.named = {7}, 29
    if not (yield from sim.until_in_game()):
        return
    for number in range(3):
        yield 0.5
        yield from sim.until(lambda: 2.3 < sim.now - sim.record_times[0] < 2.8, 7)
        sim.send(state_floats(number))
    yield 7


def own_state(sim):
    """The server answers no CMD_CAR_STATE. When the client has been in a car for four seconds, an old
    CMD_JOIN_ACCEPTED arrives, so that the client asks for its slot."""
    sim.answers_car_state = False
    if not (yield from sim.until_in_game()):
        return
    driven = 0

    def act(number):
        nonlocal driven
        sim.send(position(0, number))
        driven = driven + 1 if sim.in_car else 0
        if driven % 20 == 19:
            sim.send(accepted(5))

    yield from sim.repeat(34, 0.2, act)


def forgotten_entry(sim):
    """The server removes the client from the game without a notice, but still answers requests."""
    if not (yield from sim.until_in_game()):
        return
    yield 3
    sim.note("mark", "the server forgets the entry")
    sim.in_game = False
    yield from sim.until(lambda: sim.in_game, 31)
    yield 4


def bad_network(sim):
    sim.loss, sim.repeats, sim.delays = 0.25, 0.15, 0.2
    if not (yield from sim.until(sim.heard(C.JOIN), START_S)):
        return

    def act(number):
        if sim.in_game:
            sim.send(position(0, number))

    yield from sim.repeat(20, 0.2, act)
    sim.loss = sim.repeats = sim.delays = 0.0
    yield 4


SCENARIOS = {
    "silent-server": Scenario(silent_server, 17, False, "the server answers nothing"),
    "full-server": Scenario(full_server, 20, True, "the server refuses three joins"),
    "other-version": Scenario(other_version, 5, True, "the server refuses the client's version"),
    "lost-entry": Scenario(lost_entry, 16, False, "requests for the own slot and entries are lost"),
    "long-game": Scenario(long_game, 32, False, "known and unknown players move"),
    "gone-server": Scenario(gone_server, 37, False, "the server falls silent"),
    "vanished-server": Scenario(vanished_server, 34, False, "the server falls silent after a join"),
    "lost-pings": Scenario(lost_pings, 32, False, "only the server's pings are lost"),
    "stopped-server": Scenario(stopped_server, 15, False, "the server stops and starts again"),
    "moved-client": Scenario(moved_client, 20, False, "the answers to two joins swap places"),
    "hostile-datagrams": Scenario(hostile_datagrams, 10, False, "wrong and forged datagrams arrive"),
    "other-players": Scenario(other_players, 22, False, "answers about a player are lost"),
    "own-state": Scenario(own_state, 35, False, "only the client itself acts"),
    "forgotten-entry": Scenario(forgotten_entry, 38, False, "the client loses its place in the game"),
    "bad-network": Scenario(bad_network, 26, False, "datagrams are lost, repeated and late"),
}
