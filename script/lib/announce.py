#!/usr/bin/python3
"""Checks announcing and listing with real servers and a real list behind nginx: zolask asks servers,
and the list shows, counts, refuses and removes them. Servers come back after the list has lost its
data. Then checks 1,000 announces at once, a flood of announces of servers that do not exist, a full
disk, and a silent master server.

Usage: script/checks/announce      (takes about a minute)

Runs in a separate network namespace, in which the name of the master server is this machine's, and
on a clock that the check can advance."""

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
SOON_S = 10  # time limit for a server's verdict, and for a new server to appear on the list
AGENT = "ZOL/0.1 (list)"
REFUSED = b"\x0eYou need Version 9".ljust(65, b"\0")
IP_PKTINFO = 8  # socket option: adds the local address to each received datagram
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
    """Replaces /proc/uptime, the servers' clock, by a file that is `ahead_s` ahead."""

    def __init__(self):
        self.file = pathlib.Path("uptime")
        self.ahead_s = 0.0
        self.file.write_text(pathlib.Path("/proc/uptime").read_text())
        subprocess.run(["mount", "--bind", self.file, "/proc/uptime"], check=True)

    def tick(self):
        now = time.clock_gettime(time.CLOCK_BOOTTIME) + self.ahead_s
        # One write in place and of constant length, so that a reader never sees a part of a value.
        with open(self.file, "r+b", buffering=0) as file:
            file.write(b"%017.2f 0.00\n" % now)


def wait_until(holds, what, clock=None, limit_s=PATIENCE_S):
    end = time.monotonic() + limit_s
    while not holds():
        if time.monotonic() > end:
            fail(f"this did not happen within {limit_s} s: {what}")
        if clock:
            clock.tick()
        time.sleep(0.05)


def listed():
    with urllib.request.urlopen(f"{LIST}/servers.json", timeout=PATIENCE_S) as answer:
        return json.load(answer)["servers"]


def count_of(port):
    """Returns the number of players of the server on this port, or None if it is not listed."""
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
            fail("a server did not stop with exit status 1")


def start_list(stack, folder="list"):
    """Starts script/list and waits until the list answers. Returns its process."""
    log = open("list.log", "ab")
    user_path = {**os.environ, "PATH": "/usr/local/bin:/usr/bin:/bin"}
    process = subprocess.Popen([ROOT / "script/list", "80", folder], stdout=log, stderr=log,
                               env=user_path)  # fmt: skip
    stack.callback(process.wait)
    stack.callback(process.terminate)

    def is_up():
        with contextlib.suppress(OSError):
            return process.poll() is None and listed() is not None
        return False

    wait_until(is_up, "the list answers")
    return process


def must_refuse(port, folder, reason):
    """Checks that script/list fails with this reason and creates no file."""
    before = sorted(pathlib.Path().iterdir())
    done = subprocess.run([ROOT / "script/list", port, folder], capture_output=True, text=True,
                          timeout=PATIENCE_S)  # fmt: skip
    if done.returncode != 1 or reason not in done.stderr or done.stdout:
        fail(f"script/list {port} {folder} exits with {done.returncode}: {done.stdout}{done.stderr}")
    if sorted(pathlib.Path().iterdir()) != before:
        fail(f"script/list {port} {folder} creates files before its checks")


def check_script(stack):
    """Checks that script/list does not disturb another list, and that no process survives a SIGKILL."""
    folder = "a & b;c|d $x [*] \"'"
    for port in ("0", "65536", "abc", "080", ""):
        must_refuse(port, "refused", "is no port")
    with socket.create_server(("127.0.0.1", 80)):
        must_refuse("80", "refused", "port 80 is in use")
    first = start_list(stack, folder)
    if announce("127.0.0.1", 1) != "1":
        fail("a list in a directory with special characters accepts no announce")
    documented = re.search(r"^curl .*\n.*$", (ROOT / "docs/listing.md").read_text(), re.M)[0]
    command = documented.replace(":8080/", ":80/").replace("curl", "curl --silent --show-error", 1)
    verdict = subprocess.check_output(["sh", "-c", command])
    if verdict != b"  \r\n1\n":
        fail(f"the announce in docs/listing.md prints {verdict!r}")
    must_refuse("80", "refused", "port 80 is in use")
    must_refuse("81", folder, "another script/list runs in")
    if announce("127.0.0.1", 1) not in ("0", "2"):
        fail("a second script/list has stopped the first one")
    first.kill()
    first.wait()
    second = start_list(stack, folder)
    if announce("127.0.0.1", 1) not in ("0", "2"):
        fail("a new list in the directory of a killed one lacks its entries")
    second.terminate()
    second.wait(PATIENCE_S)
    with contextlib.suppress(ConnectionRefusedError):
        socket.create_connection(("127.0.0.1", 80))
        fail("nginx still runs after the end of script/list")


def announce(source, port):
    """Announces a server. Returns the verdict that it reads: from the first 512 bytes that arrive."""
    with socket.create_connection(("127.0.0.1", 80), PATIENCE_S, source_address=(source, 0)) as to:
        query = f"name=Burst&p=0&mp=16&gt=0&port={port}&v=40&os=lin"
        to.send(f"GET /cgi-bin/zol.pl?{query} HTTP/1.1\nHost: list\nUser-Agent: {AGENT}\n\n".encode())
        found = re.search(rb"  \r\n(.)", to.recv(512))
        return found and found[1].decode()


