"""Runs the real daemon as an operator would: starts it, asks it over SNMP and over its control
socket, sends it signals, and starts it wrongly. Everything stays on loopback and in a temporary
folder; ports are free ones. Waits are for events and bounded."""

import argparse
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PATHS = None  # the binaries, from the command line

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
PATIENCE = 60  # seconds; only a broken daemon needs them (sanitizers and valgrind are slow)
TUNNEL_IF_TABLE = ".1.3.6.1.2.1.10.131.1.1.1"
TUNNEL_MIB = ".1.3.6.1.2.1.10.131"
V3 = ["-v3", "-u", "reader", "-l", "authPriv", "-a", "SHA-256", "-A", "the-auth-pass", "-x", "AES",
      "-X", "the-priv-pass"]
V3_CONFIG = ("createUser reader SHA-256 the-auth-pass AES the-priv-pass\n"
             "rouser reader priv\n")


class Process:
    """A child process whose output is collected while it runs."""

    def __init__(self, command, environment=None, **options):
        self.child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                      text=True, env=environment, **options)
        self.out, self.err = [], []
        self.changed = threading.Condition()
        self.readers = [threading.Thread(target=self._collect, args=(pipe, lines), daemon=True)
                        for pipe, lines in ((self.child.stdout, self.out),
                                            (self.child.stderr, self.err))]
        for reader in self.readers:
            reader.start()

    def _collect(self, pipe, lines):
        for line in pipe:
            with self.changed:
                lines.append(line.rstrip("\n"))
                self.changed.notify_all()
        pipe.close()
        with self.changed:
            self.changed.notify_all()

    def wait_for_line(self, lines, pattern):
        """The match of the first line, there already or still to come, with the pattern."""
        def found():
            return next(filter(None, (re.search(pattern, line) for line in lines)), None)
        with self.changed:
            self.changed.wait_for(
                lambda: found() or not any(reader.is_alive() for reader in self.readers), PATIENCE)
            match = found()
        if match is None:
            raise AssertionError(f"no line like {pattern!r}; stdout {self.out}, stderr {self.err}")
        return match

    def end(self, number=signal.SIGTERM):
        """Sends the signal; returns the exit status and the seconds that the end took."""
        began = time.monotonic()
        self.child.send_signal(number)
        return self.wait(), time.monotonic() - began

    def wait(self):
        status = self.child.wait(PATIENCE)
        for reader in self.readers:
            reader.join(PATIENCE)
        return status

    def kill(self):
        if self.child.poll() is None:
            self.child.kill()
        self.wait()


def environment(folder):
    """Without MIB texts, and with the clients' own files in the folder."""
    return dict(os.environ, MIBS="", SNMP_PERSISTENT_DIR=folder, SNMPCONFPATH=folder, HOME=folder)


def document(name):
    """The text of a page of the documentation."""
    return (REPOSITORY / "docs" / name).read_text()


