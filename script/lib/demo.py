#!/usr/bin/env python3
"""Ends script/demo with each signal and key that should end it, and by killing its view. Each time the
demo must end within seconds, end its programs in the right order, leave no process and no file, and
restore the terminal. Also runs the README's commands for a server.

Usage: script/checks/demo"""

import ctypes
import fcntl
import os
import pathlib
import pty
import select
import signal
import struct
import subprocess
import tempfile
import termios
import time

from lib import READY_S, ROOT, build, fail

END_S = 10  # the demo needs half a second to end
PR_SET_CHILD_SUBREAPER = 36
# The terminal's output in this order: begin and end of the alternate screen, the bots' table, and the
# end of the server's log, which shows that the bots left before the server stopped.
IN_ORDER = (b"\x1b[?1049h", b"\x1b[?1049l", b"delay of a relay", b"disconnected", b"Exitting")
CURSOR = (b"\x1b[?25l", b"\x1b[?25h")
# The commands of the README.
HOSTING = """
mkdir garage
cp packaging/zolserver.cfg garage/
script/server garage
"""
SIGNALS = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT)


class Demo:
    """A running demo on a pseudo-terminal. On a terminal of type dumb, the demo shows no map."""

    def __init__(self, term, folder):
        self.output = b""
        self.master, self.slave = pty.openpty()
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
        self.before = termios.tcgetattr(self.slave)
        self.process = subprocess.Popen(
            [ROOT / "script/demo", "600"], stdin=self.slave, stdout=self.slave, stderr=self.slave,
            env=os.environ | {"TERM": term, "TMPDIR": folder}, start_new_session=True,
            preexec_fn=take_terminal,
        )  # fmt: skip

    def read_until(self, is_done, limit_s, what):
        end = time.monotonic() + limit_s
        while not is_done():
            if time.monotonic() > end:
                fail(f"{what} did not come within {limit_s} s: {self.output[-2000:]}")
            if select.select([self.master], [], [], 0.02)[0]:
                self.output += os.read(self.master, 65536)


def take_terminal():
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)
    # The caller may ignore some of these signals, and bash cannot trap a signal that it inherited as
    # ignored.
    for number in SIGNALS:
        signal.signal(number, signal.SIG_DFL)


def children(pid):
    text = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text()
    return [int(child) for child in text.split()]


def name_of(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/comm").read_text().strip()
    except OSError:
        return "ended"


def end_children():
    """Kills all descendants. Orphans are children of this process, because it is a subreaper."""
    while remaining := children(os.getpid()):
        for pid in remaining:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)


def send(number):
    return lambda demo: demo.process.send_signal(number)


def press(key):
    return lambda demo: os.write(demo.master, key)


def kill_view(demo):
    view = next(pid for pid in children(demo.process.pid) if name_of(pid) == "zolview")
    os.kill(view, signal.SIGKILL)


WAYS = (
    *((number.name, send(number)) for number in SIGNALS),
    ("all signals", lambda demo: [send(number)(demo) for number in SIGNALS]),
    ("Ctrl-C", press(b"\x03")),
    ("Ctrl-\\", press(b"\x1c")),
    ("q", press(b"q")),
    ("a killed view", kill_view),
)


def check(way, act, term):
    shows_map = term != "dumb"
    with tempfile.TemporaryDirectory() as folder:
        demo = Demo(term, folder)
        # The view shows the names of the bots.
        sign = b"Ada" if shows_map else b"Eight bots"
        demo.read_until(lambda: sign in demo.output, READY_S, "the game")
        act(demo)
        demo.read_until(lambda: demo.process.poll() is not None, END_S, f"the end after {way}")
        demo.read_until(lambda: not select.select([demo.master], [], [], 0)[0], END_S, "silence")
        wrong = {
            "processes": [name_of(pid) for pid in children(os.getpid())],
            "files": os.listdir(folder),
            "terminal": termios.tcgetattr(demo.slave) != demo.before,
        }
        if shows_map:
            places = [[-1, *map(demo.output.rfind, marks)] for marks in (IN_ORDER, CURSOR)]
            wrong["order"] = any(sorted(set(each)) != each for each in places)
        os.close(demo.master)
        os.close(demo.slave)
    if any(wrong.values()):
        fail(f"after {way} on terminal {term}: {wrong}: {demo.output[-2000:]}")


def check_hosting():
    """Runs the commands in a separate network namespace, where the default port is free."""
    with tempfile.TemporaryDirectory() as folder:
        for name in ("packaging", "script"):
            os.symlink(ROOT / name, pathlib.Path(folder, name))
        server = subprocess.Popen(
            ["unshare", "--map-root-user", "--net", "bash", "-ec", HOSTING], cwd=folder,
            stdout=subprocess.PIPE, start_new_session=True, text=True)  # fmt: skip
        output = ""
        while "ONLINE [Port: 16309]" not in output:
            line = server.stdout.readline()
            if not line:
                fail(f"the README's commands start no server: {output}")
            output += line
        os.killpg(server.pid, signal.SIGKILL)
        server.wait()


def main():
    build("zolserver", "zolbots", "zolview")
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    try:
        for way, act in WAYS:
            check(way, act, "xterm")
        for way, act in WAYS[: len(SIGNALS)]:
            check(way, act, "dumb")
        check_hosting()
    finally:
        end_children()
    print(f"demo: ended correctly in all {len(WAYS) + len(SIGNALS)} ways")


if __name__ == "__main__":
    main()
