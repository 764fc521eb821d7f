"""Measures the server beside floors: relays that do the least that a relay can do.

Runs the server and the floors of build-bench in turns, each round in another order, on one
processor core, with the load driver on another. Ratios are taken within a round, so what slows the
whole machine down cancels out. valgrind counts instructions, strace system calls. Ends with status
1 when a target is not met.
"""

import argparse
import contextlib
import json
import os
import re
import shlex
import socket
import subprocess
import sys
import tempfile
import time

import report

ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
BUILD = os.path.join(ROOT, "build-bench")
PROGRAMS = ["server", "sendmmsg", "sendto", "polling"]
PLAYERS = [16, 32]
SLICE_MS = 400  # of one load of one program; many short slices even out what disturbs them
LONE_UPDATES = 400
RATE = 2000  # updates a second of the paced load
WINDOW = 64  # updates under way at full load; the default receive buffer holds 256
BURSTS = [64, 128, 256, 512, 1024, 2048, 4096]
COMMANDS = {"position": 100, "car state": 101, "floats after a death": 123}
BURST = 200  # updates that wait together while instructions and system calls are counted


def pick_cores():
    """One core for what is measured, another for the driver, where there are two."""
    cores = sorted(os.sched_getaffinity(0))
    return cores[-1], cores[0]


def on_core(core):
    return lambda: os.sched_setaffinity(0, {core})


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until_bound(port, process, limit_s=20.0):
    """proc_net(5): the local address ends in the port, four hexadecimal digits."""
    end = time.monotonic() + limit_s
    while time.monotonic() < end and process.poll() is None:
        with open("/proc/net/udp", encoding="ascii") as table:
            if any(line.split()[1].endswith(f":{port:04X}") for line in list(table)[1:]):
                return
        time.sleep(0.01)
    sys.exit("bench: a program under measurement did not start")


def only_child(pid):
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as children:
        return int(children.read().split()[0])


@contextlib.contextmanager
def running(program, players, wrapper=()):
    """Starts a program, under a wrapper perhaps, and yields its port and process id."""
    target_core, _ = pick_cores()
    with tempfile.TemporaryDirectory() as directory:
        port = free_port()
        command = [*wrapper, os.path.join(BUILD, "relay_floor"), program, str(port), str(players)]
        if program == "server":
            command = [*wrapper, os.path.join(BUILD, "zolserver")]
            with open(os.path.join(directory, "zolserver.cfg"), "w", encoding="ascii") as config:
                config.write(f"Port={port}\nmaxClients={players}\nAnnounceServer=false\n")
        process = subprocess.Popen(command, cwd=directory, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL, preexec_fn=on_core(target_core))
        try:
            wait_until_bound(port, process)
            pid = only_child(process.pid) if "strace" in wrapper else process.pid
            yield port, pid
            os.kill(pid, 15)
            process.wait(timeout=20)
        finally:
            process.kill()
            process.wait()


def load(program, port, pid, players, *measurements):
    """The driver's findings, one record a measurement."""
    _, driver_core = pick_cores()
    kind = "server" if program == "server" else "floor"
    command = [os.path.join(BUILD, "zolload"), kind, str(port), str(pid), str(players)]
    done = subprocess.run([*command, *measurements], stdout=subprocess.PIPE, text=True,
                          preexec_fn=on_core(driver_core), check=False)
    if done.returncode != 0:
        sys.exit(f"bench: the driver failed on {program}: {shlex.join(measurements)}")
    found = [json.loads(line) for line in done.stdout.splitlines()]
    if any(record["wrong"] for record in found):
        sys.exit(f"bench: {program} sent datagrams that it should not: {found}")
    return found


def resident_kib(pid):
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as memory:
        return int(re.search(r"^Rss:\s+(\d+) kB", memory.read(), re.MULTILINE).group(1))


class Samples(dict):
    """samples[metric][program] lists one value a round."""

    def add(self, metric, program, value):
        self.setdefault(metric, {}).setdefault(program, []).append(value)


def measure_relays(samples, program, players):
    with running(program, players) as (port, pid):
        paced, full, delay = load(
            program, port, pid, players, f"paced:100:{RATE}:{SLICE_MS}",
            f"full:100:{WINDOW}:{SLICE_MS}", f"delay:100:{LONE_UPDATES}:300")
        samples.add(f"memory {players}", program, resident_kib(pid))
    samples.add(f"paced {players}", program, paced["cpu_ns"] / paced["relays"])
    samples.add(f"busy {players}", program, full["cpu_ns"] / full["relays"])
    samples.add(f"rate {players}", program, full["relays"] / full["elapsed_ns"] * 1e9)
    samples.add(f"p50 {players}", program, delay["p50_us"])
    samples.add(f"p99 {players}", program, delay["p99_us"])
    samples.add("waited", program, paced["waited_ns"] / paced["elapsed_ns"] * 100)
    samples.add("lost", program, paced["lost"] + full["lost"] + delay["lost"])


def measure_commands(samples, order):
    """What the updates that are answered with the clock cost, beside a position update."""
    with running("server", 16) as (port, pid):
        found = load("server", port, pid, 16,
                     *(f"paced:{COMMANDS[name]}:{RATE}:{SLICE_MS}" for name in order))
    for name, record in zip(order, found):
        samples.add("command", name, record["cpu_ns"] / record["updates"])
        samples.add("lost", "server", record["lost"])


