"""Checks the links in all Markdown files: a relative link must lead to an existing file, and an #anchor
to a heading of that file, by the rules of GitHub."""

import collections
import functools
import re
import subprocess

from lib import ROOT, anchor_of, fail

# [text](target) and [label]: target
LINK = re.compile(r"(?:\]\(|^\[[^]]+\]: )([^)\s]+)", re.M)


@functools.cache
def text_of(path):
    """Without code blocks, because a # in them begins no heading."""
    return re.sub(r"^```.*?^```$", "", path.read_text(), flags=re.M | re.S)


@functools.cache
def anchors_of(path):
    """Equal headings get -1, -2 and so on in the order of the file."""
    anchors, seen = set(), collections.Counter()
    for title in re.findall(r"^#+ (.*)$", text_of(path), re.M):
        anchor = anchor_of(re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", title))
        anchors.add(f"{anchor}-{seen[anchor]}" if seen[anchor] else anchor)
        seen[anchor] += 1
    return anchors


def problem_with(document, link):
    name, _, anchor = link.partition("#")
    target = document.parent / name if name else document
    if not target.exists():
        return f"no file {name}"
    if anchor and target.suffix == ".md" and anchor not in anchors_of(target):
        return f"{target.name} has no heading for #{anchor}"
    return ""


def main():
    files = subprocess.run(["git", "ls-files", "-z", "*.md"], cwd=ROOT, check=True,
                           capture_output=True, text=True).stdout.split("\0")[:-1]
    links = [(name, link) for name in files for link in LINK.findall(text_of(ROOT / name))
             if "://" not in link]
    broken = [f"{name}: link {link}: {problem}" for name, link in links
              if (problem := problem_with(ROOT / name, link))]
    if broken or not links:
        fail("\n  ".join(["broken links:" if broken else "no links found", *broken]))
    print(f"{len(links)} links in {len(files)} documents lead to existing files and headings")


if __name__ == "__main__":
    main()
