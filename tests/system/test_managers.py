"""The real daemon, read by managers of three makes: net-snmp's programs, Net::SNMP for Perl, pysnmp.

Both tables, by GET, GETNEXT and GETBULK, must be what the document says, to each of them; and no
SET changes anything. Run it with --daemon FILE; see CMakeLists.txt.
"""

import argparse
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time
import unittest

from managers import (IF_TABLE, INET_CONFIG_TABLE, TABLES, NetSnmpPrograms, Script,
                      expected_lines)

PATIENCE = 60  # seconds for the daemon to start, to fill its tables, and to stop
BULK_SIZES = (1, 3, 10, 50, 1000)

# The document: tunnels of all kinds, some of which claim the same key.

ENDPOINTS = [
    ("192.0.2.10", "198.51.100.1", "gre"), ("192.0.2.10", "198.51.100.1", "direct"),
    ("192.0.2.10", "198.51.100.1", "vti"), ("192.0.2.10", "198.51.100.1", "xfrm"),
    ("192.0.2.10", "198.51.100.1", "gre"), ("192.0.2.10", "198.51.100.1", "gre"),
    ("192.0.2.10", "198.51.100.128", "gre"), ("192.0.2.9", "198.51.100.1", "gre"),
    ("2001:db8:b0::10", "2001:db8:a0::1", "gre"), ("2001:db8:b0::10", "2001:db8:a0::1", "gre"),
    ("2001:db8:b0::10", "2001:db8:a0::ff", "direct"), ("fe80::1", "2001:db8:a0::1", "geneve"),
    ("192.0.2.10", "2001:db8:a0::1", "gre"), ("2001:db8:b0::10", "198.51.100.1", "gre"),
    ("", "198.51.100.1", "gre"), ("192.0.2.10", "", "sitSpecial"), ("", "", "wireguard"),
    ("0.0.0.0", "198.51.100.1", "gre"), ("192.0.2.10", "0.0.0.0", "gre"),
    ("::", "2001:db8:a0::1", "gre"), ("2001:db8:b0::10", "::", "vxlan"),
    ("", "2001:db8:a0::1", "direct"), ("255.255.255.255", "255.0.0.255", "erspan"),
] + [(f"10.{n}.0.1", f"10.{200 - n}.0.2", "gre") for n in range(1, 18)]


def document():
    statuses, if_indexes = {}, {}
    for n, (source, destination, mode) in enumerate(ENDPOINTS):
        statuses[str(2**32 + n)] = {"srcAddr": source, "dstAddr": destination, "mode": mode,
                                    "hopLimit": n * 6, "tos": n, "ipsec": n % 3 == 0}
        if_indexes[str(2**32 + n)] = 2147483647 - 37 * (n * 7 % len(ENDPOINTS))
    return {"tunnelIntfStatusDir": {"intfStatus": statuses},
            "ifMib": {"ifIndexByIntfId": if_indexes}}


class Daemon:
    """tunnelsnmpd over a document, from its start to its end."""

    def __init__(self, program, doc):
        self.folder = tempfile.TemporaryDirectory()
        path = pathlib.Path(self.folder.name)
        (path / "tunnels.json").write_text(json.dumps(doc))
        (path / "access.conf").write_text("rocommunity public 127.0.0.1\n"
                                          "rwcommunity private 127.0.0.1\n")
        self.process = subprocess.Popen(
            [program, "--listen", "udp:127.0.0.1:0", "--source", f"json:{path / 'tunnels.json'}",
             "--config", str(path / "access.conf"), "--control", str(path / "ctl.sock")],
            stdout=subprocess.PIPE, text=True)
        ready = self.process.stdout.readline()
        found = re.fullmatch(r"tunnelsnmpd: listening on udp:127\.0\.0\.1:(\d+)\n", ready)
        if not found:
            self.stop()
            raise AssertionError(f"the daemon says {ready!r} instead of where it listens")
        self.port = int(found[1])

    def stop(self):
        self.process.terminate()
        status = self.process.wait(PATIENCE)
        self.process.stdout.close()
        self.folder.cleanup()
        return status


