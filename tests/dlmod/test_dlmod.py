"""Loads the module into Debian's real snmpd, on loopback, with a configuration and a folder of its own:
the rows that it serves, HUP, unloading and loading by snmpset, wrong lines, and the end. Built with
the address sanitizer, its runtime is loaded before snmpd by --preload."""

import argparse
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import sys
import time
import unittest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY / "tests" / "agent"))
import test_daemon  # noqa: E402
from test_daemon import DaemonTest, Process, TUNNEL_IF_TABLE, PATIENCE, environment  # noqa: E402

OPTIONS = None  # the module, from the command line
SYS_UP_TIME = ".1.3.6.1.2.1.1.3.0"
MODULE_NAME = ".1.3.6.1.4.1.2021.13.14.2.1.2.1"
MODULE_STATUS = ".1.3.6.1.4.1.2021.13.14.2.1.5.1"
LOADED, UNLOADED, LOAD, UNLOAD = "1", "2", "4", "5"
WRITE = ("-v2c", "-c", "write")


@unittest.skipUnless(shutil.which("snmpd"), "there is no snmpd to be a part of")
class InSnmpd(DaemonTest):
    def setUp(self):
        super().setUp()
        # snmpd tells no port that it has chosen itself: take one that is free now.
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            self.address = f"127.0.0.1:{probe.getsockname()[1]}"
        self.configure()

    def configure(self, *lines):
        """With these lines in the place of the usual ones for the module, if there are any."""
        own = lines or (f"dlmod tunnelIntf {OPTIONS.module}",
                        f"tunnelIntfSource json:{self.source}", f"tunnelIntfControl {self.control}")
        self.config = self.write("snmpd.conf", "\n".join(
            ["rocommunity public 127.0.0.1", "rwcommunity write 127.0.0.1", "master agentx",
             f"agentXSocket unix:{self.path('master')}", *own, ""]))

    def launch_snmpd(self, *options, through=()):
        state = self.path("snmpd-state")
        os.makedirs(state, exist_ok=True)
        own = dict(environment(self.folder), SNMP_PERSISTENT_DIR=state)
        if OPTIONS.preload:  # what snmpd leaves behind itself is no concern of ours
            own.update(LD_PRELOAD=OPTIONS.preload, ASAN_OPTIONS="detect_leaks=0:abort_on_error=1")
        return Process([*through, "snmpd", "-Lo", "-C", "-c", self.config, "-I", "-smux", *options,
                        "udp:" + self.address], own)

    def start_snmpd(self, **how):
        snmpd = self.launch_snmpd("-f", **how)
        self.addCleanup(self.assert_ends, snmpd)
        snmpd.wait_for_line(snmpd.out, "^NET-SNMP version")
        return snmpd

    def start_ready(self):
        snmpd = self.start_snmpd()
        self.wait_ready()
        return snmpd

    def wait_ready(self):
        self.wait_until(lambda: os.path.exists(self.control))
        self.ctl("wait-ready", "--timeout", str(PATIENCE))

    def assert_ends(self, snmpd):
        """By TERM, with everything undone; also for a test that has ended it already."""
        if snmpd.child.poll() is None:
            snmpd.child.send_signal(signal.SIGTERM)
        try:
            self.assertEqual(0, snmpd.wait(), snmpd.out + snmpd.err)
        finally:
            snmpd.kill()
        self.assertEqual([], [line for line in snmpd.err if "Sanitizer" in line], snmpd.err)
        self.assertFalse(os.path.exists(self.control))

    def hang_up(self, snmpd):
        """HUP; returns when snmpd has read its configuration again."""
        before = sum("Reconfiguring daemon" in line for line in snmpd.out)
        snmpd.child.send_signal(signal.SIGHUP)
        self.wait_until(lambda: sum("NET-SNMP version" in line and "restarted" in line
                                    for line in snmpd.out) > before)
        self.assertTrue(self.is_answering())  # after all of it is done

    def set_status(self, status):
        self.snmp("snmpset", [MODULE_STATUS, "i", status], WRITE)

    def status(self):
        return self.snmp("snmpget", [MODULE_STATUS])[0][MODULE_STATUS].removeprefix("INTEGER: ")

    def is_answering(self):
        return "Timeticks" in self.snmp("snmpget", [SYS_UP_TIME])[0][SYS_UP_TIME]

    def rows(self):
        return {oid: value for oid, value in self.walk().items() if "No Such Object" not in value}

    def first_cell(self):
        cell = f"{TUNNEL_IF_TABLE}.1.4.{self.expected_if_indexes()[0]}"
        return self.snmp("snmpget", [cell])[0][cell]


