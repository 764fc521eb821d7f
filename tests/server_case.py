"""The base class of tests with a real server: starts it in a new folder, and adds players."""

import os
import pathlib
import re
import select
import socket
import subprocess
import sys
import tempfile
import unittest

PATIENCE_S = int(os.environ.get("ZOL_PATIENCE_S", "60"))  # time limit for anything a test waits for
RULE = "-" * 38 + "\n"
PING, FULL_JOIN = b"\1", b"\nBob" + bytes(62) + b"\x28\0"
ZOLSERVER = os.path.realpath(sys.argv.pop(1))
HEADER = pathlib.Path(__file__).resolve().parent.parent / "server/protocol.h"
VERSION = re.search(r'SERVER_VERSION = "(.*)"', HEADER.read_text())[1]


def bound_socket():
    taken = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    taken.bind(("127.0.0.1", 0))
    return taken, taken.getsockname()[1]


def free_port():
    taken, port = bound_socket()
    taken.close()
    return port


def port_for_server():
    """Returns a socket that reserves a port, and the port. A server can open the port, too. Close the
    socket when the server has opened the port."""
    holder, port = bound_socket()
    holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    return holder, port


class Player:
    def __init__(self, port):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(("127.0.0.1", port))
        self.socket.settimeout(PATIENCE_S)

    def say(self, code, size=1):
        self.socket.send(bytes([code]) + bytes(size - 1))

    def heard(self):
        """Returns the next datagram that is no ping."""
        while (heard := self.socket.recv(300)) == PING:
            pass
        return heard


class ServerCase(unittest.TestCase):
    def start(self, settings, **options):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        pathlib.Path(folder, "zolserver.cfg").write_text(settings)
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE} | options
        self.server = subprocess.Popen([ZOLSERVER], cwd=folder, **options)
        self.console = self.server.stdout
        if self.console:
            self.addCleanup(self.console.close)
        self.addCleanup(self.server.wait)
        self.addCleanup(self.server.kill)

    def start_on_free_port(self, settings="", **options):
        self.port = free_port()
        self.start(f"Port={self.port}\n{settings}", **options)

    def start_and_wait(self, settings="", console=None, **options):
        holder, self.port = port_for_server()
        with holder:
            self.start(f"Port={self.port}\n{settings}", **options)
            self.console = console or self.console
            online = f"ZOL Server {VERSION} ONLINE [Port: {self.port}]!!!\n{RULE}"
            self.assertEqual(self.read_to(RULE), online)

    def read_to(self, last):
        """Reads the server's output up to this text, which is included, or up to its end."""
        text = ""
        while not text.endswith(last):
            ready = select.select([self.console], [], [], PATIENCE_S)[0]
            byte = os.read(self.console.fileno(), 1) if ready else b""
            if not byte:
                break
            text += byte.decode()
        return text

    def enter_game(self):
        player = Player(self.port)
        self.addCleanup(player.socket.close)
        player.socket.send(FULL_JOIN)
        self.assertEqual(player.heard()[0], 17)
        player.say(15, 100)
        reply = player.heard()
        self.assertEqual(reply[0], 16)
        self.assertEqual(reply[2], 0, "hour")
        self.assertLess(reply[3], 20, "minute of a server that has just started")
        return player

    def say_unknown(self, player, count):
        """Makes the server print this many lines, and waits until it has handled all datagrams."""
        for first in range(0, count, 100):
            for _ in range(min(100, count - first)):
                player.say(200)
            player.say(15, 100)
            self.assertEqual(player.heard()[0], 16)

    def proc(self, name):
        return pathlib.Path(f"/proc/{self.server.pid}", name)

    def assert_stopped_in_order(self):
        self.assertEqual(self.read_to("none"), "Exitting...\n")
        self.assertEqual(self.server.wait(PATIENCE_S), 1)
