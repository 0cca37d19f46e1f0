#!/usr/bin/env python3
"""Every place that a document names is there: the pages that it links to, and the files and folders
of this tree that it names."""
import pathlib
import re
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
LINK = re.compile(r'\]\((?!https?:)([^)#]+)')
CODE = re.compile(r'`([^`\n]+)`')
PLACE = re.compile(r'[\w.-]+(/[\w.-]+)*/?')
MADE_BY_BUILDING = ('build/',)


def documents():
    named = subprocess.run(['git', 'ls-files', '*.md'], cwd=ROOT, text=True, capture_output=True,
                           check=True).stdout
    return [ROOT / name for name in named.splitlines()]


def folders():
    return tuple(entry.name + '/' for entry in ROOT.iterdir()
                 if entry.is_dir() and not entry.name.startswith('.'))


def named_places(text):
    """What stands in backticks and begins with a folder of this tree. `NAME` and <name> stand for
    something, and are no place."""
    for code in CODE.findall(text):
        if code.startswith(folders()) and not code.startswith(MADE_BY_BUILDING):
            if PLACE.fullmatch(code):
                yield code


class Places(unittest.TestCase):
    def test_every_link_leads_somewhere(self):
        for document in documents():
            for link in LINK.findall(document.read_text()):
                self.assertTrue((document.parent / link).exists(), f'{document.name}: {link}')

    def test_every_file_that_is_named_is_there(self):
        found = 0
        for document in documents():
            for place in named_places(document.read_text()):
                found += 1
                self.assertTrue((ROOT / place).exists(), f'{document.name}: {place}')
        self.assertGreater(found, 20, 'the documents name files')


if __name__ == '__main__':
    unittest.main()