class DaemonTest(unittest.TestCase):
    place = ()  # what the daemon and the managers are started through, where that is elsewhere

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="tunnelsnmpd-")
        self.addCleanup(shutil.rmtree, self.folder)
        self.control = self.path("control.sock")
        self.source = self.path("tunnels.json")
        shutil.copy(PATHS.example, self.source)
        with open(self.source, encoding="utf-8") as file:
            self.document = json.load(file)

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text):
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(text)
        return self.path(name)

    # The daemon

    def launch(self, *options, control=None):
        daemon = Process([*self.place, PATHS.daemon, "--control", control or self.control,
                          *options], environment(self.folder))
        self.addCleanup(daemon.kill)
        return daemon

    def start(self, *options, transport=("--listen", "udp:127.0.0.1:0")):
        """Starts the daemon on a free port and returns it when it is ready."""
        daemon = self.launch(*transport, *options)
        self.address = daemon.wait_for_line(
            daemon.out, r"^tunnelsnmpd: listening on (\S+)$").group(1).removeprefix("udp:")
        self.ctl("wait-ready", "--timeout", str(PATIENCE))
        return daemon

    def start_office(self, *options):
        return self.start("--source", "json:" + self.source, *options)

    def assert_refuses_to_start(self, status, pattern, *options):
        daemon = self.launch(*options)
        self.assertEqual(status, daemon.wait(), daemon.err)
        self.assertEqual(1, len(daemon.err), daemon.err)
        self.assertRegex(daemon.err[0], "^tunnelsnmpd: ")
        self.assertRegex(daemon.err[0], pattern)
        self.assertEqual([], daemon.out)
        self.assertFalse(os.path.exists(self.control))

    # The clients

    def ctl(self, *arguments, status=0, text=None):
        done = subprocess.run([PATHS.ctl, "--control", self.control, *arguments], input=text,
                              capture_output=True, text=True, timeout=PATIENCE * 2, check=False)
        self.assertEqual(status, done.returncode, f"{arguments}: {done.stdout}{done.stderr}")
        return done.stderr if status else done.stdout

    def ctl_json(self, *arguments):
        return json.loads(self.ctl("--json", *arguments))

    def snmp(self, command, oids, access=("-v2c", "-c", "public"), address=None, check=True):
        """Runs a net-snmp client; returns {numeric oid: value} and what it complained of."""
        done = subprocess.run([*self.place, command, "-On", "-Oe", "-OU", "-t", "5", "-r", "1",
                               *access, address or self.address, *oids],
                              env=environment(self.folder), capture_output=True, text=True,
                              timeout=PATIENCE, check=False)
        if check:
            self.assertEqual("", done.stderr.replace("Created directory: "
                             + self.path("cert_indexes"), "").strip())
        values = {}
        for line in done.stdout.splitlines():
            if " = " in line:
                oid, value = line.split(" = ", 1)
                values[oid] = value.strip()
        return values, done.stdout + done.stderr

    def walk(self, access=("-v2c", "-c", "public"), command="snmpbulkwalk"):
        values, _ = self.snmp(command, [TUNNEL_MIB], access)
        return {oid: value for oid, value in values.items() if "No more variables" not in value}

    def conn_states(self):
        """{ifIndex: name of the state}: the vendor table as a manager with its MIB reads it."""
        mib = (REPOSITORY / "mibs" / "VELMORA-TUNNEL-MIB.txt").read_text()
        os.makedirs(self.path("mibs"), exist_ok=True)
        self.write("mibs/VELMORA-TUNNEL-MIB.txt",
                   mib.replace("enterprises 32473", f"enterprises {PATHS.enterprise}"))
        imported = REPOSITORY / "tests" / "docs" / "mibs"
        done = subprocess.run(
            ["snmpbulkwalk", "-v2c", "-c", "public", "-t", "5", "-r", "1", "-Oqs", "-M",
             f"{imported}:{self.path('mibs')}", "-m", "VELMORA-TUNNEL-MIB", self.address,
             "velmoraIpsecTunnelIfTable"], env=environment(self.folder), capture_output=True,
            text=True, timeout=PATIENCE, check=True)
        lines = [line for line in done.stdout.splitlines() if "No more variables" not in line]
        rows = [re.fullmatch(r"velmoraIpsecTunnelIfConnState\.(\d+) (\w+)", line)
                for line in lines]
        self.assertNotIn(None, rows, done.stdout)
        return {int(row.group(1)): row.group(2) for row in rows}

    def patch(self, operation, path, value=None):
        self.ctl("patch", "-", text=json.dumps([{"op": operation, "path": path,
                                                 "value": value}]))

    def if_indexes(self):
        return sorted(row["ifIndex"] for row in self.ctl_json("show", "tables")["tunnelIfTable"])

    def wait_until(self, holds):
        end = time.monotonic() + PATIENCE
        while not holds():
            self.assertLess(time.monotonic(), end, "never happened")
            time.sleep(0.02)

    def expected_if_indexes(self):
        statuses = self.document["tunnelIntfStatusDir"]["intfStatus"]
        return sorted(index for intf, index in self.document["ifMib"]["ifIndexByIntfId"].items()
                      if intf in statuses)


