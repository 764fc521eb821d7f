#!/usr/bin/env python3
"""Measures the tests: changes the programs' code in one random place at a time, and counts the mutants
that no test detects. A mutant that survives is behaviour without a test, a needless line, or a change
without an effect. Ctrl-C ends a run early; build-mutate/report.txt is always up to date. The same seed
and the same code give the same mutants. Mutants run in separate namespaces, and end with the run."""

import argparse
import collections
import contextlib
import difflib
import itertools
import json
import math
import os
import pathlib
import queue
import random
import re
import resource
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

from lib import ROOT

WORK = ROOT / "build-mutate"
FOLDERS = ["util", "net", "config", "server", "announce", "check", "client", "bots", "text", "view",
           "listing"]  # fmt: skip
BUILD_LIMIT = 900  # seconds
TEST_LIMIT = 20  # seconds, the minimum time limit of a test
LINK_SECONDS = 2  # the estimated time to link a test
# In bytes, so that a mutant cannot fill the disk or the memory.
LIMITS = {resource.RLIMIT_CORE: 0, resource.RLIMIT_FSIZE: 1 << 28, resource.RLIMIT_AS: 1 << 32}

TOKEN = re.compile(
    r"""(?P<skip> //[^\n]* | /\*.*?\*/ | ^[ \t]*\#(?:\\\n|[^\n])* | \bstatic_assert\b[^;]*;)
      | (?P<text> "(?:\\.|[^"\\\n])*" | '(?:\\.|[^'\\\n])+')
      | (?P<number> \b(?:0[xX][\da-fA-F']+ | \d[\d']*(?:\.\d+)?)[uUlLfF]*\b)
      | (?P<word> [A-Za-z_]\w*)
      | (?P<sign> <<= | >>= | -> | :: | \+\+ | -- | && | \|\| | << | >> | [-+*/%&|^<>=!]= | \S)""",
    re.VERBOSE | re.MULTILINE | re.DOTALL,
)
# Replacements for binary operators. clang-format puts blanks only around these: not around the brackets
# of a template, and not around the sign of a pointer or a reference.
BINARY = {
    "<": ("<=", ">"), "<=": ("<", ">="), ">": (">=", "<"), ">=": (">", "<="), "==": ("!=", "<="),
    "!=": ("==", "<"), "&&": ("||",), "||": ("&&",), "+": ("-",), "-": ("+",), "*": ("/",),
    "/": ("*",), "%": ("*",), "&": ("|",), "|": ("&",), "^": ("|",), "<<": (">>",), ">>": ("<<",),
    "+=": ("-=", "="), "-=": ("+=", "="), "|=": ("&=", "="), "&=": ("|=", "="),
}  # fmt: skip
ELSEWHERE = {"!": ("",), "++": ("--",), "--": ("++",), "true": ("false",), "false": ("true",)}
# Matches jumps, calls, assignments, increments and decrements. Matches no declaration, which has a
# blank before the declared name.
STATEMENT = re.compile(
    r"return;|break;|continue;|\w[^\s=(]*\(.*;|[\w*]\S* (?:[-+*/%&|^]|<<|>>)?= .*;"
    r"|(?:\+\+|--)\w\S*;|\w\S*(?:\+\+|--);",
    re.DOTALL,
)

Mutant = collections.namedtuple("Mutant", "file start end new")
Result = collections.namedtuple("Result", "mutant verdict test seconds")
Test = collections.namedtuple("Test", "seconds name command folder programs")
REFUSED, KILLED, TIMED_OUT, SURVIVED = "refused", "killed", "timed out", "SURVIVED"


def number_variants(literal):
    if "." in literal:
        return ["-" + literal]
    digits, suffix = re.fullmatch(r"(0[xX][\da-fA-F]+|\d+)(\w*)", literal.replace("'", "")).groups()
    base = 16 if digits[:2] in ("0x", "0X") else 8 if digits[0] == "0" else 10
    value = int(digits, base)
    return [f"{new}{suffix}" for new in sorted({value + 1, value - 1, 0} - {value})]


def token_variants(text, token):
    literal = token[0]
    if token.lastgroup == "number":
        return number_variants(literal)
    if token.lastgroup == "text":
        return [
            literal[: found.start()] + ("Y" if found[0] == "X" else "X") + literal[found.end() :]
            for found in re.compile(r"\\.|[^\\]").finditer(literal, 1, len(literal) - 1)
        ]
    around = text[token.start() - 1] + text[token.end() : token.end() + 1]
    return (BINARY if around.isspace() else ELSEWHERE).get(literal, ())


