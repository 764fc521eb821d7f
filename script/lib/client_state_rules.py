"""The rules of script/check-client about the client's own slot, reports, car and deaths."""

import itertools

from client_log import NotTested, gaps, name_of
from client_stage import C

REPORTS = {C.POSITION_UPDATE, C.CAR_STATE, C.LEAVE_CAR, C.DIED, C.FOOT_UPDATE, C.WEAPON,
           C.STATE_FLOATS, C.VEHICLE}  # fmt: skip
CAR_REPORTS = {C.CAR_BLOCK_A, C.CAR_BLOCK_B, C.CAR_STATUS}

CAR_CHANGES = (C.CAR_STATE, C.VEHICLE)  # each contains the whole car
ALWAYS = (((C.POSITION_UPDATE, *CAR_CHANGES), "position"), ((C.STATE_FLOATS,), "CMD_STATE_FLOATS"))
FOOT_GROUPS = (((C.FOOT_UPDATE,), "CMD_FOOT_UPDATE"),)
CAR_GROUPS = tuple(((code, *CAR_CHANGES), f"{name_of(code)} in a car")
                   for code in sorted(CAR_REPORTS))  # fmt: skip
MOST_GAP_S = 3.8  # time limit between two reports of the same kind
# Limit for equal datagrams that make the server print a line. Two more are allowed each minute.
MOST_REPEATS = 9


def rides_of(rides, begin, end):
    """Returns the periods in a car and on foot: begin, end, and whether the client was in a car."""
    turns = []
    for time, _, _, in_car in rides:
        if time >= begin and (not turns or in_car != turns[-1][1]):
            turns.append((time, in_car))
    return [(time, later, in_car) for (time, in_car), (later, _) in
            itertools.pairwise([*turns, (end, None)])]  # fmt: skip


def check_reports(log):
    """Starts at the client's first report."""
    rides = list(log.rides())
    entered = log.first(C.ENTER_GAME_REPLY, "it was never in the game")
    reported = [time for time, code, _, in_car in rides if entered <= time <= log.end
                and (code in REPORTS or code in CAR_REPORTS and in_car)]  # fmt: skip
    if not reported:
        raise NotTested("it never reports its state")
    for begin, end, in_car in rides_of(rides, reported[0], log.end):
        yield from rare(log, CAR_GROUPS if in_car else FOOT_GROUPS, begin, end)
    yield from rare(log, ALWAYS, reported[0], log.end)


def rare(log, groups, begin, end):
    """Yields the gaps between reports that are too long in this period."""
    for codes, what in groups:
        times = [begin, *(time for time in log.times(*codes) if begin < time < end), end]
        for time in gaps(times, MOST_GAP_S + log.late_s):
            yield time, f"no {what} for {MOST_GAP_S} s"


def check_entry(log, enter):
    """If the reports before and after an entry have the same value, the entry must have it, too."""
    entry = next(each for time, code, each in log.sent if (time, code) == (enter, C.ENTER_GAME))
    for code, first, where in (
        (C.POSITION_UPDATE, 4, slice(4, 16)), (C.FOOT_UPDATE, 4, slice(16, 20)),
        (C.WEAPON, 1, slice(20, 21)), (C.STATE_FLOATS, 4, slice(24, 32)),
    ):  # fmt: skip
        reports = [(time, datagram[first:]) for time, each, datagram in log.sent if each == code]
        before = [value for time, value in reports if time < enter][-1:]
        after = [value for time, value in reports if time > enter][:1]
        if before and before == after and entry[where] != before[0]:
            yield enter, f"CMD_ENTER_GAME with another value than {name_of(code)} before and after"


def check_slot_again(log):
    enters, rides = log.times(C.ENTER_GAME), list(log.rides())
    entered = log.first(C.ENTER_GAME_REPLY, "it was never in the game")
    yield from other_blocks(rides)
    end = entered + 3.5 + log.late_s
    starts = [time for time, _, _, in_car in rides if in_car and entered - 1 < time < end]
    if not log.times(C.CAR_BLOCK_A, after=enters[0], until=min([*starts, end])):
        if min([*starts, log.end]) < entered + 2 + log.late_s:
            raise NotTested("it enters in a car, or gets into one at once")
        yield end, "no CMD_CAR_BLOCK_A, the request for its slot, after CMD_ENTER_GAME"


def other_blocks(rides):
    """Yields each empty block A of a driver between two equal blocks that are not empty."""
    blocks = []
    for time, code, datagram, in_car in rides:
        if code == C.CAR_BLOCK_A or code in CAR_CHANGES:
            block = datagram[4:32] if code == C.CAR_BLOCK_A else datagram[20:48]
            blocks = [*blocks[-2:], block] if blocks[-1:] != [block] else blocks
        if not in_car:
            blocks = []
        elif len(blocks) == 3 and blocks[0] == blocks[2] and not any(blocks[1]):
            yield time, "CMD_CAR_BLOCK_A of a driver with an empty block instead of its own"
            blocks = []


