#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The shell's completion offers what the programs take, no more and no less."""

import os
import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("MIRADOR_BIN", ROOT / "build/dev/bin"))
FILES = ROOT / "packaging/completion"

sys.path.insert(0, str(ROOT / "standalone"))
from mirador_appliance import command_line  # noqa: E402
from mirador_appliance.settings import SETTINGS  # noqa: E402


def offered(*words, function="_mirador"):
    """What is offered behind these words."""
    script = '. "$0"; f=$1; shift; COMP_WORDS=("$@" ""); COMP_CWORD=$#; $f; printf "%s\\n" "${COMPREPLY[@]}"'
    file = FILES / function.strip("_").replace("_", "-")
    done = subprocess.run(["bash", "-c", script, file, function, *words], capture_output=True, text=True, check=True)
    assert not done.stderr, done.stderr
    return set(done.stdout.split())


def help_of(program):
    done = subprocess.run([BIN / program, "--help"], capture_output=True, text=True)
    return done.stdout + done.stderr


def options_in(text):
    lines = re.findall(r"^\s+(--?[\w-]+(?:, --[\w-]+)?)", text, re.MULTILINE)
    return {word for line in lines for word in line.split(", ")}


def taken(parser):
    """What an appliance's command takes besides names, and its own commands."""
    words, commands = set(), {}
    for action in parser._actions:
        words.update(action.option_strings)
        if isinstance(action.choices, dict):
            commands = action.choices
        elif not action.option_strings:
            words.update(action.choices or ())
    return words | set(commands), commands


class Completion(unittest.TestCase):
    maxDiff = None

    def test_daemon(self):
        source = (ROOT / "appliance/exporter/options.cc").read_text()
        known = {word.removesuffix("%s") for word in re.findall(r'_option\("(--?[\w-]+=?)', source)}
        self.assertEqual(offered("mirador"), known - {"-W", "--writable"} | {"-o", "-f"})
        self.assertEqual(len(offered("mirador", "/export", "-o")), 1)

    def test_tools(self):
        for program, commands in (("mirador-inspect", r"^  ([a-z]+) {2,}"), ("mirador-restore", r"^  (?!.)"),
                                  ("mirador-fileops", r"^  ([a-z]+) +(?:[A-Z]|list)"),
                                  ("fuse-dmsetup", r"fuse-dmsetup (\w+)")):
            with self.subTest(program):
                text = help_of(program)
                self.assertEqual(offered(program), options_in(text) | set(re.findall(commands, text, re.MULTILINE)))

    def test_appliance(self):
        self.check_appliance(command_line._parser(), [])

    def check_appliance(self, parser, path):
        words, commands = taken(parser)
        if path == ["set"]:
            words |= {setting.key for setting in SETTINGS}
        with self.subTest(" ".join(path)):
            self.assertEqual(offered("mirador-appliance", *path, function="_mirador_appliance"), words)
        for name, command in commands.items():
            self.check_appliance(command, [*path, name])


if __name__ == "__main__":
    unittest.main()
