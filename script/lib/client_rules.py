"""The rules of script/check-client. The check of a rule reads the log of one scenario, and yields the
time and the description of each event that broke the rule."""

import collections
import itertools
import re

import client_state_rules as state
from client_log import Log, NotTested, gaps, name_of, waits
from client_stage import END_S, MAX_PLAYERS, SCENARIOS, SIZES_UP, C
from lib import ROOT

Rule = collections.namedtuple("Rule", "about check scenarios")
# These datagrams prove that the client is in the game.
PROOFS = (C.PING, C.ENTER_GAME_REPLY, C.CHAT_LINE, C.PLAYER_LEFT, *range(200, 210), C.PLAYER_DIED)


def too_fast(times, what, late_s):
    """Yields the waits that are shorter than 1, 2, 4 and so on up to 30 seconds."""
    for number, (time, wait) in enumerate(zip(times[1:], waits(times))):
        expected = min(2**number, 30)
        if wait < 0.7 * expected - late_s:
            yield time, f"{what} after a wait of {wait:.1f} s, {expected} s expected"


# The layout of the client's datagrams.


def unused_bytes():
    """Returns the offsets of the unused bytes for each code of the client, from docs/protocol.md."""
    rows, text = {}, (ROOT / "docs/protocol.md").read_text()
    for title, table in re.findall(r"^### `(\w+)`.*\n((?:(?!#).*\n)*)", text, re.M):
        # If both sides send a datagram with this name, the client's comes first.
        rows.setdefault(title, re.findall(r"^\| (\d+) \| (\d+) \| (\S+) \| `?(\w*)", table, re.M))

    def offsets(title, start):
        for offset, width, field, kind in rows[title]:
            first = start + int(offset)
            if field == "unused":
                yield from range(first, first + int(width))
            elif kind in rows:
                yield from offsets(kind, first)

    return {code: list(offsets(name_of(code), 0)) for code in SIZES_UP}


UNUSED = unused_bytes()


def wrong_bytes(datagram):
    """Returns what is wrong with a datagram of the client, or None."""
    if not datagram:
        return "an empty datagram"
    code, size = datagram[0], len(datagram)
    if code not in SIZES_UP:
        return f"the unknown code {code}"
    if size != SIZES_UP[code] and not (code == C.CHAT and size <= SIZES_UP[code]):
        return f"{name_of(code)} of {size} bytes instead of {SIZES_UP[code]}"
    if dirty := [offset for offset in UNUSED[code] if datagram[offset]]:
        return f"{name_of(code)} with the unused byte {dirty[0]} not zero"
    if code == C.JOIN and 0 not in datagram[1:65]:
        return "CMD_JOIN with a name without a NUL"
    if code == C.JOIN and datagram[66:] != b"\x28\0":
        return f"CMD_JOIN with the version {int.from_bytes(datagram[66:], 'little')}"
    return None


def check_bytes(log):
    if not log.sent:
        raise NotTested("it sent nothing")
    for time, _, datagram in log.sent:
        if wrong := wrong_bytes(datagram):
            yield time, wrong
    for mark in log.marks("another port"):
        yield mark.time, "a datagram from another source port"


# Joining and entering.


def check_joins(log):
    joins = log.times(C.JOIN)
    if not joins:
        yield log.end, "no CMD_JOIN"
    for time, before, wait in zip(joins[1:], [0.5, *waits(joins)], waits(joins)):
        shortest, longest = min(1.4 * before, 25), max(2.5 * before, 3)
        if not shortest - 2 * log.late_s <= wait <= longest + 2 * log.late_s:
            yield time, f"CMD_JOIN after a wait of {wait:.1f} s"
    if joins and len(joins) < 4:
        yield log.end, f"only {len(joins)} CMD_JOIN in {log.end - joins[0]:.0f} s"


def check_refusals(log):
    """Only refusals between a join and the first acceptance count."""
    accepted = min(log.got_times(C.JOIN_ACCEPTED), default=log.end)
    refusals = [time for time in log.got_times(C.JOIN_REFUSED_FULL) if time < accepted]
    if not refusals:
        raise NotTested("it never joined")
    for refusal in refusals:
        join = min(log.times(C.JOIN, after=refusal), default=log.end)
        if not log.times(C.PLAYER_LEFT, after=refusal, until=join):
            yield join, "no CMD_PLAYER_LEFT after CMD_JOIN_REFUSED_FULL"
    yield from too_fast(log.times(C.JOIN, until=accepted), "CMD_JOIN", log.late_s)
    for mark in log.marks("refusals come late"):
        for time in log.times(C.PLAYER_LEFT, C.JOIN, after=mark.time, until=log.end):
            yield time, "it left or joined for a refusal that came after CMD_JOIN_ACCEPTED"
        for death in log.marks("died"):
            yield death.time, f"it {death.what} for a refusal that came after CMD_JOIN_ACCEPTED"


