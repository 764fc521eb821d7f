#!/usr/bin/env python3
"""Captures real traffic of build/zolserver and checks that wireshark/zol.lua understands all of it.

Usage: script/checks/dissector         (Debian packages: tshark, python3; takes about 15 seconds)

Two servers play the worked sessions of docs/protocol.md, one of them also serves build/zolbots.
Every datagram must decode without complaint, every code must be seen in each of its directions, and
three datagrams that are wrong on purpose must be the only ones complained of. Capturing on loopback
needs root or membership in the group wireshark (dpkg-reconfigure wireshark-common).
"""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time

from lib import BUILD, ROOT, build, fail, free_port, start_server, wait_until_ready

BOTS = BUILD / "zolbots"
DISSECTOR = ROOT / "wireshark/zol.lua"

CAPTURE = "capture.pcapng"
PING_PERIOD = 10.0  # seconds
SETTLE_SECONDS = 1.0  # until what was sent is in the capture

# Wrong on purpose, and what the dissector has to say: cut short, no command, and empty.
WRONG = {b"\x64\0\0\0": "malformed", b"\x03": "unknown command", b"": "malformed"}

# What a stranger sends to the second server, whose port is not set but told by "Decode As".
LATIN = b"\x0aB\xf6b\xff" + bytes(61) + b"\x28\0"
DECODED_AS = [
    'zol.datagram == "CMD_JOIN" && zol.name == "B\u00f6b\u00ff" && zol.sender == "client"',
    'zol.datagram == "CMD_JOIN_ACCEPTED" && zol.sender == "server"',
    "zol.malformed",
]

# What the Info column must say somewhere.
INFO = ["CMD_PLAYER_POSITION slot=0 position=(4, 2, 3)", "CMD_POSITION_UPDATE [malformed]"]

# What the sessions hold, as display filters; each must find something.
VALUES = [
    'zol.datagram == "CMD_JOIN" && zol.name == "Alice" && zol.version == 40',
    'zol.datagram == "CMD_PLAYER_INFO" && zol.name == "Bob" && zol.state_f1 == 1.5',
    'zol.datagram == "CMD_PLAYER_GOT_CAR" && zol.car_type == 90 && zol.car_float == 7.5',
    'zol.datagram == "CMD_PLAYER_POSITION" && zol.position.1 == 0x40800000',
    'zol.datagram == "CMD_CHAT_LINE" && zol.text == "Alice: hi"',
    'zol.sender == "server" && zol.command == 41 && zol.slot == 0',
    'zol.datagram == "CMD_ENTER_GAME" && zol.in_car == 0 && !zol.car_type',
]


def stop(process, how):
    process.send_signal(how)
    process.wait(timeout=10)


@contextlib.contextmanager
def killed_at_the_end(process):
    try:
        yield process
    finally:
        process.kill()
        process.wait()


def start_capture(port, directory):
    """Returns the process and the file of what it prints."""
    command = ["dumpcap", "-q", "-i", "lo", "-f", f"udp port {port}", "-B", "32", "-w", CAPTURE]
    log = directory / "dumpcap.log"
    with log.open("w") as output:
        process = subprocess.Popen(command, cwd=directory, stdout=output, stderr=output)
    wait_until_ready(process, log, "File:")
    return process, log


def end_capture(process, log):
    stop(process, signal.SIGINT)
    counts = re.search(r"received/dropped on interface .*: (\d+)/(\d+)", log.read_text())
    if not counts or counts[2] != "0":
        fail(f"the capture is not complete: {counts and counts[0]}")


def run(*command):
    if subprocess.run([str(word) for word in command], check=False).returncode != 0:
        fail(f"{pathlib.Path(command[0]).name} failed")


def play_default(port):
    run(ROOT / "script/replay-session", f"127.0.0.1:{port}", "session")
    run(BOTS, "--server", f"127.0.0.1:{port}", "--players", "8", "--seconds", "3")


def play_pinkpanther(port):
    """Leaves a player in the game, whom the server pings and tells of its stop."""
    started = time.monotonic()
    run(ROOT / "script/replay-session", f"127.0.0.1:{port}", "session-pinkpanther")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
        for datagram in [LATIN, *WRONG]:
            stranger.sendto(datagram, ("127.0.0.1", port))
    time.sleep(max(0.0, started + PING_PERIOD + SETTLE_SECONDS - time.monotonic()))


