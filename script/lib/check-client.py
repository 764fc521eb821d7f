"""Simulates a server and a bad network for a client, and reports which rules of docs/protocol.md the
client keeps."""

import argparse
import contextlib
import ctypes
import fcntl
import os
import pathlib
import pty
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import termios
import time

from client_rules import RULES, verdict_on
from client_stage import END_S, SCENARIOS, Simulation

USAGE = "script/check-client [OPTION...] COMMAND..."
EPILOG = """COMMAND starts the client. The script replaces the words HOST and PORT in COMMAND by the
address of the simulated server. The client runs once for each scenario, all at the same time, on
terminals of 80 columns and 24 rows. Exit status: 0 no rule is broken, 1 a rule is broken, 2 wrong
arguments, or the client cannot be started. Example: script/check-client python3 client.py HOST
PORT"""
SIGNALS = {"TERM": signal.SIGTERM, "INT": signal.SIGINT}
PR_SET_PDEATHSIG = 1
LAST_LINES, LINE_WIDTH = 5, 200  # limits for the shown output of a client that died
POLL_S = 0.02
MOST_AT_ONCE = 1000  # datagrams in a row from one socket
MOST_EVENTS = 200_000  # then the scenario ends: the client floods
STALL_S = 0.25  # the shortest pause of this script that it reports
NOTED_STALL_S = 0.1  # the shortest pause of this script that widens the tolerances
SO_TIMESTAMPNS = 35  # not in Python's socket module; also the type of the ancillary data
LIBC = ctypes.CDLL(None)


def bound_socket():
    bound = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    bound.bind(("127.0.0.1", 0))
    bound.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
    bound.setblocking(False)
    return bound


def receive(link):
    """Yields the waiting datagrams with their senders and their times of arrival. The times are the
    kernel's, because this script may read a datagram late."""
    offset_s = time.monotonic() - time.time()
    with contextlib.suppress(BlockingIOError):
        for _ in range(MOST_AT_ONCE):
            datagram, notes, _, sender = link.recvmsg(65536, 256)
            stamps = [data for level, kind, data in notes
                      if (level, kind) == (socket.SOL_SOCKET, SO_TIMESTAMPNS)]  # fmt: skip
            seconds, nanoseconds = struct.unpack("ll", stamps[0])
            yield datagram, sender, seconds + nanoseconds / 1e9 + offset_s


def prepare_client():
    for number in SIGNALS.values():
        signal.signal(number, signal.SIG_DFL)  # shells make background jobs ignore some signals
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


class Run:
    """A client in a scenario. Its process leads a new process group and session."""

    def __init__(self, name, command, seed, stop_signal):
        self.name, self.stop_signal = name, stop_signal
        self.server, self.stranger = (bound_socket() for _ in range(2))
        self.client, self.output, self.stopped_s, self.is_over = None, b"", None, False
        self.sim = Simulation(SCENARIOS[name], seed, self.deliver)
        host, port = self.server.getsockname()
        words = [re.sub(r"\bHOST\b", host, word) for word in command]
        words = [re.sub(r"\bPORT\b", str(port), word) for word in words]
        self.terminal, slave = pty.openpty()
        os.set_blocking(self.terminal, False)
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
        self.process = subprocess.Popen(
            words, stdin=slave, stdout=slave, stderr=slave, start_new_session=True,
            env={"TERM": "xterm"} | os.environ, preexec_fn=prepare_client,
        )  # fmt: skip
        os.close(slave)
        self.start = time.monotonic()

    def now(self):
        return time.monotonic() - self.start

    def deliver(self, datagram, from_stranger):
        if self.client:
            with contextlib.suppress(OSError):  # the client may have closed its socket
                (self.stranger if from_stranger else self.server).sendto(datagram, self.client)

    def hear(self):
        """Reads the waiting datagrams and the output of the client."""
        for datagram, sender, arrival in receive(self.server):
            if self.client not in (None, sender):
                self.sim.note("mark", "another port")
            self.client = sender
            self.sim.hear(datagram, arrival - self.start)
        for datagram, *_ in receive(self.stranger):
            self.sim.note("to stranger", datagram)
        with contextlib.suppress(OSError):  # the client may have closed its terminal
            for _ in range(MOST_AT_ONCE):
                self.output = (self.output + os.read(self.terminal, 65536))[-65536:]

    def step(self):
        """Handles everything that is due. Stops the client when its scenario is over."""
        self.hear()
        now = self.now()
        if end := os.waitid(os.P_PID, self.process.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT):
            self.hear()
            what = "died" if self.stopped_s is None else "ended"
            how = "with status" if end.si_code == os.CLD_EXITED else "by signal"
            self.sim.note("mark", f"{what} {how} {end.si_status}")
            self.is_over = True
            return
        self.sim.step(now)
        if self.stopped_s is not None:
            self.is_over = now > self.stopped_s + END_S
        elif self.sim.is_done or len(self.sim.log) > MOST_EVENTS:
            self.sim.note("mark", "stop in the game" if self.sim.in_game else "stop")
            self.stopped_s = now
            os.killpg(self.process.pid, self.stop_signal)

    def close(self):
        """Kills the client's process group. Its number is valid, because wait() comes later."""
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        os.close(self.terminal)
        self.server.close()
        self.stranger.close()