def check_version(log):
    log.first(C.JOIN_REFUSED_VERSION, "it never joined")
    yield from too_fast(log.times(C.JOIN), "CMD_JOIN", log.late_s)


def check_entering(log):
    accepted = log.first(C.JOIN_ACCEPTED, "it was never accepted")
    enters = log.times(C.ENTER_GAME)
    asked = log.times(C.CAR_BLOCK_A, after=accepted, until=min(enters, default=log.end))
    told = [time for time in log.got_times(C.NOT_IN_CAR) if time <= min(enters, default=log.end)]
    if enters:
        start = told[0] if told else enters[0] if asked else accepted
        yield from check_enters(enters, start, log.late_s)
    elif len(asked) == 1 and not told:
        yield log.end, "an unanswered CMD_CAR_BLOCK_A is not repeated"
    else:
        yield log.end, f"no CMD_ENTER_GAME after CMD_{'NOT_IN_CAR' if told else 'JOIN_ACCEPTED'}"
    if asked and asked[0] > accepted + 2 + log.late_s:
        yield asked[0], f"CMD_CAR_BLOCK_A {asked[0] - accepted:.1f} s after CMD_JOIN_ACCEPTED"
    for times in (asked, enters):
        yield from ((time, f"an unanswered datagram is repeated after {wait:.1f} s")
                    for time, wait in zip(times[1:], waits(times))
                    if wait < 0.7 - log.late_s)  # fmt: skip
    for time in log.times(C.JOIN, after=accepted):
        yield time, "CMD_JOIN while it waits to enter"


def check_enters(enters, start, late_s):
    """The first three entries are lost. The client could send the first one at `start`."""
    if enters[0] > start + 2 + late_s:
        yield enters[0], f"CMD_ENTER_GAME {enters[0] - start:.1f} s after the answer before it"
    sent = [time for time in enters if time < enters[0] + 8.5]
    if len(sent) < 3:
        yield enters[0] + 8.5, f"{len(sent)} CMD_ENTER_GAME in 8.5 s without an answer, 3 expected"
    for time, (before, wait) in zip(enters[2:4], itertools.pairwise(waits(enters[:4]))):
        if wait < 1.4 * before - 2 * late_s:
            yield time, f"CMD_ENTER_GAME after waits of {before:.1f} s and {wait:.1f} s, not doubled"


def check_own_slot(log):
    answers = [(time, datagram[1]) for time, code, datagram in log.got if code == C.JOIN_ACCEPTED]
    if len({slot for _, slot in answers}) < 2:
        raise NotTested("it never sent a second CMD_JOIN")
    first = answers[1][0]
    moves = [time for time, slot in answers if slot == 6]
    yield from check_belief(log, first, min(moves, default=log.end))
    for moved in moves[:1]:
        for code, limit_s in ((C.CAR_BLOCK_A, 2), (C.ENTER_GAME, 5)):
            if not log.times(code, after=moved, until=moved + limit_s + log.late_s):
                text = f"no {name_of(code)} in {limit_s} s after the server named another slot"
                yield moved + limit_s, text


def check_belief(log, begin, end):
    """The client is in slot 3, and another player in slot 2."""
    told = [time for time in log.got_times(C.NOT_IN_CAR) if begin <= time < end]
    if not log.times(C.CAR_BLOCK_A, after=begin, until=min(begin + 5, end)):
        yield begin + 5, "no CMD_CAR_BLOCK_A after two CMD_JOIN_ACCEPTED that name two slots"
    elif not log.times(C.GET_PLAYER_INFO):
        raise NotTested("it asks for no player, so its requests do not show its slot")
    elif told:
        for time in log.times_about(3, told[0] + 0.2, end):
            yield time, "it asks for slot 3, its own by CMD_NOT_IN_CAR"
        if end > told[0] + 8 and not log.times_about(2, told[0], end):
            yield end, "it never asks for slot 2, another player's, as if that slot were its own"


# The game.


def check_pings(log):
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