def record(settings, play, directory):
    """The traffic of one server from its start to its stop: its port and the capture file."""
    directory.mkdir()
    port = free_port()
    capturing, log = start_capture(port, directory)
    with killed_at_the_end(capturing):
        server, _ = start_server(directory, f"Port={port}\n{settings}")
        with killed_at_the_end(server):
            play(port)
            stop(server, signal.SIGTERM)
        time.sleep(SETTLE_SECONDS)
        end_capture(capturing, log)
    return port, directory / CAPTURE


def tshark(port, capture, *options):
    """The lines that tshark prints of a capture. Root reads as nobody: Wireshark may refuse to run
    Lua scripts for root. All ports are given to ZOL, since a client's random port may be that of a
    protocol that Wireshark knows."""
    directory = capture.parent
    script = shutil.copy(DISSECTOR, directory)
    for path in (directory.parent, directory):
        path.chmod(0o755)
    for path in (script, capture):
        os.chmod(path, 0o644)
    prefix = []
    if os.geteuid() == 0:
        prefix = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"]
    environment = os.environ | {"HOME": str(directory), "WIRESHARK_CONFIG_DIR": str(directory)}
    result = subprocess.run(
        [*prefix, "tshark", "-n", "-r", capture, "-X", f"lua_script:{script}", "-o",
         f"zol.port:{port}", *options],
        capture_output=True, text=True, errors="replace", env=environment, check=False)
    if result.returncode != 0 or "lua" in result.stderr.lower():
        fail(f"tshark failed:\n{result.stderr}")
    return result.stdout.splitlines()


def decode(port, capture):
    """Per datagram: protocols, sender, code, complaints, Info column."""
    columns = ["frame.protocols", "zol.sender", "zol.command", "_ws.expert.message", "_ws.col.Info"]
    options = [word for column in columns for word in ("-e", column)]
    lines = tshark(port, capture, "-d", "udp.port==1-65535,zol", "-T", "fields", "-E", "separator=/t",
                   "-E", "aggregator=|", *options)
    return [line.split("\t") for line in lines]


def check_datagrams(rows):
    """The (sender, code) pairs seen. Complaints must be those of WRONG and no others."""
    complaints = []
    seen = set()
    for protocols, sender, code, messages, info in rows:
        if not sender:
            fail(f"not decoded as ZOL: {protocols} {info}")
        # Wireshark suspects this by the port alone, and a random port may be one of those.
        of_datagram = [text for text in messages.split("|")
                       if text and not text.startswith("Possible traceroute")]
        complaints += [(text, info) for text in of_datagram]
        if not of_datagram:
            seen.add((sender, int(code)))
    expected = sorted(WRONG.values())
    if sorted(text.split(":")[0] for text, _ in complaints) != expected:
        fail(f"expected the complaints {expected}, got:\n" + "\n".join(map(str, complaints)))
    return seen


def check_coverage(seen):
    layouts = re.findall(r'^  \{"(client|server)", (\d+), "CMD_', DISSECTOR.read_text(), re.M)
    missing = {(sender, int(code)) for sender, code in layouts} - seen
    if missing or not layouts:
        fail(f"never seen: {sorted(missing)}")


def main():
    build("zolserver", "zolbots")
    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name)
        default = record("", play_default, directory / "default")
        pinkpanther = record("GameType=1\nmaxClients=2\n", play_pinkpanther,
                             directory / "pinkpanther")
        rows = decode(*default) + decode(*pinkpanther)
        check_coverage(check_datagrams(rows))
        for text in INFO:
            if not any(info.endswith(text) for *_, info in rows):
                fail(f"no Info column says {text}")
        for value in VALUES:
            if not tshark(*default, "-d", "udp.port==1-65535,zol", "-Y", value):
                fail(f"no datagram shows {value}")
        merged = directory / "merged.pcapng"
        run("mergecap", "-w", merged, default[1], pinkpanther[1])
        for value in DECODED_AS:
            if not tshark(default[0], merged, "-d", f"udp.port=={pinkpanther[0]},zol", "-Y", value):
                fail(f"no datagram of the second server shows {value}")
    print(f"{len(rows)} datagrams decoded, every command seen")


if __name__ == "__main__":
    main()
