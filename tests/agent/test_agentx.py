"""Runs the real daemon behind a real snmpd as its AgentX master, which comes late, dies, is replaced, is
stopped or cannot be reached. With --thorough each test of time takes longer, as in the promise that it is
for; without, all together take some seconds. Times that were measured are printed. What no snmpd does is in
test_agentx_masters.py, and what other subagents do in test_agentx_neighbours.py."""

import os
import shutil
import signal
import socket
import sys
import time
import unittest

import test_daemon
from test_daemon import DaemonTest, Process, TUNNEL_IF_TABLE, PATIENCE, environment


def limit(seconds):
    """Seconds that something may take; instrumented binaries may take their time."""
    return PATIENCE if test_daemon.PATHS.slow else seconds


def measured(what, seconds):
    print(f"{what}: {seconds * 1000:.0f} ms", file=sys.stderr)


def queued(pid):
    """Seconds that the process was ready to run and had no core: the machine's doing."""
    with open(f"/proc/{pid}/schedstat", encoding="ascii") as counts:
        return int(counts.read().split()[1]) / 1e9


@unittest.skipUnless(shutil.which("snmpd"), "there is no snmpd to be the master")
class BehindMaster(DaemonTest):
    def setUp(self):
        super().setUp()
        self.master_socket = "unix:" + self.path("master")
        # snmpd tells no port that it has chosen itself: take one that is free now.
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            self.master_address = f"127.0.0.1:{probe.getsockname()[1]}"
        self.configure()

    def configure(self, *lines):
        self.config = self.write("master.conf", "\n".join(
            ["rocommunity public 127.0.0.1", "rwcommunity write 127.0.0.1", "master agentx",
             f"agentXSocket {self.master_socket}", "agentXTimeout 5", *lines, ""]))

    def start_master(self, program="snmpd"):
        state = self.path("snmpd-state")
        os.makedirs(state, exist_ok=True)
        own = dict(environment(self.folder), SNMP_PERSISTENT_DIR=state)
        master = Process([program, "-f", "-Lo", "-C", "-c", self.config, "-I", "-smux",
                          "udp:" + self.master_address], own)
        self.addCleanup(master.kill)
        master.wait_for_line(master.out, "^NET-SNMP version")
        return master

    def start_subagent(self, *options):
        daemon = self.start("--source", "json:" + self.source, *options,
                            transport=("--agentx", self.master_socket))
        self.assertEqual("agentx:" + self.master_socket, self.address)
        self.address = self.master_address
        return daemon

    def master_status(self):
        return self.ctl_json("status")["agentx"]

    def wait_until_served(self):
        self.wait_until(lambda: self.master_status()["state"] == "serving")

    def first_cell(self):
        return f"{TUNNEL_IF_TABLE}.1.4.{self.expected_if_indexes()[0]}"

    def has_rows(self):
        cell = self.first_cell()
        return "INTEGER" in self.snmp("snmpget", [cell], check=False)[0].get(cell, "")

    def assert_answers_at_once(self, daemon, seconds):
        """For so long, whatever the master does, the daemon's control socket answers within 50 ms, not
        counting those in which daemon or test waited for a core."""
        end = time.monotonic() + seconds
        longest = 0
        while time.monotonic() < end:
            longest = max(longest, self.answer_time(daemon))
            time.sleep(0.005)
        measured("longest answer of the control socket", longest)
        self.assertLess(longest, limit(0.05))

    def answer_time(self, daemon):
        def now():
            return time.monotonic() - queued(daemon.child.pid) - queued(os.getpid())
        began = now()
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
            client.settimeout(PATIENCE)
            client.connect(self.control)
            client.sendall(b'{"command": "version"}\n')
            self.assertNotEqual(b"", client.recv(1))
        return now() - began

    def assert_back_within_a_second(self, began):
        """Half a second lies between two tries, and a client takes some time to ask."""
        self.wait_until(self.has_rows)
        seconds = time.monotonic() - began
        measured("rows were back after", seconds)
        self.assertLess(seconds, limit(1))

    def assert_ends_within_a_second(self, daemon):
        status, seconds = daemon.end()
        self.assertEqual(0, status, daemon.err)
        self.assertLess(seconds, limit(1))


