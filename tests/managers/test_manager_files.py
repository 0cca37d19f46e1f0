"""What the files and the page of managers/ say of the daemon is so: they can be read, each OID in them is
served, each number of a state has its name, and the page's examples print what it shows.

What managers make of the files, managers/test tells."""

import itertools
import os
import re
import subprocess

import yaml

import manager_test
from manager_test import CONN_STATE, MANAGERS, ManagerTest, examples

test_daemon = manager_test.test_daemon
MIBS = manager_test.TESTS / "docs" / "mibs"
OID = re.compile(r"(?<![\d.])\.?(1\.3\.6\.1(?:\.\d+)+)")
OF_OTHERS = {"1.3.6.1.2.1.31.1.1.1.1": "ifName of the IF-MIB, where an agent serves that"}


def files():
    return sorted(path for path in MANAGERS.rglob("*") if path.is_file())


def states_of_the_mib():
    """{number: name} as the vendor module has them."""
    text = (manager_test.REPOSITORY / "mibs" / "VELMORA-TUNNEL-MIB.txt").read_text(encoding="utf-8")
    listed = re.search(r"VelmoraIpsecConnState ::=.*?INTEGER \{(.*?)\}", text, re.S)[1]
    return {int(number): name for name, number in re.findall(r"(\w+)\((\d+)\)", listed)}


class Files(ManagerTest):
    def loaded(self, name):
        return yaml.safe_load(self.shipped(name))

    def test_every_yaml_file_can_be_read(self):
        read = [yaml.safe_load(path.read_text(encoding="utf-8")) for path in files()
                if path.suffix in (".yml", ".yaml")]
        self.assertGreaterEqual(len(read), 6)
        self.assertNotIn(None, read)

    def test_every_oid_is_served(self):
        self.start_office()
        served = {prefix for oid in {**self.walk(), **self.conn_state_column()}
                  for prefix in itertools.accumulate(oid.lstrip(".").split("."), "{}.{}".format)}
        served.add(self.for_this_build(CONN_STATE) + ".7")  # the page shows that it is not there
        asked = 0
        for path in files():
            for oid in OID.findall(self.for_this_build(path.read_text(encoding="utf-8"))):
                if oid not in OF_OTHERS:
                    asked += 1
                    self.assertIn(oid, served, path.name)
        self.assertGreater(asked, 30)

    def conn_state_column(self):
        return self.snmp("snmpwalk", [self.for_this_build(CONN_STATE)])[0]

    def test_every_manager_knows_the_column_of_ipsec(self):
        for name in ("prometheus/snmp.yml", "zabbix/tunnels.yaml", "nagios/commands.cfg",
                     "nagios/icinga2.conf", "nagios/check_tunnels", "librenms/tunnels.yaml"):
            self.assertIn(self.for_this_build(CONN_STATE), self.shipped(name), name)

    def test_the_states_are_those_of_the_mib(self):
        states = states_of_the_mib()
        self.assertEqual(7, len(states))
        metric = next(metric for metric in self.loaded("prometheus/snmp.yml")["tunnels"]["metrics"]
                      if metric["name"] == "velmoraIpsecTunnelIfConnState")
        self.assertIn(", ".join(f"{number} {name}" for number, name in states.items()), metric["help"])
        self.assertEqual(states, metric["enum_values"])
        template = self.loaded("zabbix/tunnels.yaml")["zabbix_export"]["templates"][0]
        self.assertIn(states, [{int(mapping["value"]): mapping["newvalue"]
                                for mapping in value_map["mappings"]}
                               for value_map in template["valuemaps"]])
        sensor = self.loaded("librenms/tunnels.yaml")["modules"]["sensors"]["state"]["data"][0]
        self.assertEqual(states, {state["value"]: state["descr"] for state in sensor["states"]})

    def test_the_comments_number_the_states_as_the_mib(self):
        states = states_of_the_mib()
        said = re.findall(r"(\w+) \((\d)\)", (MANAGERS / "nagios/commands.cfg").read_text(encoding="utf-8"))
        self.assertGreaterEqual(len(said), 7)
        security = {"none": 1, "ipsec": 2}
        for name, number in said:
            self.assertEqual(int(number), security.get(name) or
                             next(key for key, value in states.items() if value == name))


class Page(ManagerTest):
    def test_its_examples_print_what_it_shows(self):
        self.start_office()
        os.mkdir(self.path("mibs"))
        self.write("mibs/VELMORA-TUNNEL-MIB.txt", self.shipped("../mibs/VELMORA-TUNNEL-MIB.txt"))
        own = test_daemon.environment(self.folder) | {"MIBDIRS": f"{MIBS}:{self.path('mibs')}"}
        del own["MIBS"]
        shown = examples("snmp", self.address)
        self.assertGreaterEqual(len(shown), 4)
        for command, lines in shown:
            done = subprocess.run(["sh", "-c", self.for_this_build(command)], env=own, check=False,
                                  capture_output=True, text=True, timeout=manager_test.PATIENCE)
            printed = [line.rstrip() for line in done.stdout.splitlines()]
            if "..." in lines:
                lines = lines[:lines.index("...")]
                printed = printed[:len(lines)]
            self.assertEqual([self.for_this_build(line).rstrip() for line in lines], printed,
                             command + done.stderr)


if __name__ == "__main__":
    test_daemon.main(__doc__)
