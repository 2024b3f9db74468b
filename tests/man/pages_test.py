#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The manual pages: well-formed, and true about the programs' options, commands and settings."""

import os
import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("MIRADOR_BIN", ROOT / "build/dev/bin"))
PAGES = ROOT / "man"

sys.path.insert(0, str(ROOT / "standalone"))
from mirador_appliance import command_line  # noqa: E402
from mirador_appliance.settings import SETTINGS  # noqa: E402

OPTION = re.compile(r"(?<![\w-])(--?[a-zA-Z](?:[a-zA-Z-]*[a-zA-Z])?)(?![\w-])")


def page_text(name):
    """A page as a reader sees it, without the breaks in its words; it must give no warning."""
    done = subprocess.run(["groff", "-t", "-man", "-Tascii", "-P-cbou", "-ww", "-rHY=0", "-rLL=200n", PAGES / name],
                          capture_output=True, text=True, check=True)
    if done.stderr:
        raise AssertionError(done.stderr)
    return done.stdout


def options_of_page(name):
    """Options that have an entry or stand in one's heading: those of other programs stand amid text."""
    source = (PAGES / name).read_text().replace("\\-", "-")
    headings = re.findall(r"^\.(?:TP\n\.(?:BI|BR|B|RI) .*|OP .*|B --.*|B -o)", source, re.MULTILINE)
    return set(OPTION.findall(re.sub(r'["(,{]', " ", "\n".join(headings)).replace("=", " ")))


def options_of_help(program):
    help_text = subprocess.run([BIN / program, "--help"], capture_output=True, text=True, check=True).stdout
    lines = [re.match(r"\s+(-\w, --\S+|--?\S+)", line) for line in help_text.splitlines()]
    return set(OPTION.findall(" ".join(line[1] for line in lines if line)))


def all_parsers(parser):
    yield parser
    for action in parser._actions:
        if hasattr(action, "choices") and isinstance(action.choices, dict):
            for child in action.choices.values():
                yield from all_parsers(child)


class Pages(unittest.TestCase):
    def test_every_page_is_well_formed(self):
        for page in sorted(PAGES.iterdir()):
            with self.subTest(page.name):
                self.assertIn("NAME", page_text(page.name))

    def test_options_of_the_tools(self):
        for program, section in (("mirador-inspect", 1), ("mirador-restore", 1), ("mirador-fileops", 1)):
            with self.subTest(program):
                self.assertEqual(options_of_page(f"{program}.{section}") - {"-o"},
                                 options_of_help(program) - {"-o"})

    def test_options_of_the_daemon(self):
        # Taken from the source: the daemon itself is not started where it could clear this machine.
        source = (ROOT / "appliance/exporter/options.cc").read_text()
        known = set(re.findall(r'_option\("(--?[\w-]+)', source))
        self.assertGreater(len(known), 10)
        self.assertEqual(options_of_page("mirador.8") - {"-o", "-s", "-f"}, known)

    def test_commands_and_options_of_the_appliance(self):
        known, commands = set(), set()
        for parser in all_parsers(command_line._parser()):
            for action in parser._actions:
                known.update(action.option_strings)
                if isinstance(action.choices, dict):
                    commands.update(action.choices)
        text = page_text("mirador-appliance.8")
        self.assertEqual({option for option in known if not re.search(re.escape(option) + r"(?![\w-])", text)}, set())
        self.assertEqual({word for word in commands if not re.search(rf"\b{re.escape(word)}\b", text)}, set())
        self.assertEqual(set(OPTION.findall(text)) - known, set())

    def test_commands_of_the_stand_in(self):
        usage = subprocess.run([BIN / "fuse-dmsetup", "--help"], capture_output=True, text=True).stderr
        commands = set(re.findall(r"fuse-dmsetup (\w+)", usage))
        self.assertEqual(set(re.findall(r"fuse-dmsetup (\w+)", page_text("fuse-dmsetup.8"))), commands)
        self.assertGreater(len(commands), 3)

    def test_settings(self):
        guide = (ROOT / "docs/operating.md").read_text()
        self.assertEqual([s.key for s in SETTINGS if f"`{s.key}`" not in guide], [])
        for key, default in re.findall(r"^\| `([\w.]+)` \| (\d+) \|", guide, re.MULTILINE):
            source = [s.default for s in SETTINGS if s.key == key]
            with self.subTest(key):
                self.assertEqual(source, ["1" if key == "appliance.cbt.percent" else default])


if __name__ == "__main__":
    unittest.main()
