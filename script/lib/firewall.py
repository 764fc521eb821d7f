#!/usr/bin/env python3
"""Checks that packaging/zolserver.nft, loaded by packaging/zollimits, limits strangers and does not
affect players.

Usage: script/checks/firewall [RULES]      (default: packaging/zolserver.nft; takes about a minute)

The server, the players and the strangers are in three network namespaces. Each attack runs twice, each
time on a new server: without the rules, to show its effect, and with them. Strangers can forge any
address. Needs root, or user namespaces for all users."""

import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

from lib import BUILD, ENTER, ROOT, Player, build, fail, start_server

PORT = 16309
SERVER, PLAYERS = "10.77.0.1", "10.78.0.1"  # the server's address to strangers and to players
STRANGER, BANNED, VICTIM = "10.77.0.2", "10.77.66.6", "10.77.99.9"
JOIN = b"\x0aStranger" + bytes(57) + b"\x28\0"
LEAVE = 60
POSITION, UNKNOWN = b"\x64" + bytes(15), b"\xc8"
CHAT = b"\x1f" + b"\nExitting...\n" * 4 + b"\0"
ACCEPTED_BYTES, REPLY_BYTES = 67 + 42, 4 + 42  # including the headers of UDP, IP and Ethernet
LINK_BYTES = 1000  # maximum of other traffic on the link, such as ARP
SMALL_SET = 100  # size of each set in the attacks that fill the sets


def datagram(source, port, payload):
    """Returns an IP packet without options and checksums. The kernel adds the IP checksum and accepts
    UDP without one."""
    udp = struct.pack("!4H", port, PORT, 8 + len(payload), 0) + payload
    return packet(source, udp)


def packet(source, data, fragment=0, number=0):
    addresses = socket.inet_aton(source) + socket.inet_aton(SERVER)
    return struct.pack("!BBHHHBBH", 69, 0, 0, number, fragment, 64, 17, 0) + addresses + data


def address(number):
    return f"10.77.{100 + number // 250}.{1 + number % 250}"


def fragmented_joins():
    more_follows, behind_header = 0x2000, 1
    for number in range(1, 41):
        whole = datagram(STRANGER, 2000 + number, JOIN)[20:] + bytes(5)
        yield packet(STRANGER, whole[:8], more_follows, number)
        yield packet(STRANGER, whole[8:], behind_header, number)


# Each attack: the packets, the measured value, its minimum without the rules, its maximum with the
# rules, and the increase of this maximum in each second of the attack.
ATTACKS = {
    "unknown commands": (lambda: [datagram(STRANGER, 2000, UNKNOWN)] * 500, "arrived", 500, 0, 0),
    "a join and empty datagrams": (
        lambda: [datagram(STRANGER, 2000 + i, b"" if i else JOIN) for i in range(40)],
        "slots", 32, 1, 0),
    "joins in fragments": (fragmented_joins, "slots", 32, 0, 0),
    "joins from one address": (
        lambda: [datagram(STRANGER, 2000 + i, JOIN) for i in range(40)], "slots", 32, 8, 2 / 60),
    "a flood from one player": (
        lambda: [datagram(STRANGER, 2000, POSITION)] * 3000, "arrived", 3000, 300, 300),
    "a flood from one address": (
        lambda: [datagram(STRANGER, 2000 + i % 100, POSITION) for i in range(20000)],
        "arrived", 20000, 2000, 2000),
    "entries with a forged address": (
        lambda: [datagram(VICTIM, 2000, payload) for payload in [JOIN] + [ENTER] * 500],
        "bytes sent", 500 * REPLY_BYTES, ACCEPTED_BYTES + 16 * REPLY_BYTES + LINK_BYTES,
        REPLY_BYTES / 10),
    "chat that forges lines": (
        lambda: [datagram(STRANGER, 2000, payload) for payload in [JOIN] + [CHAT] * 500],
        "bytes logged", 500 * 52, 11 * 100, 200),
    "a banned address": (
        lambda: [datagram(BANNED, 2000, POSITION)] * 100, "arrived", 100, 0, 0),
    "sets filled with addresses": (
        lambda: [datagram(address(i), 2000, POSITION) for i in range(500)], "arrived", 500,
        SMALL_SET, 0),
    "joins after the sets are full": (
        lambda: [datagram(address(i), 2000, POSITION) for i in range(500)] +
        [datagram(STRANGER, 3000 + i, JOIN) for i in range(40)], "slots", 32, 0, 0),
    "broadcasts to the network": (
        lambda: [b"broadcast"] * 20, "arrived", 20, 0, 0),
}  # fmt: skip