def statement_end(text, tokens, i):
    """Returns the end of the statement that starts at token i, or None if a mutant must keep it."""
    before, start = tokens[i - 1], tokens[i].start()
    label = before[0] == ":" and "\n" in text[before.end() : start]
    if not label and before[0] not in (";", "{", "}", ")", "else"):
        return None
    end = next((token.end() for token in tokens[i:] if token[0] in ("{", "}", ";")), start)
    return end if STATEMENT.fullmatch(text, start, end) else None


def points_of(text):
    """Yields the places that a mutant can change: start, end, and replacements."""
    tokens = [token for token in TOKEN.finditer(text) if token.lastgroup != "skip"]
    for i, token in enumerate(tokens):
        variants = token_variants(text, token)
        if variants:
            yield token.start(), token.end(), variants
        if token[0] in ("if", "while") and tokens[i + 1][0] == "(":
            depths = itertools.accumulate((t[0] == "(") - (t[0] == ")") for t in tokens[i + 1 :])
            inside = next(length for length, depth in enumerate(depths) if depth == 0)
            start, end = tokens[i + 1].end(), tokens[i + 1 + inside].start()
            yield start, end, [f"!({text[start:end]})"]
        end = statement_end(text, tokens, i)
        if end:  # the line feeds keep the numbers of later lines
            yield token.start(), end, ["{}" + "\n" * text.count("\n", token.start(), end)]


def read_tree():
    """Returns the contents of all files that git tracks, including uncommitted changes."""
    listed = subprocess.run(["git", "ls-files", "-z"], stdout=subprocess.PIPE)
    if listed.returncode:
        raise SystemExit("mutate: run this in a clone of the repository, with git")
    names = [name for name in listed.stdout.decode().split("\0") if os.path.isfile(name)]
    return {name: pathlib.Path(name).read_bytes() for name in names}


def folder_of(name):
    return name.partition("/")[0]


def choose_mutants(tree, seed, only):
    product = [name for name in sorted(tree)
               if folder_of(name) in FOLDERS and name.endswith((".cpp", ".h"))]  # fmt: skip
    if wrong := set(only) - set(product) - set(FOLDERS):
        raise SystemExit(f"mutate: --only: unknown folder or source: {', '.join(sorted(wrong))}")
    sources = [name for name in product if {name, folder_of(name)} & set(only or FOLDERS)]
    chance = random.Random(seed)
    mutants = [
        Mutant(name, start, end, chance.choice(variants))
        for name in sources
        for start, end, variants in points_of(tree[name].decode())
    ]
    chance.shuffle(mutants)
    return mutants


def broken(tree, mutant):
    text = tree[mutant.file].decode()
    return text[: mutant.start] + mutant.new + text[mutant.end :]


def run(command, folder, limit):
    """Runs a command and ends its process group. Returns the exit status (None after `limit` seconds)
    and the output."""
    with tempfile.TemporaryFile() as output:
        child = subprocess.Popen(
            command, cwd=folder, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
            start_new_session=True,
        )  # fmt: skip
        ended = os.pidfd_open(child.pid)
        in_time = select.select([ended], [], [], limit)[0]
        os.close(ended)
        os.killpg(child.pid, signal.SIGKILL)
        status = child.wait()
        output.seek(0)
        return status if in_time else None, output.read().decode(errors="replace")


def must_run(command, folder):
    status, output = run(command, folder, BUILD_LIMIT)
    if status != 0:
        raise RuntimeError(f"{output}\nthis failed on the unchanged code: {' '.join(command)}")
    return output