class Serving(DaemonTest):
    def test_serves_what_the_file_says_in_every_version(self):
        config = self.write("access.conf", "rocommunity public 127.0.0.1\n" + V3_CONFIG)
        self.start_office("--config", config)
        bulk = self.walk()
        hop_limits = {oid: value for oid, value in bulk.items()
                      if oid.startswith(TUNNEL_IF_TABLE + ".1.4.")}
        statuses = self.document["tunnelIntfStatusDir"]["intfStatus"]
        self.assertEqual(
            {f"{TUNNEL_IF_TABLE}.1.4.{index}": f"INTEGER: {statuses[intf].get('hopLimit', 0)}"
             for intf, index in self.document["ifMib"]["ifIndexByIntfId"].items()
             if intf in statuses}, hop_limits)
        self.assertEqual(bulk, self.walk(("-v1", "-c", "public"), "snmpwalk"))
        self.assertEqual(bulk, self.walk(("-v2c", "-c", "public"), "snmpwalk"))
        self.assertEqual(bulk, self.walk(V3))

    def test_serves_the_vendor_table(self):
        self.start_office()
        self.assertEqual({2001: "up", 2002: "connecting", 2008: "up", 2009: "rekeying",
                          2010: "down"}, self.conn_states())

    def test_a_connection_state_is_that_of_the_moment_of_the_request(self):
        self.start_office()
        place = "/ikeStatus/appliedProfiles/partner/appliedIntfId/50331658"
        for state in ("connecting", "ikeUp", "up", "rekeying", "closing", "unknown"):
            self.patch("replace", place + "/connState", state)
            self.assertEqual(state, self.conn_states()[2010])
        self.patch("remove", "/ikeStatus/ipsecTunnelInfo/50331658")
        self.assertEqual("unknown", self.conn_states()[2010])

    def test_the_vendor_table_follows_the_ipsec_flag(self):
        self.start_office()
        before = self.conn_states()
        self.patch("replace", "/tunnelIntfStatusDir/intfStatus/50331651/ipsec", True)
        self.assertEqual({**before, 2003: "unknown"}, self.conn_states())
        self.patch("replace", "/tunnelIntfStatusDir/intfStatus/50331651/ipsec", False)
        self.assertEqual(before, self.conn_states())

    def test_a_row_outlives_its_ifindex_as_the_vendor_mib_says(self):
        self.start_office()
        intf, moved = "/ifMib/ifIndexByIntfId/50331649", "/ifMib/ifIndexByIntfId/50331656"
        before = self.conn_states()
        self.patch("replace", moved, 4711)
        self.patch("remove", intf)
        left = {**before, 4711: "up"}
        self.assertEqual(left, self.conn_states(), "2001 and 2008 are left behind")
        self.patch("remove", "/tunnelIntfStatusDir/intfStatus/50331649")
        self.assertEqual(left, self.conn_states(), "2001 is left though the interface has gone")
        self.patch("add", "/ifMib/ifIndexByIntfId/7", 2008)
        self.assertEqual(left, self.conn_states(), "2008 is another interface's, but no tunnel's")
        self.patch("add", "/tunnelIntfStatusDir/intfStatus/7", {"mode": "gre"})
        del left[2008]
        self.assertEqual(left, self.conn_states(), "2008 is another tunnel's, without IPsec")
        self.ctl("restart-machines")
        self.ctl("wait-ready")
        del left[2001]
        self.assertEqual(left, self.conn_states())

    def test_get_answers_single_cells(self):
        self.start_office()
        index = self.expected_if_indexes()[0]
        cell = f"{TUNNEL_IF_TABLE}.1.4.{index}"
        values, _ = self.snmp("snmpget", [cell, f"{TUNNEL_IF_TABLE}.1.4.1"])
        self.assertRegex(values[cell], r"^INTEGER: \d+$")
        self.assertRegex(values[f"{TUNNEL_IF_TABLE}.1.4.1"], "No Such Instance")

    def test_the_iterator_that_is_chosen_finds_the_rows(self):
        walks, steps = {}, {}
        for iterator in ("host", "stock"):
            daemon = self.start_office("--iterator", iterator)
            walks[iterator] = self.walk()
            self.ctl("trace", "set", "Snmp=2")
            self.snmp("snmpget", [f"{TUNNEL_IF_TABLE}.1.4.1"])
            daemon.wait_for_line(daemon.err, "null data context in request")
            steps[iterator] = sum("_get_next_data_point" in line for line in daemon.err)
            daemon.end()
        self.assertEqual(walks["stock"], walks["host"])
        # Only the daemon's own sees from the first row that there is no such one.
        self.assertEqual(0, steps["host"])
        self.assertGreater(steps["stock"], 0)

    def test_nobody_else_may_read(self):
        self.start_office()
        _, output = self.snmp("snmpget", [f"{TUNNEL_IF_TABLE}.1.4.1"],
                              ("-v2c", "-c", "private", "-t", "0.3", "-r", "0"), check=False)
        self.assertRegex(output, "Timeout")

    def test_listens_where_it_says_and_nowhere_else(self):
        config = self.write("access.conf", "rocommunity public 127.0.0.1\n"
                            f"agentaddress udp:127.0.0.1:0,unix:{self.path('extra')}\n"
                            "master agentx\n"
                            f"agentXSocket unix:{self.path('master')}\n")
        daemon = self.start_office("--config", config)
        inodes = set()
        for descriptor in os.listdir(f"/proc/{daemon.child.pid}/fd"):
            try:
                target = os.readlink(f"/proc/{daemon.child.pid}/fd/{descriptor}")
            except FileNotFoundError:
                continue
            inodes.update(re.findall(r"^socket:\[(\d+)\]$", target))
        bound = []
        for protocol in ("udp", "udp6", "tcp", "tcp6"):
            with open(f"/proc/{daemon.child.pid}/net/{protocol}", encoding="ascii") as table:
                for line in table.readlines()[1:]:
                    fields = line.split()
                    if fields[9] in inodes:
                        bound.append((protocol, int(fields[1].split(":")[1], 16)))
        self.assertEqual([("udp", int(self.address.rsplit(":", 1)[1]))], bound)
        self.assertFalse(os.path.exists(self.path("extra")))
        self.assertFalse(os.path.exists(self.path("master")))

    def test_reads_two_sources(self):
        other = self.write("other.json", json.dumps({
            "tunnelIntfStatusDir": {"intfStatus": {"7": {
                "srcAddr": "192.0.2.1", "dstAddr": "192.0.2.2", "mode": "gre"}}},
            "ifMib": {"ifIndexByIntfId": {"7": 77}}}))
        self.start_office("--source", "json:" + other)
        self.assertEqual(sorted(self.expected_if_indexes() + [77]), self.if_indexes())
        names = [source["name"] for source in self.ctl_json("status")["sources"]]
        self.assertEqual(["json:" + self.source, "json:" + other], names)

    def test_traces_one_line_for_each_message(self):
        daemon = self.start_office("--trace", "TunnelIfTableSm=7,9")
        daemon.wait_for_line(daemon.err, r"^TunnelIfTableSm/9 .*: initialized$")

    def test_writes_no_files(self):
        before = set(os.listdir(self.folder))
        self.start_office()
        self.assertEqual(before | {"control.sock"}, set(os.listdir(self.folder)))


