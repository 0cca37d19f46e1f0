"""What the help texts of the two programs tell, for the tests that compare other texts with them."""

import re
import subprocess


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, timeout=30, check=True,
                          stdin=subprocess.DEVNULL).stdout


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
    """The long options of a program, or of one of its commands."""
    told = sections(run(program, *commands, "--help")).get("Options", [])
    return {match.group(1) for line in told
            if (match := re.match(r"  (?:-\w,)?(--[\w-]+)", line))}


def commands_of(program, *commands):
    """Each command below as a tuple of words, and those below it: ("show", "tables")."""
    found = set()
    for line in sections(run(program, *commands, "--help")).get("Subcommands", []):
        if match := re.match(r"  ([\w-]+) ", line):
            below = commands_of(program, *commands, match.group(1))
            found |= below or {(*commands, match.group(1))}
    return found


def all_options(program):
    """The options of a program and of all its commands."""
    return options_of(program).union(*(options_of(program, *one) for one in commands_of(program)))
