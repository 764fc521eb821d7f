#!/usr/bin/python3
"""Runs real servers against the real list, behind nginx: they are asked, listed, counted, removed,
refused, and come back when the list does. Then many announces at once, a flood of servers that are
not there, a disk that is full, and a master server that is silent.

All of it in a network of its own, in which the master server's name means this machine, on a clock
that can be put forward."""

import concurrent.futures
import contextlib
import itertools
import json
import os
import pathlib
import re
import select
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

from lib import BUILD, ROOT, build

PATIENCE_S = 30
LIST = "http://127.0.0.1:80"
SOON_S = 10  # a server waits so long for its verdict, and a reader for a new server
AGENT = "ZOL/0.1 (list)"
REFUSED = b"\x0eYou need Version 9".ljust(65, b"\0")
IP_PKTINFO = 8  # the local address of a datagram
FLOOD = [(f"127.2.{i % 200}.1", 3000 + i // 200) for i in range(200 * 64)]


def fail(message):
    for log in [*pathlib.Path().glob("server-*/console"), *pathlib.Path().glob("list/*.log")]:
        print(f"{log}:\n{log.read_text()[-2000:]}", file=sys.stderr)
    raise SystemExit(f"announce: {message}")


def enter_namespace():
    build("zolserver", "zolbots", "zollist", "zolask")
    os.execvp("unshare", ["unshare", "--map-root-user", "--net", "--mount", sys.executable, "-B",
                           __file__, "inside"])


class Clock:
    """Stands in for /proc/uptime, which servers read, and can be put forward."""

    def __init__(self):
        self.file = pathlib.Path("uptime")
        self.ahead_s = 0.0
        self.file.write_text(pathlib.Path("/proc/uptime").read_text())
        subprocess.run(["mount", "--bind", self.file, "/proc/uptime"], check=True)

    def tick(self):
        now = time.clock_gettime(time.CLOCK_BOOTTIME) + self.ahead_s
        # In place and of equal length: a reader must never see half of it.
        with open(self.file, "r+b", buffering=0) as file:
            file.write(b"%017.2f 0.00\n" % now)


def await_that(holds, what, clock=None, limit_s=PATIENCE_S):
    end = time.monotonic() + limit_s
    while not holds():
        if time.monotonic() > end:
            fail(f"not within {limit_s} s: {what}")
        if clock:
            clock.tick()
        time.sleep(0.05)


def listed():
    with urllib.request.urlopen(f"{LIST}/servers.json", timeout=PATIENCE_S) as answer:
        return json.load(answer)["servers"]


def count_of(port):
    """The players of the server on this port; None when it is not listed."""
    return next((entry["players"] for entry in listed() if entry["port"] == port), None)


class Server:
    def __init__(self, port, name="Check of announcing"):
        self.folder = pathlib.Path(f"server-{port}")
        self.folder.mkdir(exist_ok=True)
        (self.folder / "zolserver.cfg").write_text(
            f"AnnounceServer=true\nServerName={name}\nmaxClients=8\nPort={port}\n"
        )
        self.console = self.folder / "console"
        with open(self.console, "wb") as console:
            self.process = subprocess.Popen([BUILD / "zolserver"], cwd=self.folder, stdout=console)

    def says(self, line):
        return line in self.console.read_text()

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        if self.process.wait(PATIENCE_S) != 1:
            fail("an orderly stop ends with status 1")


def start_list(stack, folder="list"):
    """nginx and fcgiwrap by script/list; returns how to end it."""
    log = open("list.log", "ab")
    process = subprocess.Popen([ROOT / "script/list", "80", folder], stdout=log, stderr=log)
    stack.callback(process.wait)
    stack.callback(process.terminate)

    def is_up():
        with contextlib.suppress(OSError):
            return process.poll() is None and listed() is not None
        return False

    await_that(is_up, "the list answers")
    return process


def must_refuse(port, folder, reason):
    """script/list ends without a list, and has written nothing."""
    before = sorted(pathlib.Path().iterdir())
    done = subprocess.run([ROOT / "script/list", port, folder], capture_output=True, text=True,
                          timeout=PATIENCE_S)  # fmt: skip
    if done.returncode != 1 or reason not in done.stderr or done.stdout:
        fail(f"script/list {port} {folder} ends with {done.returncode}: {done.stdout}{done.stderr}")
    if sorted(pathlib.Path().iterdir()) != before:
        fail(f"script/list {port} {folder} writes before it looks")


def check_script(stack):
    """script/list leaves another list alone, and leaves nothing when it is killed."""
    folder = "a & b;c|d $x [*] \"'"
    for port in ("0", "65536", "abc", "080", ""):
        must_refuse(port, "refused", "is no port")
    with socket.create_server(("127.0.0.1", 80)):
        must_refuse("80", "refused", "port 80 is in use")
    first = start_list(stack, folder)
    if announce("127.0.0.1", 1) != "1":
        fail("a list in a directory with an odd name takes no announce")
    documented = re.search(r"^curl .*\n.*$", (ROOT / "docs/listing.md").read_text(), re.M)[0]
    command = documented.replace(":8080/", ":80/").replace("curl", "curl --silent --show-error", 1)
    verdict = subprocess.check_output(["sh", "-c", command])
    if verdict != b"  \r\n1\n":
        fail(f"the documented announce prints {verdict!r}")
    must_refuse("80", "refused", "port 80 is in use")
    must_refuse("81", folder, "another script/list runs in")
    if announce("127.0.0.1", 1) not in ("0", "2"):
        fail("the first list does not go on")
    first.kill()
    first.wait()
    second = start_list(stack, folder)
    if announce("127.0.0.1", 1) not in ("0", "2"):
        fail("the list lacks the entries of the one that was killed")
    second.terminate()
    second.wait(PATIENCE_S)
    with contextlib.suppress(ConnectionRefusedError):
        socket.create_connection(("127.0.0.1", 80))
        fail("nginx outlives script/list")


def announce(source, port):
    """The verdict, as a server reads it: from the first 512 bytes that come."""
    with socket.create_connection(("127.0.0.1", 80), PATIENCE_S, source_address=(source, 0)) as to:
        query = f"name=Burst&p=0&mp=16&gt=0&port={port}&v=40&os=lin"
        to.send(f"GET /cgi-bin/zol.pl?{query} HTTP/1.1\nHost: list\nUser-Agent: {AGENT}\n\n".encode())
        found = re.search(rb"  \r\n(.)", to.recv(512))
        return found and found[1].decode()


def answer_questions(ports, stop):
    """Plays the servers of these ports at all addresses of this machine, until somebody sends stop."""
    sockets = []
    for port in ports:
        each = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        each.bind(("", port))
        each.setsockopt(socket.IPPROTO_IP, IP_PKTINFO, 1)
        sockets.append(each)
    while stop not in (ready := select.select([*sockets, stop], [], [])[0]):
        for each in ready:
            _, control, _, asker = each.recvmsg(300, 100)
            # It answers from the address that was asked.
            each.sendmsg([REFUSED], control, 0, asker)
    for each in sockets:
        each.close()


def check_burst():
    """1,000 announces over 50 connections at a time: each that was answered 1 or 2 is on the list."""
    wanted = [(f"127.0.1.{1 + i % 50}", 2000 + i // 50) for i in range(1000)]
    here, there = socket.socketpair()
    servers = threading.Thread(target=answer_questions, args=(range(2000, 2020), there))
    servers.start()
    start = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(50) as pool:
        verdicts = list(pool.map(lambda each: announce(*each), wanted))
    seconds = time.monotonic() - start
    answered = {each for each, verdict in zip(wanted, verdicts) if verdict in ("1", "2")}
    if len(answered) < 900:
        fail(f"only {len(answered)} of 1,000 were answered 1 or 2")

    def are_listed():
        return answered <= {(entry["address"], entry["port"]) for entry in listed()}

    await_that(are_listed, "servers that were answered 1 or 2 are on the list", limit_s=SOON_S)
    print(f"{len(answered)} of 1,000 announces taken in {seconds:.1f} s, and on the list "
          f"{time.monotonic() - start - seconds:.1f} s later")  # fmt: skip
    here.close()
    servers.join()


class Flood:
    """Announces of servers that are not there, over 50 connections at a time, until it is stopped."""

    def __init__(self):
        self.next, self.count, self.ends = itertools.cycle(FLOOD), itertools.count(), False
        self.lock = threading.Lock()
        self.threads = [threading.Thread(target=self.work) for _ in range(50)]
        for each in self.threads:
            each.start()

    def work(self):
        while not self.ends:
            with self.lock:
                source, port = next(self.next)
            with contextlib.suppress(OSError):
                if announce(source, port):
                    next(self.count)

    def stop(self):
        self.ends = True
        for each in self.threads:
            each.join()


def check_flood(stack, clock):
    """An honest server is heard and seen in a full list, and so are twenty that start at once."""
    # Announces would take a minute or more to fill the list.
    now = int(time.time())
    with contextlib.closing(sqlite3.connect("list/list.sqlite", timeout=PATIENCE_S)) as database:
        with database:
            database.executemany(
                "INSERT INTO server VALUES (?1, ?2, 'x', 'lin', 0, 16, 0, 40, ?3, ?3, 0)"
                " ON CONFLICT DO NOTHING", [(*each, now) for each in FLOOD[:10_000]],
            )  # fmt: skip
        flood = Flood()
        stack.callback(flood.stop)
        count = database.execute("SELECT count(*) FROM server").fetchone()[0]
    if count < 10_000:
        fail(f"the list has only {count} entries")
    for ports in (range(20000, 20001), range(20001, 20021)):
        begin = time.monotonic()
        servers = [Server(port, f"Honest {port}") for port in ports]
        for each in servers:
            stack.callback(each.process.kill)
        await_that(lambda: all(each.says("This server is now listed") for each in servers),
                   "honest servers are told that they are listed", clock, SOON_S)  # fmt: skip
        told = time.monotonic()
        await_that(lambda: set(ports) <= {entry["port"] for entry in listed()},
                   "honest servers are listed in a flood", clock, SOON_S)  # fmt: skip
        print(f"{len(ports)} honest servers: told after {told - begin:.1f} s, seen after "
              f"{time.monotonic() - begin:.1f} s")  # fmt: skip
    flood.stop()
    print(f"{next(flood.count)} announces of the flood were taken meanwhile")
    ghosts = [entry for entry in listed() if entry["address"].startswith("127.2.")]
    if ghosts:
        fail(f"servers are listed that are not there: {ghosts[:3]}")


def check_servers(stack, clock):
    process = start_list(stack)
    server = Server(16309)
    stack.callback(server.process.kill)
    await_that(lambda: count_of(16309) == 0, "a server is listed", clock)
    await_that(lambda: server.says("This server is now listed on the zol server list"),
               "the server knows that it is listed")  # fmt: skip
    bots = subprocess.Popen([BUILD / "zolbots", "--players", "1", "--seconds", "1000"],
                            stdout=subprocess.DEVNULL)  # fmt: skip
    stack.callback(bots.kill)
    await_that(lambda: count_of(16309) == 1, "a player is counted", clock, 15)
    bots.terminate()
    await_that(lambda: count_of(16309) == 0, "a player who left is not counted", clock, 15)

    other = Server(99999, "Of a port that is none")
    stack.callback(other.process.kill)
    await_that(lambda: other.says("Check your config"), "a server is refused", clock)
    other.stop()

    process.terminate()
    process.wait(PATIENCE_S)
    clock.ahead_s += 301
    # It tries to write a thousand times, ten milliseconds and more apart.
    await_that(lambda: server.says("Could not connect"), "the list is missed", clock, 90)
    for file in pathlib.Path("list").glob("list.sqlite*"):
        file.unlink()
    start_list(stack)
    if count_of(16309) is not None:
        fail("a new list knows a server")
    clock.ahead_s += 301
    await_that(lambda: count_of(16309) == 0, "a server comes back to a list after 5 minutes", clock)
    check_burst()
    server.stop()
    await_that(lambda: count_of(16309) is None, "a server that stopped is not listed")
    if not server.says("Removing server from master list: success"):
        fail("the removal does not end in success")
    check_flood(stack, clock)


def check_full_disk():
    """Nothing is written, and the reason is said."""
    disk = pathlib.Path("disk")
    disk.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=200k", "tmpfs", disk], check=True)

    def announced(port):
        query = f"name=Disk&p=0&mp=16&gt=0&port={port}&v=40"
        environment = {"REQUEST_METHOD": "GET", "SCRIPT_NAME": "/cgi-bin/zol.pl", "REMOTE_ADDR": "127.0.0.1",
                       "QUERY_STRING": query, "HTTP_USER_AGENT": AGENT,
                       "ZOLLIST_DATABASE": f"{disk}/list.sqlite"}  # fmt: skip
        done = subprocess.run([BUILD / "zollist"], env=environment, capture_output=True, text=True)
        return done.stdout.split()[1], done.stderr

    if announced(1) != ("200", ""):
        fail("an announce fails with room on the disk")
    with contextlib.suppress(OSError), open(disk / "filler", "wb", buffering=0) as filler:
        while filler.write(bytes(4096)):
            pass
    status, said = announced(2)
    if status != "503" or "the disk or the quota is full" not in said:
        fail(f"a full disk gives {status}: {said}")
    (disk / "filler").unlink()
    if announced(3) != ("200", ""):
        fail("the list does not go on after a full disk")
    subprocess.run(["umount", disk], check=True)


def check_silent_master():
    listener = socket.create_server(("127.0.0.1", 80))
    server = Server(16309)
    accepted = listener.accept()
    bots = subprocess.run([BUILD / "zolbots", "--seconds", "3", "--alone"], stdout=subprocess.PIPE,
                          text=True)  # fmt: skip
    if bots.returncode != 0:
        fail(f"the bots complain:\n{bots.stdout}")
    if server.says("Could not connect"):
        fail("the master server did not stay silent")
    server.process.kill()
    server.process.wait()
    accepted[0].close()
    listener.close()


def main():
    if sys.argv[1:] != ["inside"]:
        enter_namespace()
    cache = (BUILD / "CMakeCache.txt").read_text()
    host = re.search(r"^ZOL_MASTER_HOST:STRING=(.*)$", cache, re.M)[1]
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        pathlib.Path("hosts").write_text(f"127.0.0.1 {host}\n")
        subprocess.run(["mount", "--bind", "hosts", "/etc/hosts"], check=True)
        clock = Clock()
        with contextlib.ExitStack() as stack:
            check_script(stack)
            check_servers(stack, clock)
        subprocess.run(["umount", "/proc/uptime"], check=True)
        check_full_disk()
        check_silent_master()
    print("announce: listed, counted, removed, refused and listed again; undisturbed by floods and silence")


main()