class Serving(BehindMaster):
    def test_serves_through_the_master_and_leaves_it_at_the_end(self):
        self.start_master()
        daemon = self.start_subagent()
        values = self.walk()
        self.assertEqual(
            self.expected_if_indexes(),
            sorted(int(oid.rsplit(".", 1)[1]) for oid in values
                   if oid.startswith(TUNNEL_IF_TABLE + ".1.4.")))
        status, seconds = daemon.end()
        self.assertEqual(0, status, daemon.err)
        self.assertLess(seconds, limit(1))
        cell = self.first_cell()
        self.assertRegex(self.snmp("snmpget", [cell])[0][cell], "No Such Object")

    def test_answers_as_it_does_stand_alone(self):
        alone = self.start_office()
        walks = [("snmpbulkwalk", "-v2c"), ("snmpwalk", "-v2c"), ("snmpwalk", "-v1")]
        expected = [self.walk((version, "-c", "public"), command) for command, version in walks]
        self.assertNotEqual({}, expected[0])
        cells = list(expected[0])
        others = [TUNNEL_IF_TABLE, TUNNEL_IF_TABLE + ".1.4.999999", TUNNEL_IF_TABLE + ".1.99.1"]
        got = self.snmp("snmpget", cells[:80] + others)[0]
        bulk = self.snmp("snmpbulkget", ["-Cn1", "-Cr20", cells[0], cells[1], cells[40]])[0]
        self.assertEqual(0, alone.end()[0])

        self.start_master()
        self.start_subagent()
        self.wait_until_served()
        self.assertEqual(expected, [self.walk((version, "-c", "public"), command)
                                    for command, version in walks])
        self.assertEqual(got, self.snmp("snmpget", cells[:80] + others)[0])
        self.assertEqual(bulk,
                         self.snmp("snmpbulkget", ["-Cn1", "-Cr20", cells[0], cells[1],
                                                   cells[40]])[0])

    def test_refuses_to_set_as_it_does_stand_alone(self):
        access = ("-v2c", "-c", "write")
        sets = [[self.first_cell(), "i", "7"], [TUNNEL_IF_TABLE + ".1.4.999999", "i", "7"],
                [TUNNEL_IF_TABLE + ".1.99.1", "i", "7"]]
        config = self.write("write.conf", "rwcommunity write 127.0.0.1\n")

        def reasons():
            said = []
            for one in sets:
                _, text = self.snmp("snmpset", one, access, check=False)
                said.append([line for line in text.splitlines() if line.startswith("Reason")])
            return said
        alone = self.start_office("--config", config)
        expected = reasons()
        self.assertIn("notWritable", expected[0][0])
        self.assertEqual(0, alone.end()[0])
        self.start_master()
        self.start_subagent()
        self.wait_until_served()
        self.assertEqual(expected, reasons())
        self.assertTrue(self.has_rows())

    def test_keeps_its_session_when_it_is_told_to_read_again(self):
        config = self.write("access.conf", "agentXPingInterval 5\n")
        self.start_master()
        daemon = self.start_subagent("--config", config)
        self.wait_until_served()
        before = self.walk()
        daemon.child.send_signal(signal.SIGHUP)
        self.ctl("reread")
        self.assertEqual(before, self.walk())
        self.assertEqual(1, self.master_status()["sessions"])

    def test_stays_with_a_master_that_reads_its_configuration_again(self):
        master = self.start_master()
        self.start_subagent()
        self.wait_until_served()
        before = self.walk()
        master.child.send_signal(signal.SIGHUP)
        master.wait_for_line(master.out, "Reconfiguring daemon")
        self.wait_until(lambda: self.walk() == before)

    def test_serves_over_tcp(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.master_socket = f"tcp:127.0.0.1:{probe.getsockname()[1]}"
        self.configure()
        self.start_master()
        self.start_subagent()
        self.wait_until_served()
        self.assertTrue(self.has_rows())

    def test_an_address_that_is_none_is_a_configuration_error(self):
        self.assert_refuses_to_start(2, "--agentx.*numeric", "--agentx", "tcp:pigeon.example:705")


class Faults(BehindMaster):
    def test_waits_for_a_master_that_is_not_there_yet(self):
        daemon = self.start_subagent()
        daemon.wait_for_line(daemon.err, "Failed to connect to the agentx master")
        self.start_master()
        self.wait_until(lambda: self.walk() != {})
        self.assertEqual(0, daemon.end()[0], daemon.err)

    def test_comes_back_when_the_master_does(self):
        master = self.start_master()
        daemon = self.start_subagent()
        before = self.walk()
        self.assertNotEqual({}, before)
        master.end()
        self.assertEqual(self.expected_if_indexes(), self.if_indexes())
        self.start_master()
        self.wait_until(lambda: self.walk() == before)
        self.assertEqual(0, daemon.end()[0], daemon.err)

    def test_rows_are_back_within_a_second_of_a_killed_masters_return(self):
        master = self.start_master()
        self.start_subagent()
        self.wait_until_served()
        for time_ in range(100 if test_daemon.PATHS.thorough else 5):
            master.child.kill()
            master.wait()
            time.sleep(0.1 * (time_ % 7))
            master = self.start_master()
            self.assert_back_within_a_second(time.monotonic())
        self.assertEqual(self.expected_if_indexes(), self.if_indexes())

    def test_comes_back_to_a_master_that_was_replaced_by_another_program(self):
        old = self.start_master()
        self.start_subagent()
        self.wait_until_served()
        old.child.kill()
        old.wait()
        os.unlink(self.path("master"))
        self.start_master(shutil.copy(shutil.which("snmpd"), self.path("snmpd-upgraded")))
        self.assert_back_within_a_second(time.monotonic())

    def test_stays_with_its_master_until_that_goes_though_another_has_its_socket(self):
        old = self.start_master()
        self.start_subagent()
        self.wait_until_served()
        os.rename(self.path("master"), self.path("old-master"))
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            old_address, self.master_address = (self.master_address,
                                                f"127.0.0.1:{probe.getsockname()[1]}")
        self.start_master()
        self.address = old_address
        self.assertTrue(self.has_rows())
        self.assertEqual(1, self.master_status()["sessions"])
        old.child.kill()
        old.wait()
        self.address = self.master_address
        self.assert_back_within_a_second(time.monotonic())

    def test_rows_are_back_within_a_second_of_each_hup_of_its_master(self):
        master = self.start_master()
        self.start_subagent()
        self.wait_until_served()
        for count in range(1, 100 if test_daemon.PATHS.thorough else 6):
            master.child.send_signal(signal.SIGHUP)
            self.wait_until(lambda: sum("restarted" in line for line in master.out) == count)
            self.assert_back_within_a_second(time.monotonic())

    def test_comes_back_itself_when_it_was_killed(self):
        self.start_master()
        daemon = self.start_subagent()
        self.wait_until_served()
        before = self.walk()
        daemon.child.kill()
        daemon.wait()
        self.start_subagent()
        self.wait_until(lambda: self.walk() == before)

    def test_outlives_a_walk_whose_master_is_killed(self):
        master = self.start_master()
        daemon = self.start_subagent()
        self.wait_until_served()
        for _ in range(5):
            walk = Process(["snmpbulkwalk", "-v2c", "-c", "public", "-t", "1", "-r", "0",
                            self.address, ".1.3.6.1.2.1"], environment(self.folder))
            self.addCleanup(walk.kill)
            walk.wait_for_line(walk.out, "10.131|transmission")
            master.child.kill()
            master.wait()
            master = self.start_master()
            self.wait_until(self.has_rows)
        self.assertEqual(6, self.master_status()["sessions"])
        self.assert_ends_within_a_second(daemon)

    def test_the_up_time_is_its_masters(self):
        master = self.start_master()
        daemon = self.start_subagent()
        self.wait_until_served()
        time.sleep(1)
        master.end()
        began = time.monotonic()
        self.start_master()
        self.wait_until(self.has_rows)
        up_time = ".1.3.6.1.2.1.1.3.0"
        values = self.snmp("snmpget", [up_time, self.first_cell()])[0]
        self.assertIn("INTEGER", values[self.first_cell()])
        ticks = int(values[up_time].split("(")[1].split(")")[0])
        self.assertLessEqual(ticks / 100, time.monotonic() - began + 0.5)
        self.assertEqual(0, daemon.end()[0], daemon.err)

    def test_comes_back_after_answers_that_were_too_slow_for_its_master(self):
        self.configure("agentXTimeout 1", "agentXRetries 0")
        self.start_master()
        daemon = self.start_subagent()
        self.wait_until_served()
        daemon.child.send_signal(signal.SIGSTOP)
        try:
            values, text = self.snmp("snmpget", [self.first_cell()], check=False)
        finally:
            daemon.child.send_signal(signal.SIGCONT)
        self.assertNotIn("INTEGER", values.get(self.first_cell(), ""), text)
        self.assert_back_within_a_second(time.monotonic())

    def test_answers_while_its_master_is_stopped_and_comes_back_with_it(self):
        master = self.start_master()
        daemon = self.start_subagent()
        self.wait_until_served()
        master.child.send_signal(signal.SIGSTOP)
        try:
            self.assert_answers_at_once(daemon, 40 if test_daemon.PATHS.thorough else 0.5)
        finally:
            master.child.send_signal(signal.SIGCONT)
        self.wait_until(self.has_rows)
        self.assert_ends_within_a_second(daemon)

    def test_ends_within_a_second_though_its_master_is_stuck(self):
        master = self.start_master()
        daemon = self.start_subagent()
        master.child.send_signal(signal.SIGSTOP)
        self.addCleanup(master.child.send_signal, signal.SIGCONT)
        self.assert_ends_within_a_second(daemon)

    def test_starts_and_ends_while_its_master_is_stopped(self):
        master = self.start_master()
        master.child.send_signal(signal.SIGSTOP)
        self.addCleanup(master.child.send_signal, signal.SIGCONT)
        daemon = self.start_subagent()
        self.assertEqual("opening", self.master_status()["state"])
        self.assert_answers_at_once(daemon, 0.2)
        self.assert_ends_within_a_second(daemon)

    def test_waits_for_a_stopped_master_that_takes_no_more_connections(self):
        master = self.start_master()
        master.child.send_signal(signal.SIGSTOP)
        self.addCleanup(master.child.send_signal, signal.SIGCONT)
        others = []
        self.addCleanup(lambda: [other.close() for other in others])
        while True:
            others.append(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
            others[-1].setblocking(False)
            try:
                others[-1].connect(self.path("master"))
            except BlockingIOError:
                break
        daemon = self.start_subagent()
        status = self.master_status()
        self.assertIn(status["state"], ("waiting to try again", "connecting"))
        self.assertIn("takes no more connections", status["lastError"])
        self.assert_answers_at_once(daemon, 0.5)
        master.child.send_signal(signal.SIGCONT)
        self.wait_until(self.has_rows)
        self.assert_ends_within_a_second(daemon)

    def test_waits_for_a_tcp_master_that_does_not_answer(self):
        with socket.create_server(("127.0.0.1", 0), backlog=0) as master:
            port = master.getsockname()[1]
            with socket.create_connection(("127.0.0.1", port)):  # the one place is taken
                self.master_socket = f"tcp:127.0.0.1:{port}"
                daemon = self.start_subagent()
                self.assertEqual("connecting", self.master_status()["state"])
                self.assert_answers_at_once(daemon, 10 if test_daemon.PATHS.thorough else 0.5)
                self.assert_ends_within_a_second(daemon)

    def test_takes_over_from_another_subagent_with_its_tables(self):
        self.start_master()
        first = self.start_subagent()
        self.wait_until_served()
        before = self.walk()
        self.control = self.path("second.sock")
        self.start_subagent()
        def states():
            return {(one["state"], one["reason"])
                    for one in self.master_status()["registrations"]}
        self.wait_until(lambda: states() == {("refused", "duplicateRegistration")})
        status = self.ctl_json("status")
        self.assertTrue(status["ready"])
        self.assertEqual("registering", status["agentx"]["state"])
        self.assertIn("duplicateRegistration", status["agentx"]["lastError"])
        self.assertRegex(self.ctl("status"), r"(?m)^1\.3\.6\.1\.2\.1\.10\.131.* refused +dupl")
        self.assertEqual(0, first.end()[0], first.err)
        self.wait_until_served()
        self.assertEqual(before, self.walk())

    def test_tells_of_its_master(self):
        self.start_subagent()
        status = self.master_status()
        self.assertEqual(self.master_socket, status["address"])
        self.assertIn("No such file or directory", status["lastError"])
        self.assertEqual(0, status["sessions"])
        self.assertNotIn("session", status)
        self.assertEqual({"not asked for"}, {one["state"] for one in status["registrations"]})
        master = self.start_master()
        self.wait_until_served()
        status = self.master_status()
        self.assertIn("session", status)
        self.assertEqual({"registered"}, {one["state"] for one in status["registrations"]})
        self.assertRegex(status["since"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        master.child.kill()
        master.wait()
        self.wait_until(lambda: self.master_status()["state"] != "serving")
        self.assertEqual(1, self.master_status()["sessions"])


if __name__ == "__main__":
    test_daemon.main(__doc__)
