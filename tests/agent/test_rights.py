"""The real daemon as a user without any right, and other users beside it: it needs no right that its
sources do not need, and gives none away. Runs as root, which alone can be somebody else."""

import os
import pwd
import subprocess
import unittest

import test_daemon
from test_daemon import DaemonTest


def user(name):
    try:
        return pwd.getpwnam(name).pw_uid
    except KeyError:
        return None


OWNER = user("nobody")
STRANGER = user("daemon")


def as_user(number):
    return {"user": number, "group": number, "extra_groups": []}


def why_not():
    """Why the tests cannot be run here, or nothing."""
    if os.getuid() != 0:
        return "only root can be another user"
    if None in (OWNER, STRANGER):
        return "there are no users \"nobody\" and \"daemon\" here"
    try:
        for program in (test_daemon.PATHS.daemon, test_daemon.PATHS.ctl):
            subprocess.run([program, "--help"], **as_user(OWNER), check=True,
                           stdout=subprocess.DEVNULL)
    except (OSError, subprocess.SubprocessError) as error:
        return f"another user cannot start the daemon from here: {error}"
    return None


class Rights(DaemonTest):
    def setUp(self):
        if reason := why_not():
            self.skipTest(reason)
        super().setUp()
        os.chmod(self.source, 0o644)
        os.chown(self.folder, OWNER, OWNER)
        os.chmod(self.folder, 0o755)

    def launch(self, *options, control=None):
        daemon = test_daemon.Process(
            [test_daemon.PATHS.daemon, "--control", control or self.control, *options],
            test_daemon.environment(self.folder), **as_user(OWNER))
        self.addCleanup(daemon.kill)
        return daemon

    def ask_as(self, number, *arguments):
        return subprocess.run([test_daemon.PATHS.ctl, "--control", self.control, *arguments],
                              capture_output=True, text=True, timeout=test_daemon.PATIENCE,
                              check=False, **as_user(number))

    def test_it_serves_files_and_links_without_a_capability(self):
        daemon = self.start_office("--source", "linux")
        with open(f"/proc/{daemon.child.pid}/status", encoding="ascii") as file:
            self.assertIn("CapEff:\t0000000000000000\n", file.readlines())
        self.assertEqual(self.expected_if_indexes(), self.if_indexes())
        self.assertEqual(["inSync", "inSync"],
                         [source["state"] for source in self.ctl_json("status")["sources"]])
        self.assertEqual(1, len(daemon.err), daemon.err)
        self.assertRegex(daemon.err[0], "^tunnelsnmpd: linux: IPsec policies: not ")

    def test_another_user_cannot_use_the_control_socket(self):
        self.start_office()
        self.assertEqual(0, self.ask_as(OWNER, "status").returncode)
        for command in (["status"], ["reread"], ["restart-machines"], ["show", "tables"]):
            refused = self.ask_as(STRANGER, *command)
            self.assertEqual(2, refused.returncode, refused.stdout)
            self.assertEqual("", refused.stdout)
            self.assertRegex(refused.stderr, "Permission denied")
            self.assertEqual(1, refused.stderr.count("\n"), refused.stderr)

    def test_a_configuration_that_may_not_be_read_is_refused_by_name(self):
        config = self.write("secret.conf", "rocommunity public 127.0.0.1\n")
        os.chmod(config, 0o600)
        self.assert_refuses_to_start(2, f"{config}: .*[Pp]ermission denied", "--config", config,
                                     "--listen", "udp:127.0.0.1:0")

    def test_a_control_socket_where_it_may_not_write_is_refused_by_name(self):
        os.chmod(self.folder, 0o700)
        os.chown(self.folder, 0, 0)
        self.assert_refuses_to_start(1, f"{self.control}.*[Pp]ermission denied", "--listen",
                                     "udp:127.0.0.1:0")

    def test_a_file_that_may_no_longer_be_read_is_read_when_it_may(self):
        self.start_office()
        os.chmod(self.source, 0o600)
        self.wait_until(lambda: self.source_status()["state"] == "degraded")
        self.assertRegex(self.source_status()["lastError"], f"{self.source}.*[Pp]ermission denied")
        self.assertEqual(self.expected_if_indexes(), self.if_indexes())
        os.chmod(self.source, 0o644)
        self.wait_until(lambda: self.source_status()["state"] == "inSync")

    def source_status(self):
        return self.ctl_json("status")["sources"][0]


if __name__ == "__main__":
    test_daemon.main(__doc__)
