#!/usr/bin/env python3
"""docs/adding.md names the files that a column, a table and a source are made of. Each of its sections
names an example; its files are those of the product in which the example is named, comments aside,
and those whose place tells that they are the example's own. Nothing else was touched for it."""
import pathlib
import re
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PRODUCT = ('TunnelIntfSnmp', 'platform', 'statedb', 'sources', 'agent', 'ctl', 'os', 'json')
NUMBERS = 'no one two three four five six seven eight nine ten eleven twelve'.split()
COMMENT = re.compile(r'//.*|(?m:^#(?!include).*)')
STEP = re.compile(r'^\d+\. .*(?:\n   .*)*', re.MULTILINE)
EXAMPLE = re.compile(r'The example\s+is `([^`]+)`[^`]*?(?:`[^`]+`[^`]*?)?\b(\w+) files', re.DOTALL)


def sections():
    """{title: text}"""
    parts = re.split(r'^## (.*)\n', (ROOT / 'docs' / 'adding.md').read_text(), flags=re.MULTILINE)
    return dict(zip(parts[1::2], parts[2::2]))


def product():
    """Each file of the product with its text, comments aside."""
    listed = subprocess.run(['git', 'ls-files', *PRODUCT], cwd=ROOT, text=True, capture_output=True,
                            check=True).stdout
    return {name: COMMENT.sub('', (ROOT / name).read_text(errors='replace'))
            for name in listed.splitlines() if not name.endswith('.md')}


def pattern(name):
    """Finds a name as a word, and as a word within one in camel case."""
    lower, upper = (re.escape(initial + name[1:]) for initial in (name[0], name[0].upper()))
    return re.compile(f'((?<![a-zA-Z]){lower}|{upper})(?![a-z])')


def named_in_steps(text):
    """What the steps of a section name before they say why; of a folder each file."""
    heads = ' '.join(step.partition(':')[0] for step in STEP.findall(text))
    places = re.findall(r'`([\w./-]+)`', heads)
    return {file for file in product() for place in places
            if file == place or place.endswith('/') and file.startswith(place)}


class Adding(unittest.TestCase):
    def test_each_section_names_the_files_that_its_example_is_in(self):
        files = product()
        for title, text in sections().items():
            with self.subTest(title):
                example = EXAMPLE.search(text)
                self.assertTrue(example, 'the section names its example and how many files it takes')
                name, count = example.groups()
                found = {file for file, code in files.items() if pattern(name).search(code + file)}
                self.assertEqual(found, named_in_steps(text))
                own = {file for file in found if pattern(name).search(str(pathlib.Path(file).parent))}
                self.assertEqual(NUMBERS.index(count), len(found - own))

    def test_there_are_all_sorts(self):
        self.assertEqual(['A derived column', 'A stored column', 'A table', 'A source'],
                         list(sections()))


if __name__ == '__main__':
    unittest.main()
