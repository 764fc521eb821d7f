"""Compares the server with the minimum work of a relay.

Runs the server and the floor, a relay of one sendmmsg loop, in turns on one processor core, with
the load driver on another. Every round restarts both, and each ratio is within one round, so a
slowdown of the whole machine cancels out. Exits with status 1 when a bound is not met.
"""

import argparse
import collections
import contextlib
import json
import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import time

import report

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build-bench"
CORES = sorted(os.sched_getaffinity(0))
SPACING_NS = 500_000  # of lone updates, as docs/performance.md says
LONE_UPDATES = 800
FULL_UPDATES = 8000
AHEAD = 64  # updates under way at full load; the default receive buffer holds 256
SETTLE_S = 0.02  # until a program waits again, when the scheduler's account is complete


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until_bound(port, process):
    """proc_net(5): the local address ends in the port, four hexadecimal digits."""
    sockets = pathlib.Path("/proc/net/udp")
    while not re.search(rf"^ *\d+: \w+:{port:04X} ", sockets.read_text(), re.M):
        if process.poll() is not None:
            sys.exit("bench: a program under measurement did not start")
        time.sleep(0.01)


def start(command, core, **options):
    return subprocess.Popen([str(word) for word in command], text=True,
                            preexec_fn=lambda: os.sched_setaffinity(0, {core}), **options)


def processor_ns(pid):
    """The scheduler's account of all threads, the kernel's work on their behalf included."""
    time.sleep(SETTLE_S)
    tasks = pathlib.Path(f"/proc/{pid}/task").iterdir()
    return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks)


def resident_kib(pid):
    memory = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii")
    return int(re.search(r"^Rss:\s+(\d+) kB", memory, re.M).group(1))


@contextlib.contextmanager
def running(samples, program, players, tracer=()):
    """Yields the process id of a program whose players have joined, and a function that puts load on
    it and returns the driver's results and the program's processor time."""
    def load(kind, count, ahead=0, spacing_ns=0):
        before = processor_ns(pid)
        driver.stdin.write(f"{kind} {count} {ahead} {spacing_ns}\n")
        driver.stdin.flush()
        answer = driver.stdout.readline() or sys.exit(f"bench: the driver failed on {kind}")
        found = json.loads(answer)
        samples["faults"].append(found["missing"] + found["wrong"])
        return {**found, "cpu_ns": processor_ns(pid) - before}

    with tempfile.TemporaryDirectory() as directory, contextlib.ExitStack() as cleanup:
        port = free_port()
        config = f"Port={port}\nmaxClients={players}\nAnnounceServer=false\n"
        pathlib.Path(directory, "zolserver.cfg").write_text(config, encoding="ascii")
        command = {"server": [BUILD / "zolserver"],
                   "floor": [BUILD / "relay_floor", port, players]}[program]
        target = start([*tracer, *command], CORES[-1], cwd=directory,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        cleanup.callback(target.wait)
        pid = target.pid
        cleanup.callback(lambda: os.kill(pid, 15))
        wait_until_bound(port, target)
        if tracer:
            children = pathlib.Path(f"/proc/{pid}/task/{pid}/children")
            pid = int(children.read_text(encoding="ascii"))
        with start([BUILD / "zolload", program, f"127.0.0.1:{port}", players], CORES[0],
                   stdin=subprocess.PIPE, stdout=subprocess.PIPE) as driver:
            yield pid, load


def measure_relays(samples, program, players):
    def relay_us(found):
        return found["cpu_ns"] / (LONE_UPDATES * (players - 1)) / 1e3

    with running(samples, program, players) as (pid, load):
        lone = load("position", LONE_UPDATES, 0, SPACING_NS)
        full = load("position", FULL_UPDATES, AHEAD)
        samples[program, "memory"].append(resident_kib(pid))
        samples[program, "cpu", players].append(relay_us(lone))
        samples[program, "delay", players].append(lone["delay_ns"] / 1e3)
        thousands = FULL_UPDATES * (players - 1) / full["elapsed_ns"] * 1e6
        samples[program, "rate", players].append(thousands)
        if (program, players) == ("server", 16):
            load("death", players)  # after a death, the answer to floats is the clock
            for kind in ("car_state", "state_floats"):
                samples[kind].append(relay_us(load(kind, LONE_UPDATES, 0, SPACING_NS)))


def count_calls(samples, updates):
    with tempfile.NamedTemporaryFile("r", encoding="ascii") as summary:
        tracer = ["strace", "-f", "-c", "-o", summary.name]
        with running(samples, "server", 16, tracer) as (_, load):
            load("position", updates, AHEAD)
        rows = [line.split() for line in summary if re.match(r" *\d+\.\d+ ", line)]
    return collections.Counter({row[-1]: int(row[3]) for row in rows if row[-1] != "total"})


def measure_once(samples, idle_ms, updates=4000):
    """Subtracts the calls of none from those of many: start, joins and stop cancel out."""
    calls = count_calls(samples, updates)
    calls.subtract(count_calls(samples, 0))
    samples["calls"] = {name: calls[name] / updates for name in calls}
    with running(samples, "server", 16) as (_, load):
        found = load("idle", idle_ms)
    samples["idle"] = found["cpu_ns"] / found["elapsed_ns"] * 100


def main():
    parser = argparse.ArgumentParser(prog="script/bench", description=__doc__)
    parser.add_argument("--rounds", type=int, default=25, help="how many (25)")
    parser.add_argument("--quick", action="store_true", help="3 rounds, to see that it works")
    parser.add_argument("--write-docs", action="store_true",
                        help="write docs/performance.md and docs/performance.svg")
    arguments = parser.parse_args()
    if arguments.rounds < 1 or (arguments.write_docs and arguments.quick):
        parser.error("--rounds must be positive, and --write-docs needs the whole run")
    samples = collections.defaultdict(list)
    for number in range(3 if arguments.quick else arguments.rounds):
        print(f"bench: round {number + 1}", file=sys.stderr)
        for players in (16, 32):
            for program in ("server", "floor") if number % 2 else ("floor", "server"):
                measure_relays(samples, program, players)
    measure_once(samples, 2500 if arguments.quick else 21000)
    rows = report.make_rows(samples)
    print(report.table(rows))
    if arguments.write_docs:
        report.write_docs(ROOT, samples, rows, " ".join(["script/bench", *sys.argv[1:]]))
    return 1 if any(row.met is False for row in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
