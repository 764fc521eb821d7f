"""The results of script/bench, as a table, and as docs/performance.md with its picture."""

import os
import re
import statistics
import subprocess
from collections import namedtuple

# met is None without a bound.
Row = namedtuple("Row", "what server floor ratio bound met", defaults=["", "", "", None])

COMPARED = [  # what, metric, decimals, bound of the ratio
    ("Processor time per relay, µs", "cpu", 2, 1.05),
    ("Delay of a lone update until the last player has it, µs", "delay", 1, 1.05),
    ("Relays a second at full load, thousands", "rate", 0, None)]


def quartiles(values):
    """The lower quartile, the median and the upper quartile."""
    return statistics.quantiles(values * 2 if len(values) == 1 else values, n=4,
                                method="inclusive")


def show(values, decimals):
    low, median, high = (f"{value:.{decimals}f}" for value in quartiles(values))
    return f"{median} [{low}, {high}]"


def compare(samples, players, what, metric, decimals, bound):
    server, floor = (samples[program, metric, players] for program in ("server", "floor"))
    ratios = [one / other for one, other in zip(server, floor, strict=True)]
    row = Row(f"{what}, {players} players", show(server, decimals), show(floor, decimals),
              show(ratios, 3))
    return row if bound is None else row._replace(bound=f"ratio ≤ {bound}",
                                                  met=quartiles(ratios)[1] <= bound)


def row_of_calls(calls):
    """Tolerates 0.05 calls more: when the load driver is too slow, the server waits."""
    receives, sends = calls.pop("recvfrom", 0), calls.pop("sendmmsg", 0)
    # Each count is a difference, so the count of none may be slightly below 0.
    others = max(sum(calls.values()), 0)
    return Row("System calls an update at full load",
               f"{receives:.2f} recvfrom, {sends:.2f} sendmmsg, {others:.2f} others",
               bound="1 recvfrom, 1 sendmmsg",
               met=max(abs(receives - 1), abs(sends - 1), others) < 0.05)


def make_rows(samples):
    memory, faults = max(samples["server", "memory"]), sum(samples["faults"])
    cpu, delay, rate = ([compare(samples, players, *compared) for players in (16, 32)]
                        for compared in COMPARED)
    cost = "Processor time per relay of {}, µs, 16 players"
    return [
        *cpu, *delay,
        Row("Processor time when idle, 16 players", f"{samples['idle']:.4f} % of a core",
            bound="< 0.02 %", met=samples["idle"] < 0.02),
        Row("Resident memory, the most of all rounds", f"{memory} KiB",
            f"{max(samples['floor', 'memory'])} KiB", bound="< 4096 KiB", met=memory < 4096),
        row_of_calls(dict(samples["calls"])),
        Row("Datagrams lost, wrong or out of order, of either", str(faults), bound="0",
            met=faults == 0),
        *rate,
        Row(cost.format("a car state"), show(samples["car_state"], 2)),
        Row(cost.format("floats after a death"), show(samples["state_floats"], 2))]


def table(rows):
    """The table in Markdown, which is also readable as text."""
    verdicts = {True: "met", False: "NOT MET", None: ""}
    cells = [["", "zolserver", "floor", "ratio", "bound", ""],
             *([*row[:5], verdicts[row.met]] for row in rows)]
    widths = [max(len(row[i]) for row in cells) for i in range(len(cells[0]))]
    lines = ["| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |"
             for row in cells]
    lines.insert(1, "|" + "|".join("-" * (width + 2) for width in widths) + "|")
    return "\n".join(lines)


# Bars are medians, the lines on them quartiles. In the blocks, columns 2 to 4 are the floor's, and
# 5 to 7 are the server's.
PLOT = """
set encoding utf8
set terminal svg size 860,340 font "sans-serif,13" background "white"
set style data histogram
set style histogram errorbars gap 1 linewidth 1.5
set style fill solid 0.8 border -1
set xrange [-0.6:1.6]
set yrange [0:*]
set tics nomirror scale 0.5
set key below
set multiplot layout 1,2
do for [metric in "cpu delay"] {
  set title (metric eq "cpu" ? "Processor time per relay, µs" : "Delay of a lone update, µs")
  plot "$".metric using 2:3:4:xtic(1) title "floor: a minimal relay" linecolor rgb "#9aa7b3", \\
       "$".metric using 5:6:7 title "zolserver" linecolor rgb "#b3261e"
}
"""


def plot_data(samples, metric):
    lines = []
    for players in (16, 32):
        both = (quartiles(samples[program, metric, players]) for program in ("floor", "server"))
        cells = [f"{median:.3f} {low:.3f} {high:.3f}" for low, median, high in both]
        lines.append(f'"{players} players" {" ".join(cells)}\n')
    return f"${metric} << END\n{''.join(lines)}END\n"


DOCUMENT = """# Performance

This page compares the server with a *floor*: a minimal relay, one `sendmmsg` loop that keeps no state
(`bench/relay_floor.cpp`).

- **Figures** with brackets are medians of {rounds} rounds, with quartiles in the brackets.
- **A ratio** is the server's figure divided by the floor's of the same round. For times, a ratio below 1 means that the server is faster; for
  relays a second, a ratio above 1 means that.
- **A bound** of a ratio applies to the median of all rounds; single rounds vary more, as the quartiles
  show. `script/bench` fails when a bound is not met. Rows without a bound are for information.
- **Processor time** is measured by the scheduler and includes the kernel's work. During this measurement, players on loopback send 2000 updates a second, one at a time. **Full load** means that 64 updates are always under
  way.
- **A relay** is one datagram to one other player. Car states, and floats after a death, cost more: the
  server answers each with the game's time of day, and reads the clock twice for it.

{table}

![Processor time and delay of the server and the floor, medians and quartiles](performance.svg)

- Machine: {processor}, {cores} cores, {kernel}
- Compiler: {compiler}
- Command: `{command}`
"""


def output_of(command, text=None):
    return subprocess.run(command, input=text, capture_output=True, text=True, check=True).stdout


def write_docs(root, samples, rows, command):
    processor = re.search(r"^model name.*: (.*)$", output_of(["cat", "/proc/cpuinfo"]), re.M)
    text = DOCUMENT.format(
        rounds=len(samples["server", "cpu", 16]), table=table(rows), command=command,
        processor=processor.group(1) if processor else "unknown", cores=os.cpu_count(),
        kernel=output_of(["uname", "-srm"]).strip(),
        compiler=output_of(["g++", "--version"]).splitlines()[0])
    page = root / "docs/performance.md"
    # script/fleet's section, which it does not write itself.
    _, heading, section = page.read_text(encoding="utf-8").partition("\n## Many servers\n")
    page.write_text(text + heading + section, encoding="utf-8")
    plot = plot_data(samples, "cpu") + plot_data(samples, "delay") + PLOT
    (root / "docs/performance.svg").write_text(output_of(["gnuplot"], plot), encoding="utf-8")
