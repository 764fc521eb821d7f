"""The events of one scenario, in the form that the rules of script/check-client read."""

import itertools

from client_stage import MAX_PLAYERS, SIZES_DOWN, SIZES_UP, WITH_SLOT, C, is_in_car

NAMES_UP = {code: name for name, code in sorted(vars(C).items()) if code in SIZES_UP
            and name not in ("NOT_IN_CAR", "PLAYER_STATE")}  # fmt: skip

MOST_LATE_S = 0.5  # time limit for the answer to a ping; a later one breaks a rule


class NotTested(Exception):
    """The client never came into the situation that the rule is about."""


def name_of(code):
    return f"CMD_{NAMES_UP[code]}" if code in NAMES_UP else f"code {code}"


def is_right(datagram):
    """Returns whether a datagram of the server is valid, so that the client must accept it."""
    return (datagram != b"" and len(datagram) == SIZES_DOWN.get(datagram[0])
            and (datagram[0] not in WITH_SLOT or datagram[1] < MAX_PLAYERS))  # fmt: skip


class Log:
    """The events of a scenario. `got` contains only the valid datagrams of the server. An empty
    datagram of the client has the code -1."""

    def __init__(self, events):
        self.events = events = sorted(events, key=lambda event: event.time)
        stops = [event.time for event in self.marks("stop")]
        self.end = (stops or [event.time for event in events[-1:]] or [0.0])[0]
        self.sent = [(event.time, event.what[0] if event.what else -1, event.what)
                     for event in events if event.way == ">"]
        self.got = [(event.time, event.what[0], event.what)
                    for event in events if event.way == "<" and is_right(event.what)]
        self.late_s = self.lateness()

    def lateness(self):
        """Returns by how many seconds a busy machine may have delayed the client: the longest pause
        of check-client plus the longest delay of the client's answer to a ping."""
        pauses = [float(mark.what.split()[1]) for mark in self.marks("paused")]
        replies = self.times(C.PING_REPLY)
        delays = [min((reply - ping for reply in replies if reply >= ping), default=0)
                  for ping in self.got_times(C.PING)]  # fmt: skip
        return max(pauses, default=0) + min(max(delays, default=0), MOST_LATE_S)

    def marks(self, start):
        marks = [event for event in self.events if event.way == "mark"]
        return [mark for mark in marks if mark.what.startswith(start)]

    def times(self, *codes, after=-1.0, until=float("inf")):
        """Returns the times at which the client sent these codes."""
        return [time for time, code, _ in self.sent if code in codes and after < time <= until]

    def times_about(self, slot, after=-1.0, until=float("inf")):
        """Returns the times at which the client asked for this slot."""
        return [time for time, code, datagram in self.sent if code == C.GET_PLAYER_INFO
                and datagram[1:2] == bytes([slot]) and after < time <= until]  # fmt: skip

    def got_times(self, *codes, slot=None):
        """Returns the times at which the client got these codes, for this slot if one is given."""
        return [time for time, code, datagram in self.got
                if code in codes and (slot is None or datagram[1] == slot)]  # fmt: skip

    def first(self, code, why):
        """Returns the time at which the client first got this code."""
        if not (times := self.got_times(code)):
            raise NotTested(why)
        return times[0]

    def rides(self):
        """Yields each datagram of the client, and whether the client is in a car after it."""
        in_car = False
        for time, code, datagram in self.sent:
            if datagram:
                in_car = is_in_car(datagram.ljust(256, b"\0"), in_car)
            yield time, code, datagram, in_car


def waits(times):
    return [later - time for time, later in itertools.pairwise(times)]


def gaps(times, limit_s):
    """Returns each time at which `limit_s` had passed since the last of `times` without another."""
    return [time + limit_s for time, later in itertools.pairwise(times) if later > time + limit_s]