def check_questions(log):
    entered = log.first(C.ENTER_GAME_REPLY, "it was never in the game")
    for slot in range(256):
        times = log.times_about(slot, entered)
        yield from ((time, f"it asks for slot {slot} again after {wait:.1f} s")
                    for time, wait in zip(times[1:], waits(times))
                    if wait < 0.7 - log.late_s)  # fmt: skip
    yield from check_unknown(log)
    times = [entered, *log.times_about(0, entered), log.end]
    for time in gaps(times, 7.5 + log.late_s):
        yield time, "no CMD_GET_PLAYER_INFO for slot 0, a known player, for 7.5 s"
    own = {datagram[1] for _, code, datagram in log.got if code == C.JOIN_ACCEPTED}
    missing = [str(slot) for slot in range(MAX_PLAYERS)
               if slot not in own and not log.times_about(slot, entered, log.end)]  # fmt: skip
    if missing and log.end > entered + 30:
        shown = ", ".join(missing[:3]) + (" and more" if len(missing) > 3 else "")
        yield log.end, f"no CMD_GET_PLAYER_INFO for slot {shown} in 30 s"


def check_unknown(log):
    """Checks the requests for slot 4, which a relay names before any record. The client may have
    asked just before the relay."""
    if not (relays := log.got_times(C.PLAYER_POSITION, slot=4)):
        return
    known = min(log.got_times(C.PLAYER_INFO, slot=4), default=log.end)
    asked = log.times_about(4, relays[0] - 1, known)
    if not asked or asked[0] > relays[0] + 2 + log.late_s:
        yield relays[0] + 2, "no CMD_GET_PLAYER_INFO for slot 4, which a relay named 2 s ago"
    for time in gaps([*asked, known], 6.5 + log.late_s):
        yield time, "an unanswered CMD_GET_PLAYER_INFO for slot 4 is not repeated"


def check_silence(log):
    entered = log.first(C.JOIN_ACCEPTED, "it was never accepted")
    joins = log.times(C.JOIN, after=entered)
    if not log.marks("the server is gone"):
        yield from ((time, f"CMD_JOIN {time - entered:.0f} s after entering, though relays came")
                    for time in joins)  # fmt: skip
        return
    heard = max(time for time, _, _ in log.got)
    if not joins:
        yield log.end, f"no CMD_JOIN in {log.end - heard:.0f} s of silence"
    elif not heard + 20 <= joins[0] <= heard + 32 + log.late_s:
        yield joins[0], f"CMD_JOIN after {joins[0] - heard:.1f} s of silence, 25 expected"


def check_forgotten(log):
    """The server answers requests, but sends no proof that the client is in the game."""
    marks = log.marks("the server forgets the entry")
    if not marks:
        raise NotTested("it was never in the game")
    forgotten = marks[0].time
    proof = max(time for time in log.got_times(*PROOFS) if time <= forgotten)
    enters = log.times(C.ENTER_GAME, after=forgotten)
    if min(enters, default=log.end) > proof + 31 + log.late_s:
        yield proof + 31, "no CMD_ENTER_GAME for 31 s without proof that it is in the game"
    for time in log.times(C.JOIN, after=forgotten):
        yield time, "CMD_JOIN while the server answers its requests"
    for enter in enters:
        yield from state.check_entry(log, enter)


def check_others(log):
    """CMD_ENTER_GAME_REPLY names slot 29, whose record is missing. Answers about slot 7 are lost."""
    entered = log.first(C.ENTER_GAME_REPLY, "it was never in the game")
    if not log.times_about(29, entered, entered + 2.5 + log.late_s):
        yield entered + 2.5, "no CMD_GET_PLAYER_INFO in 2.5 s for the slot of CMD_ENTER_GAME_REPLY"
    record = max(log.got_times(C.PLAYER_INFO, slot=7), default=log.end)
    # The client may have sent an earlier request before the record arrived.
    asked = log.times_about(7, record + 0.3)
    times = [*(asked or [record + 5]), log.end][: MOST_UNANSWERED + 1]
    for time in gaps(times, 3.5 + log.late_s)[:1]:
        count = len([each for each in asked if each < time])
        yield time, f"no CMD_GET_PLAYER_INFO for slot 7 for 3.5 s after {count} without an answer"
    for floats in log.got_times(C.PLAYER_STATE_FLOATS):
        age = floats - max(time for time in log.got_times(C.PLAYER_INFO, slot=0) if time < floats)
        due = floats - age + 4.2 + log.late_s  # the regular request comes after five seconds
        if 2.1 < age < 3.2 and due < floats - age + 4.7 and not log.times_about(0, floats, due):
            yield due, f"no CMD_GET_PLAYER_INFO for a record {age:.1f} s old, after unknown floats"


