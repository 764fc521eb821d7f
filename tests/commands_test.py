"""Tests that script/checks/commands detects commands that no check runs."""

import importlib
import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "script/lib"))
commands = importlib.import_module("commands")

DOCUMENT = """
```sh
nft list counters            # dropped datagrams
dump -w - |
  show -l \\
  -r -
for each in a b; do
  echo "$each"
done
```
`inline` is text.
"""
RUN = 'nft list counters\ndump -w - | show -l -r -\nfor each in a b; do echo "$each" done\n'


class Commands(unittest.TestCase):
    def complaints(self, check, suffix=".sh", exceptions=(), document=DOCUMENT):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "check" + suffix)
            path.write_text(check)
            return commands.compare({"document": document}, commands.code_of(path), exceptions)

    def test_commands_as_written(self):
        self.assertEqual(self.complaints(RUN), [])
        self.assertEqual(self.complaints(RUN.replace("nft list", "  soon nft list")), [])
        self.assertEqual(self.complaints(RUN.replace("- | show", "- |\n  show")), [])
        self.assertEqual(self.complaints(f"'''Docstring'''\nrun('''{RUN}''')\n", ".py"), [])

    def test_commands_that_no_check_runs(self):
        for name, check in {
            "not run": "",
            "run under another name": "nft list counter",
            "run with another option": "nft list counters -a",
            "a part of another path": "/opt/nft list counters",
            "a part of another word": "xnft list counters",
            "in a comment": "# nft list counters",
            "in a comment after a command": "true  # nft list counters",
        }.items():
            with self.subTest(name):
                complaints = self.complaints(RUN.replace("nft list counters", check))
                self.assertEqual(complaints, ["document: no check runs `nft list counters`"])

    def test_docstrings_run_nothing(self):
        self.assertEqual(len(self.complaints(f"'''{RUN}'''\n", ".py")), 3)

    def test_exceptions(self):
        without = RUN.replace("nft list counters\n", "")
        self.assertEqual(self.complaints(without, exceptions={"nft list counters": "why"}), [])
        self.assertEqual(len(self.complaints(RUN, exceptions={"nft list counters": "stale"})), 1)
        self.assertEqual(len(self.complaints(RUN, exceptions={"gone": "stale"})), 1)

    def test_a_document_without_commands(self):
        self.assertEqual(len(self.complaints(RUN, document="    nft list counters\n")), 1)


if __name__ == "__main__":
    unittest.main()
