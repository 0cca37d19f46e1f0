"""What a manager has to see of a document of tunnels, and managers of three makes that read an agent:
net-snmp's programs, Net::SNMP for Perl, pysnmp."""

import ipaddress
import os
import pathlib
import re
import subprocess

HERE = pathlib.Path(__file__).resolve().parent
IF_TABLE = "1.3.6.1.2.1.10.131.1.1.1"
INET_CONFIG_TABLE = "1.3.6.1.2.1.10.131.1.1.3"
TABLES = (IF_TABLE, INET_CONFIG_TABLE)
PATIENCE = 60  # seconds for one program
MODE_NUMBERS = {"gre": 3, "direct": 2}  # IANAtunnelType; every other mode is 1


# What a manager has to see of a document: {(column, index...): {allowed lines}}, by OID.

def octets(text):
    return ipaddress.ip_address(text).packed if text else b""


def address_type(text):
    return {0: 0, 4: 1, 16: 2}[len(octets(text))]


def is_zero(text):
    return not any(octets(text))


def tunnels(doc):
    for intf_id, status in doc["tunnelIntfStatusDir"]["intfStatus"].items():
        yield doc["ifMib"]["ifIndexByIntfId"][intf_id], status


def expected_if_table(doc):
    cells = {}
    for if_index, status in tunnels(doc):
        source, destination = status["srcAddr"], status["dstAddr"]
        for column, value in ((3, MODE_NUMBERS.get(status["mode"], 1)), (4, status["hopLimit"]),
                              (5, 2 if status["ipsec"] else 1), (6, status["tos"]),
                              (8, address_type(source or destination))):
            cells[column, if_index] = {f"INTEGER {value}"}
        cells[9, if_index] = {"OCTETS " + octets(source).hex()}
        cells[10, if_index] = {"OCTETS " + octets(destination).hex()}
    return cells


def expected_inet_config_table(doc):
    cells = {}
    for if_index, status in tunnels(doc):
        source, destination = status["srcAddr"], status["dstAddr"]
        if is_zero(source) or is_zero(destination):
            continue
        local, remote = octets(source), octets(destination)
        index = (address_type(source), len(local), *local, len(remote), *remote,
                 MODE_NUMBERS.get(status["mode"], 1), 1)
        # Whoever of several claimants is first has the row.
        cells.setdefault((6, *index), set()).add(f"INTEGER {if_index}")
        cells[(7, *index)] = {"INTEGER 1"}
        cells[(8, *index)] = {"INTEGER 5"}
    return cells


def expected_lines(doc):
    """For each table the instances in the order of their OIDs: (name, allowed values)."""
    return {table: [(".".join(map(str, (table, 1, *cell))), allowed)
                    for cell, allowed in sorted(cells(doc).items())]
            for table, cells in ((IF_TABLE, expected_if_table),
                                 (INET_CONFIG_TABLE, expected_inet_config_table))}


# Managers. Each reads lines "OID TYPE VALUE".

def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE, check=False,
                          env={**os.environ, "MIBS": "", "SNMPCONFPATH": "/nonexistent"})
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(command[:4])} ...: {done.stderr.strip()}")
    return done.stdout


class NetSnmpPrograms:
    OPTIONS = ("-v2c", "-cpublic", "-On", "-Oe", "-Ox", "-t10", "-r0")

    def __init__(self, port):
        self.peer = f"udp:127.0.0.1:{port}"

    def walk(self, root):
        return self._read("snmpwalk", self.peer, root)

    def bulk_walk(self, root, repetitions):
        return self._read("snmpbulkwalk", f"-Cr{repetitions}", self.peer, root)

    def get(self, names):
        return self._read("snmpget", self.peer, *names)

    def get_next(self, names):
        return self._read("snmpgetnext", self.peer, *names)

    def _read(self, program, *arguments):
        text = run(program, *self.OPTIONS, *arguments)
        joined = re.sub(r"\n(?!\.1\.)", " ", text).strip()  # long octet strings go over two lines
        return [self._line(line) for line in joined.split("\n") if "No more variables" not in line]

    @staticmethod
    def _line(line):
        name, value = line[1:].split(" = ", 1)
        kind, _, content = value.partition(": ")
        if kind == "INTEGER":
            return f"{name} INTEGER {content}"
        if kind == "Hex-STRING":
            return f"{name} OCTETS {content.replace(' ', '').lower()}"
        return f"{name} OCTETS " if value == '""' else line


class Script:
    """A manager program of our own around somebody's library."""

    def __init__(self, interpreter, script, port):
        self.command = (interpreter, str(HERE / script), str(port))

    def walk(self, root):
        return self._read("next", root)

    def bulk_walk(self, root, repetitions):
        return self._read("bulk", str(repetitions), root)

    def get(self, names):
        return self._read("get", *names)

    def _read(self, *arguments):
        return run(*self.command, *arguments).splitlines()
