"""The rules that script/check-client judges a client by. Each judge reads what happened in one
scenario, a list of events, and yields what broke the rule: when, and what was seen."""

import collections
import itertools
import re

from client_stage import (
    END_S, MAX_PLAYERS, SCENARIOS, SIZES_DOWN, SIZES_UP, WITH_SLOT, C, is_in_car,
)  # fmt: skip
from lib import ROOT

Rule = collections.namedtuple("Rule", "about judge scenarios")

NAMES_UP = {code: name for name, code in sorted(vars(C).items()) if code in SIZES_UP
            and name not in ("NOT_IN_CAR", "PLAYER_STATE")}  # fmt: skip
REPORTS = {C.POSITION_UPDATE, C.CAR_STATE, C.LEAVE_CAR, C.DIED, C.FOOT_UPDATE, C.WEAPON,
           C.STATE_FLOATS, C.VEHICLE}  # fmt: skip
CAR_REPORTS = {C.CAR_BLOCK_A, C.CAR_BLOCK_B, C.CAR_STATUS}


class NotTested(Exception):
    """The client gave no occasion."""


def name(code):
    return f"CMD_{NAMES_UP[code]}" if code in NAMES_UP else f"code {code}"


def is_right(datagram):
    """Whether a client may believe a datagram of the server."""
    return (datagram != b"" and len(datagram) == SIZES_DOWN.get(datagram[0])
            and (datagram[0] not in WITH_SLOT or datagram[1] < MAX_PLAYERS))  # fmt: skip


class Log:
    """What happened in a scenario. Of the server's datagrams it has those that are right. An empty
    datagram of the client has the code -1."""

    def __init__(self, events):
        self.events = events
        self.end = next((event.time for event in self.marks("stop")), events[-1].time if events else 0)
        self.sent = [(event.time, event.what[0] if event.what else -1, event.what)
                     for event in events if event.way == ">"]
        self.got = [(event.time, event.what[0], event.what)
                    for event in events if event.way == "<" and is_right(event.what)]

    def marks(self, start):
        return [event for event in self.events if event.way == "mark" and event.what.startswith(start)]

    def times(self, *codes, after=-1.0, until=float("inf")):
        """When the client sent these codes."""
        return [time for time, code, _ in self.sent if code in codes and after < time <= until]

    def got_times(self, *codes):
        return [time for time, code, _ in self.got if code in codes]

    def first(self, code, why):
        """When the client first got this code."""
        if not (times := self.got_times(code)):
            raise NotTested(why)
        return times[0]

    def rides(self):
        """Each datagram that the client sent, and whether it sat in a car by its own reports."""
        in_car = False
        for time, code, datagram in self.sent:
            if datagram:
                in_car = is_in_car(datagram.ljust(256, b"\0"), in_car)
            yield time, code, datagram, in_car


def waits(times):
    return [later - time for time, later in itertools.pairwise(times)]


def too_fast(times, what):
    """Waits shorter than those of 1, 2, 4 and so on up to 30 seconds."""
    for number, (time, wait) in enumerate(zip(times[1:], waits(times))):
        if wait < 0.7 * min(2**number, 30):
            yield time, f"{what} after a wait of {wait:.1f} s, at least {min(2**number, 30)} s expected"


# The bytes.


def unused_bytes():
    """The offsets of each datagram of the client that must be zero, by the document's tables."""
    text = (ROOT / "docs/protocol.md").read_text()
    sections = re.split(r"^###? ", text, flags=re.M)
    rows = {}
    for section in sections:
        title = re.match(r"`(\w+)`(?: \((\d+)\))?,? ", section)
        if title and (title[1] not in rows):
            rows[title[1]] = re.findall(r"^\| (\d+) \| (\d+) \| `?(\w+)`? \| (\S+) \|", section + "\n", re.M)
            rows[title[1]] += [(*pair, "unused", "") for pair in
                               re.findall(r"^\| (\d+) \| (\d+) \| unused \|", section, re.M)]

    def offsets(title, start=0):
        for offset, width, field, kind in rows[title]:
            if field == "unused":
                yield from range(start + int(offset), start + int(offset) + int(width))
            elif kind.strip("`") in rows:
                yield from offsets(kind.strip("`"), start + int(offset))

    return {code: sorted(set(offsets(f"CMD_{NAMES_UP[code]}"))) for code in SIZES_UP}


