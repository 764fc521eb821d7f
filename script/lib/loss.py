#!/usr/bin/env python3
"""Checks the client library on a network that loses, repeats and delays datagrams. At the end, each of
32 clients must know the correct state of the others. No client may consider a running server to be
stopped, and on a full server no client may keep a slot that it does not use.

Usage: script/checks/loss [SEED]      (default: a random seed; takes 80 seconds)

All games run at the same time. In the game "forget", the clients do not repeat their reports. This game
must fail."""

import contextlib
import pathlib
import random
import signal
import subprocess
import sys
import tempfile

from lib import BUILD, ROOT, fail, free_port, wait_until_ready

LIMIT_S = 250
# For each game: the number of the server's slots, and the expected exit status.
GAMES = {"play": (32, 0), "forget": (32, 1), "silence": (32, 0), "alone": (32, 0), "full": (4, 0)}


@contextlib.contextmanager
def server(directory, slots):
    port = free_port()
    (directory / "zolserver.cfg").write_text(f"Port={port}\nmaxClients={slots}\n")
    with open(directory / "log", "wb") as log:
        process = subprocess.Popen([BUILD / "zolserver"], cwd=directory, stdout=log)
    try:
        wait_until_ready(process, directory / "log")
        yield port
    finally:
        process.send_signal(signal.SIGTERM)
        process.wait()


def main():
    seed = sys.argv[1] if len(sys.argv) > 1 else str(random.randrange(10000))
    for command in (["cmake", "--preset", "default", "-DZOL_TESTS=OFF", "-DZOL_BENCH=ON"],
                    ["cmake", "--build", "--preset", "default", "--target", "zolserver", "lossy_crowd"]):
        subprocess.run(command, cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
    failed = []
    with tempfile.TemporaryDirectory() as top, contextlib.ExitStack() as stack:
        runs = {}
        for game, (slots, _) in GAMES.items():
            directory = pathlib.Path(top, game)
            directory.mkdir()
            port = stack.enter_context(server(directory, slots))
            runs[game] = subprocess.Popen(
                [BUILD / "lossy_crowd", game, f"127.0.0.1:{port}", seed],
                stdout=subprocess.PIPE, text=True)
        for game, process in runs.items():
            said = process.communicate(timeout=LIMIT_S)[0].splitlines() or ["no output"]
            print(f"{game}: {said[-1]}")
            if process.returncode != GAMES[game][1]:
                failed.append(game)
                print(*said[:20], sep="\n")
    if failed:
        fail(f"wrong exit status with seed {seed}: {', '.join(failed)}")


main()
