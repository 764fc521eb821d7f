#!/usr/bin/env python3
"""Checks that the other checks run every command of the operators' documents as it is written there.
EXCEPTIONS gives the reason for every other command. Commands are the lines of fenced `sh` blocks.

Usage: script/checks/commands"""

import ast
import re

from lib import ROOT, fail

DOCUMENTS = ("README.md", "docs/operating.md", "docs/containers.md", "docs/listing.md")
RUNNERS = (".ci/run", "script/checks/*", "script/lib/*.py")
# Commands that no check runs as written.
EXCEPTIONS = {
    "dumpcap -q -i any -f 'udp port 16309' -w - | HOME=/nonexistent runuser -u nobody -- "
    "tshark -l -r - -X lua_script:/usr/share/doc/zolserver/examples/zol.lua "
    "-Y 'zol.sender == \"client\" && (zol.name || zol.text)' "
    "-T fields -e ip.src -e udp.srcport -e zol.player_name -e zol.name -e zol.text":
        "script/checks/dissector reads it from the document and runs it",
    "podman build -t zolserver .":
        "script/checks/container adds options for a machine without a registry",
    "podman run --network host --stop-timeout 120 -v ./garage:/srv/zolserver:ro zolserver":
        "script/checks/container runs it with more options",
    "curl -A 'ZOL/0.1 (me)' "
    "'http://127.0.0.1:8080/cgi-bin/zol.pl?name=Mine&p=0&mp=16&gt=0&port=16309&v=40&os=lin'":
        "script/checks/announce reads it from the document and runs it on port 80",
    "cmake -B build -DZOL_MASTER_HOST=list.example.org":
        "the build folder would keep the name; script/checks/boot makes a package with it",
    'for name in garage harbour quarry; do sed "s/garage/$name/g; s/16309/$port/g" kubernetes.yaml | '
    "kubectl apply -f - port=$((port + 1)) done":
        "needs a cluster; script/checks/container runs the file with podman kube play",
}  # fmt: skip


def joined(lines):
    """Returns the lines without comments and indentation. Joins continued lines."""
    text = "\n".join(re.sub(r"(^|\s)#\s.*", "", line) for line in lines)
    text = re.sub(r"\\\n\s*", " ", text)
    text = re.sub(r"(\||&&)\s*\n\s*", r"\1 ", text)
    return [" ".join(line.split()) for line in text.splitlines() if line.strip()]


def documented_commands(text):
    """Returns the commands of a document. A loop is one command."""
    commands = []
    for block in re.findall(r"^```sh\n(.*?)^```$", text, re.M | re.S):
        block = re.sub(r"^(for|while) .*?^done$", lambda loop: loop[0].replace("\n", "\\\n"), block,
                       flags=re.M | re.S)  # fmt: skip
        commands += joined(block.splitlines())
    return commands


def code_of(path):
    """Returns the lines of a check that may run commands. In Python, these are the strings without the
    docstrings."""
    text = path.read_text()
    if path.suffix != ".py":
        return joined(text.splitlines())
    tree = ast.parse(text)
    docstrings = {id(node.value) for node in ast.walk(tree) if isinstance(node, ast.Expr)}
    return joined(node.value for node in ast.walk(tree)
                  if isinstance(node, ast.Constant) and isinstance(node.value, str)
                  and id(node) not in docstrings)  # fmt: skip


def runs(code, command):
    """Returns whether a line contains the command as whole words, without further options."""
    pattern = re.compile(r"(?<![\w./=-])" + re.escape(command) + r"(?![\w./=-]| -)")
    return any(pattern.search(line) for line in code)


def compare(documents, code, exceptions):
    """Returns a list of problems. `documents` maps names to texts."""
    complaints, found = [], set()
    for name, text in documents.items():
        commands = documented_commands(text)
        if not commands:
            complaints.append(f"{name}: no command in an sh block")
        found.update(commands)
        complaints += [f"{name}: no check runs `{command}`" for command in commands
                       if command not in exceptions and not runs(code, command)]
    complaints += [f"EXCEPTIONS: no document contains `{command}`" for command in exceptions
                   if command not in found]
    complaints += [f"EXCEPTIONS: a check runs `{command}`" for command in exceptions
                   if command in found and runs(code, command)]
    return complaints


def main():
    paths = {path.resolve() for each in RUNNERS for path in ROOT.glob(each) if path.is_file()}
    others = sorted(paths - {ROOT / "script/lib/commands.py", ROOT / "script/lib/python"})
    code = [line for path in others for line in code_of(path)]
    documents = {name: (ROOT / name).read_text() for name in DOCUMENTS}
    complaints = compare(documents, code, EXCEPTIONS)
    if complaints:
        fail("\n  ".join(["", *complaints]).strip())
    count = sum(len(documented_commands(text)) for text in documents.values())
    print(f"checks run all {count} commands of {', '.join(DOCUMENTS)}, except {len(EXCEPTIONS)}")


if __name__ == "__main__":
    main()
