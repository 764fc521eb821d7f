"""What script/bench found, as text, as targets met or not met, and as docs/performance.*."""

import os
import platform
import re
import statistics
import subprocess
from collections import namedtuple

Target = namedtuple("Target", "name found bound met")
Spread = namedtuple("Spread", "median low high")  # low and high are the quartiles

LABELS = {"server": "zolserver", "sendmmsg": "floor: sendmmsg", "sendto": "floor: single sends",
          "polling": "floor: 50 µs polling"}
TABLES = [  # metric, title, factor, decimals
    ("paced", "Processor time per relayed datagram, paced load, ns", 1, 0),
    ("busy", "Processor time per relayed datagram, full load, ns", 1, 0),
    ("rate", "Relayed datagrams a second at full load, thousands", 1e-3, 1),
    ("p50", "Delay of a lone update until the last player has it, median, µs", 1, 1),
    ("p99", "The same, 99th percentile, µs", 1, 1),
    ("memory", "Resident memory after the load, KiB", 1, 0),
]


def spread(values):
    if len(values) == 1:
        return Spread(values[0], values[0], values[0])
    low, median, high = statistics.quantiles(values, n=4, method="inclusive")
    return Spread(median, low, high)


def ratios(of, to):
    """Pairwise, so that each ratio is of one round."""
    return spread([one / other for one, other in zip(of, to, strict=True)])


def show(values, decimals, factor=1):
    found = spread([value * factor for value in values])
    return f"{found.median:.{decimals}f} [{found.low:.{decimals}f}, {found.high:.{decimals}f}]"


def ratio_target(name, samples, metric, to, bound, below=False, of="server"):
    found = ratios(samples[metric][of], samples[metric][to])
    met = found.median < bound if below else found.median <= bound
    return Target(name, f"{found.median:.3f} [{found.low:.3f}, {found.high:.3f}]",
                  f"{'<' if below else '≤'} {bound:.2f}", met)


def count_target(name, value, bound, form):
    return Target(name, form.format(value), f"< {form.format(bound)}", value < bound)


def relay_targets(samples, players):
    of = f"{players} players"
    return [
        ratio_target(f"processor time per relay to the sendmmsg floor's, {of}", samples,
                     f"paced {players}", "sendmmsg", 1.05),
        ratio_target(f"processor time per relay to the single-send floor's, {of}", samples,
                     f"paced {players}", "sendto", 1.0),
        ratio_target(f"median delay to the waiting floor's, {of}", samples,
                     f"p50 {players}", "sendmmsg", 1.05),
        ratio_target(f"median delay to the polling floor's, {of}", samples,
                     f"p50 {players}", "polling", 1.0, below=True),
    ]


def time_targets(samples):
    lost = sum(samples["lost"]["server"])
    memory = max(samples["memory 16"]["server"] + samples["memory 32"]["server"])
    commands = [ratio_target(f"processor time of one {name} update to a position update's",
                             samples, "command", "position", 1.25, below=True, of=name)
                for name in ("car state", "floats after a death")]
    return [
        *relay_targets(samples, 16), *relay_targets(samples, 32),
        Target("datagrams lost, paced and at full load", str(lost), "0", lost == 0),
        count_target("idle server, 16 players", samples["idle"]["server"][0], 0.02,
                     "{:.4f} % of a core"),
        count_target("resident memory, the most of all rounds", memory, 4096, "{} KiB"),
        *commands,
    ]


def instruction_targets(samples):
    return [ratio_target("user-space instructions an update to the sendmmsg floor's, 32 players",
                         samples, "instructions", "sendmmsg", 1.3)]


def call_targets(samples):
    calls = samples["system calls"]["server"][0]
    found = ", ".join(f"{count:g} {name}" for name, count in calls.items())
    return [Target("system calls an update while updates wait, 32 players", found,
                   "1 recvfrom, 1 sendmmsg", calls == {"recvfrom": 1.0, "sendmmsg": 1.0})]


def judge(samples):
    """The targets of the parts that were run."""
    parts = {"paced 16": time_targets, "instructions": instruction_targets,
             "system calls": call_targets}
    return [target for metric, make_targets in parts.items() if metric in samples
            for target in make_targets(samples)]


def table(rows):
    """Rows of cells as a table of Markdown, which reads well as text, too."""
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    lines = ["| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |"
             for row in rows]
    lines.insert(1, "|" + "|".join("-" * (width + 2) for width in widths) + "|")
    return "\n".join(lines)


