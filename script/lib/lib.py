"""What the Python scripts share."""

import pathlib
import re
import socket
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build"
READY_S = 30  # until a program that gives no sign counts as stuck


def command_codes():
    """The codes of docs/protocol.md, by name."""
    text = (ROOT / "docs/protocol.md").read_text()
    return {name: int(code) for name, code in re.findall(r"^### `(CMD_\w+)` \((\d+)\)", text, re.M)}


def fail(message):
    sys.exit(f"{pathlib.Path(sys.argv[0]).stem}: {message}")


def build(*targets):
    """Of the preset default, without the libraries of programs that are not wanted."""
    options = ["-DZOL_TESTS=OFF", *(f"-DZOL_{option}={'ON' if target in targets else 'OFF'}"
                                    for option, target in (("VIEW", "zolview"), ("LIST", "zollist")))]
    for command in (["cmake", "--preset", "default", *options],
                    ["cmake", "--build", "--preset", "default", "--target", *targets]):
        subprocess.run(command, cwd=ROOT, check=True, stdout=subprocess.DEVNULL)


def free_port():
    """A UDP port of the loopback interface that nobody has."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until_ready(process, log, sign="ONLINE"):
    """Until this stands in the file of what the process prints."""
    end = time.monotonic() + READY_S
    while sign not in (said := log.read_text(errors="replace")):
        if process.poll() is not None or time.monotonic() > end:
            fail(f"{pathlib.Path(process.args[0]).name} does not start: {said}")
        time.sleep(0.02)