def answer_questions(ports, stop):
    """Answers for servers on these ports at all addresses of this machine, until `stop` is readable."""
    sockets = []
    for port in ports:
        each = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        each.bind(("", port))
        each.setsockopt(socket.IPPROTO_IP, IP_PKTINFO, 1)
        sockets.append(each)
    while stop not in (ready := select.select([*sockets, stop], [], [])[0]):
        for each in ready:
            _, control, _, asker = each.recvmsg(300, 100)
            # The control data makes the address that was asked the source of the answer.
            each.sendmsg([REFUSED], control, 0, asker)
    for each in sockets:
        each.close()


def check_burst():
    """Sends 1,000 announces over 50 connections at a time. Each server with the answer 1 or 2 must
    appear on the list."""
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
        fail(f"only {len(answered)} of 1,000 announces got the answer 1 or 2, 900 expected")

    def are_listed():
        return answered <= {(entry["address"], entry["port"]) for entry in listed()}

    wait_until(are_listed, "each server with the answer 1 or 2 is on the list", limit_s=SOON_S)
    print(f"{len(answered)} of 1,000 announces accepted in {seconds:.1f} s, and listed "
          f"{time.monotonic() - start - seconds:.1f} s later")  # fmt: skip
    here.close()
    servers.join()


class Flood:
    """Announces servers that do not exist, over 50 connections at a time, until stop()."""

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
    """Checks that a real server, and then twenty at once, get onto a full list during a flood."""
    # Fills the list directly, because announces would take more than a minute.
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
        servers = [Server(port, f"Real {port}") for port in ports]
        for each in servers:
            stack.callback(each.process.kill)
        wait_until(lambda: all(each.says("This server is now listed") for each in servers),
                   "real servers are told that they are listed", clock, SOON_S)  # fmt: skip
        told = time.monotonic()
        wait_until(lambda: set(ports) <= {entry["port"] for entry in listed()},
                   "real servers appear on the list during a flood", clock, SOON_S)  # fmt: skip
        print(f"{len(ports)} real servers: verdicts after {told - begin:.1f} s, listed after "
              f"{time.monotonic() - begin:.1f} s")  # fmt: skip
    flood.stop()
    print(f"the list answered {next(flood.count)} announces of the flood meanwhile")
    ghosts = [entry for entry in listed() if entry["address"].startswith("127.2.")]
    if ghosts:
        fail(f"the list shows servers that do not exist: {ghosts[:3]}")


def check_servers(stack, clock):
    process = start_list(stack)
    server = Server(16309)
    stack.callback(server.process.kill)
    wait_until(lambda: count_of(16309) == 0, "a server is listed", clock)
    wait_until(lambda: server.says("This server is now listed on the zol server list"),
               "the server knows that it is listed")  # fmt: skip
    bots = subprocess.Popen([BUILD / "zolbots", "--players", "1", "--seconds", "1000"],
                            stdout=subprocess.DEVNULL)  # fmt: skip
    stack.callback(bots.kill)
    wait_until(lambda: count_of(16309) == 1, "a player is counted", clock, 15)
    bots.terminate()
    wait_until(lambda: count_of(16309) == 0, "a player that left is not counted", clock, 15)

    other = Server(99999, "Wrong port")
    stack.callback(other.process.kill)
    wait_until(lambda: other.says("Check your config"), "a server is refused", clock)
    other.stop()

    process.terminate()
    process.wait(PATIENCE_S)
    clock.ahead_s += 301
    # The server tries to write a thousand times, with pauses of at least ten milliseconds.
    wait_until(lambda: server.says("Could not connect"), "a server reports a missing list", clock, 90)
    for file in pathlib.Path("list").glob("list.sqlite*"):
        file.unlink()
    start_list(stack)
    if count_of(16309) is not None:
        fail("a new list has an entry")
    clock.ahead_s += 301
    wait_until(lambda: count_of(16309) == 0, "a server comes back to a list after 5 minutes", clock)
    check_burst()
    server.stop()
    wait_until(lambda: count_of(16309) is None, "a server that stopped is not listed")
    if not server.says("Removing server from master list: success"):
        fail("the removal does not end in success")
    check_flood(stack, clock)


def check_full_disk():
    """Checks that an announce on a full disk gets status 503, and that the log contains the reason."""
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
        fail("an announce fails although the disk has room")
    with contextlib.suppress(OSError), open(disk / "filler", "wb", buffering=0) as filler:
        while filler.write(bytes(4096)):
            pass
    status, said = announced(2)
    if status != "503" or "the disk or the quota is full" not in said:
        fail(f"a full disk gives {status}: {said}")
    (disk / "filler").unlink()
    if announced(3) != ("200", ""):
        fail("an announce fails after the disk has room again")
    subprocess.run(["umount", disk], check=True)


def check_silent_master():
    listener = socket.create_server(("127.0.0.1", 80))
    server = Server(16309)
    accepted = listener.accept()
    bots = subprocess.run([BUILD / "zolbots", "--seconds", "3", "--alone"], stdout=subprocess.PIPE,
                          text=True)  # fmt: skip
    if bots.returncode != 0:
        fail(f"a silent master server disturbs the game:\n{bots.stdout}")
    if server.says("Could not connect"):
        fail("the server gave up the announce before the game ended, so the check proves nothing")
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
    print("announce: announcing and listing passed, also in a flood and with a silent master server")


main()