UNUSED = unused_bytes()


def wrong_bytes(datagram):
    """What is wrong with a datagram of the client, or None."""
    if not datagram:
        return "an empty datagram"
    code, size = datagram[0], len(datagram)
    if code not in SIZES_UP:
        return f"the unknown code {code}"
    if size != SIZES_UP[code] and not (code == C.CHAT and size <= SIZES_UP[code]):
        return f"{name(code)} of {size} bytes instead of {SIZES_UP[code]}"
    if dirty := [offset for offset in UNUSED[code] if datagram[offset]]:
        return f"{name(code)} with the unused byte {dirty[0]} not zero"
    if code == C.JOIN and 0 not in datagram[1:65]:
        return "CMD_JOIN with a name without a NUL"
    if code == C.JOIN and datagram[66:] != b"\x28\0":
        return f"CMD_JOIN with the version {int.from_bytes(datagram[66:], 'little')}"
    return None


def judge_bytes(log):
    if not log.sent:
        raise NotTested("it sent nothing")
    for time, _, datagram in log.sent:
        if wrong := wrong_bytes(datagram):
            yield time, wrong
    for mark in log.marks("another port"):
        yield mark.time, "a datagram from another source port"


# Joining and entering.


def judge_joins(log):
    joins = log.times(C.JOIN)
    if not joins:
        yield log.end, "no CMD_JOIN"
    for time, before, wait in zip(joins[1:], [0.5, *waits(joins)], waits(joins)):
        if not min(1.4 * before, 25) <= wait <= max(2.5 * before, 3):
            yield time, f"CMD_JOIN after a wait of {wait:.1f} s"
    if joins and len(joins) < 4:
        yield log.end, f"only {len(joins)} CMD_JOIN in {log.end - joins[0]:.0f} s"


def judge_refusals(log):
    """A refusal counts while the client waits: after a join and before the first acceptance."""
    accepted = min(log.got_times(C.JOIN_ACCEPTED), default=log.end)
    refusals = [time for time in log.got_times(C.JOIN_REFUSED_FULL) if time < accepted]
    if not refusals:
        raise NotTested("it never joined")
    for refusal in refusals:
        join = min(log.times(C.JOIN, after=refusal), default=log.end)
        if join > refusal + 0.5 and not log.times(C.PLAYER_LEFT, after=refusal, until=join):
            yield join, "no CMD_PLAYER_LEFT after CMD_JOIN_REFUSED_FULL"
        if join < log.end and join < refusal + 0.7:
            yield join, f"CMD_JOIN {join - refusal:.1f} s after CMD_JOIN_REFUSED_FULL"
    yield from too_fast(log.times(C.JOIN, until=accepted), "CMD_JOIN")
    for mark in log.marks("refusals come late"):
        for time in log.times(C.PLAYER_LEFT, C.JOIN, after=mark.time, until=log.end):
            yield time, "it left or joined for a refusal that came after CMD_JOIN_ACCEPTED"
        for death in log.marks("died"):
            yield death.time, f"it {death.what} for a refusal that came after CMD_JOIN_ACCEPTED"


def judge_version(log):
    log.first(C.JOIN_REFUSED_VERSION, "it never joined")
    yield from too_fast(log.times(C.JOIN), "CMD_JOIN")