class Serving(InSnmpd):
    def test_serves_what_the_daemon_serves(self):
        daemon = self.start_office()
        alone = self.walk()
        self.assertEqual(0, daemon.end()[0], daemon.err)
        self.address = f"127.0.0.1:{self.address.rsplit(':', 1)[1]}"
        self.start_ready()
        self.assertNotEqual({}, alone)
        self.assertEqual(alone, self.walk())
        self.assertEqual(alone, self.walk(("-v1", "-c", "public"), "snmpwalk"))
        self.assertTrue(self.is_answering(), "snmpd's own tables are served as well")

    def test_refuses_to_set(self):
        self.start_ready()
        cell = f"{TUNNEL_IF_TABLE}.1.4.{self.expected_if_indexes()[0]}"
        text = self.snmp("snmpset", [cell, "i", "7"], WRITE, check=False)[1]
        self.assertIn("notWritable", text)

    def test_shows_each_change_of_a_source(self):
        """Nothing else happens meanwhile that the module would be called for."""
        self.start_ready()
        cell = f"{TUNNEL_IF_TABLE}.1.4.2001"
        statuses = self.document["tunnelIntfStatusDir"]["intfStatus"]
        status = statuses.pop("50331649")
        for _ in range(5):
            for there in (False, True):
                statuses.update({"50331649": status} if there else {})
                self.write("new.json", json.dumps(self.document))
                os.replace(self.path("new.json"), self.source)
                self.wait_until(lambda: there == (
                    "No Such" not in self.snmp("snmpget", [cell])[0][cell]))
                statuses.pop("50331649", None)

    def test_answers_the_tool(self):
        self.start_ready()
        self.patch("replace", "/tunnelIntfStatusDir/intfStatus/50331649/hopLimit", 9)
        self.assertEqual("INTEGER: 9", self.first_cell())
        self.ctl("reread")  # which is answered by timers
        status = self.ctl_json("status")
        self.assertNotIn("agentx", status)
        self.assertEqual(["json:" + self.source], [one["name"] for one in status["sources"]])

    def test_serves_more_clients_than_snmpd_watches_descriptors(self):
        self.start_ready()
        clients = []
        self.addCleanup(lambda: [client.close() for client in clients])
        for _ in range(40):
            clients.append(socket.socket(socket.AF_UNIX))
            clients[-1].connect(self.control)
        clients[-1].settimeout(PATIENCE)
        clients[-1].sendall(b'{"command": "version"}\n')
        self.assertIn(b'"ok":true', clients[-1].recv(1000))
        self.assertTrue(self.is_answering())

    def test_sleeps_when_there_is_nothing_to_do(self):
        snmpd = self.start_ready()
        with open(f"/proc/{snmpd.child.pid}/stat", encoding="ascii") as stat:
            before = stat.read().split()[13:15]
        time.sleep(2)
        with open(f"/proc/{snmpd.child.pid}/stat", encoding="ascii") as stat:
            after = stat.read().split()[13:15]
        ticks = sum(map(int, after)) - sum(map(int, before))
        self.assertLess(ticks, 0.1 * os.sysconf("SC_CLK_TCK"))

    def test_leaves_snmpd_its_malloc(self):
        snmpd = self.start_ready()
        with open(f"/proc/{snmpd.child.pid}/maps", encoding="utf-8") as maps:
            text = maps.read()
        self.assertIn("libTunnelIntfSnmp.so", text)
        self.assertNotIn("mimalloc", text)

    def test_goes_along_when_snmpd_leaves_its_terminal(self):
        pid_file = self.path("snmpd.pid")
        snmpd = self.launch_snmpd("-p", pid_file)
        self.addCleanup(snmpd.kill)
        self.wait_until(lambda: os.path.exists(pid_file) and os.path.getsize(pid_file) > 0)
        with open(pid_file, encoding="ascii") as file:
            pid = int(file.read())
        self.wait_ready()
        self.assertRegex(self.first_cell(), "INTEGER")
        os.kill(pid, signal.SIGTERM)
        self.wait_until(lambda: not os.path.exists(f"/proc/{pid}"))
        self.assertFalse(os.path.exists(self.control))