def metric_table(samples, metric, title, factor, decimals):
    rows = [[title, "16 players", "32 players"]]
    for program in samples[f"{metric} 16"]:
        rows.append([LABELS[program]] + [show(samples[f"{metric} {players}"][program], decimals,
                                              factor) for players in (16, 32)])
    return table(rows)


def single_figures(samples):
    rows = [("idle", "Processor time of an idle process, 16 players", "{:.4f} %"),
            ("burst", "Longest burst that loses nothing, updates, 16 players", "{}"),
            ("instructions", "User-space instructions an update, 32 players", "{:.1f}")]
    rows = [row for row in rows if row[0] in samples]
    programs = [name for name in LABELS if any(name in samples[row[0]] for row in rows)]
    cells = [["Figure", *(LABELS[name] for name in programs)]]
    for metric, title, form in rows:
        cells.append([title] + [form.format(samples[metric][name][0])
                                if name in samples[metric] else "" for name in programs])
    return table(cells) if rows else ""


def command_table(samples):
    rows = [["Processor time an update of the server, 16 players, µs", ""]]
    rows += [[name, show(values, 2, 1e-3)] for name, values in samples["command"].items()]
    return table(rows)


def target_table(targets):
    rows = [["Target", "found", "bound", ""]]
    rows += [[*target[:3], "met" if target.met else "NOT MET"] for target in targets]
    return table(rows)


def figure_tables(samples):
    parts = []
    if "paced 16" in samples:
        parts += [metric_table(samples, *row) for row in TABLES] + [command_table(samples)]
        waited = max(max(values) for values in samples["waited"].values())
        parts.append("While others had its core, a program under measurement waited for it for "
                     f"{waited:.1f} % of the paced load\nat most; what is far above 0 disturbs.")
    parts.append(single_figures(samples))
    return "\n\n".join(part for part in parts if part)


def as_text(samples, targets):
    return f"{figure_tables(samples)}\n\n{target_table(targets)}".strip()


# The plot: one panel a metric and player count, one row a program, a dot at the median on a bar
# from quartile to quartile, over small dots of the single rounds.

TIME_AXIS = "nanoseconds per relayed datagram"
DELAY_AXIS = "microseconds until the last player has it"
PANELS = [("paced 16", "Processor time per relay, 16 players", TIME_AXIS),
          ("paced 32", "Processor time per relay, 32 players", TIME_AXIS),
          ("p50 16", "Median delay of a lone update, 16 players", DELAY_AXIS),
          ("p50 32", "Median delay of a lone update, 32 players", DELAY_AXIS)]
PANEL_WIDTH, PANEL_HEIGHT, LABEL_WIDTH, ROW_HEIGHT = 480, 230, 140, 30
SERVER_COLOR, FLOOR_COLOR = "#b3261e", "#3a5a78"


def axis_top(greatest):
    """The least of 1, 2, 2.5, 5 times a power of ten, by fifths, that holds the greatest value."""
    step = 1e-3
    while True:
        for factor in (1, 2, 2.5, 5):
            if step * factor * 5 >= greatest:
                return step * factor * 5
        step *= 10


def svg_text(x, y, text, anchor="start", size=12, weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" '
            f'font-weight="{weight}">{text}</text>')


def svg_row(y, label, values, x_of, color):
    found = spread(values)
    dots = "".join(f'<circle cx="{x_of(value):.1f}" cy="{y}" r="2" fill="{color}" '
                   'fill-opacity="0.35"/>' for value in values)
    return [svg_text(LABEL_WIDTH - 10, y + 4, label, "end"), dots,
            f'<rect x="{x_of(found.low):.1f}" y="{y - 5}" '
            f'width="{max(x_of(found.high) - x_of(found.low), 1):.1f}" height="10" '
            f'fill="{color}" fill-opacity="0.3"/>',
            f'<circle cx="{x_of(found.median):.1f}" cy="{y}" r="4" fill="{color}"/>',
            svg_text(x_of(found.median), y - 9, f"{found.median:.4g}", "middle", 10)]