def judge_entering(log):
    accepted = log.first(C.JOIN_ACCEPTED, "it was never accepted")
    enters = log.times(C.ENTER_GAME)
    asked = log.times(C.CAR_BLOCK_A, after=accepted, until=min(enters, default=log.end))
    told = [time for time in log.got_times(C.NOT_IN_CAR) if not enters or time < enters[0]]
    start = told[0] if told else accepted if not asked else enters[0] if enters else asked[-1]
    if not enters and len(asked) == 1 and not told:
        yield log.end, "an unanswered CMD_CAR_BLOCK_A is not repeated"
    elif not enters:
        yield log.end, "no CMD_ENTER_GAME after " + ("CMD_NOT_IN_CAR" if told else "CMD_JOIN_ACCEPTED")
    elif enters[0] > start + 2:
        yield enters[0], f"CMD_ENTER_GAME only {enters[0] - start:.1f} s after the answer"
    if asked and asked[0] > accepted + 2:
        yield asked[0], f"the first CMD_CAR_BLOCK_A {asked[0] - accepted:.1f} s after CMD_JOIN_ACCEPTED"
    for what, times in (("CMD_CAR_BLOCK_A", asked), ("CMD_ENTER_GAME", enters)):
        yield from ((time, f"{what} again after {wait:.1f} s")
                    for time, wait in zip(times[1:], waits(times)) if wait < 0.7)  # fmt: skip
    if enters and len(log.times(C.ENTER_GAME, until=enters[0] + 8.5)) < 3:
        yield enters[0] + 8.5, f"{len(enters)} CMD_ENTER_GAME in 8.5 s without an answer, 3 expected"
    yield from ((time, "CMD_JOIN while it waits to enter") for time in log.times(C.JOIN, after=accepted))


def is_about(log, code, slot, after, until):
    return [time for time, sent, datagram in log.sent
            if sent == code and datagram[1:2] == bytes([slot]) and after <= time <= until]


def judge_own_slot(log):
    answers = [(time, datagram[1]) for time, code, datagram in log.got if code == C.JOIN_ACCEPTED]
    if len({slot for _, slot in answers}) < 2:
        raise NotTested("it never sent a second CMD_JOIN, or never entered")
    first = answers[1][0]
    moves = [time for time, slot in answers if slot == 6]
    end = moves[0] if moves else log.end
    told = [time for time, code, datagram in log.got if code == C.NOT_IN_CAR and first <= time < end]
    if not log.times(C.CAR_BLOCK_A, after=first, until=min(first + 5, end)):
        yield first + 5, "two CMD_JOIN_ACCEPTED named two slots, and it did not ask with CMD_CAR_BLOCK_A"
    elif not log.times(C.GET_PLAYER_INFO):
        raise NotTested("it asks for nobody, so nobody can tell which slot it takes for its own")
    elif told:
        for time in is_about(log, C.GET_PLAYER_INFO, 3, told[0] + 0.2, end):
            yield time, "it asks for slot 3, its own by CMD_NOT_IN_CAR"
        if end > told[0] + 8 and not is_about(log, C.GET_PLAYER_INFO, 2, told[0], end):
            yield end, "it never asks for slot 2, another player's, as if that were its own"
    if moves:
        yield from judge_move(log, moves[0])


def judge_move(log, moved):
    asked = log.times(C.CAR_BLOCK_A, after=moved, until=moved + 4)
    if not asked:
        yield moved + 4, "no CMD_CAR_BLOCK_A after a CMD_JOIN_ACCEPTED for another slot in the game"
    if not log.times(C.ENTER_GAME, after=moved, until=moved + 5):
        yield moved + 5, "no CMD_ENTER_GAME after a CMD_JOIN_ACCEPTED for another slot in the game"


# The game.


def judge_pings(log):
    pings = [time for time in log.got_times(C.PING) if time < log.end - 0.6]
    if not pings:
        raise NotTested("it was never in the game")
    while pings:
        last = first = pings.pop(0)
        count = 1
        while pings and pings[0] < last + 0.5:
            last, count = pings.pop(0), count + 1
        replies = len(log.times(C.PING_REPLY, after=first, until=last + 0.5))
        if not 1 <= replies <= count:
            yield last + 0.5, f"{replies} CMD_PING_REPLY in 0.5 s to {count} CMD_PING"