class LoadingAgain(InSnmpd):
    def test_survives_hup(self):
        snmpd = self.start_ready()
        before = self.walk()
        descriptors = os.listdir(f"/proc/{snmpd.child.pid}/fd")
        for _ in range(20):
            self.hang_up(snmpd)
            self.wait_ready()
            self.assertEqual(before, self.walk())
        self.assertEqual(len(descriptors), len(os.listdir(f"/proc/{snmpd.child.pid}/fd")))

    def test_hup_counts_what_the_configuration_says_now(self):
        snmpd = self.start_ready()
        other = self.write("other.json", json.dumps({
            "tunnelIntfStatusDir": {"intfStatus": {"7": {"mode": "gre"}}},
            "ifMib": {"ifIndexByIntfId": {"7": 77}}}))
        self.configure(f"dlmod tunnelIntf {OPTIONS.module}", f"tunnelIntfSource json:{other}",
                       f"tunnelIntfControl {self.control}")
        self.hang_up(snmpd)
        self.wait_ready()
        self.assertEqual([77], self.if_indexes())
        self.configure("# no module any more")
        self.hang_up(snmpd)
        self.assertEqual({}, self.rows())
        self.assertFalse(os.path.exists(self.control))

    def test_is_unloaded_and_loaded_by_snmpset(self):
        snmpd = self.start_ready()
        before = self.walk()
        self.assertEqual("tunnelIntf", self.snmp("snmpget", [MODULE_NAME])[0][MODULE_NAME]
                         .removeprefix("STRING: ").strip('"'))
        descriptors, memory = None, None
        for number in range(20):
            self.set_status(UNLOAD)
            self.assertEqual(UNLOADED, self.status())
            self.assertEqual({}, self.rows())
            self.assertFalse(os.path.exists(self.control))
            self.set_status(LOAD)
            self.assertEqual(LOADED, self.status())
            self.wait_ready()
            self.assertEqual(before, self.walk(), "with what the configuration said")
            if number == 3:
                descriptors = len(os.listdir(f"/proc/{snmpd.child.pid}/fd"))
                memory = self.resident(snmpd)
        self.assertEqual(descriptors, len(os.listdir(f"/proc/{snmpd.child.pid}/fd")))
        if not OPTIONS.preload:
            self.assertLess(self.resident(snmpd) - memory, 4 << 20)

    def resident(self, snmpd):
        with open(f"/proc/{snmpd.child.pid}/statm", encoding="ascii") as statm:
            return int(statm.read().split()[1]) * os.sysconf("SC_PAGESIZE")

    def test_is_unloaded_while_a_client_waits_for_its_answer(self):
        self.start_ready()
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(self.control)
            client.settimeout(PATIENCE)
            client.sendall(b'{"command": "reread"}\n' * 3)
            self.set_status(UNLOAD)
            while client.recv(4096):
                pass
        self.assertTrue(self.is_answering())

    def test_hup_in_the_middle_of_the_start(self):
        snmpd = self.start_snmpd()
        self.assertTrue(self.is_answering())  # before that snmpd itself may not heed it
        for _ in range(5):
            self.hang_up(snmpd)
        self.wait_ready()
        self.assertRegex(self.first_cell(), "INTEGER")


@unittest.skipUnless(shutil.which("valgrind"), "there is no valgrind")
class Memory(InSnmpd):
    def test_nothing_is_used_that_has_gone(self):
        if OPTIONS.preload:
            self.skipTest("the sanitizers watch this build")
        log = self.path("valgrind.log")
        # How much of snmpd's own is left behind is no concern of ours.
        snmpd = self.start_snmpd(through=("valgrind", "--leak-check=no", "--num-callers=30",
                                          "--keep-debuginfo=yes", "--log-file=" + log))
        self.wait_ready()
        before = self.walk()
        self.set_status(UNLOAD)
        self.assertEqual({}, self.rows())
        self.set_status(LOAD)
        self.wait_ready()
        self.hang_up(snmpd)
        self.wait_ready()
        self.assertEqual(before, self.walk())
        self.assert_ends(snmpd)
        with open(log, encoding="utf-8") as file:
            text = file.read()
        self.assertIn("ERROR SUMMARY", text)
        ours = re.compile("tunnelIntf|TunnelIntfSnmp|Dlmod::|StateDb|Sources::|Agent::|Zel::|Kiln::")
        wrong = [block for block in re.split(r"\n==\d+== \n", text)
                 if re.search("Invalid|ninitialised|Jump to the invalid", block)
                 and ours.search(block)]
        self.assertEqual([], wrong)