def measure_once(samples, idle_ms):
    for program in ("server", "polling"):
        with running(program, 16) as (port, pid):
            (idle,) = load(program, port, pid, 16, f"idle:100:{idle_ms}:1")
            samples.add("idle", program, idle["cpu_ns"] / idle["elapsed_ns"] * 100)
    for program in ("server", "sendmmsg"):
        with running(program, 16) as (port, pid):
            found = load(program, port, pid, 16, *(f"burst:100:{count}:1" for count in BURSTS))
            whole = [record["updates"] for record in found if record["lost"] == 0]
            samples.add("burst", program, max(whole, default=0))


def rotated(items, by):
    by %= len(items)
    turned = items[by:] + items[:by]
    return turned[::-1] if by % 2 else turned


def measure_times(samples, rounds, idle_ms):
    for number in range(rounds):
        print(f"bench: round {number + 1} of {rounds}", file=sys.stderr)
        for players in PLAYERS:
            for program in rotated(PROGRAMS, number):
                measure_relays(samples, program, players)
        measure_commands(samples, rotated(list(COMMANDS), number))
    print("bench: idle and bursts", file=sys.stderr)
    measure_once(samples, idle_ms)


def count_instructions(program, bursts):
    with tempfile.TemporaryDirectory() as directory:
        profile = os.path.join(directory, "profile")
        wrapper = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={profile}"]
        with running(program, 32, wrapper) as (port, pid):
            (found,) = load(program, port, pid, 32, f"burst:100:{BURST}:{bursts}")
        if found["lost"]:
            sys.exit(f"bench: {program} lost datagrams under valgrind: {found}")
        with open(profile, encoding="ascii") as text:
            return int(re.search(r"^summary: (\d+)", text.read(), re.MULTILINE).group(1))


def measure_instructions(samples):
    """User-space instructions an update: what twice as many updates take more, over their number.
    Start, joins and stop cancel out."""
    for program in ("server", "sendmmsg"):
        more = count_instructions(program, 20) - count_instructions(program, 10)
        samples.add("instructions", program, more / (10 * BURST))


def calls_of_burst(trace_lines):
    """The names of the calls from the first receive of a position update to the last relay, by the
    thread that receives: each line is the thread's id and the call with its result."""
    update = re.compile(r'\d+ +recvfrom\(\d+, "d')  # the octets 100 and 200 as strace prints them
    first = next(i for i, line in enumerate(trace_lines) if update.match(line))
    thread = trace_lines[first].split()[0]
    relay = re.compile(thread + r' +send\w+\(.*"\\310')
    last = max(i for i, line in enumerate(trace_lines) if relay.match(line))
    calls = [re.match(thread + r" +(\w+)\(", line) for line in trace_lines[first:last + 1]]
    return [call.group(1) for call in calls if call]


def measure_system_calls(samples):
    """All updates of the burst wait before the server handles the first of them."""
    for program in ("server", "sendmmsg"):
        with tempfile.TemporaryDirectory() as directory:
            trace = os.path.join(directory, "trace")
            with running(program, 32, ["strace", "-f", "-o", trace]) as (port, pid):
                (found,) = load(program, port, pid, 32, f"burst:100:{BURST}:1")
            with open(trace, encoding="utf-8") as text:
                calls = calls_of_burst(text.read().splitlines())
        if found["lost"]:
            sys.exit(f"bench: {program} lost datagrams under strace: {found}")
        samples.add("system calls", program,
                    {name: calls.count(name) / BURST for name in sorted(set(calls))})


def parse_arguments():
    parser = argparse.ArgumentParser(prog="script/bench", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=25, help="rounds of the timed part (25)")
    parser.add_argument("--quick", action="store_true", help="3 rounds, to see that it works")
    parser.add_argument("--only", choices=["times", "instructions", "calls"], help="one part alone")
    parser.add_argument("--write-docs", action="store_true",
                        help="write docs/performance.md and docs/performance.svg")
    arguments = parser.parse_args()
    if arguments.rounds < 1:
        parser.error("--rounds must be positive")
    if arguments.write_docs and (arguments.only or arguments.quick):
        parser.error("--write-docs needs the whole run")
    return arguments


def main():
    arguments = parse_arguments()
    samples = Samples()
    if arguments.only in (None, "instructions"):
        measure_instructions(samples)
    if arguments.only in (None, "calls"):
        measure_system_calls(samples)
    if arguments.only in (None, "times"):
        rounds = min(arguments.rounds, 3) if arguments.quick else arguments.rounds
        measure_times(samples, rounds, idle_ms=2500 if arguments.quick else 21000)
    command = shlex.join(["script/bench", *sys.argv[1:]])
    targets = report.judge(samples)
    print(report.as_text(samples, targets))
    if arguments.write_docs:
        report.write_docs(os.path.join(ROOT, "docs"), samples, targets, command, pick_cores(), RATE)
    return 0 if all(target.met for target in targets) else 1


if __name__ == "__main__":
    sys.exit(main())
