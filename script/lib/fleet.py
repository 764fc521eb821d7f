"""Measures many servers on one machine: their resources without players, and with bots on each server.

Servers, bots and the kernel share all cores, as on a busy machine, so the delays include the time that
the bots need. Exit status: 0 success, 1 a bot received a wrong datagram. A lost datagram is no failure,
because a machine that is too small loses datagrams.
"""

import argparse
import contextlib
import pathlib
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time

from lib import BUILD, build, fail, free_port, start_server

RATE_HZ = 20  # position updates of a bot
PLAYERS = 16


def add_server(stack, folder):
    """Starts a server. Returns its process and its port."""
    port = free_port()
    folder.mkdir()
    server, _ = start_server(folder, f"Port={port}\nmaxClients={PLAYERS}\n")
    stack.callback(server.wait)
    stack.callback(server.terminate)
    return server, port


@contextlib.contextmanager
def fleet(count):
    with tempfile.TemporaryDirectory() as folder, contextlib.ExitStack() as stack:
        yield [add_server(stack, pathlib.Path(folder, str(i))) for i in range(count)]


def memory_kib(servers, kind):
    """Returns the memory of each server. Pss divides each shared page by the number of processes that
    use it; Rss counts it for each process."""
    texts = (pathlib.Path(f"/proc/{server.pid}/smaps_rollup").read_text() for server, _ in servers)
    return [int(re.search(rf"^{kind}:\s+(\d+) kB", text, re.M)[1]) for text in texts]


def processor_ns(servers):
    """Returns each server's processor time in all threads, including system calls."""
    tasks = [pathlib.Path(f"/proc/{server.pid}/task").iterdir() for server, _ in servers]
    return [sum(int((task / "schedstat").read_text().split()[0]) for task in each) for each in tasks]


def measure_idle(count, seconds):
    with fleet(count) as servers:
        before, begin = processor_ns(servers), time.monotonic()
        time.sleep(seconds)
        # Each reading takes the same time, so the interval is the same for each server.
        after, elapsed_s = processor_ns(servers), time.monotonic() - begin
        used = sum(after) - sum(before)
        resident, shared = memory_kib(servers, "Rss"), memory_kib(servers, "Pss")
    yield f"**{count} servers, nobody plays, {seconds} s**", ""
    yield "Memory of all, shared pages counted once (PSS)", f"{sum(shared) / 1024:.0f} MiB"
    yield "The same for one", f"{sum(shared) / count:.0f} KiB"
    yield "Resident memory of one (RSS), median", f"{statistics.median(resident):.0f} KiB"
    yield "Processor time of all", f"{used / elapsed_s / 1e7:.2f} % of a core"


def start_bots(port, seconds):
    command = [BUILD / "zolbots", "--server", f"127.0.0.1:{port}", "--players", PLAYERS,
               "--rate", RATE_HZ, "--seconds", seconds, "--alone"]
    return subprocess.Popen([str(word) for word in command], stdout=subprocess.PIPE, text=True)


def read_bots(text):
    """Returns the numbers of expected, received, lost and wrong datagrams, and the delays."""
    counts = re.findall(r"^(?:relays|answers) +(\d+) +(\d+) +(\d+) +(\d+)$", text, re.M)
    delays = re.search(r"p50 ([\d.]+) ms, p99 ([\d.]+) ms, max ([\d.]+) ms", text)
    if len(counts) != 2 or not delays:
        fail(f"the bots printed no result:\n{text}")
    return [sum(map(int, both)) for both in zip(*counts)], [float(each) for each in delays.groups()]


def play(servers, seconds):
    """Runs bots on each server. Returns their results."""
    with contextlib.ExitStack() as stack:
        bots = [stack.enter_context(start_bots(port, seconds)) for _, port in servers]
        return [read_bots(each.communicate()[0]) for each in bots]


def rows_of_bots(found):
    counts, delays = zip(*found)
    expected, _, lost, wrong = map(sum, zip(*counts))
    p50, p99, most = zip(*delays)
    yield "Delay of a relay, median of the servers' medians", f"{statistics.median(p50):.2f} ms"
    yield "99th percentile, of the worst server", f"{max(p99):.1f} ms"
    yield "Longest delay", f"{max(most):.1f} ms"
    yield "Datagrams that bots expected", f"{expected:,}"
    yield "Lost", str(lost)
    yield "Wrong", str(wrong)


def measure_busy(count, seconds):
    with fleet(count) as servers:
        before = processor_ns(servers)
        found = play(servers, seconds)
        used = [one - other for one, other in zip(processor_ns(servers), before)]
        shared = memory_kib(servers, "Pss")
    percent = [nanoseconds / seconds / 1e7 for nanoseconds in used]
    yield f"**{count} servers, {PLAYERS} bots each at {RATE_HZ} Hz, {seconds} s**", ""
    yield "Processor time of one, median, least to most", (
        f"{statistics.median(percent):.1f} % of a core, {min(percent):.1f} to {max(percent):.1f}")
    yield "Processor time of all", f"{sum(percent):.0f} % of a core"
    yield "Memory of one (PSS), most", f"{max(shared)} KiB"
    yield from rows_of_bots(found)


def show(rows):
    """Prints the rows as a Markdown table."""
    widths = [max(len(row[i]) for row in rows) for i in range(2)]
    for number, row in enumerate([("", ""), *rows]):
        if number == 1:
            print("|" + "|".join("-" * (width + 2) for width in widths) + "|")
        print("| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |")


def main():
    parser = argparse.ArgumentParser(prog="script/fleet", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="measure for a few seconds, as a test of this script")
    quick = parser.parse_args().quick
    build("zolserver", "zolbots")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # the exit ends the servers and the bots
    rows = [*measure_idle(20 if quick else 200, 5 if quick else 60),
            *measure_busy(4 if quick else 16, 5 if quick else 30)]
    show(rows)
    return 0 if rows[-1] == ("Wrong", "0") else 1


if __name__ == "__main__":
    sys.exit(main())