def attack(name):
    """Sends an attack from the strangers' namespace. Prints its duration in seconds."""
    raw = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW)
    plain = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    plain.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    packets, what, *_ = ATTACKS[name]
    packets = list(packets())
    start = time.monotonic()
    for number, each in enumerate(packets):
        if each == b"broadcast":
            plain.sendto(POSITION, ("10.77.255.255", PORT))
        else:
            raw.sendto(each, (SERVER, 0))
        if what != "arrived" and number % 20 == 19:
            time.sleep(0.001)  # the server's socket buffer is small
    print(time.monotonic() - start)


def play():
    """Runs 8 players at 150 Hz with the same address, in the players' namespace."""
    players = [Player((PLAYERS, PORT)) for _ in range(8)]
    start = time.monotonic()
    for step in range(3 * 150):
        for player in players:
            player.socket.send(POSITION)
        time.sleep(max(0, start + step / 150 - time.monotonic()))
    for player in players:
        player.socket.send(bytes([LEAVE]))


def run(*command, **options):
    done = subprocess.run([*map(str, command)], text=True, capture_output=True, check=False,
                          **options)
    if done.returncode != 0:
        fail(f"{' '.join(map(str, command))} failed: {done.stdout}{done.stderr}")
    return done.stdout


def inside(space, *command):
    return ["nsenter", f"--net=/run/netns/{space}", *command]


def state_of_link(space, name):
    return json.loads(run(*inside(space, "ip", "-json", "-stats", "link", "show", name)))[0]


def make_networks():
    run("mount", "-t", "tmpfs", "none", "/run")
    for number, space in enumerate(("server", "strangers", "players")):
        run("ip", "netns", "add", space)
        run(*inside(space, "ip", "link", "set", "lo", "up"))
        if space == "server":
            continue
        run("ip", "link", "add", space, "netns", "server", "type", "veth",
            "peer", "name", "eth", "netns", space)
        net = f"10.{76 + number}.0"
        for place, link, host in (("server", space, 1), (space, "eth", 2)):
            run(*inside(place, "ip", "address", "add", f"{net}.{host}/16", "brd", "+", "dev", link))
            run(*inside(place, "ip", "link", "set", link, "up"))
    # Sends the answers to forged addresses to the strangers' link.
    mac = state_of_link("strangers", "eth")["address"]
    run(*inside("server", "ip", "route", "replace", "10.77.0.0/16", "via", STRANGER, "dev",
                "strangers", "onlink"))
    run(*inside("server", "ip", "neigh", "replace", STRANGER, "lladdr", mac, "dev", "strangers"))


class Server:
    """A new server with these rules, or without rules."""

    def __init__(self, work, rules):
        run(*inside("server", "nft", "flush", "ruleset"))
        if rules:
            # Loads the rules twice, because loading them again must keep the bans.
            settings = work / "servers/attacked/zolserver.cfg"
            settings.parent.mkdir(parents=True, exist_ok=True)
            settings.write_text(f"Port={PORT}\n")
            (work / "rules").write_text(rules.replace(f"{{ {PORT} }}", "{ 9 }"))
            places = {"ZOL_SERVERS": work / "servers", "ZOL_RULES": work / "rules",
                      "PATH": f"{BUILD}:{os.environ['PATH']}"}
            for _ in range(2):
                said = run(*inside("server", ROOT / "packaging/zollimits", "load"), env=places)
                if said != f"limits are loaded for UDP port {PORT}\n":
                    fail(f"zollimits printed {said}")
                run(*inside("server", "nft", "add", "element", "ip", "zolserver_bans", "banned",
                            f"{{ {BANNED}/31 }}"))
        self.process, self.log = start_server(work, f"maxClients=32\nPort={PORT}\n",
                                              inside("server", BUILD / "zolserver"))

    def text(self):
        return self.log.read_text(errors="replace")

    def measure(self, what):
        if what == "slots":
            return self.text().count("Connected!")
        if what == "bytes logged":
            return self.log.stat().st_size
        snmp = run(*inside("server", "cat", "/proc/net/snmp"))
        names, values = (line.split()[1:] for line in snmp.splitlines() if line.startswith("Udp:"))
        if what == "arrived":
            counts = dict(zip(names, map(int, values)))
            return counts["InDatagrams"] + counts["RcvbufErrors"]
        return state_of_link("server", "strangers")["stats64"]["tx"]["bytes"]

    def settled(self, what):
        """Returns the measured value when it no longer changes."""
        before = None
        while before != (now := self.measure(what)):
            before = now
            time.sleep(0.2)
        return now

    def dropped(self):
        text = run(*inside("server", "nft", "list", "counters"))
        return {name: int(count)
                for name, count in re.findall(r"counter (\w+) \{\s*packets (\d+)", text)}

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        if self.process.wait(timeout=10) != 1 or not self.text().endswith("Exitting...\n"):
            fail("the server did not stop with status 1 and the line Exitting...")