class Control(DaemonTest):
    def test_status_tells_that_everything_is_well(self):
        self.start_office()
        status = self.ctl_json("status")
        self.assertTrue(status["ready"])
        self.assertEqual("udp:" + self.address, status["servedAt"])
        self.assertEqual(PATHS.enterprise, status["enterprise"])
        self.assertGreater(len(status["machines"]), 0)
        for machine in status["machines"]:
            self.assertTrue(machine["ready"], machine)
            self.assertFalse(machine["reconciling"], machine)
            self.assertGreater(len(machine["inputs"]), 0)
        self.assertEqual("inSync", status["sources"][0]["state"])
        self.assertEqual({"notifiees": 0, "tasks": 0, "callbacks": 0, "linesLost": 0,
                          "linesHeldBack": 0, "last": ""},
                         status["failures"])
        self.assertRegex(self.ctl("status"), r"(?m)^ready +yes$")

    def test_tables_show_the_rows_that_snmp_serves(self):
        self.start_office()
        self.assertEqual(self.expected_if_indexes(), self.if_indexes())
        self.assertRegex(self.ctl("show", "tables"),
                         rf"(?m)^tunnelIfTable: {len(self.expected_if_indexes())} rows$")

    def test_patch_changes_state_and_tables(self):
        self.start_office()
        patch = [{"op": "add", "path": "/ifMib/ifIndexByIntfId/7", "value": 4711},
                 {"op": "add", "path": "/tunnelIntfStatusDir/intfStatus/7",
                  "value": {"srcAddr": "192.0.2.1", "dstAddr": "192.0.2.2", "hopLimit": 9}}]
        self.ctl("patch", "-", text=json.dumps(patch))
        self.assertEqual("4711", self.ctl("show", "state", "/ifMib/ifIndexByIntfId/7").strip())
        cell = f"{TUNNEL_IF_TABLE}.1.4.4711"
        self.assertEqual({cell: "INTEGER: 9"}, self.snmp("snmpget", [cell])[0])
        removal = self.write("removal.json", json.dumps(
            [{"op": "remove", "path": "/tunnelIntfStatusDir/intfStatus/7"},
             {"op": "remove", "path": "/ifMib/ifIndexByIntfId/7"}]))
        self.ctl("patch", removal)
        self.assertRegex(self.snmp("snmpget", [cell])[0][cell], "No Such Instance")

    def test_patch_refusals_say_why(self):
        self.start_office()
        self.assertRegex(self.ctl("patch", "-", text='[{"op": "add"}]', status=1),
                         "^tunnelsnmpctl: .*operation 0")
        self.assertRegex(self.ctl("patch", "-", text="{", status=2), "no JSON")
        self.assertRegex(self.ctl("patch", self.path("none"), status=2), "none")

    def test_patch_goes_on_when_a_machine_raises(self):
        # An ifIndex that goes while the interface still has its status.
        daemon = self.start_office()
        intf = next(iter(self.document["ifMib"]["ifIndexByIntfId"]))
        self.ctl("patch", "-", text=json.dumps(
            [{"op": "remove", "path": f"/ifMib/ifIndexByIntfId/{intf}"}]))
        daemon.wait_for_line(daemon.err, rf"^tunnelsnmpd: after the change of /ifMib.*/{intf}: ")
        failures = self.ctl_json("status")["failures"]
        self.assertEqual(1, failures["notifiees"])
        self.assertRegex(failures["last"], f"/ifMib/ifIndexByIntfId/{intf}")

    def test_trace_levels_change_while_it_runs(self):
        daemon = self.start_office()
        self.ctl("trace", "set", "TunnelIfTableSm=6-7")
        self.assertRegex(self.ctl("trace", "list"), r"(?m)^TunnelIfTableSm +6-7$")
        self.ctl("patch", "-", text='[{"op": "add", "path": "/ifMib/ifIndexByIntfId/7", '
                                    '"value": 4711}]')
        daemon.wait_for_line(daemon.err, r"^TunnelIfTableSm/6 .*: filter\( tisOpt \) failed")
        self.assertRegex(self.ctl("trace", "set", "TunnelIfTableSm=12", status=1), "12")
        self.assertRegex(self.ctl("trace", "set", "TunnelIfTableSm", status=2), "HANDLE=LEVELS")
        self.assertRegex(self.ctl("trace", "set", "Nobody=1", status=1),
                         "no trace handle Nobody, but .*Snmp.*TunnelIfTableSm")
        self.assertNotIn("Nobody", self.ctl("trace", "list"))

    def test_every_documented_handle_is_known_from_the_load_on(self):
        self.start()  # without a source, and nothing has been asked for yet
        headings = re.findall(r"(?m)^## (.*)$", document("traces.md"))
        documented = {handle for heading in headings for handle in re.findall("`(.*?)`", heading)}
        self.assertEqual(documented, set(self.ctl_json("trace", "list")))
        self.ctl("trace", "set", "TunnelIntfSnmp=5")
        self.assertRegex(self.ctl("trace", "list"), r"(?m)^TunnelIntfSnmp +5$")

    def test_a_trace_follows_one_event_through_each_machine(self):
        daemon = self.start_office()
        for machine in ("TunnelIfTableSm", "TunnelInetConfigTableSm", "IpsecTunnelIfTableSm"):
            self.ctl("trace", "set", machine + "=7")
        self.ctl("patch", "-", text=json.dumps(
            [{"op": "add", "path": "/ifMib/ifIndexByIntfId/7", "value": 4711},
             {"op": "add", "path": "/tunnelIntfStatusDir/intfStatus/7",
              "value": {"srcAddr": "192.0.2.1", "dstAddr": "192.0.2.2", "mode": "gre",
                        "ipsec": True}}]))
        for pattern in (r"^TunnelIfTableSm/7 .*: tisStream = from\( .*intfId=7 ",
                        r"^TunnelIfTableSm/7 .*: into\( .* \): inserting k1=4711, value=Tuple",
                        r"^TunnelInetConfigTableSm/7 .*: addStream = merge\( .* ifIndex=4711 ",
                        r"^TunnelInetConfigTableSm/7 .*: into\( mib.*: inserting k1=Value\(",
                        r"^IpsecTunnelIfTableSm/7 .*: tisIpsecStream = .*: intfId=7$",
                        r"^IpsecTunnelIfTableSm/7 .*: into\( .* \): inserting k1=4711, "):
            daemon.wait_for_line(daemon.err, pattern)

    def test_machines_that_start_anew_reconcile_stale_rows_and_keep_every_other(self):
        self.start_office()
        served = self.walk()
        intf, if_index = next(iter(self.document["ifMib"]["ifIndexByIntfId"].items()))
        path = f"/ifMib/ifIndexByIntfId/{intf}"
        move = [{"op": "replace", "path": path, "value": 4711}]
        self.ctl("patch", "-", text=json.dumps(move))
        move[0]["value"] = if_index
        self.ctl("patch", "-", text=json.dumps(move))
        self.assertIn(4711, self.if_indexes(), "the row under the other ifIndex stays")
        self.ctl("restart-machines")
        self.ctl("wait-ready")
        self.assertEqual(served, self.walk())

    def test_the_rest_of_the_commands_answer(self):
        self.start_office()
        self.assertIn("agent-task-exceptions", self.ctl_json("show", "counters"))
        self.assertRegex(self.ctl("show", "counters"), r"(?m)^agent-task-exceptions +0$")
        self.assertRegex(self.ctl("version"), r"^tunnelsnmpctl \S+\ntunnelsnmpd \S+\n$")
        self.assertIsInstance(self.ctl_json("show", "tasks"), list)
        self.assertEqual(self.document["ifMib"],
                         self.ctl_json("show", "state", "/ifMib"))
        self.assertRegex(self.ctl("show", "state", "/none", status=1), "/none")

    def test_without_a_daemon_the_client_says_what_to_do(self):
        for command in (["status"], ["wait-ready", "--timeout", "0.1"]):
            says = self.ctl(*command, status=2)
            self.assertRegex(says, "^tunnelsnmpctl: cannot reach the daemon at .*control.sock: .*"
                                   "is tunnelsnmpd running\\?")
            self.assertEqual(1, says.count("\n"))

    def test_the_client_refuses_wrong_usage(self):
        for arguments in ([], ["dance"], ["show"], ["patch"], ["wait-ready", "--timeout", "soon"]):
            self.assertRegex(self.ctl(*arguments, status=2), "tunnelsnmpctl --help")

    def test_the_client_waits_for_a_daemon_that_is_about_to_start(self):
        waiting = Process([PATHS.ctl, "--control", self.control, "wait-ready", "--timeout",
                           str(PATIENCE)])
        self.addCleanup(waiting.kill)
        self.launch("--listen", "udp:127.0.0.1:0", "--source", "json:" + self.source)
        self.assertEqual(0, waiting.wait(), waiting.err)

    def test_two_daemons_do_not_share_a_socket(self):
        self.start_office()
        second = self.launch("--listen", "udp:127.0.0.1:0")
        self.assertEqual(1, second.wait())
        self.assertRegex("\n".join(second.err), "another daemon is listening there")
        self.ctl("status")

    def test_a_socket_left_by_a_killed_daemon_is_replaced(self):
        first = self.start_office()
        first.kill()
        self.assertTrue(os.path.exists(self.control))
        self.start_office()
        self.assertEqual(1, self.ctl_json("show", "counters")["agent-control-stale-sockets"])


