#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The page of messages against the sources: what the daemon can say is on the page, what is on the page can be said."""

import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = ROOT / "man/mirador-messages.7"
APPLIANCE = ROOT / "standalone/mirador_appliance/controller.py"
FOLDERS = ("lib", "controller", "vmware", "appliance")

_LITERALS = r'((?:"(?:[^"\\]|\\.)*"\s*)+)'
_RAISED = re.compile(r"errdesc_set(?:_str|_fmt)?\s*\((?:[^()\"]|\([^()]*\))*?,\s*" + _LITERALS)
_KEPT = re.compile(r"constexpr const char\* \w+(?:failure|response) = " + _LITERALS)  # errors told in several places
_TOLD = re.compile(r'(?:fprintf\(\s*stderr,|printf\()\s*"((?:[^"\\]|\\.)*(?:returned an error|provided|Invalid arg[^"]*|'
                   r'supported\.|option: %s|mount point[^"]*|cannot mount[^"]*|Error reading[^"]*))\\n"')
_ALERT = re.compile(r'(?:alert_id = |_alert = |alert_(?:post|clear)\(|wording_t \w+ = \{"[^"]*", )"(\w+)"')
_OWN_ALERT = re.compile(r'keep_own\("(\w+)"|\("(\w+)", of_\w+\)')  # of the embedded appliance
_LOGGED = re.compile(r"\bts_printf\(\s*" + _LITERALS)
_WARNED = re.compile(r'"((?:\w+: )?(?:WARNING|ERROR): (?:[^"\\\n]|\\.)*)"')
_OF_NOTE = re.compile(r"WARNING|is killed|given up|stands in|still on their way|Too many|cor_dev_open: .* bytes")
_SCRIPTS = re.compile(r'(?:echo|fail \d+) "(?!usage|mount\.fuse)([^"]+)"|s/\^/([^/]+)/')  # what packages and units say
_CONVERSION = re.compile(r"%[-+ #0]*[\d.*]*(?:[hljzt]*)[a-zA-Z%]|%$")


def _text(literals):
    joined = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literals))
    return joined.replace("\\n", "").replace('\\"', '"')


def _sources():
    for folder in FOLDERS:
        for path in sorted((ROOT / folder).rglob("*.cc")) + sorted((ROOT / folder).rglob("*.h")):
            yield path.read_text().replace("'\"'", "")  # which would look like a text's begin


def _scripts():
    for folder in ("packaging", "debian"):
        for path in sorted((ROOT / folder).iterdir()):
            if path.is_file() and path.read_text().startswith("#!/bin/sh"):
                yield re.sub(r"\$(?:\w+|\d)", "%s", path.read_text())


def _fragments(text, separator):
    """What stands between the changing parts."""
    return [part.strip() for part in separator.split(text) if re.search(r"\w{2}", part)]


def _headings():
    """Each a list of the parts that do not change."""
    lines = PAGE.read_text().splitlines()
    for tag, heading in zip(lines, lines[1:]):
        if tag in (".TP", ".TQ"):
            heading = re.sub(r"\\f[IP](?=.)|\\fB", lambda m: {"\\fI": "\0"}.get(m[0], m[0]), heading)
            parts = re.sub(r"\0[\w ]+\\fP", "\0", heading).replace("\\fB", "").replace("\\fP", "")
            yield parts.replace("\\-", "-").replace("\\(aq", "'").replace("\\(ga", "`").replace("\\e", "\\")


def _is_within(fragments, text):
    at = 0
    for fragment in fragments:
        at = text.find(fragment, at)
        if at < 0:
            return False
        at += len(fragment)
    return True


class Messages(unittest.TestCase):
    def setUp(self):
        self.headings = list(_headings())
        self.sources = list(_sources())

    def missing(self, texts):
        return sorted(text for text in texts
                      if (fragments := _fragments(text, _CONVERSION))
                      and not any(_is_within(fragments, heading) for heading in self.headings))

    def test_every_error_is_explained(self):
        texts = {_text(literals) for source in self.sources for said in (_RAISED, _KEPT)
                 for literals in said.findall(source)}
        self.assertGreater(len(texts), 120)
        self.assertEqual(self.missing(texts), [])

    def test_every_word_at_the_start_is_explained(self):
        texts = {text for source in self.sources for text in _TOLD.findall(source)}
        self.assertGreater(len(texts), 7)
        self.assertEqual(self.missing(texts), [])

    def test_every_alert_is_explained(self):
        alerts = {alert for source in self.sources for alert in _ALERT.findall(source)}
        alerts |= {alert or more for alert, more in _OWN_ALERT.findall(APPLIANCE.read_text())}
        self.assertGreater(len(alerts), 11)
        self.assertEqual(alerts - set(self.headings), set())

    def test_every_warning_in_the_log_is_explained(self):
        logged = {_text(literals) for source in self.sources for literals in _LOGGED.findall(source)}
        texts = {text for text in logged if _OF_NOTE.search(text) and not text.startswith("WARNING: %s")}
        texts |= {_text(f'"{text}"') for source in self.sources for text in _WARNED.findall(source)} - {"WARNING: %s"}
        self.assertGreater(len(texts), 15)
        self.assertEqual(self.missing(texts), [])

    def test_what_packages_and_units_say_is_explained(self):
        texts = {text or more for script in _scripts() for text, more in _SCRIPTS.findall(script)}
        self.assertGreater(len(texts), 7)
        self.assertEqual(self.missing(texts), [])

    def test_nothing_is_explained_that_nobody_says(self):
        said = "\n".join(_text(literals).replace("%", "\0") for source in self.sources for literals in re.findall(_LITERALS, source))
        said += "\n".join([*_scripts(), APPLIANCE.read_text()])
        idle = [heading for heading in self.headings
                if not all(part in said for part in _fragments(heading, re.compile("\0")))]
        self.assertEqual(idle, [])


if __name__ == "__main__":
    unittest.main()