def strangers(name):
    return inside("strangers", sys.executable, __file__, "attack", name)


def try_attack(work, name, rules):
    """Runs an attack on a new server. Returns the increase of the measured value, and the duration."""
    what = ATTACKS[name][1]
    server = Server(work, rules)
    before = server.settled(what)
    seconds = float(run(*strangers(name)))
    passed = server.settled(what) - before
    server.stop()
    return passed, seconds


def check_attacks(work, rules):
    small = re.sub(r"size \d+", f"size {SMALL_SET}", rules)
    for name, (_, what, least, most, each_second) in ATTACKS.items():
        without, _ = try_attack(work, name, None)
        if without < least:
            fail(f"{name}: without rules {what}: {without}, at least {least} expected")
        passed, seconds = try_attack(work, name, small if "sets" in name else rules)
        if passed > most + (seconds + 1) * each_second:
            fail(f"{name}: with rules {what}: {passed} in {seconds:.1f} s, at most {most} and "
                 f"{each_second:.3f} a second expected")
        print(f"{name}: {what}: {without} without rules, {passed} with rules", flush=True)


def check_players(work, rules):
    """Checks that the rules drop no datagram of players, and that bots lose none during the attacks."""
    server = Server(work, rules)
    run(*inside("players", sys.executable, __file__, "play"))
    if any(server.dropped().values()):
        fail(f"the rules drop datagrams of players: {server.dropped()}")
    server.stop()
    server = Server(work, rules)
    bots = subprocess.Popen(
        inside("players", BUILD / "zolbots", "--server", f"{PLAYERS}:{PORT}", "--players",
               "2", "--rate", "20", "--seconds", "10"), text=True, stdout=subprocess.PIPE)
    time.sleep(1)
    for name in ATTACKS:
        if "sets" not in name:
            run(*strangers(name))
    table = bots.communicate()[0]
    if bots.returncode != 0:
        fail("bots lose datagrams during the attacks:\n" + table)
    unused = [name for name, count in server.dropped().items() if count == 0 and name != "no_room"]
    if unused:
        fail(f"counters that no attack increased: {unused}")
    server.stop()


def check(rules_file):
    make_networks()
    rules = pathlib.Path(rules_file).read_text()
    with tempfile.TemporaryDirectory() as work:
        check_attacks(pathlib.Path(work), rules)
        check_players(pathlib.Path(work), rules)
    print("firewall: players pass, attacks do not")


def enter(rules_file):
    """Runs this script again in new namespaces. At its end, the kernel kills all their processes."""
    build("zolserver", "zolbots", "zolcheck")
    spaces = ["--map-root-user", "--net", "--mount", "--pid", "--fork", "--kill-child"]
    os.execvp("unshare", ["unshare", *spaces, sys.executable, "-B", __file__, "check", rules_file])


def main():
    match sys.argv[1:]:
        case ["check", rules]:
            check(rules)
        case ["attack", name]:
            attack(name)
        case ["play"]:
            play()
        case [] | [_]:
            rules = (sys.argv[1:] or [ROOT / "packaging/zolserver.nft"])[0]
            enter(str(pathlib.Path(rules).resolve()))
        case _:
            fail("usage: script/checks/firewall [RULES]")


if __name__ == "__main__":
    main()