class Signals(DaemonTest):
    def test_term_and_int_end_it_cleanly_within_a_second(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            daemon = self.start_office()
            self.walk()
            status, seconds = daemon.end(number)
            self.assertEqual((0, []), (status, daemon.err))
            self.assertLess(seconds, 1 if not PATHS.slow else PATIENCE)
            self.assertFalse(os.path.exists(self.control))

    def test_term_ends_it_while_a_client_hangs_on_a_long_answer(self):
        daemon = self.start_office()
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(self.control)
            client.sendall(b'{"command": "tables/show"}\n' * 2000)
            status, seconds = daemon.end()
        self.assertEqual(0, status, daemon.err)
        self.assertLess(seconds, 1 if not PATHS.slow else PATIENCE)

    def test_hup_replaces_the_access_rules(self):
        config = self.write("access.conf", "rocommunity public 127.0.0.1\n" + V3_CONFIG)
        daemon = self.start_office("--config", config)
        cell = [f"{TUNNEL_IF_TABLE}.1.4.{self.expected_if_indexes()[0]}"]
        self.assertEqual(1, len(self.snmp("snmpget", cell, V3)[0]))
        self.write("access.conf", "rocommunity other 127.0.0.1\n")
        daemon.child.send_signal(signal.SIGHUP)
        self.wait_until(lambda: self.ctl_json("show", "counters")["agent-rereads"] == 1)
        self.assertEqual(1, len(self.snmp("snmpget", cell, ("-v2c", "-c", "other"))[0]))
        quick = ("-t", "0.3", "-r", "0")
        _, says = self.snmp("snmpget", cell, ("-v2c", "-c", "public", *quick), check=False)
        self.assertRegex(says, "Timeout")
        _, says = self.snmp("snmpget", cell, V3, check=False)
        self.assertRegex(says, "authorizationError")

    def test_hup_reads_the_source_again(self):
        daemon = self.start_office()
        reads = self.ctl_json("status")["sources"][0]["fullReads"]
        daemon.child.send_signal(signal.SIGHUP)
        self.wait_until(lambda: self.ctl_json("status")["sources"][0]["fullReads"] > reads)
        self.assertEqual(self.expected_if_indexes(), self.if_indexes())

    def test_a_bad_configuration_is_reported_and_survived(self):
        config = self.write("access.conf", "rocommunity public 127.0.0.1\n")
        daemon = self.start_office("--config", config)
        self.write("access.conf", "rocommunity public 127.0.0.1\nnonsense 7\n")
        self.assertRegex(self.ctl("reread", status=1), "nonsense")
        daemon.wait_for_line(daemon.err, "^tunnelsnmpd: .*line 2: .*nonsense")
        self.assertNotEqual({}, self.walk())
        os.remove(config)
        self.assertRegex(self.ctl("reread", status=1), "cannot read the configuration")
        self.assertNotEqual({}, self.walk())
        self.write("access.conf", "rocommunity public 127.0.0.1\n")
        self.ctl("reread")

    def test_rereads_answer_when_all_is_read_also_when_a_client_has_gone(self):
        self.start_office()
        statuses = {str(number): {} for number in range(1, 5001)}
        self.write("tunnels.json", json.dumps({"tunnelIntfStatusDir": {"intfStatus": statuses}}))
        clients = [socket.socket(socket.AF_UNIX) for _ in range(3)]
        for client in clients:
            client.connect(self.control)
            client.sendall(b'{"command": "reread"}\n')
        clients[0].close()
        for client in clients[1:]:
            with client, client.makefile() as answers:
                self.assertEqual({"ok": True, "result": {}}, json.loads(answers.readline()))
        source = self.ctl_json("status")["sources"][0]
        self.assertEqual((False, 5000), (source["reading"], source["records"]["intfStatus"]))

    def test_a_broken_source_is_reported_and_its_last_state_stays(self):
        self.start_office()
        self.write("tunnels.json", "{")
        self.ctl("reread", status=1)
        source = self.ctl_json("status")["sources"][0]
        self.assertEqual("degraded", source["state"])
        self.assertNotEqual("", source["lastError"])
        self.assertEqual(self.expected_if_indexes(), self.if_indexes())


class Steps(DaemonTest):
    """docs/startup.md names the steps of the start and of the stop."""

    def documented(self, title):
        section = re.search(rf"(?ms)^## {title}$(.*?)(^## |\Z)", document("startup.md")).group(1)
        return re.findall(r"(?m)^\| `(.*?)` \|", section)

    def taken(self, daemon):
        lines = (re.match(r"tunnelsnmpd/1 \S+ \S+: (.*)$", line) for line in daemon.err)
        return [line.group(1) for line in lines if line]

    def test_the_start_and_the_stop_take_the_documented_steps_in_order(self):
        daemon = self.start_office("--trace", "tunnelsnmpd=1")
        daemon.wait_for_line(daemon.err, ": ready$")
        self.assertEqual(0, daemon.end()[0], daemon.err)
        self.assertEqual(self.documented("Start") + self.documented("Stop"), self.taken(daemon))

    def test_a_start_that_fails_is_undone_in_the_documented_steps(self):
        for step, option in (("sources started", ("--source", "json:" + self.path("none.json"))),
                             ("SNMP set up", ("--config", self.path("none.conf"))),
                             ("listening", ("--listen", "pigeon:roof"))):
            daemon = self.launch("--trace", "tunnelsnmpd=1", *option)
            self.assertNotEqual(0, daemon.wait())
            start = self.documented("Start")
            self.assertEqual(start[:start.index(step)] + self.documented("Stop"),
                             self.taken(daemon))

    def test_machines_that_start_anew_take_two_steps_again(self):
        daemon = self.start_office("--trace", "tunnelsnmpd=1")
        daemon.wait_for_line(daemon.err, ": ready$")
        before = len(self.taken(daemon))
        self.ctl("restart-machines")
        self.wait_until(lambda: self.taken(daemon)[before:] == ["machines made", "ready"])


class WrongStarts(DaemonTest):
    def test_wrong_options_are_usage_errors(self):
        self.assert_refuses_to_start(2, "--speed", "--speed", "9")
        self.assert_refuses_to_start(2, "--trace Snmp", "--trace", "Snmp")
        self.assert_refuses_to_start(2, "--trace: .*no trace handle Nobody, but .*TunnelIfTableSm",
                                     "--trace", "Nobody=1")
        self.assert_refuses_to_start(2, "--agentx", "--agentx", "--listen", "udp:127.0.0.1:0")

    def test_an_unknown_source_is_a_configuration_error(self):
        self.assert_refuses_to_start(2, "carrier-pigeon", "--source", "carrier-pigeon")

    def test_a_second_source_of_links_is_a_configuration_error(self):
        self.assert_refuses_to_start(2, "another source tells of links", "--source", "linux",
                                     "--source", "linux:kinds=+vxlan")

    def test_a_missing_or_broken_file_is_an_error_that_names_it(self):
        self.assert_refuses_to_start(1, "none.json", "--source", "json:" + self.path("none.json"))
        broken = self.write("broken.json", "{")
        self.assert_refuses_to_start(1, "broken.json", "--source", "json:" + broken)

    def test_a_configuration_that_cannot_be_used_is_an_error_that_names_it(self):
        self.assert_refuses_to_start(2, "none.conf", "--config", self.path("none.conf"))
        config = self.write("bad.conf", "rocommunity public 127.0.0.1\nnonsense 7\n")
        self.assert_refuses_to_start(2, "bad.conf: line 2: .*nonsense", "--config", config)
        config = self.write("empty.conf", "")
        self.assert_refuses_to_start(2, "no access control.*empty.conf", "--config", config)

    def test_a_plug_in_that_cannot_be_used_is_an_error_that_names_it(self):
        self.assert_refuses_to_start(1, "none.so", "--plugin", self.path("none.so"))
        self.assert_refuses_to_start(1, "tunnels.json", "--plugin", self.source)

    def test_a_port_in_use_is_an_error_that_names_it(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            other.bind(("127.0.0.1", 0))
            address = f"udp:127.0.0.1:{other.getsockname()[1]}"
            self.assert_refuses_to_start(1, f"{address}.*in use.*--listen", "--listen", address)

    def test_an_address_that_is_none_is_an_error_that_names_it(self):
        self.assert_refuses_to_start(1, "pigeon:roof", "--listen", "pigeon:roof")


def many_tunnels(count):
    """A document of so many tunnels, and their ifIndexes."""
    ids = [str(number * 7919) for number in range(1, count + 1)]
    statuses = {intf: {"srcAddr": f"10.{n >> 16 & 255}.{n >> 8 & 255}.{n & 255}",
                       "dstAddr": "192.0.2.1", "mode": "gre", "hopLimit": n % 256}
                for n, intf in enumerate(ids, 1)}
    return {"ifMib": {"ifIndexByIntfId": {intf: n for n, intf in enumerate(ids, 1)}},
            "tunnelIntfStatusDir": {"intfStatus": statuses}}


class Start(DaemonTest):
    def test_answers_in_order_while_ten_thousand_tunnels_are_scanned(self):
        count = 2000 if PATHS.slow else 10000
        source = self.write("many.json", json.dumps(many_tunnels(count)))
        daemon = self.launch("--listen", "udp:127.0.0.1:0", "--source", "json:" + source)
        self.address = daemon.wait_for_line(
            daemon.out, r"^tunnelsnmpd: listening on (\S+)$").group(1).removeprefix("udp:")
        column = f"{TUNNEL_IF_TABLE}.1.4"
        ready = False
        while not ready:  # the last walk begins when everything is there
            status = self.ctl_json("status")
            ready = status["ready"]
            for machine in status["machines"]:
                for child in machine["inputs"]:
                    self.assertLessEqual(child["scanned"], child["inputSize"])
            cells, _ = self.snmp("snmpbulkwalk", [column])
            indexes = [int(oid.rsplit(".", 1)[1]) for oid in cells if oid.startswith(column)]
            self.assertEqual(sorted(set(indexes)), indexes)
        self.assertEqual(list(range(1, count + 1)), indexes)
        self.assertRegex(self.ctl("status"), rf"(?m)^tunnelIfTableSm +intfStatusSm0 .* {count}$")
        self.assertEqual(0, daemon.end()[0], daemon.err)


class Memory(DaemonTest):
    def test_its_malloc_is_one_that_suits_packets(self):
        if PATHS.slow:
            self.skipTest("a sanitizer brings its own")
        daemon = self.start_office()
        with open(f"/proc/{daemon.child.pid}/maps", encoding="utf-8") as maps:
            self.assertIn("/libmimalloc.so", maps.read())

    @unittest.skipUnless(shutil.which("valgrind"), "valgrind is not installed")
    def test_a_short_life_leaks_nothing_of_ours(self):
        if PATHS.slow:
            self.skipTest("the sanitizers watch this build")
        log = self.path("valgrind.log")
        valgrind = ["valgrind", "--leak-check=full", "--show-leak-kinds=definite",
                    "--keep-debuginfo=yes", "--num-callers=30", "--log-file=" + log]
        daemon = Process([*valgrind, PATHS.daemon, "--control", self.control, "--listen",
                          "udp:127.0.0.1:0", "--source", "json:" + self.source],
                         environment(self.folder))
        self.addCleanup(daemon.kill)
        self.address = daemon.wait_for_line(
            daemon.out, r"^tunnelsnmpd: listening on (\S+)$").group(1).removeprefix("udp:")
        self.ctl("wait-ready", "--timeout", str(PATIENCE))
        self.assertNotEqual({}, self.walk())
        self.ctl("patch", "-", text='[{"op": "add", "path": "/ifMib/ifIndexByIntfId/7", '
                                    '"value": 4711}]')
        self.ctl("restart-machines")
        self.ctl("show", "tables")
        self.assertEqual(0, daemon.end()[0], daemon.err)
        with open(log, encoding="utf-8") as file:
            blocks = re.split(r"\n==\d+== \n", file.read())
        ours = re.compile("tunnelsnmp|TunnelIntfSnmp|StateDb|Sources::|Agent::|Zel::|Kiln::")
        for block in blocks:
            wrong = "definitely lost in" in block or "Invalid" in block or "ninitialised" in block
            self.assertFalse(wrong and ours.search(block), block)
        self.assertRegex("\n".join(blocks), "HEAP SUMMARY")


def main(description):
    """Runs the tests of the program with the binaries that the command line names."""
    global PATHS
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--ctl", required=True)
    parser.add_argument("--example", required=True, help="the JSON document to serve")
    parser.add_argument("--enterprise", type=int, default=32473, help="the vendor table's number")
    parser.add_argument("--slow", action="store_true",
                        help="the binaries are instrumented: the end may take its time")
    parser.add_argument("--thorough", action="store_true",
                        help="with what takes minutes: see tests/attack")
    PATHS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)


if __name__ == "__main__":
    main(__doc__)
