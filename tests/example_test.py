"""Tests the example client on a real server.

Usage: example_test.py ZOLSERVER ZOLEXAMPLE [TEST...]"""

import os
import struct
import subprocess
import sys
import unittest

from server_case import PATIENCE_S, ServerCase, bound_socket

ZOLEXAMPLE = os.path.realpath(sys.argv.pop(1))


class ExampleTest(ServerCase):
    def start_example(self, port):
        example = self.enterContext(subprocess.Popen([ZOLEXAMPLE, f"127.0.0.1:{port}"],
                                                     stdout=subprocess.PIPE, text=True))  # fmt: skip
        self.addCleanup(example.kill)
        return example

    def test_drives_and_leaves(self):
        self.start_and_wait()
        other = self.enter_game()
        example = self.start_example(self.port)
        self.assertEqual(other.heard()[:11], b"\x2a\1\1Example\0", "it has entered")
        self.assertEqual(other.heard()[0], 204, "it got into its car")
        first, second = (struct.unpack("<Bxxxffxxxx", other.heard()) for _ in range(2))
        self.assertEqual((first[0], second[0]), (200, 200))
        self.assertNotEqual(first[1:], second[1:], "it moves")
        example.terminate()
        while (heard := other.heard())[0] != 60:
            self.assertIn(heard[0], (200, 202, 203, 204, 207, 208))
        self.assertEqual(example.communicate(timeout=PATIENCE_S)[0], "accepted\nin the game\n")
        self.assertEqual(example.returncode, 0)

    def test_prints_refusals(self):
        server, port = bound_socket()
        self.enterContext(server).settimeout(PATIENCE_S)
        example = self.start_example(port)
        for expected, answer in ((10, b"\x0cFull".ljust(65, b"\0")), (60, b""),
                                 (10, b"\x11".ljust(67, b"\0")), (120, b"\x13"), (10, b"")):  # fmt: skip
            heard, client = server.recvfrom(300)
            self.assertEqual(heard[0], expected)
            server.sendto(answer, client)
        example.terminate()
        self.assertEqual(example.communicate(timeout=PATIENCE_S)[0],
                         "refused, will try again: Full\naccepted\n"
                         "the server has stopped; trying to join again\n")

    def test_bad_arguments(self):
        for arguments, complaint in (((), "usage: zolexample HOST[:PORT]"),
                                     (("127.0.0.1:x",), "a server is HOST or HOST:PORT")):
            done = subprocess.run([ZOLEXAMPLE, *arguments], capture_output=True, text=True,
                                  timeout=PATIENCE_S)
            self.assertEqual(done.returncode, 2)
            self.assertIn(complaint, done.stderr)


if __name__ == "__main__":
    unittest.main()
