#!/usr/bin/env python3
"""What the shells complete is what --help tells: each command, and each option behind its command. bash
is asked; the file for zsh is read, and its syntax checked where there is a zsh."""

import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

import helpTexts

COMPLETIONS = pathlib.Path(__file__).resolve().parents[2] / "packaging/completion"
PATHS = None  # the binaries, from the command line

ASK = r"""
source "$1"
function=$(complete -p "$2" | sed 's/.*-F \([^ ]*\).*/\1/')
shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
"$function"
printf '%s\n' "${COMPREPLY[@]}"
"""


def completed(program, *words):
    """What bash offers for the last word."""
    done = subprocess.run(["bash", "-c", ASK, "bash", COMPLETIONS / program, program, *words],
                          capture_output=True, text=True, timeout=30, check=True)
    return set(done.stdout.split())


class Bash(unittest.TestCase):
    def test_completes_the_commands_of_the_tool(self):
        commands = helpTexts.commands_of(PATHS.ctl)
        self.assertEqual({one[0] for one in commands}, completed("tunnelsnmpctl", ""))
        for first in {one[0] for one in commands if len(one) == 2}:
            self.assertEqual({one[1] for one in commands if one[0] == first},
                             completed("tunnelsnmpctl", first, ""))

    def test_completes_the_options_of_each_command(self):
        common = helpTexts.options_of(PATHS.ctl)
        self.assertEqual(common, completed("tunnelsnmpctl", "--"))
        for command in helpTexts.commands_of(PATHS.ctl):
            if command == ("patch",):
                continue  # a file may be named so
            self.assertEqual(common | helpTexts.options_of(PATHS.ctl, *command),
                             completed("tunnelsnmpctl", *command, "--"), command)

    def test_completes_what_has_been_begun(self):
        self.assertEqual({"tables", "tasks"}, completed("tunnelsnmpctl", "--json", "show", "ta"))
        self.assertEqual({"wait-ready", "watch"}, completed("tunnelsnmpctl", "--control", "show", "wa"))
        self.assertEqual(set(), completed("tunnelsnmpctl", "doctor", "--", "-"))
        self.assertEqual(set(), completed("tunnelsnmpctl", "wait-ready", "--timeout", ""))

    def test_completes_the_options_of_the_daemon(self):
        self.assertEqual(helpTexts.options_of(PATHS.daemon), completed("tunnelsnmpd", "--"))
        self.assertEqual({"host", "stock"}, completed("tunnelsnmpd", "--iterator", ""))

    def test_completes_files(self):
        file = str(COMPLETIONS / "_tunnelsnmpctl")
        for words in (["--control"], ["patch"], ["doctor", "--snmpd-config"]):
            self.assertEqual({file}, completed("tunnelsnmpctl", *words, file[:-1]))
        self.assertEqual({file}, completed("tunnelsnmpd", "--config", file[:-1]))


class Zsh(unittest.TestCase):
    def test_has_each_command_and_option_and_no_other(self):
        text = (COMPLETIONS / "_tunnelsnmpctl").read_text()
        options = set(re.findall(r"(?<![\w-])--[a-z][\w-]*", text)) - {"--help"}
        known = helpTexts.all_options(PATHS.ctl)
        self.assertEqual(known - {"--help"}, options - {"--"})
        commands = set(re.findall(r"'([a-z-]+):", text))
        words = {word for one in helpTexts.commands_of(PATHS.ctl) for word in one}
        self.assertEqual(words, commands)

    @unittest.skipUnless(shutil.which("zsh"), "there is no zsh")
    def test_is_understood(self):
        subprocess.run(["zsh", "-n", COMPLETIONS / "_tunnelsnmpctl"], check=True, timeout=30)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--ctl", required=True)
    PATHS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
