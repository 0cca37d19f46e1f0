"""Gives each option of both programs an empty value. The options are those that --help tells, so
that a new one is tested without a change here."""

import re
import subprocess
import sys
import tempfile
import unittest

PROGRAMS = None  # from the command line


def run(*command):
    # Nothing is left of a program that takes an empty value for a good one: it would serve.
    with tempfile.TemporaryDirectory() as folder:
        return subprocess.run(command, capture_output=True, text=True, timeout=30, check=False,
                              cwd=folder, stdin=subprocess.DEVNULL)


def sections(text):
    """{title: lines} of a help text; what belongs to a title is indented."""
    found, title = {}, None
    for line in text.splitlines():
        if line.endswith(":") and not line.startswith(" "):
            title = line.removesuffix(":")
        elif title and line.startswith("  "):
            found.setdefault(title, []).append(line)
    return found


def options_of(program, *commands):
    """Each option that takes a value, with the commands that it stands behind."""
    told = sections(run(program, *commands, "--help").stdout)
    for line in told["Options"]:
        match = re.match(r"  (?:-\w,)?(--[\w-]+) \S", line)
        if match and not re.match(r"  \S+ {2,}", line):
            yield commands, match.group(1)
    for line in told.get("Subcommands", []):
        if match := re.match(r"  (\S+) ", line):
            yield from options_of(program, *commands, match.group(1))


class EmptyValues(unittest.TestCase):
    def test_are_refused_by_each_option_of_each_program(self):
        tested = set()
        for program in PROGRAMS:
            for commands, option in options_of(program):
                tested.add(option)
                for form in ([option, ""], [option + "="], [option + "=", "x"]):
                    with self.subTest(program=program, commands=commands, form=form):
                        done = run(program, *commands, *form)
                        self.assertEqual(2, done.returncode, done.stderr)
                        self.assertRegex(done.stderr, rf"\A\w+: {option}: the value is empty; "
                                         rf"write {option} \S+, or leave the option out.*\n\Z")
                        self.assertEqual("", done.stdout)
        # So that a help that looks otherwise is noticed.
        self.assertLessEqual({"--listen", "--agentx", "--source", "--config", "--trace", "--control",
                              "--plugin", "--iterator", "--timeout"}, tested)


if __name__ == "__main__":
    PROGRAMS = sys.argv[1:]
    unittest.main(argv=sys.argv[:1], verbosity=2)