class Wrong(InSnmpd):
    def assert_says(self, snmpd, pattern):
        snmpd.wait_for_line(snmpd.out, pattern)
        self.assertTrue(self.is_answering())

    def test_a_source_that_is_none(self):
        self.configure(f"dlmod tunnelIntf {OPTIONS.module}", "tunnelIntfSource lniux")
        self.assert_says(self.start_snmpd(), r"^tunnelIntf: tunnelIntfSource lniux: .*"
                         r"\(no tunnel is served; when that is mended, send snmpd HUP\)$")

    def test_a_control_socket_that_cannot_be(self):
        self.configure(f"dlmod tunnelIntf {OPTIONS.module}", f"tunnelIntfSource json:{self.source}",
                       f"tunnelIntfControl {self.path('no-folder')}/deeper/socket")
        self.assert_says(self.start_snmpd(), "^tunnelIntf: .*no-folder.*with tunnelIntfControl")
        self.assertEqual({}, self.rows())

    def test_a_line_without_a_value(self):
        self.configure(f"dlmod tunnelIntf {OPTIONS.module}", "tunnelIntfSource ")
        self.assert_says(self.start_snmpd(),
                         r"snmpd\.conf: line \d+: Error: Blank line following tunnelIntfSource")

    def test_a_line_with_an_empty_value(self):
        self.configure(f"dlmod tunnelIntf {OPTIONS.module}", 'tunnelIntfSource ""')
        self.assert_says(self.start_snmpd(),
                         r"snmpd\.conf: line \d+: Error: tunnelIntfSource wants a value")

    def test_no_line_at_all(self):
        self.configure(f"dlmod tunnelIntf {OPTIONS.module}")
        self.assert_says(self.start_snmpd(), "^tunnelIntf: no source: say tunnelIntfSource linux")

    def test_a_line_above_that_of_the_module(self):
        self.configure(f"tunnelIntfSource json:{self.source}",
                       f"dlmod tunnelIntf {OPTIONS.module}")
        snmpd = self.start_snmpd()
        self.assert_says(snmpd, "Unknown token: tunnelIntfSource")
        self.assert_says(snmpd, 'below the line "dlmod tunnelIntf"')

    def test_what_was_wrong_is_mended_by_hup(self):
        self.configure(f"dlmod tunnelIntf {OPTIONS.module}", "tunnelIntfSource lniux")
        snmpd = self.start_snmpd()
        self.assert_says(snmpd, "lniux")
        self.configure()
        self.hang_up(snmpd)
        self.wait_ready()
        self.assertRegex(self.first_cell(), "INTEGER")

    def test_tables_that_a_subagent_serves_already(self):
        """Registered twice they would end snmpd."""
        snmpd = self.start_ready()
        before = self.walk()
        self.set_status(UNLOAD)
        served_at = self.address
        daemon = self.start("--source", "json:" + self.source,
                            transport=("--agentx", "unix:" + self.path("master")))
        self.address = served_at
        self.wait_until(lambda: self.ctl_json("status")["agentx"]["state"] == "serving")
        self.set_status(LOAD)
        self.assert_says(snmpd, r"^tunnelIntf: 1\.3\.6\.1\.2\.1\.10\.131\S* is served by somebody "
                                r"else .*end it")
        self.assertEqual(before, self.walk())
        self.assertEqual(0, daemon.end()[0], daemon.err)
        self.hang_up(snmpd)
        self.wait_ready()
        self.assertEqual(before, self.walk())


def main():
    global OPTIONS
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--module", required=True, type=os.path.abspath, help="tunnelIntf.so")
    parser.add_argument("--preload", help="the runtime of the sanitizer that it was built with")
    OPTIONS, sys.argv[1:] = parser.parse_known_args()
    test_daemon.main(__doc__)


if __name__ == "__main__":
    main()