def check_stop(log):
    stop = log.first(C.SERVER_SHUTDOWN, "it was never in the game")
    answers = [time for time in log.got_times(C.JOIN_ACCEPTED) if time > stop]
    joins = log.times(C.JOIN, after=stop, until=min(answers, default=log.end))
    if not joins or joins[0] > stop + 10:
        yield stop + 10, "no CMD_JOIN in 10 s after CMD_SERVER_SHUTDOWN"
    elif joins[0] < stop + 0.7 - log.late_s:
        yield joins[0], f"CMD_JOIN {joins[0] - stop:.1f} s after CMD_SERVER_SHUTDOWN"
    yield from too_fast(joins, "CMD_JOIN", log.late_s)


def check_hostile(log):
    accepted = min(log.got_times(C.JOIN_ACCEPTED), default=log.end)
    for time in log.times(C.ENTER_GAME, C.CAR_BLOCK_A, until=accepted):
        yield time, "it accepts a CMD_JOIN_ACCEPTED that is too short or from another address"
    for mark in log.marks("died"):
        yield mark.time, f"it {mark.what}"
    for event in log.events:
        if event.way == "to stranger":
            yield event.time, f"{name_of(event.what[0] if event.what else -1)} to another address"
    for slot in range(MAX_PLAYERS, 256):
        yield from ((time, f"it asks for slot {slot}") for time in log.times_about(slot))
    if not log.times(C.ENTER_GAME):
        raise NotTested("it was never in the game")
    entered = min(log.got_times(C.ENTER_GAME_REPLY), default=log.end)
    for time in log.times(C.JOIN, C.ENTER_GAME, C.PLAYER_LEFT, after=entered, until=log.end):
        yield time, "it leaves, joins or enters because of a wrong datagram"


def check_leaving(log):
    stops = log.marks("stop")
    if not stops or log.marks("died"):
        raise NotTested("it ended before the signal")
    ends = log.marks("ended")
    if not ends:
        yield stops[0].time + END_S, f"it still runs {END_S} s after the signal"
    if stops[0].what == "stop in the game" and not log.times(C.PLAYER_LEFT, after=stops[0].time):
        yield stops[0].time, "no CMD_PLAYER_LEFT after the signal"
    elif stops[0].what != "stop in the game" and ends:
        raise NotTested("it was never in the game")


def check_running(log):
    yield from ((mark.time, f"it {mark.what}") for mark in log.marks("died"))


# The limits of packaging/zolserver.nft.


def over(times, burst, per_s):
    """Returns the first of these times at which a token bucket of this size is empty, or None."""
    level, before = burst, 0.0
    for time in times:
        level = min(burst, level + (time - before) * per_s)
        before = time
        if level < 1:
            return time
        level -= 1
    return None


MOST_UNANSWERED = 8  # unanswered requests after which a client must still ask for a player
# Code (None: all codes), burst, rate per second.
LIMITS = ((None, 300, 300), (C.CHAT, 10, 1), (C.ENTER_GAME, 16, 6 / 60), (C.JOIN, 8, 2 / 60))


def check_rates(log):
    if not log.sent:
        raise NotTested("it sent nothing")
    for code, burst, per_s in LIMITS:
        what = name_of(code) if code else "datagrams"
        times = log.times(code) if code else [time for time, _, _ in log.sent]
        if (time := over(times, burst, per_s)) is not None:
            yield time, f"more {what} than {burst} at once and {per_s:.2g} a second"


def check_bad_network(log):
    if not log.sent:
        raise NotTested("it sent nothing")
    replies = log.got_times(C.ENTER_GAME_REPLY)
    if not replies:
        yield log.end, "it did not get into the game"
    else:
        yield from ((time, "CMD_JOIN in the game") for time in log.times(C.JOIN, after=replies[0]))
    # A repeated CMD_JOIN may arrive after the entry and move the client to another slot, which the
    # client may not have learned yet.
    is_out = log.marks("stop") and not log.marks("stop in the game")
    if is_out and not log.marks("the server moved"):
        yield log.end, "it was not in the game in the end"


