"""The command lines of managers/nagios, run as Nagios runs them, against the real daemon."""

import os
import re
import subprocess

import manager_test
from manager_test import ManagerTest, test_daemon

OK, WARNING, CRITICAL, UNKNOWN = range(4)
DEBIAN_PLUGINS, OWN_PLUGINS = "/usr/lib/nagios/plugins", "/usr/local/lib/nagios/plugins"


def command_lines(text):
    """{name: command line} of a file with definitions."""
    return {name: line for body in re.findall(r"define command \{(.*?)\n\}", text, re.S)
            for name in re.findall(r"command_name\s+(\S+)", body)
            for line in re.findall(r"command_line\s+(.*)", body)}


class CommandTest(ManagerTest):
    debian_plugins = DEBIAN_PLUGINS  # where they are unpacked

    def setUp(self):
        super().setUp()
        os.chmod(self.write("check_tunnels", self.shipped("nagios/check_tunnels")), 0o755)
        self.daemon = self.start_office()

    def checked(self, name, *arguments):
        """The exit status and the line of a command of commands.cfg, run as Nagios does."""
        host, port = self.address.rsplit(":", 1)
        macros = {"HOSTADDRESS": host, "_HOSTSNMP_PORT": port, "_HOSTSNMP_COMMUNITY": "public",
                  **{f"ARG{n}": str(argument) for n, argument in enumerate(arguments, 1)}}
        line = command_lines(self.shipped("nagios/commands.cfg"))[name]
        line = re.sub(r"\$(\w+)\$", lambda macro: macros[macro[1]], line)
        return self.run_check(line)

    def run_check(self, line):
        for folder, here in ((DEBIAN_PLUGINS, self.debian_plugins), (OWN_PLUGINS, self.folder)):
            line = line.replace(folder + "/", here + "/")
        done = subprocess.run(["sh", "-c", line], capture_output=True, text=True, check=False,
                              timeout=manager_test.PATIENCE,
                              env=test_daemon.environment(self.folder) | {"LC_ALL": "C"})
        return done.returncode, done.stdout.strip()

    def assert_checked(self, status, pattern, name, *arguments):
        seen, line = self.checked(name, *arguments)
        self.assertEqual(status, seen, line)
        self.assertRegex(line, pattern)
