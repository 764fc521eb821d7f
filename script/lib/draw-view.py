#!/usr/bin/python3
"""Draws docs/zolview.svg: the screen of zolview in a real game of eight bots.

Usage: script/draw-view [SECONDS]      length of the game before the picture; default: 12"""

import html
import itertools
import os
import pathlib
import pty
import re
import select
import signal
import subprocess
import sys
import tempfile
import time

import pyte

from lib import BUILD, ROOT, build, free_port, start_server

COLUMNS, ROWS = 90, 26
WIDTH, HEIGHT = 8, 17  # of a character, in pixels
PAGE, TEXT = "#101418", "#d8dee4"
# Pyte's colour names and the colours of the picture.
COLOURS = {
    "green": "#56d364", "brown": "#e3b341", "cyan": "#39c5cf", "blue": "#79a8ff", "red": "#ff7b72",
    "white": "#ffffff", "magenta": "#ff5fb0",
}  # fmt: skip
PORT = free_port()
SETTINGS = f"""WelcomeMessage=Welcome to the demo - mind the PinkPanther
GameType=1
Port={PORT}
"""


def watch(seconds):
    """Returns the screen of a view that has run for this time."""
    screen = pyte.Screen(COLUMNS, ROWS)
    stream = pyte.ByteStream(screen)
    child, terminal = pty.fork()
    if child == 0:
        size = {"LINES": str(ROWS), "COLUMNS": str(COLUMNS)}
        environment = {"TERM": "linux", "LC_ALL": "C.UTF-8"} | size
        os.execve(BUILD / "zolview", ["zolview", f"127.0.0.1:{PORT}"], environment)
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if select.select([terminal], [], [], 0.1)[0]:
            stream.feed(os.read(terminal, 65536))
    os.kill(child, signal.SIGTERM)
    os.waitpid(child, 0)
    return screen


def texts_of(screen):
    """Yields an SVG text element for each word."""
    for row in range(ROWS):
        cells = [screen.buffer[row][column] for column in range(COLUMNS)]
        styles = itertools.groupby(range(COLUMNS), lambda at: (cells[at].fg, cells[at].bold))
        for (colour, bold), run in styles:
            columns = list(run)
            text = "".join(cells[at].data for at in columns)
            weight = ' font-weight="bold"' if bold else ""
            for word in re.finditer(r"\S+", text):
                x, y = (columns[0] + word.start()) * WIDTH, (row + 1) * HEIGHT - 4
                yield (
                    f'<text x="{x}" y="{y}" textLength="{len(word[0]) * WIDTH}"{weight} '
                    f'fill="{COLOURS.get(colour, TEXT)}">{html.escape(word[0])}</text>'
                )


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) == 2 else 12
    build("zolserver", "zolbots", "zolview")
    with tempfile.TemporaryDirectory() as folder:
        server, _ = start_server(pathlib.Path(folder), SETTINGS)
        bots = subprocess.Popen(
            [BUILD / "zolbots", "--server", f"127.0.0.1:{PORT}", "--seconds", "600"],
            stdout=subprocess.DEVNULL,
        )
        screen = watch(seconds)
        for process in (bots, server):
            process.terminate()
            process.wait()
    picture = "\n".join(texts_of(screen))
    size = f'width="{COLUMNS * WIDTH}" height="{ROWS * HEIGHT}"'
    (ROOT / "docs/zolview.svg").write_text(
        f'<svg xmlns="http://www.w3.org/2000/svg" {size} '
        'font-family="monospace" font-size="13">\n'
        f'<rect {size} rx="6" fill="{PAGE}"/>\n{picture}\n</svg>\n'
    )


main()
