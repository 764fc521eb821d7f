"""Plays a server and a bad network to a client, and says which rules of docs/protocol.md it keeps."""

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

from client_rules import RULES, judge
from client_stage import END_S, SCENARIOS, Stage

USAGE = "script/check-client [OPTION...] COMMAND..."
EPILOG = """COMMAND starts the client. In its words HOST and PORT are replaced by the address of the
server that is played. The client runs in a terminal of 80 columns and 24 rows, once for each
scenario, all at the same time. Exit status: 0 when no rule is broken, 1 when one is, 2 when the
client cannot be started. Example: script/check-client python3 client.py HOST PORT"""
SIGNALS = {"TERM": signal.SIGTERM, "INT": signal.SIGINT}
PR_SET_PDEATHSIG = 1
LAST_LINES = 5  # of what a client printed that died
POLL_S = 0.02
LIBC = ctypes.CDLL(None)


def bound_socket():
    bound = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    bound.bind(("127.0.0.1", 0))
    bound.setblocking(False)
    return bound


def receive(link):
    """A datagram and its sender, or None."""
    while True:
        try:
            return link.recvfrom(65536)
        except BlockingIOError:
            return None
        except OSError:
            continue  # nobody listened to an earlier datagram


def prepare_client():
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


class Run:
    """A client in a scenario. Its process leads a process group and a session."""

    def __init__(self, name, command, seed, stop_signal):
        self.name, self.stop_signal = name, stop_signal
        self.server, self.stranger = (bound_socket() for _ in range(2))
        self.client, self.output, self.stopped_s, self.is_over = None, b"", None, False
        self.stage = Stage(SCENARIOS[name], seed, self.deliver)
        host, port = self.server.getsockname()
        words = [word.replace("HOST", host).replace("PORT", str(port)) for word in command]
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

    def handles(self):
        return [self.server, self.stranger, self.terminal]

    def deliver(self, datagram, from_stranger):
        if self.client:
            with contextlib.suppress(OSError):  # the client may have closed its socket
                (self.stranger if from_stranger else self.server).sendto(datagram, self.client)

    def hear(self):
        """Reads what has come."""
        while (came := receive(self.server)) is not None:
            datagram, sender = came
            if self.client not in (None, sender):
                self.stage.note("mark", "another port")
            self.client = sender
            self.stage.hear(datagram, self.now())
        while (came := receive(self.stranger)) is not None:
            self.stage.note("to stranger", came[0])
        with contextlib.suppress(OSError):  # the client may have closed its terminal
            while text := os.read(self.terminal, 65536):
                self.output = (self.output + text)[-65536:]

    def step(self):
        """Goes on. Ends the client when its scenario is over."""
        self.hear()
        now = self.now()
        if end := os.waitid(os.P_PID, self.process.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT):
            self.hear()
            how = "with status" if end.si_code == os.CLD_EXITED else "by signal"
            self.stage.note("mark", f"{'died' if self.stopped_s is None else 'ended'} {how} {end.si_status}")
            self.is_over = True
            return
        self.stage.step(now)
        if self.stopped_s is not None:
            self.is_over = now > self.stopped_s + END_S
        elif self.stage.is_done:
            self.stage.note("mark", "stop in the game" if self.stage.in_game else "stop")
            self.stopped_s = now
            os.killpg(self.process.pid, self.stop_signal)

    def close(self):
        """The process is not reaped before, so its group's number is still its own."""
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        os.close(self.terminal)
        self.server.close()
        self.stranger.close()


def play(names, command, options):
    """Returns the runs of the scenarios after their end."""
    runs = []
    with contextlib.ExitStack() as stack:
        for name in names:
            try:
                runs.append(Run(name, command, options.seed, SIGNALS[options.stop_signal]))
            except OSError as error:
                sys.exit(misuse(f"cannot start {command[0]}: {error.strerror}"))
            stack.callback(runs[-1].close)
        while active := [run for run in runs if not run.is_over]:
            select.select([run.server for run in active], [], [], POLL_S)
            for run in active:
                run.step()
    return runs


def misuse(message):
    print(f"check-client: {message}", file=sys.stderr)
    return 2


def last_lines(output):
    """The last lines of what a program printed on a terminal, without control sequences."""
    text = re.sub(r"\x1b(\[[0-?]*[ -/]*[@-~]|\][^\x07]*\x07|.)", "", output.decode(errors="replace"))
    lines = [re.sub(r"[\x00-\x08\x0b-\x1f\x7f-\x9f]", "", line).strip() for line in text.splitlines()]
    return [line for line in lines if line][-LAST_LINES:]


def show_deaths(runs):
    """Once for clients that printed the same."""
    said = {}
    for run in runs:
        for event in run.stage.log:
            if event.way == "mark" and event.what.startswith("died"):
                said.setdefault((event.what, *last_lines(run.output)), []).append(run.name)
    for (what, *lines), names in said.items():
        print(f"the client {what} in {', '.join(names)}; its last lines:", *lines, sep="\n  ")


def write_record(directory, run):
    lines = [f"{event.time:9.3f} {event.way:11} "
             f"{event.what if event.way == 'mark' else event.what.hex(' ')}\n" for event in run.stage.log]
    (directory / f"{run.name}.txt").write_text("".join(lines))
    (directory / f"{run.name}.output").write_bytes(run.output)


def read_options():
    parser = argparse.ArgumentParser(
        prog="script/check-client", usage=USAGE, description=__doc__, epilog=EPILOG)  # fmt: skip
    parser.add_argument("--rules", action="store_true", help="list the rules and the scenarios")
    parser.add_argument("--only", metavar="SCENARIO", action="append", choices=SCENARIOS,
                        help="play only this scenario; may be repeated")  # fmt: skip
    parser.add_argument("--stop-signal", choices=SIGNALS, default="TERM",
                        help="the signal that ends the client (default: TERM)")  # fmt: skip
    parser.add_argument("--seed", type=int, default=1, help="of the bad network's choices (default: 1)")
    parser.add_argument("--record", metavar="DIRECTORY", type=pathlib.Path,
                        help="write each scenario's datagrams and the client's output to it")  # fmt: skip
    parser.add_argument("command", metavar="COMMAND", nargs=argparse.REMAINDER)
    return parser.parse_args()


def show_rules():
    for name, rule in RULES.items():
        print(f"{name:14} {rule.about}")
    print("\nScenarios:")
    for name, scenario in SCENARIOS.items():
        print(f"{name:18} {scenario.about}, about {scenario.seconds} s")


def main():
    options = read_options()
    if options.rules:
        show_rules()
        return 0
    if not any("PORT" in word for word in options.command):
        return misuse("COMMAND must have the word PORT, for the port of the server; see --help")
    if options.record and not options.record.is_dir():
        return misuse(f"{options.record} is no directory")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # the clients are ended then, too
    runs = play(options.only or list(SCENARIOS), options.command, options)
    if options.record:
        for run in runs:
            write_record(options.record, run)
    logs = {run.name: run.stage.log for run in runs}
    verdicts = {name: judge(rule, logs) for name, rule in RULES.items()}
    for name, (verdict, seen) in verdicts.items():
        print(f"{name}: {verdict}{': ' if seen else ''}{seen}")
    show_deaths(runs)
    return 1 if any(verdict == "broken" for verdict, _ in verdicts.values()) else 0


if __name__ == "__main__":
    sys.exit(main())