def judge_questions(log):
    entered = log.first(C.ENTER_GAME_REPLY, "it was never in the game")
    asked = {slot: is_about(log, C.GET_PLAYER_INFO, slot, entered, log.end)
             for slot in range(256)}  # fmt: skip
    for slot, times in asked.items():
        for time, wait in zip(times[1:], waits(times)):
            if wait < 0.7:
                yield time, f"it asks for slot {slot} again after {wait:.1f} s"
    relays = [time for time, code, datagram in log.got if code == C.PLAYER_POSITION and datagram[1] == 4]
    if relays and not any(time < relays[0] + 2 for time in asked[4]):
        yield relays[0] + 2, "no CMD_GET_PLAYER_INFO for slot 4, which a relay named 2 s ago"
    known = [time for time, code, datagram in log.got if code == C.PLAYER_INFO and datagram[1] == 4]
    times = [time for time in asked[4] if relays and time >= relays[0]]
    for time, later in itertools.pairwise([*times, known[0] if known else log.end] if times else []):
        if later > time + 6.5:
            yield time + 6.5, "an unanswered CMD_GET_PLAYER_INFO for slot 4 is not repeated"
    for time, later in itertools.pairwise([entered, *asked[0], log.end]):
        if later > time + 7.5:
            yield time + 7.5, "no CMD_GET_PLAYER_INFO for slot 0, a known player, for 7.5 s"
    own = {datagram[1] for _, code, datagram in log.got if code == C.JOIN_ACCEPTED}
    missing = [slot for slot in range(MAX_PLAYERS) if slot not in own and not asked[slot]]
    if missing and log.end > entered + 30:
        shown = ", ".join(map(str, missing[:3])) + (" and more" if len(missing) > 3 else "")
        yield log.end, f"no CMD_GET_PLAYER_INFO for slot {shown} in 30 s"


def judge_silence(log):
    entered = log.first(C.ENTER_GAME_REPLY, "it was never in the game")
    joins = log.times(C.JOIN, after=entered)
    if not log.marks("the server is gone"):
        yield from ((time, f"CMD_JOIN {time - entered:.0f} s after entering, though relays came")
                    for time in joins)  # fmt: skip
        return
    heard = max(event.time for event in log.events if event.way == "<")
    if not joins:
        yield log.end, f"no CMD_JOIN in {log.end - heard:.0f} s of silence"
    elif not heard + 20 <= joins[0] <= heard + 32:
        yield joins[0], f"CMD_JOIN after {joins[0] - heard:.1f} s of silence, 25 expected"


def judge_stop(log):
    stop = log.first(C.SERVER_SHUTDOWN, "it was never in the game")
    joins = log.times(C.JOIN, after=stop)
    answered = min((time for time in log.got_times(C.JOIN_ACCEPTED) if time > stop), default=log.end)
    if not joins or joins[0] > stop + 10:
        yield log.end, "no CMD_JOIN after CMD_SERVER_SHUTDOWN"
    elif joins[0] < stop + 0.7:
        yield joins[0], f"CMD_JOIN {joins[0] - stop:.1f} s after CMD_SERVER_SHUTDOWN"
    yield from too_fast([time for time in joins if time <= answered], "CMD_JOIN")


def judge_hostile(log):
    accepted = min(log.got_times(C.JOIN_ACCEPTED), default=log.end)
    for time in log.times(C.ENTER_GAME, C.CAR_BLOCK_A, until=accepted):
        yield time, "it believes a CMD_JOIN_ACCEPTED that is too short or from another address"
    for mark in log.marks("died"):
        yield mark.time, f"it {mark.what}"
    for event in log.events:
        if event.way == "to stranger":
            yield event.time, f"{name(event.what[0] if event.what else -1)} to another address"
    for time, code, datagram in log.sent:
        if code in (C.GET_PLAYER_INFO, C.GET_PLAYER_STATE) and datagram[1:2] >= bytes([MAX_PLAYERS]):
            yield time, f"it asks for slot {datagram[1]}"
    if not log.times(C.ENTER_GAME):
        raise NotTested("it was never in the game")
    entered = min(log.got_times(C.ENTER_GAME_REPLY), default=log.end)
    for time in log.times(C.JOIN, C.ENTER_GAME, C.PLAYER_LEFT, after=entered, until=log.end):
        yield time, "it leaves, joins or enters because of a wrong datagram"