def play(names, command, options):
    """Returns the runs of the scenarios after their end, and the longest pause of this script."""
    runs, longest_s = [], 0.0
    with contextlib.ExitStack() as stack:
        for name in names:
            try:
                runs.append(Run(name, command, options.seed, SIGNALS[options.stop_signal]))
            except OSError as error:
                sys.exit(misuse(f"cannot start {command[0]}: {error.strerror}"))
            stack.callback(runs[-1].close)
        while active := [run for run in runs if not run.is_over]:
            begin = time.monotonic()
            select.select([run.server for run in active], [], [], POLL_S)
            for run in active:
                run.step()
            paused_s = time.monotonic() - begin
            if paused_s > NOTED_STALL_S:
                for run in active:
                    run.sim.note("mark", f"paused {paused_s:.2f}")
            longest_s = max(longest_s, paused_s)
    return runs, longest_s


def misuse(message):
    print(f"check-client: {message}", file=sys.stderr)
    return 2


def last_lines(output):
    """Returns the last lines of a program's output, without the terminal's control sequences."""
    sequences = r"\x1b(?:\[[0-?]*[ -/]*[@-~]|\][^\x07]*\x07|.)"
    text = re.sub(sequences, "", output.decode(errors="replace"))
    lines = [re.sub(r"[\x00-\x1f\x7f-\x9f]", "", line).strip() for line in text.splitlines()]
    return [line[:LINE_WIDTH] for line in lines if line][-LAST_LINES:]


def show_deaths(runs):
    """Prints how clients died, once for clients with the same output. Skips refused clients."""
    said = {}
    for run in runs:
        for event in run.sim.log:
            is_refused = SCENARIOS[run.name].may_end and not run.sim.in_game
            if event.way == "mark" and event.what.startswith("died") and not is_refused:
                said.setdefault((event.what, *last_lines(run.output)), []).append(run.name)
    for (what, *lines), names in said.items():
        print(f"the client {what} in {', '.join(names)}; its last lines:", *lines, sep="\n  ")


def write_record(directory, run):
    with open(directory / f"{run.name}.txt", "w") as file:
        for event in run.sim.log:
            what = event.what if event.way == "mark" else event.what.hex(" ")
            file.write(f"{event.time:9.3f} {event.way:11} {what}\n")
    (directory / f"{run.name}.output").write_bytes(run.output)


def read_options():
    parser = argparse.ArgumentParser(
        prog="script/check-client", usage=USAGE, description=__doc__, epilog=EPILOG)  # fmt: skip
    parser.add_argument("--rules", action="store_true", help="list the rules and the scenarios")
    parser.add_argument("--only", metavar="SCENARIO", action="append", choices=SCENARIOS,
                        help="run only this scenario; may be repeated")  # fmt: skip
    parser.add_argument("--skip", metavar="RULE", action="append", choices=RULES, default=[],
                        help="do not check this rule; may be repeated")  # fmt: skip
    parser.add_argument("--stop-signal", choices=SIGNALS, default="TERM",
                        help="the signal that ends the client (default: TERM)")  # fmt: skip
    parser.add_argument("--seed", type=int, default=1,
                        help="seed of the bad network's random choices (default: 1)")  # fmt: skip
    parser.add_argument("--record", metavar="DIRECTORY", type=pathlib.Path,
                        help="write the datagrams and the output to files there")  # fmt: skip
    parser.add_argument("command", metavar="COMMAND", nargs=argparse.REMAINDER,
                        help="the client, with the words HOST and PORT")  # fmt: skip
    return parser.parse_args()


def show_rules():
    for name, rule in RULES.items():
        print(f"{name:14} {rule.about}")
    print("\nscenarios:")
    for name, scenario in SCENARIOS.items():
        print(f"{name:18} {scenario.about}, {scenario.seconds} s")


def main():
    options = read_options()
    if options.rules:
        show_rules()
        return 0
    if not re.search(r"\bPORT\b", " ".join(options.command)):
        return misuse("COMMAND must contain the word PORT, for the port of the server; see --help")
    if options.record and not options.record.is_dir():
        return misuse(f"{options.record} is no directory")
    for number in SIGNALS.values():
        signal.signal(number, lambda *_: sys.exit(1))  # the exit also ends the clients
    runs, longest_s = play(options.only or list(SCENARIOS), options.command, options)
    if options.record:
        for run in runs:
            write_record(options.record, run)
    logs = {run.name: run.sim.log for run in runs}
    verdicts = {name: verdict_on(rule, logs) for name, rule in RULES.items()
                if name not in options.skip}  # fmt: skip
    for name, (verdict, seen) in verdicts.items():
        print(f"{name}: {verdict}{': ' if seen else ''}{seen}")
    show_deaths(runs)
    if longest_s > STALL_S:
        print(f"this machine is busy: the script paused for {longest_s:.1f} s, so times may be wrong")
    return 1 if any(verdict == "broken" for verdict, _ in verdicts.values()) else 0


if __name__ == "__main__":
    sys.exit(main())
