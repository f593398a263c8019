#!/usr/bin/env python3
"""The documents agree with what they describe: every setting is told with its default, and every link leads somewhere."""

import re
import tomllib
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]


def example_settings(name):
    """{(section, key): default} of an example file; None for a key that is commented out."""
    text = (ROOT / "packaging" / name).read_text()
    found = {(section, key): value for section, table in tomllib.loads(text).items() for key, value in table.items()}
    section = ""
    for line in text.splitlines():
        if match := re.fullmatch(r"\[(\w+)\]", line):
            section = match[1]
        elif match := re.fullmatch(r"#(\w+) = .*", line):
            found[section, match[1]] = None
    return found


def documented_settings(heading):
    """{(section, key): default as text} of the first table below a heading of docs/configuration.md."""
    text = (ROOT / "docs/configuration.md").read_text().split(f"\n## {heading}\n")[1].split("\n## ")[0]
    found = {}
    for section, keys, default in re.findall(r"^\| (\w+) \| (`[^|]*`) \| ([^|]*) \|", text, re.MULTILINE):
        for key in re.findall(r"`(\w+)`", keys):
            found[section, key] = default
    return found


class Settings(unittest.TestCase):
    def check(self, name):
        example, documented = example_settings(name), documented_settings(name)
        self.assertEqual(sorted(example), sorted(documented))
        for key, default in example.items():
            told = documented[key]
            if told == "as above":
                continue
            if default is None:
                self.assertEqual(told, "none", key)
            else:
                self.assertEqual(tomllib.loads(f"x = {told.strip('`')}")["x"], default, key)

    def test_every_setting_of_the_state_daemon_is_documented_with_its_default(self):
        self.check("vellumd.toml")

    def test_every_setting_of_the_database_daemon_is_documented_with_its_default(self):
        self.check("vellum-dbd.toml")


class Whole(unittest.TestCase):
    def test_no_document_has_the_marks_of_a_merge_in_it(self):
        for document in [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]:
            self.assertNotRegex(document.read_text(), r"(?m)^(<<<<<<<|>>>>>>>|=======)( |$)", document.name)


class Links(unittest.TestCase):
    def test_every_link_between_documents_leads_to_a_file(self):
        for document in [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]:
            for target in re.findall(r"\]\((?!https?:)([^)#]+)", document.read_text()):
                self.assertTrue((document.parent / target).exists(), f"{document.name}: {target}")

    def test_every_path_that_a_document_names_is_there(self):
        pattern = r"`((?:scripts|packaging|docs|tests|bench|foundation|greylist|reputation|senderratecontrol|mmsreputation|daemon|dbdaemon|tools|include2)/[\w./-]+)`"
        for document in [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]:
            for path in re.findall(pattern, document.read_text()):
                self.assertTrue((ROOT / path).exists(), f"{document.name}: {path}")


if __name__ == "__main__":
    unittest.main(verbosity=2)
