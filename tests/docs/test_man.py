#!/usr/bin/env python3
"""The manual pages name every command and option that --help names, and no other; what the page of the
configuration shows is understood by the daemon; and man has nothing to complain of."""

import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import helpTexts

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = ROOT / "docs/man"
PATHS = None  # the binaries, from the command line


def plain(text):
    """Roff without its fonts and escapes."""
    text = re.sub(r"\\f[BIRP]", "", text)
    return text.replace(r"\-", "-").replace(r"\(dq", '"').replace(r"\(aq", "'").replace(r"\&", "")


def section(page, title):
    text = (PAGES / page).read_text()
    return re.search(rf"^\.SH {title}\n(.*?)(?=^\.SH |\Z)", text, re.M | re.S).group(1)


def tags(text):
    """The line behind each .TP, without its macro."""
    return [plain(re.sub(r"^\.[BIR]+ ", "", line)).replace('"', "")
            for line in re.findall(r"^\.TP\n(.*)$", text, re.M)]


def options_in(text):
    return {option for tag in tags(text) for option in re.findall(r"--[a-z][\w-]*", tag)}


class Options(unittest.TestCase):
    def test_of_the_daemon_are_all_there_and_no_other(self):
        self.assertEqual(helpTexts.options_of(PATHS.daemon),
                         options_in(section("tunnelsnmpd.8", "OPTIONS")))

    def test_of_the_tool_are_all_there_and_no_other(self):
        told = section("tunnelsnmpctl.1", "OPTIONS") + section("tunnelsnmpctl.1", "COMMANDS")
        self.assertEqual(helpTexts.all_options(PATHS.ctl), options_in(told))

    def test_that_a_page_names_anywhere_are_there(self):
        for page, programs in (("tunnelsnmpd.8", [PATHS.daemon]), ("tunnelsnmpctl.1", [PATHS.ctl]),
                               ("tunnelsnmpd.conf.5", [PATHS.daemon, PATHS.ctl])):
            known = set().union(*(helpTexts.all_options(one) for one in programs))
            named = set(re.findall(r"(?<![\w-])--[a-z][\w-]*", plain((PAGES / page).read_text())))
            self.assertEqual(set(), named - known, page)


class Commands(unittest.TestCase):
    def test_are_all_there_and_no_other(self):
        commands = {" ".join(one) for one in helpTexts.commands_of(PATHS.ctl)}
        told = {tag for tag in tags(section("tunnelsnmpctl.1", "COMMANDS")) if not tag.startswith("--")}
        named = {next((one for one in commands if tag == one or tag.startswith(one + " ")), tag)
                 for tag in told}
        self.assertEqual(commands, named)

    def test_have_their_options_below_them(self):
        for words in helpTexts.commands_of(PATHS.ctl):
            own = helpTexts.options_of(PATHS.ctl, *words) - {"--help"}
            text = section("tunnelsnmpctl.1", "COMMANDS")
            name = re.escape(" ".join(words)).replace(r"\-", r"\\?-\-?")
            for option in own - {"--control", "--json"}:
                with self.subTest(command=words, option=option):
                    self.assertRegex(plain(text), rf'(?m)^\.B.* "?{name}"?.*$(\n.*)*?\n\.RS(\n.*)*?'
                                                  rf'\n.*{option}')


class Configuration(unittest.TestCase):
    def test_of_the_example_is_understood(self):
        example = re.search(r"\.EX\n(createUser.*?)\.EE", (PAGES / "tunnelsnmpd.conf.5").read_text(),
                            re.S).group(1)
        with tempfile.TemporaryDirectory() as folder:
            config = pathlib.Path(folder) / "example.conf"
            config.write_text(plain(example))
            daemon = subprocess.Popen([PATHS.daemon, "--config", config, "--listen", "udp:127.0.0.1:0",
                                       "--control", f"{folder}/control.sock"], text=True,
                                      stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            line = daemon.stdout.readline()
            daemon.terminate()
            _, complaints = daemon.communicate(timeout=60)
        self.assertEqual("", complaints)
        self.assertRegex(line, "^tunnelsnmpd: listening on udp:127.0.0.1:")

    def test_of_what_is_no_directive_is_not(self):
        with tempfile.NamedTemporaryFile("w") as config:
            config.write("rocommunities public\n")
            config.flush()
            done = subprocess.run([PATHS.daemon, "--config", config.name, "--listen", "udp:127.0.0.1:0",
                                   "--control", config.name + ".sock"], capture_output=True, text=True,
                                  timeout=60, check=False)
        self.assertEqual(2, done.returncode)


@unittest.skipUnless(shutil.which("man") and shutil.which("groff"), "there is no man to complain")
class Pages(unittest.TestCase):
    def test_give_man_nothing_to_complain_of(self):
        for page in sorted(PAGES.iterdir()):
            done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page],
                                  capture_output=True, text=True, timeout=60, check=False,
                                  env={"MANROFFSEQ": "", "MANWIDTH": "80", "LC_ALL": "C.UTF-8",
                                       "PATH": "/usr/bin:/bin"})
            self.assertEqual((0, ""), (done.returncode, done.stderr), page.name)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--ctl", required=True)
    PATHS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