class Managers(unittest.TestCase):
    daemon_program = None

    @classmethod
    def setUpClass(cls):
        doc = document()
        cls.expected = expected_lines(doc)
        cls.daemon = Daemon(cls.daemon_program, doc)
        cls.addClassCleanup(cls._stop)
        port = cls.daemon.port
        cls.net_snmp = NetSnmpPrograms(port)
        cls.managers = {"net-snmp": cls.net_snmp,
                        "Net::SNMP": Script("perl", "manager_net_snmp.pl", port),
                        "pysnmp": Script(sys.executable, "manager_pysnmp.py", port)}
        cls.tables = cls._when_filled()

    @classmethod
    def _stop(cls):
        status = cls.daemon.stop()
        if status != 0:
            raise AssertionError(f"the daemon ended with status {status}")

    @classmethod
    def _when_filled(cls):
        """The tables as net-snmp's walk sees them once the machines have written them."""
        deadline = time.monotonic() + PATIENCE
        while True:
            tables = {table: cls.net_snmp.walk(table) for table in TABLES}
            if all(len(tables[table]) >= len(cls.expected[table]) for table in TABLES):
                return tables
            if time.monotonic() > deadline:
                raise AssertionError("the tables do not fill up: " + ", ".join(
                    f"{len(tables[table])} of {len(cls.expected[table])}" for table in TABLES))

    def for_each(self, check):
        for name, manager in self.managers.items():
            for table in TABLES:
                with self.subTest(manager=name, table=table):
                    check(manager, table)

    def test_the_tables_are_what_the_document_says(self):
        for table in TABLES:
            names = [line.split(" ", 1)[0] for line in self.tables[table]]
            self.assertEqual(names, [name for name, _ in self.expected[table]])
            for line, (name, allowed) in zip(self.tables[table], self.expected[table]):
                self.assertIn(line.split(" ", 1)[1], allowed, name)

    def test_a_contested_key_has_one_row(self):
        contested = [name for name, allowed in self.expected[INET_CONFIG_TABLE] if len(allowed) > 1]
        self.assertEqual(len(contested), 3, "the document has three")
        for name in contested:
            rows = [line for line in self.tables[INET_CONFIG_TABLE] if line.startswith(name + " ")]
            self.assertEqual(len(rows), 1, name)

    def test_every_walk_sees_the_same(self):
        self.for_each(lambda manager, table: self.assertEqual(manager.walk(table),
                                                              self.tables[table]))

    def test_every_bulk_walk_sees_the_same(self):
        def check(manager, table):
            for repetitions in BULK_SIZES:
                self.assertEqual(manager.bulk_walk(table, repetitions), self.tables[table],
                                 repetitions)
        self.for_each(check)

    def test_every_instance_is_read_by_its_own_name(self):
        def check(manager, table):
            lines = self.tables[table][::-1]
            for start in range(0, len(lines), 40):
                some = lines[start:start + 40]
                self.assertEqual(manager.get([line.split(" ", 1)[0] for line in some]), some)
        self.for_each(check)

    def test_every_instance_is_next_to_the_one_before(self):
        for table in TABLES:
            lines = self.tables[table]
            names = [table] + [line.split(" ", 1)[0] for line in lines]
            for start in range(0, len(lines), 20):
                some = lines[start:start + 20]
                self.assertEqual(self.net_snmp.get_next(names[start:start + len(some)]), some)

    def test_no_set_is_accepted(self):
        for line in self.tables[IF_TABLE][::7] + self.tables[INET_CONFIG_TABLE][::5]:
            name, kind, *_ = line.split(" ")
            value = ("i", "1") if kind == "INTEGER" else ("x", "0a000001")
            for community, error in (("private", "notWritable"), ("public", "noAccess")):
                done = subprocess.run(
                    ["snmpset", "-v2c", "-c", community, "-On", self.net_snmp.peer, name, *value],
                    capture_output=True, text=True, timeout=PATIENCE, check=False,
                    env={**os.environ, "MIBS": ""})
                self.assertNotEqual(done.returncode, 0, name)
                self.assertIn(error, done.stderr, name)
        self.assertEqual({table: self.net_snmp.walk(table) for table in TABLES}, self.tables)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--daemon", required=True)
    options, rest = parser.parse_known_args()
    Managers.daemon_program = options.daemon
    unittest.main(argv=[sys.argv[0], *rest])


main()