def judge_leaving(log):
    stops = log.marks("stop")
    if not stops or log.marks("died"):
        raise NotTested("it ended before it was told to")
    ends = log.marks("ended")
    if not ends:
        yield stops[0].time + END_S, f"it runs on {END_S} s after the signal"
    if stops[0].what == "stop in the game" and not log.times(C.PLAYER_LEFT, after=stops[0].time):
        yield stops[0].time, "no CMD_PLAYER_LEFT after the signal"
    elif stops[0].what != "stop in the game" and ends:
        raise NotTested("it was never in the game")


def judge_running(log):
    if not log.sent:
        raise NotTested("it sent nothing")
    yield from ((mark.time, f"it {mark.what}") for mark in log.marks("died"))


# Own state.


def late(times, begin, end, what):
    for time, later in itertools.pairwise([begin, *(each for each in times if begin < each < end), end]):
        if later > time + 4.5:
            yield time + 4.5, f"no {what} for 4.5 s"


def judge_reports(log):
    """The phases on foot and in a car from the first report on."""
    rides = list(log.rides())
    entered = log.first(C.ENTER_GAME_REPLY, "it was never in the game")
    reported = [time for time, code, _, in_car in rides if time >= entered
                and (code in REPORTS or code in CAR_REPORTS and in_car)]
    if not reported:
        raise NotTested("it never reports a state of its own")
    turns = [(reported[0], next(each[3] for each in rides if each[0] >= reported[0]))]
    for time, _, _, in_car in rides:
        if time > reported[0] and in_car != turns[-1][1]:
            turns.append((time, in_car))
    whole_car = (C.CAR_STATE, C.VEHICLE)
    for (begin, in_car), (end, _) in itertools.pairwise([*turns, (log.end, None)]):
        for codes, what in ((((C.POSITION_UPDATE, *whole_car), "position"),
                             ((*CAR_REPORTS, *whole_car), "report of the car"))
                            if in_car else
                            (((C.POSITION_UPDATE,), "CMD_POSITION_UPDATE"),
                             ((C.STATE_FLOATS,), "CMD_STATE_FLOATS"),
                             ((C.FOOT_UPDATE,), "CMD_FOOT_UPDATE"))):  # fmt: skip
            yield from late(log.times(*codes), begin, end, what)


def judge_car(log):
    """Without a car, CMD_NOT_IN_CAR only answers the question for the own slot."""
    rides, found = list(log.rides()), False
    for told in log.got_times(C.NOT_IN_CAR):
        before = [each[3] for each in rides if each[0] < told]
        if not before or not before[-1]:
            continue
        found = True
        after = [each for each in rides if told <= each[0] <= told + 2]
        if told < log.end - 2 and not any(code == C.CAR_STATE or not in_car for _, code, _, in_car in after):
            yield told + 2, "no CMD_CAR_STATE in 2 s after CMD_NOT_IN_CAR in a car"
    if not found:
        raise NotTested("it never drives")


def judge_deaths(log):
    deaths = [(time, datagram[1:2]) for time, code, datagram in log.sent
              if code == C.DIED and time < log.end]  # fmt: skip
    if not deaths:
        raise NotTested("it never dies")
    counts = [count for _, count in deaths]
    for time, count in deaths:
        if counts.count(count) < 2 and time < log.end - 4.5:
            yield time + 4.5, f"CMD_DIED {count.hex()} is not repeated"


# The limits.


def over(times, burst, per_s):
    """The first time that a bucket of this size, refilled at this rate, is empty."""
    level, before = burst, 0.0
    for time in times:
        level = min(burst, level + (time - before) * per_s)
        before = time
        if level < 1:
            return time
        level -= 1
    return None


LIMITS = (("datagrams", None, 300, 300), ("CMD_CHAT", C.CHAT, 10, 1),
          ("CMD_ENTER_GAME", C.ENTER_GAME, 16, 6 / 60), ("CMD_JOIN", C.JOIN, 8, 2 / 60))  # fmt: skip


def judge_rates(log):
    if not log.sent:
        raise NotTested("it sent nothing")
    for what, code, burst, per_s in LIMITS:
        times = log.times(code) if code else [time for time, _, _ in log.sent]
        if (time := over(times, burst, per_s)) is not None:
            yield time, f"more {what} than {burst} at once and {per_s:.2g} a second"