class Job:
    """Tests one mutant at a time in a copy of the sources, with a separate build folder."""

    def __init__(self, number, tree):
        self.tree = tree
        self.tests = []
        self.kills = collections.Counter()
        self.folder = WORK / f"job-{number}"
        self.build = self.folder / "build-debug"
        self.whole = WORK / f"whole-{number}"  # a copy of the build of unchanged code

    def prepare(self):
        for name, content in self.tree.items():
            path = self.folder / name
            if not path.exists() or path.read_bytes() != content:
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_bytes(content)
        must_run(["cmake", "--preset", "debug", "-DCMAKE_UNITY_BUILD=OFF"], self.folder)
        must_run(["ninja", "-j1"], self.build)
        listed = json.loads(must_run(["ctest", "--show-only=json-v1"], self.build))
        for test in listed["tests"]:
            command, properties = test["command"], test["properties"]
            folder = next(p["value"] for p in properties if p["name"] == "WORKING_DIRECTORY")
            programs = [word for word in command if word.startswith(str(self.build))]
            name = test["name"]
            if any(word.startswith("--gtest_filter") for word in command):
                # Runs all tests of the program in one process, which saves most of the time.
                name, command = os.path.basename(programs[0]), [*programs, "--gtest_fail_fast"]
            else:
                command = [*command, "--failfast"]
            if any(name == known.name for known in self.tests):
                continue
            begin = time.monotonic()
            must_run(command, folder)
            seconds = time.monotonic() - begin
            self.tests.append(Test(seconds, name, command, folder, programs))
        shutil.rmtree(self.whole, ignore_errors=True)
        shutil.copytree(self.build, self.whole, symlinks=True)

    def cost(self, test):
        """Returns the estimated seconds until this test detects a mutant, from the results so far."""
        return (LINK_SECONDS + test.seconds) / (self.kills[test.name] + 1)

    def is_whole(self, path):
        """Returns whether a file of the build is still that of the unchanged code."""
        kept = self.whole / path.relative_to(self.build)
        return path.exists() and path.stat().st_mtime_ns == kept.stat().st_mtime_ns

    def end_orphans(self):
        """Kills the programs that a test has left running."""
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if os.readlink(process / "exe").startswith(str(self.build)):
                    os.kill(int(process.name), signal.SIGKILL)

    def try_mutant(self, mutant):
        """Returns the verdict, and the name of the test that detected the mutant."""
        (self.folder / mutant.file).write_bytes(broken(self.tree, mutant).encode())
        for test in sorted(self.tests, key=self.cost):
            targets = [os.path.relpath(program, self.build) for program in test.programs]
            if run(["ninja", "-j1", *targets], self.build, BUILD_LIMIT)[0] != 0:
                return REFUSED, ""
            if all(self.is_whole(pathlib.Path(program)) for program in test.programs):
                continue
            status, _ = run(test.command, test.folder, max(TEST_LIMIT, 10 * test.seconds))
            if status != 0:
                self.end_orphans()
                self.kills[test.name] += 1
                return TIMED_OUT if status is None else KILLED, test.name
        # Compiles the programs that no test uses.
        status, _ = run(["ninja", "-j1"], self.build, BUILD_LIMIT)
        return SURVIVED if status == 0 else REFUSED, ""

    def restore(self, mutant):
        """Copies the unchanged build back, which is faster than a build. Restores the source last: if
        the run ends before, the next one finds the source changed and compiles it."""
        for path in self.whole.rglob("*"):
            built = self.build / path.relative_to(self.whole)
            if path.is_file() and not self.is_whole(built):
                built.unlink(missing_ok=True)
                shutil.copy2(path, built)
        source = self.folder / mutant.file
        source.write_bytes(self.tree[mutant.file])
        os.utime(source, (1, 1))  # older than all files built from it

    def work(self, mutants, results):
        try:
            self.prepare()
            results.put(None)
            while True:
                mutant = mutants.get()
                begin = time.monotonic()
                verdict = self.try_mutant(mutant)
                self.restore(mutant)
                results.put(Result(mutant, *verdict, time.monotonic() - begin))
        except Exception as error:
            print(f"mutate: {error}", flush=True)
            os._exit(1)


def start_jobs(tree, count):
    mutants, results = queue.Queue(), queue.Queue()
    print(f"building {count} copies and running the tests on the unchanged code", flush=True)
    for number in range(count):
        job = Job(number, tree)
        threading.Thread(target=job.work, args=(mutants, results), daemon=True).start()
    for _ in range(count):
        results.get()
    os.environ["CCACHE_DISABLE"] = "1"  # each mutant is compiled only once
    os.environ["ZOL_PATIENCE_S"] = "10"  # a test waits only this long for a mutant
    return mutants, results


