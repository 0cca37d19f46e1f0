"""The real daemon under a service manager, whose place a socket of the test takes: what it is told, in
the words of sd_notify(3), and when."""

import json
import os
import signal
import socket

import test_daemon
from test_daemon import DaemonTest, many_tunnels

WATCHDOG = 0.2  # seconds
FEEDING = "WATCHDOG=1"
UNREACHED = "agent-service-manager-unreached"


class Supervised(DaemonTest):
    def setUp(self):
        super().setUp()
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.manager.close)
        self.manager.bind(self.path("notify"))
        self.variables = {"NOTIFY_SOCKET": self.path("notify")}

    def launch(self, *options, control=None):
        environment = test_daemon.environment(self.folder) | self.variables
        daemon = test_daemon.Process(
            [test_daemon.PATHS.daemon, "--control", control or self.control, *options], environment)
        self.addCleanup(daemon.kill)
        return daemon

    def hear(self, patience=test_daemon.PATIENCE):
        self.manager.settimeout(patience)
        return self.manager.recv(4096).decode().splitlines()

    def hear_words(self):
        """The next message that is not from the watchdog's meals."""
        while (message := self.hear()) == [FEEDING]:
            pass
        return message

    def silence(self, time):
        """True if nothing comes for so long."""
        try:
            return not self.hear(time)
        except TimeoutError:
            return True

    def launch_serving(self, *options):
        return self.launch("--listen", "udp:127.0.0.1:0", *options)

    def test_hears_that_the_tables_are_complete_once_they_are(self):
        count = 500 if test_daemon.PATHS.slow else 5000
        self.write("tunnels.json", json.dumps(many_tunnels(count)))
        self.launch_serving("--source", "json:" + self.source)
        self.assertEqual(["STATUS=Starting; the tables are not complete yet"], self.hear())
        ready, status = self.hear()
        self.assertEqual("READY=1", ready)
        self.assertRegex(status, r"^STATUS=Ready; listening on udp:127\.0\.0\.1:\d+$")
        self.assertEqual(count, len(self.ctl_json("show", "tables")["tunnelIfTable"]))

    def test_hears_of_a_reload_and_of_its_end(self):
        daemon = self.launch_serving("--source", "json:" + self.source)
        self.hear()
        ready = self.hear()
        os.kill(daemon.child.pid, signal.SIGHUP)
        self.assertEqual("RELOADING=1", self.hear()[0])
        self.assertEqual(ready, self.hear())

    def test_hears_that_the_daemon_ends(self):
        daemon = self.launch_serving("--source", "json:" + self.source)
        self.hear()
        self.hear()
        self.assertEqual(0, daemon.end()[0])
        self.assertEqual("STOPPING=1", self.hear()[0])

    def test_the_watchdog_is_fed_until_the_daemon_hangs(self):
        self.variables["WATCHDOG_USEC"] = str(int(WATCHDOG * 1e6))
        daemon = self.launch_serving("--source", "json:" + self.source)
        while self.hear_words()[0] != "READY=1":
            pass
        for _ in range(5):
            self.assertEqual([FEEDING], self.hear())
        os.kill(daemon.child.pid, signal.SIGSTOP)
        while not self.silence(WATCHDOG / 4):  # what it sent before
            pass
        self.assertTrue(self.silence(3 * WATCHDOG))
        os.kill(daemon.child.pid, signal.SIGCONT)
        self.assertEqual([FEEDING], self.hear())

    def test_a_manager_that_is_not_there_changes_nothing(self):
        self.variables["NOTIFY_SOCKET"] = self.path("nowhere")
        self.start("--source", "json:" + self.source)
        self.assertEqual(self.expected_if_indexes(), self.if_indexes())
        self.wait_until(lambda: self.ctl_json("show", "counters").get(UNREACHED) == 2)


if __name__ == "__main__":
    test_daemon.main(__doc__)