def judge_bad_network(log):
    if not log.sent:
        raise NotTested("it sent nothing")
    replies = log.got_times(C.ENTER_GAME_REPLY)
    if not replies:
        yield log.end, "it did not get into the game"
    else:
        yield from ((time, "CMD_JOIN in the game") for time in log.times(C.JOIN, after=replies[0]))
    # A repeated CMD_JOIN may arrive after the entry. A client that does not hear of it is excused.
    if log.marks("stop") and not log.marks("stop in the game") and not log.marks("the server moved"):
        yield log.end, "it was not in the game in the end"


EACH = tuple(SCENARIOS)
CALM = tuple(name for name in EACH if name != "bad-network")
RULES = {
    "bytes": Rule("Every datagram has a known code and its full size, with zeros in unused bytes, "
                  "and comes from one port.", judge_bytes, EACH),
    "joins": Rule("An unanswered CMD_JOIN is repeated after 1, 2, 4 and so on up to 30 seconds.",
                  judge_joins, ("silent-server",)),
    "refusals": Rule("A waiting client leaves after each CMD_JOIN_REFUSED_FULL, before it joins "
                     "again. A late refusal changes nothing.", judge_refusals, ("full-server",)),
    "version": Rule("After CMD_JOIN_REFUSED_VERSION it joins no faster than before.",
                    judge_version, ("other-version",)),
    "entering": Rule("It enters soon, and repeats unanswered questions for its slot and entries.",
                     judge_entering, ("lost-entry",)),
    "own-slot": Rule("It asks for its slot with CMD_CAR_BLOCK_A and believes CMD_NOT_IN_CAR.",
                     judge_own_slot, ("moved-client",)),
    "pings": Rule("It answers each CMD_PING at once.", judge_pings, EACH),
    "questions": Rule("It asks for unknown players at once, for known ones every five seconds, for "
                      "all slots now and then, and for none more than once a second.",
                      judge_questions, ("long-game",)),
    "silence": Rule("It joins again after 25 seconds without any datagram, and only then.",
                    judge_silence, ("gone-server", "lost-pings")),
    "stop": Rule("After CMD_SERVER_SHUTDOWN it waits and joins again.", judge_stop, ("stopped-server",)),
    "hostile": Rule("It ignores wrong datagrams and other addresses.", judge_hostile,
                    ("hostile-datagrams",)),
    "bad-network": Rule("It gets in through loss, repeats and delays, and stays in.",
                        judge_bad_network, ("bad-network",)),
    "reports": Rule("It repeats its own state every three seconds.", judge_reports, ("long-game",)),
    "car": Rule("When the server takes it for one on foot, it reports its car again.", judge_car, CALM),
    "deaths": Rule("It repeats CMD_DIED with the same count.", judge_deaths, ("long-game",)),
    "rates": Rule("It stays below the limits of the sample firewall.", judge_rates, EACH),
    "running": Rule("It runs until it is stopped. It may end when the server refuses it.",
                    judge_running, tuple(name for name in EACH if not SCENARIOS[name].may_end)),
    "leaving": Rule("Stopped by a signal, it sends CMD_PLAYER_LEFT and ends.", judge_leaving, EACH),
}  # fmt: skip


def findings(judge_log, events):
    """What broke a rule, sorted by time, and why it could not be tested or nothing."""
    found, reason = [], ""
    try:
        for finding in judge_log(Log(events)):
            found.append(finding)
    except NotTested as untested:
        reason = str(untested)
    return sorted(found), reason


def judge(rule, logs):
    """What to say of a rule: its verdict, and what was seen. `logs` has the events by scenario."""
    broken, reasons = [], []
    for scenario in (each for each in rule.scenarios if each in logs):
        found, reason = findings(rule.judge, logs[scenario])
        broken += [f"{text} ({scenario}, {time:.1f} s)" for time, text in found]
        reasons.append(reason)
    if broken:
        return "broken", broken[0] + (f" and {len(broken) - 1} more" if len(broken) > 1 else "")
    if "" in reasons:
        return "kept", ""
    return "not tested", reasons[0] if reasons else "no scenario for it was played"