def try_mutants(tree, options, done):
    """Gives the jobs the chosen mutants in order, and only as many as needed, so that the tested
    mutants do not depend on the speed of the jobs."""
    chosen, given = choose_mutants(tree, options.seed, options.only), 0
    mutants, results = start_jobs(tree, options.jobs)
    while True:
        refused = sum(result.verdict == REFUSED for result in done)
        wanted = min(options.count + refused, len(done) + options.jobs, len(chosen))
        for mutant in chosen[given:wanted]:
            mutants.put(mutant)
        given = max(given, wanted)
        if given == len(done):
            return
        done.append(results.get())
        report(tree, done)


def summary(done):
    """Returns a line for each folder, with the share of survivors and its 95 % Wilson interval."""
    said = f"{'folder':9}{REFUSED:>9}{'compiled':>10}{KILLED:>8}{TIMED_OUT:>11}{SURVIVED:>10}\n"
    for folder in [*FOLDERS, ""]:
        counts = collections.Counter(
            result.verdict for result in done if folder in ("", folder_of(result.mutant.file)))
        compiled = counts.total() - counts[REFUSED]
        if compiled == 0:
            continue
        share, z = counts[SURVIVED] / compiled, 1.96
        middle = share + z * z / 2 / compiled
        reach = z * math.sqrt(share * (1 - share) / compiled + (z / 2 / compiled) ** 2)
        low, high = (100 * x / (1 + z * z / compiled) for x in (middle - reach, middle + reach))
        said += f"{folder or 'all':9}{counts[REFUSED]:9}{compiled:10}{counts[KILLED]:8}"
        said += f"{counts[TIMED_OUT]:11}{counts[SURVIVED]:10} {100 * share:6.1f} %"
        said += f" ({low:.1f} to {high:.1f} %)\n"
    return said


def shown(tree, mutant):
    old, new = tree[mutant.file].decode(), broken(tree, mutant)
    line = old.count("\n", 0, mutant.start) + 1
    changes = list(difflib.unified_diff(old.split("\n"), new.split("\n"), n=0, lineterm=""))[2:]
    return "\n".join([f"{mutant.file}:{line}", *(c for c in changes if c[0] != "@"), ""])


def report(tree, done):
    last = done[-1]
    print(f"\n{len(done)}. {last.verdict} {last.test} {last.seconds:.0f} s")
    print(shown(tree, last.mutant), end="", flush=True)
    survivors = [shown(tree, result.mutant) for result in done if result.verdict == SURVIVED]
    (WORK / "report.txt").write_text("\n".join([summary(done), *survivors]))


def isolate():
    """Runs this script again in new namespaces for network, processes and mounts, with an empty /tmp.
    Mounts the clone again, because it may be in /tmp. Keeps the user id, because a test checks it."""
    setup = """ip link set lo up
        mount -n --rbind "$PWD" /mnt; mount -n -t tmpfs tmpfs /tmp
        mkdir -p "$PWD"; mount -n --move /mnt "$PWD"; cd "$PWD"; exec "$@" """
    spaces = ["--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
    same_user = []
    if os.getuid() != 0:
        spaces.append("--map-root-user")
        same_user = ["unshare", f"--map-user={os.getuid()}", f"--map-group={os.getgid()}"]
    again = [*same_user, "script/mutate", "--isolated", *sys.argv[1:]]
    os.execvp("unshare", ["unshare", *spaces, "bash", "-euc", setup, "bash", *again])


def read_options():
    parser = argparse.ArgumentParser(prog="script/mutate", description=__doc__)
    parser.add_argument("--count", type=int, default=500,
                        help="number of mutants that compile (default: 500)")
    parser.add_argument("--seed", type=int, default=1,
                        help="seed of the choice of mutants (default: 1)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(),
                        help="mutants at a time (default: the number of cores)")
    parser.add_argument("--only", nargs="+", default=[], metavar="FOLDER",
                        help="change only these folders or files")
    parser.add_argument("--isolated", action="store_true", help=argparse.SUPPRESS)
    return parser.parse_args()


def main():
    options = read_options()
    os.chdir(ROOT)
    if not options.isolated:
        isolate()
    for what, limit in LIMITS.items():
        resource.setrlimit(what, (limit, limit))
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, signal.default_int_handler)
    WORK.mkdir(exist_ok=True)
    done = []
    with contextlib.suppress(KeyboardInterrupt):
        try_mutants(read_tree(), options, done)
    print(f"\n{summary(done)}All survivors: build-mutate/report.txt", flush=True)
    os._exit(0)  # this is the first process of its namespace, so all others end with it


if __name__ == "__main__":
    main()