def check_car(log):
    """CMD_NOT_IN_CAR counts only if the client is in a car. On foot, it answers the request for the
    slot."""
    rides, has_driven = list(log.rides()), False
    for told in log.got_times(C.NOT_IN_CAR):
        before = [in_car for time, _, _, in_car in rides if time < told]
        if not before or not before[-1] or told > log.end - 2.5 - log.late_s:
            continue
        has_driven = True
        # A report just before CMD_NOT_IN_CAR also counts.
        after = [ride for ride in rides if told - 0.6 <= ride[0] <= told + 2.5 + log.late_s]
        # A client that has learned of a new slot enters again, with its car.
        if not any(code in (C.CAR_STATE, C.ENTER_GAME) or not in_car
                   for _, code, _, in_car in after):  # fmt: skip
            yield told + 2.5, "no CMD_CAR_STATE in 2.5 s after CMD_NOT_IN_CAR in a car"
    reports = log.times(C.CAR_STATE)
    for time, fifth in zip(reports, reports[4:]):
        if fifth < time + 1:
            yield fifth, "five CMD_CAR_STATE in a second"
    if not has_driven:
        drives = any(in_car for *_, in_car in rides)
        raise NotTested("it reports no block of its car" if drives else "it never drives")


def own_rides(log):
    """Returns the begin and the end of each ride that began with a report. A repeated death does not
    end a ride if the driver reports its car again within half a second."""
    found, begin, died = [], None, -1.0
    for time, code, _, in_car in log.rides():
        if in_car and begin is None and code in CAR_CHANGES:
            if found and found[-1][1] == died and code == C.CAR_STATE and time < died + 0.5:
                begin = found.pop()[0]
            else:
                begin = time
        elif not in_car and begin is not None:
            found.append((begin, time))
            begin, died = None, time if code == C.DIED else died
    return [*found, (begin, log.end)] if begin is not None else found


def check_rides(log):
    """The server answers no CMD_CAR_STATE."""
    limit_s = 4 + log.late_s
    rides = [(begin, min(end, begin + 13.5)) for begin, end in own_rides(log)]
    if not any(end > begin + limit_s for begin, end in rides):
        raise NotTested(f"it never drives for {limit_s:.0f} s")
    for begin, end in rides:
        times = [begin, *(time for time in log.times(C.CAR_STATE) if begin < time < end), end]
        for time in gaps(times, limit_s):
            yield time, "no CMD_CAR_STATE for 4 s in a new car, and no clock has answered one"


def check_deaths(log):
    deaths = [(time, datagram[1:2]) for time, code, datagram in log.sent
              if code == C.DIED and time < log.end]  # fmt: skip
    if not deaths:
        raise NotTested("it never dies")
    counts, wait_s = [count for _, count in deaths], 4.5 + log.late_s
    for time, count in deaths:
        is_short = any(time < other < time + wait_s and each != count for other, each in deaths)
        if counts.count(count) < 2 and time < log.end - wait_s and not is_short:
            yield time + wait_s, f"CMD_DIED {count.hex()} is not repeated"
    yield from check_role(log, deaths)
    yield from check_driver(log, deaths)


def check_role(log, deaths):
    """After a CMD_PINKPANTHER that names the client, the client may report only a new death."""
    for told in log.got_times(C.PINKPANTHER):
        after = [death for death in deaths if death[0] > told + 0.3 + log.late_s]
        if after and after[0][1] in [count for time, count in deaths if time <= told]:
            yield after[0][0], "CMD_DIED is repeated after a CMD_PINKPANTHER that names the client"


def check_driver(log, deaths):
    """After a repeated death, a driver must send CMD_CAR_STATE before a CMD_NOT_IN_CAR arrives."""
    before = (C.FOOT_UPDATE, C.LEAVE_CAR, C.CAR_STATE, C.VEHICLE)
    in_car = False
    for time, code, datagram, is_now_in_car in log.rides():
        is_repeat = any(each < time and count == datagram[1:2] for each, count in deaths)
        if code == C.DIED and in_car and is_repeat and time < log.end - 1:
            told = [each for each in log.got_times(C.NOT_IN_CAR) if each > time]
            end = min([*told, time + 0.5 + log.late_s])
            if not log.times(*before, after=time - 0.001, until=end):
                yield end, "no CMD_CAR_STATE after a repeated CMD_DIED of a driver"
        in_car = is_now_in_car


def check_repeats(log):
    """Counts equal datagrams that make the server print a line. A change or an entry restarts the
    count. A CMD_CAR_STATE within a second after a death or a CMD_NOT_IN_CAR does not count."""
    excused = [*log.times(C.DIED), *log.got_times(C.NOT_IN_CAR)]
    counted = {}
    for time, code, datagram in log.sent:
        if code == C.ENTER_GAME:
            counted.clear()
        elif code in (C.VEHICLE, C.LEAVE_CAR, C.FOOT_UPDATE):
            counted.pop(C.CAR_STATE, None)  # the next ride may be in the same car
        if (code not in (C.WEAPON, C.CAR_STATE, C.DIED) or time > log.end
                or code == C.CAR_STATE and any(time - 1 < each <= time for each in excused)):
            continue  # fmt: skip
        value = datagram[16:] if code == C.CAR_STATE else datagram[1:]
        start, known, count = counted.get(code, (time, None, 0))
        if value != known:
            start, count = time, 0
        counted[code] = start, value, count + 1
        if count > MOST_REPEATS + (time - start) / 30:
            yield time, f"{name_of(code)} is repeated {count} times in {time - start:.0f} s"
    longest_s = max((log.end - start for start, _, _ in counted.values()), default=0.0)
    if longest_s < 2 * MOST_REPEATS + 4:
        raise NotTested("it leaves no weapon, car or death unchanged for long enough")