def svg_panel(samples, metric, title, axis):
    rows = samples[metric]
    top = axis_top(max(max(values) for values in rows.values()))
    width = PANEL_WIDTH - LABEL_WIDTH - 40
    bottom = 50 + len(rows) * ROW_HEIGHT

    def x_of(value):
        return LABEL_WIDTH + value / top * width

    parts = [svg_text(LABEL_WIDTH, 20, title, size=13, weight="bold")]
    for tick in range(6):
        x = x_of(top * tick / 5)
        parts.append(f'<path d="M{x:.1f} 34V{bottom}" stroke="#dddddd"/>')
        parts.append(svg_text(x, bottom + 15, f"{top * tick / 5:g}", "middle", 11))
    parts.append(svg_text(LABEL_WIDTH + width / 2, bottom + 33, axis, "middle", 11))
    for i, (program, values) in enumerate(rows.items()):
        color = SERVER_COLOR if program == "server" else FLOOR_COLOR
        parts += svg_row(58 + i * ROW_HEIGHT, LABELS[program], values, x_of, color)
    return parts


def as_svg(samples):
    width, height = 2 * PANEL_WIDTH, (len(PANELS) + 1) // 2 * PANEL_HEIGHT + 24
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
             f'width="{width}" height="{height}" font-family="sans-serif" fill="#222222">',
             f'<rect width="{width}" height="{height}" fill="#ffffff"/>']
    for i, panel in enumerate(PANELS):
        parts.append(f'<g transform="translate({i % 2 * PANEL_WIDTH} {i // 2 * PANEL_HEIGHT})">')
        parts += [*svg_panel(samples, *panel), "</g>"]
    note = "Large dot: median of the rounds. Bar: quartiles. Small dots: single rounds."
    parts += [svg_text(LABEL_WIDTH, height - 10, note, size=11), "</svg>", ""]
    return "\n".join(parts)


def first_match(path, pattern):
    with open(path, encoding="utf-8") as text:
        found = re.search(pattern, text.read(), re.MULTILINE)
    return found.group(1).strip() if found else "unknown"


def machine(build_directory):
    compiler = first_match(os.path.join(build_directory, "CMakeCache.txt"),
                           r"^CMAKE_CXX_COMPILER:\w+=(.*)$")
    version = subprocess.run([compiler, "--version"], stdout=subprocess.PIPE, text=True, check=True)
    return [f"- Processor: {first_match('/proc/cpuinfo', r'^model name.*: (.*)$')}, "
            f"{os.cpu_count()} cores",
            f"- Kernel: {platform.system()} {platform.release()} {platform.machine()}",
            f"- Compiler: {version.stdout.splitlines()[0]}, Release"]


DOCUMENT = """# Performance

What the server costs beside floors: relays that do the least that a relay can do (`bench/`). Every
number of this page and its plot come from one run of

    {command}

on this machine:

{machine}

{rounds} rounds; each runs every program anew, in another order each time, with the players of the
load driver on loopback. What is measured ran on core {target_core}, the driver on core
{driver_core}. Figures are medians over the rounds with their quartiles in brackets; a ratio is
taken within each round. The server's console output went to /dev/null.

![Processor time and delay of the server and the floors](performance.svg)

## Targets

{targets}

## Figures

{figures}

How they are measured:

- Processor time is the scheduler's own account of all threads of the process (`schedstat`), kernel
  work on its behalf included, so nearly all of it is the sending itself.
- The paced load is {rate} updates a second, evenly spaced: each finds the process waiting. At full
  load 64 updates are under way at any time.
- The polling floor's paced processor time includes its polling, which it pays when idle as well.
- A car state and floats after a death are answered with the game clock: two readings, each of which
  opens `/proc/uptime` anew (some 4 µs), and one send more.
- A burst waits complete in the receive buffer of the stopped process before it is continued.
- Instructions are counted by callgrind over 2000 and over 4000 updates; the difference counts.
- System calls are counted by strace from the first receive of a burst to its last relay.
"""


def write_docs(directory, samples, targets, command, cores, rate):
    build_directory = os.path.join(os.path.dirname(directory), "build-bench")
    text = DOCUMENT.format(
        command=command, machine="\n".join(machine(build_directory)), rate=rate,
        rounds=len(samples["paced 16"]["server"]), target_core=cores[0], driver_core=cores[1],
        targets=target_table(targets), figures=figure_tables(samples))
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, "performance.md"), "w", encoding="utf-8") as page:
        page.write(text)
    with open(os.path.join(directory, "performance.svg"), "w", encoding="utf-8") as plot:
        plot.write(as_svg(samples))