EACH, OWN = tuple(SCENARIOS), ("long-game", "own-state")
RULES = {
    "bytes": Rule("Every datagram has a known code and its full size, with zeros in unused bytes, "
                  "and comes from one port.", check_bytes, EACH),
    "joins": Rule("An unanswered CMD_JOIN is repeated after 1, 2, 4 and so on up to 30 seconds.",
                  check_joins, ("silent-server",)),
    "refusals": Rule("A waiting client leaves after each CMD_JOIN_REFUSED_FULL, before it joins "
                     "again. A late refusal changes nothing.", check_refusals, ("full-server",)),
    "version": Rule("After CMD_JOIN_REFUSED_VERSION it joins no faster than before.",
                    check_version, ("other-version",)),
    "entering": Rule("It enters soon, and repeats its entry and the request for its slot until an "
                     "answer comes.", check_entering, ("lost-entry",)),
    "own-slot": Rule("It asks for its slot with CMD_CAR_BLOCK_A, and accepts the slot in "
                     "CMD_NOT_IN_CAR.", check_own_slot, ("moved-client",)),
    "pings": Rule("It answers each CMD_PING at once.", check_pings, EACH),
    "questions": Rule("It asks for unknown players at once, for known ones every five seconds, for "
                      "each slot within 30 seconds, and for none more than once a second.",
                      check_questions, ("long-game",)),
    "others": Rule("It asks for the slot that CMD_ENTER_GAME_REPLY names, ten times for a silent "
                   "player, and sooner for old records after state floats of an unknown player.",
                   check_others, ("other-players",)),
    "re-entry": Rule("It enters again, with its present state, after 22 seconds without proof that "
                     "it is in the game.", check_forgotten, ("forgotten-entry",)),
    "silence": Rule("It joins again after 25 seconds without any datagram, and only then.",
                    check_silence, ("gone-server", "vanished-server", "lost-pings")),
    "stop": Rule("After CMD_SERVER_SHUTDOWN it waits and joins again.", check_stop,
                 ("stopped-server",)),
    "hostile": Rule("It ignores wrong datagrams and other addresses.", check_hostile,
                    ("hostile-datagrams",)),
    "bad-network": Rule("It enters in spite of loss, repeats and delays, and stays in the game.",
                        check_bad_network, ("bad-network",)),
    "reports": Rule("It repeats its own state every three seconds.", state.check_reports, OWN),
    "slot-again": Rule("It asks for its slot again after an entry, with its current block A.",
                       state.check_slot_again, OWN),
    "car": Rule("When the server considers it to be on foot, it reports its car again, at most "
                "twice a second.", state.check_car, OWN),
    "rides": Rule("In a new car it repeats CMD_CAR_STATE every two seconds until CMD_GAME_CLOCK "
                  "answers.",
                  state.check_rides, ("own-state",)),
    "deaths": Rule("It repeats CMD_DIED with the same count, but not as the PinkPanther. In a car "
                   "CMD_CAR_STATE follows.", state.check_deaths, OWN),
    "repeats": Rule("It repeats weapons, cars and deaths only for a while.", state.check_repeats, OWN),
    "rates": Rule("It stays below the limits of the sample firewall.", check_rates, EACH),
    "running": Rule("It runs until it is stopped. It may end when the server refuses it.",
                    check_running, tuple(name for name in EACH if not SCENARIOS[name].may_end)),
    "leaving": Rule("Stopped by a signal, it sends CMD_PLAYER_LEFT and ends.", check_leaving, EACH),
}  # fmt: skip


def findings(check_log, events):
    """Returns what broke a rule, sorted by time, and the reason if the rule could not be tested."""
    found, reason = [], ""
    try:
        for finding in check_log(Log(events)):
            found.append(finding)
    except NotTested as untested:
        reason = str(untested)
    return sorted(found), reason


def verdict_on(rule, logs):
    """Returns the verdict on a rule, and its reason. `logs` contains the events of each scenario."""
    broken, reasons = [], []
    for scenario in (each for each in rule.scenarios if each in logs):
        found, reason = findings(rule.check, logs[scenario])
        broken += [f"{text} ({scenario}, {time:.1f} s)" for time, text in found]
        reasons.append(reason)
    if broken:
        return "broken", broken[0] + (f" and {len(broken) - 1} more" if len(broken) > 1 else "")
    if "" in reasons:
        return "kept", ""
    return "not tested", reasons[0] if reasons else "no scenario for it was played"
