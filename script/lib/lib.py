"""Functions that the Python scripts share."""

import pathlib
import re
import socket
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build"
JOIN, ENTER = b"\x0aPlayer" + bytes(59) + b"\x28\0", b"\x0f" + bytes(99)
READY_S = 30  # time limit for the start of a program


def command_codes():
    """Returns the command codes in docs/protocol.md, by name."""
    text = (ROOT / "docs/protocol.md").read_text()
    return {name: int(code) for name, code in re.findall(r"^### `(CMD_\w+)` \((\d+)\)", text, re.M)}


def anchor_of(title):
    """Returns the anchor that GitHub makes of a heading, without the #."""
    return re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-")


def fail(message):
    sys.exit(f"{pathlib.Path(sys.argv[0]).stem}: {message}")


def build(*targets):
    """Builds these targets with the preset default. Needs no libraries of other programs."""
    options = ["-DZOL_TESTS=OFF", *(f"-DZOL_{option}={'ON' if target in targets else 'OFF'}"
                                    for option, target in (("VIEW", "zolview"), ("LIST", "zollist")))]
    for command in (["cmake", "--preset", "default", *options],
                    ["cmake", "--build", "--preset", "default", "--target", *targets]):
        subprocess.run(command, cwd=ROOT, check=True, stdout=subprocess.DEVNULL)


class Player:
    """A player in the game of the server at this address."""

    def __init__(self, address):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(address)
        self.socket.settimeout(10)
        for request, answer in ((JOIN, 17), (ENTER, 16)):
            self.socket.send(request)
            while self.socket.recv(256)[0] != answer:
                pass


def free_port():
    """Returns a UDP port of the loopback interface that no program uses."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def start_server(folder, settings, command=(BUILD / "zolserver",)):
    """Starts a server in this folder and waits until it is ready. Returns the process, and the path
    of the file with its output."""
    (folder / "zolserver.cfg").write_text(settings)
    log = folder / "log"
    with open(log, "wb") as console:
        server = subprocess.Popen(command, cwd=folder, stdout=console)
    wait_until_ready(server, log)
    return server, log


def wait_until_ready(process, log, sign="ONLINE"):
    """Waits until the file with the output of the process contains this text."""
    end = time.monotonic() + READY_S
    while sign not in (output := log.read_text(errors="replace")):
        if process.poll() is not None or time.monotonic() > end:
            fail(f"{pathlib.Path(process.args[0]).name} did not start: {output}")
        time.sleep(0.02)
