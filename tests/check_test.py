"""Tests zolcheck, also beside a real server.

Usage: check_test.py ZOLSERVER ZOLCHECK [TEST...]"""

import ctypes
import os
import pathlib
import resource
import subprocess
import sys
import tempfile
import unittest

from server_case import PATIENCE_S, RULE, ServerCase, free_port

ZOLCHECK = os.path.realpath(sys.argv.pop(1))
LIBC, PR_SET_SECUREBITS, SECBIT_NOROOT = ctypes.CDLL(None), 28, 1
FIRST_FREE_PORT = int(pathlib.Path("/proc/sys/net/ipv4/ip_unprivileged_port_start").read_text())
SAMPLE = pathlib.Path(__file__).resolve().parent.parent / "packaging/zolserver.cfg"


def drop_rights_of_root():
    """The next program has no capability, also in a container that lets root inherit all of them."""
    LIBC.prctl(PR_SET_SECUREBITS, SECBIT_NOROOT)


class CheckTest(ServerCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def directory(self, name, settings):
        path = self.folder / name
        path.mkdir()
        if settings is not None:
            (path / "zolserver.cfg").write_text(settings)

    def check(self, *arguments, timeout=PATIENCE_S, **options):
        result = subprocess.run([ZOLCHECK, *arguments], cwd=self.folder, capture_output=True,
                                text=True, timeout=timeout, **options)  # fmt: skip
        return result.returncode, result.stdout, result.stderr

    def test_prints_the_settings(self):
        self.directory("good", SAMPLE.read_text())
        self.directory("suspicious", "ServerName=D\nPort=70001\nGameType=1\nmaxClient=3\n")
        good = 'good: "Unnamed Server", port 16309, 16 players, Deathmatch, not listed\n'
        self.assertEqual(self.check("good//"), (0, good, ""))
        status, said, warnings = self.check("good", "suspicious")
        self.assertEqual((status, said), (1, good + 'suspicious: "D", port 4465, 16 players, '
                                          "CatchPinkPanther, not listed\n"))
        self.assertEqual(warnings, "suspicious/zolserver.cfg:2: Port 70001 opens port 4465\n"
                         'suspicious/zolserver.cfg:4: unknown key "maxClient"; did you mean "maxClients"?\n')
        (self.folder / "zolserver.conf").write_text("AnnounceServer=yes\n")
        self.assertEqual(self.check()[::2], (1, './zolserver.conf:1: AnnounceServer cannot be "yes"; '
                                            "it stays false\n"))

        status, said, _ = self.check("--help")
        self.assertEqual((status, said[:40]), (0, "usage: zolcheck [--start | --port] [DIRE"))

    def test_reports_failures(self):
        self.directory("one", "Port=5000\n")
        self.directory("two", "Port=5000\n")
        self.directory("wrong", "Port=65536\n")
        self.directory("bare", None)
        (self.folder / "bare/zolserver.cfg").mkdir()
        self.directory("empty", None)
        no_settings = "empty: no zolserver.cfg and no zolserver.conf; a server would use the defaults\n"
        self.assertEqual(self.check("empty")[::2], (1, no_settings))
        # A second line follows if a server of this machine uses the default port.
        status, _, complaints = self.check("--start", "empty")
        self.assertEqual((status, complaints.splitlines(True)[0]), (2, no_settings))
        self.directory("closed", "Port=5000\n")
        (self.folder / "closed/zolserver.cfg").chmod(0)
        self.directory("loop", None)
        (self.folder / "loop/zolserver.cfg").symlink_to("zolserver.cfg")

        def limits():
            resource.setrlimit(resource.RLIMIT_NOFILE, (32, 32))  # so it must close the files of 40 directories
            drop_rights_of_root()

        self.assertEqual(self.check("--port", "one", "two")[:2], (2, "5000\n5000\n"))
        self.assertEqual(self.check("--port", "empty"), (0, "16309\n", ""))
        for arguments, complaint in (
            (["two"] * 40, "two: port 5000 is also the port of two\n" * 39),
            (["one", "two"], "two: port 5000 is also the port of one\n"),
            (["wrong"], 'wrong/zolserver.cfg:1: Port "65536" is not a port number; use 1 to 65535\n'
             "wrong: the server would not start: Port is not a port number; use 1 to 65535\n"),
            (["bare"], "bare/zolserver.cfg: Is a directory\n"),
            (["closed"], "closed/zolserver.cfg: Permission denied; make it readable for the user that"
             " runs the server\n"),
            (["--start", "loop"], "loop/zolserver.cfg: Too many levels of symbolic links\n"),
            (["missing"], "missing: No such file or directory\n"),
            (["--stop"], 'zolcheck: unknown option "--stop"; see --help\n'),
        ):  # fmt: skip
            with self.subTest(arguments):
                status, _, complaints = self.check(*arguments, preexec_fn=limits)
                self.assertEqual((status, complaints), (2, complaint))

    def test_reports_names_that_a_list_shows_differently(self):
        """Only with AnnounceServer=true, because only then a list shows the name."""
        advice = "; avoid & + % and more than 31 bytes\n"
        for i, (name, warnings) in enumerate((
            ("A plain name", ""),
            ("Jörg 車", ""),
            (b"J\xf6rg Caf\xe9", ""),
            ("x" * 31, ""),
            ("A & B", 'a server list shows ServerName as "A "'),
            ("A+B", 'a server list shows ServerName as "A B"'),
            ("A%42", 'a server list shows ServerName as "AB"'),
            ("A&name=B", 'a server list shows ServerName as "B"'),
            ("100%", "a server list may show ServerName in another way"),
            ("x" * 32, f'a server list shows ServerName as "{"x" * 31}"'),
            ("x" * 30 + "ö", f'a server list shows ServerName as "{"x" * 30}"'),
            ("車" * 11, f'a server list shows ServerName as "{"車" * 10}"'),
        )):  # fmt: skip
            name = name if isinstance(name, bytes) else name.encode()
            for announces in (b"true", b"false"):
                directory = f"{i}-{announces.decode()}"
                self.directory(directory, "")
                (self.folder / directory / "zolserver.cfg").write_bytes(
                    b"Port=2000\nServerName=" + name + b"\nGameType=1\nAnnounceServer=" + announces
                )
                with self.subTest(directory, name=name):
                    _, _, found = self.check(directory, errors="replace")
                    found = [line for line in found.splitlines(True) if "cut to" not in line]
                    expected = f"{directory}/zolserver.cfg:2: {warnings}{advice}"
                    self.assertEqual(found, [expected] if warnings and announces == b"true" else [])

    def test_is_fast_on_the_longest_lines(self):
        more = "1: more lines are suspicious; correct these first"
        for key, count, last in (("a=", 1, '1: unknown key "a"'), ("maxClients=", 100, more)):
            with self.subTest(key):
                self.directory(key, (key * 2**20)[: 2**20])
                status, _, warnings = self.check(key, timeout=30)
                self.assertEqual((status, warnings.count("\n"), warnings.splitlines()[-1]),
                                 (1, count, f"{key}/zolserver.cfg:{last}"))

    def test_detects_a_port_in_use(self):
        self.start_on_free_port("Foo=1\n")
        self.read_to(RULE)
        self.directory("second", f"Port={self.port}\nmaxClients=99\n")
        self.directory("other", "maxClients=99\nPort=%s\n" % free_port())
        status, said, complaints = self.check("--start", "second")
        self.assertEqual((status, said, complaints.splitlines()[-1]),
                         (2, "", f"second: port {self.port} is in use; is the server running already?"))
        self.assertEqual(self.check("second")[0], 1, "without --start, the server itself may use the port")
        status, said, complaints = self.check("--start", "other")
        self.assertEqual((status, said, complaints.count("\n")), (0, "", 1))

    @unittest.skipIf(FIRST_FREE_PORT < 1024, "on this machine, any user may open this port")
    def test_reports_a_missing_privilege(self):
        self.directory("low", "Port=1023\n")
        status, _, complaints = self.check("--start", "low", preexec_fn=drop_rights_of_root)
        self.assertEqual((status, complaints.splitlines()), (2, [
            "low/zolserver.cfg:1: a port below 1024 needs a privilege; use a higher port",
            "low: port 1023 needs a privilege that is missing here",
        ]))  # fmt: skip


if __name__ == "__main__":
    unittest.main()
