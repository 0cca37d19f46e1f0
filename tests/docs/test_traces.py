#!/usr/bin/env python3
"""docs/traces.md lists every trace message of the sources, and no other, with its level."""
import pathlib
import re
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
CALL = re.compile(r'\bLUMO_TRACE\(')
LEVEL = re.compile(r'constexpr int (\w+) = (\d);')
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')


def arguments(text, start):
    """The arguments of a call whose opening parenthesis is before `start`."""
    depth, argument, found, position = 1, '', [], start
    while depth:
        character = text[position]
        if character == '"':
            literal = LITERAL.match(text, position)
            argument += literal.group(0)
            position = literal.end()
            continue
        depth += {'(': 1, ')': -1}.get(character, 0)
        if depth == 0 or (character == ',' and depth == 1):
            found.append(argument.strip())
            argument = ''
        else:
            argument += character
        position += 1
    return found


def messages_of(path):
    """(level, message) of each trace call in a source; the message as it is printed."""
    text = path.read_text()
    levels = dict(LEVEL.findall(text))
    for call in CALL.finditer(text):
        given = arguments(text, call.end())
        if len(given) < 3 or not given[2].startswith('"'):
            continue  # the macro's own definition
        message = ''.join(LITERAL.findall(given[2]))
        yield int(levels.get(given[1], given[1])), message.replace('\\"', '"').replace('{{', '{').replace('}}', '}')


def in_sources():
    found = set()
    for folder in ('TunnelIntfSnmp', 'platform', 'statedb', 'sources', 'agent'):
        for path in (ROOT / folder).rglob('*'):
            if path.suffix in ('.cpp', '.h') and path.name != 'Lumo.h':
                found.update(messages_of(path))
    return {(level, message) for level, message in found if message}


def in_document():
    rows = re.findall(r'^\| (\d) \| `` ?(.*?) ?`` \|', (ROOT / 'docs/traces.md').read_text(), re.M)
    return {(int(level), message.replace('\\|', '|')) for level, message in rows}


class Traces(unittest.TestCase):
    def stripped(self, messages):
        return {(level, message.strip()) for level, message in messages}

    def test_every_message_of_the_sources_is_documented(self):
        self.assertEqual(self.stripped(in_sources()) - self.stripped(in_document()), set())

    def test_every_documented_message_is_in_the_sources(self):
        # What is passed as an argument stands in the section that says so.
        text = ''.join(p.read_text() for f in ('TunnelIntfSnmp', 'sources', 'statedb', 'agent')
                       for p in (ROOT / f).rglob('*.cpp'))
        left = self.stripped(in_document()) - self.stripped(in_sources())
        self.assertEqual([m for m in left if '"%s"' % m[1] not in text], [])


if __name__ == '__main__':
    if sys.argv[1:] == ['--list']:
        for level, message in sorted(in_sources()):
            print(level, repr(message))
    else:
        unittest.main()
