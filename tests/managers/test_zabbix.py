"""Debian's Zabbix server imports the template of managers/zabbix and polls the real daemon: the tunnels that
it discovers, what it shows of each, and its problems.

Seconds stand where the template has minutes, but for what Zabbix itself looks at twice a minute only."""

import json
import re

import yaml

import manager_test
from manager_test import MANAGERS, ManagerTest
from zabbix_server import ZabbixServer

test_daemon = manager_test.test_daemon
TEMPLATE = "Tunnels SNMP"
HURRIED = {"{$TUNNEL.DISCOVERY}": "2s", "{$TUNNEL.INTERVAL}": "1s", "{$TUNNEL.DOWN.TIME}": "3s",
           "{$TUNNEL.ANSWER.TIME}": "5s", "{$TUNNEL.GONE.TIME}": "30s"}
PATIENCE = 120  # seconds
SERVER = None
SECURITY, HOP_LIMIT, STATE = "tunnel.security", "tunnel.hoplimit", "tunnel.ipsec.state"


def setUpModule():  # pylint: disable=invalid-name
    global SERVER
    SERVER = ZabbixServer()


def tearDownModule():  # pylint: disable=invalid-name
    if SERVER is not None:
        SERVER.end()


class Discovery(ManagerTest):
    """What the template makes of the answers before tunnels are made of them."""

    def tunnels(self, *rows):
        rule = yaml.safe_load(self.shipped("zabbix/tunnels.yaml"))["zabbix_export"]["templates"][0][
            "discovery_rules"][0]
        script = self.write("script.js", rule["preprocessing"][0]["parameters"][0])
        text = self.run_program([SERVER.found("usr/bin/zabbix_js"), "-s", script, "-p",
                                 json.dumps(rows)], env=SERVER.environment)
        return json.loads(text)

    def assert_called(self, name, **macros):
        row = {"{#SNMPINDEX}": "7", "{#ENCAPS}": "3"} | {
            "{#" + macro + "}": value for macro, value in macros.items()}
        self.assertEqual(name, self.tunnels(row)[0]["{#TUNNEL}"])

    def test_a_tunnel_is_called_by_its_interface_and_its_remote_address(self):
        self.assert_called("gre1 to 198.51.100.1", IFNAME="gre1", REMOTE="C6 33 64 01 ")
        self.assert_called("7 to 198.51.100.1", REMOTE="C6 33 64 01")
        self.assert_called("7 to 2001:db8:0:0:0:0:0:1",
                           REMOTE="20 01 0D B8 00 00 00 00 00 00 00 00 00 00 00 01 ")
        self.assert_called("7", REMOTE="")
        self.assert_called("7")

    def test_octets_that_can_be_printed_are_octets(self):
        self.assert_called("7 to 65.66.67.68", REMOTE="ABCD")
        self.assert_called("7 to 65.66.32.52", REMOTE="AB 4")
        self.assert_called("7 to 4142:2034:3520:3637:2038:3941:2042:4320", REMOTE="AB 45 67 89A BC ")

    def test_an_interface_that_is_no_tunnel_is_left_out(self):
        self.assertEqual([], self.tunnels({"{#SNMPINDEX}": "1", "{#IFNAME}": "lo"}))

    def test_ipsec_is_where_there_is_a_state(self):
        both = self.tunnels({"{#SNMPINDEX}": "7", "{#ENCAPS}": "3", "{#STATE}": "0"},
                            {"{#SNMPINDEX}": "8", "{#ENCAPS}": "3"})
        self.assertEqual(["yes", "no"], [tunnel["{#IPSEC}"] for tunnel in both])


class Zabbix(ManagerTest):
    def setUp(self):
        super().setUp()
        self.template = self.shipped("zabbix/tunnels.yaml")
        SERVER.import_template(self.template)
        self.daemon = self.start_office()
        self.host = SERVER.add_host(self.id(), TEMPLATE, self.address, HURRIED)
        self.addCleanup(SERVER.call, "host.update", hostid=self.host, status=1)

    def items(self):
        """{(kind, ifIndex): item} of those that have a value."""
        found = SERVER.call("item.get", hostids=self.host, selectValueMap=["name"],
                            output=["name", "key_", "lastvalue", "lastclock", "state", "error"])
        return {(item["key_"].split("[")[0], int(item["key_"].split("[")[1].rstrip("]"))): item
                for item in found if item["key_"].startswith("tunnel.") and item["lastclock"] != "0"}

    def discovered(self):
        """The items, once all that there should be have a value."""
        found = {}

        def complete():
            found.update(self.items())
            return len(found) == 15 + 15 + 5
        self.soon(complete, lambda: f"{sorted(found)}: {SERVER.log()[-3000:]}", PATIENCE)
        return found

    def problems(self):
        return {problem["name"] for problem in SERVER.call("problem.get", hostids=self.host,
                                                           output=["name"])}

    def assert_becomes_problem(self, name):
        self.soon(lambda: name in self.problems(),
                  lambda: f"no problem {name!r}: {self.problems()}", PATIENCE)

    def assert_ends(self, name):
        self.soon(lambda: name not in self.problems(), f"{name!r} remains", PATIENCE)

    def test_nothing_of_an_import_is_lost(self):
        self.assertEqual([], SERVER.differences(self.template))

    def test_every_tunnel_is_discovered_with_its_columns(self):
        items = self.discovered()
        statuses = list(self.document["tunnelIntfStatusDir"]["intfStatus"].values())
        for index, status in enumerate(statuses, 2001):
            self.assertEqual(str(status["hopLimit"]), items[HOP_LIMIT, index]["lastvalue"])
            self.assertEqual(str(1 + status["ipsec"]), items[SECURITY, index]["lastvalue"])
        self.assertEqual({2001: "4", 2002: "2", 2008: "4", 2009: "5", 2010: "1"},
                         {index: item["lastvalue"] for (kind, index), item in items.items()
                          if kind == STATE})
        self.assertEqual("Tunnel 2001 to 198.51.100.1: IPsec state", items[STATE, 2001]["name"])
        self.assertEqual("Tunnel 2003 to 2001:db8:a0:0:0:0:0:1: hop limit",
                         items[HOP_LIMIT, 2003]["name"])
        self.assertEqual("Tunnel 2010: IPsec state", items[STATE, 2010]["name"])
        self.assertEqual("VELMORA-TUNNEL-MIB VelmoraIpsecConnState",
                         items[STATE, 2001]["valuemap"]["name"])

    def test_the_page_shows_what_is_so(self):
        states = {"2": "connecting (2)", "1": "down (1)", "4": "up (4)"}
        page = (MANAGERS / "README.md").read_text(encoding="utf-8")
        shown = dict(re.findall(r"(?m)^\| (Tunnel \d.*?: .*?) \| (.*?) \|$", page))
        self.assertGreaterEqual(len(shown), 4)
        told = {item["name"]: states[item["lastvalue"]] if kind == STATE else item["lastvalue"]
                for (kind, _), item in self.discovered().items()
                if kind != STATE or item["lastvalue"] in states}
        self.assertEqual(shown, {name: told.get(name) for name in shown})
        for problem in re.findall(r"(?m)^\| \w+ \| (Tunnel \d.*?) \|$", page):
            self.assert_becomes_problem(problem)

    def test_ipsec_that_goes_down_is_a_problem_until_it_is_up(self):
        self.discovered()
        self.assert_becomes_problem("Tunnel 2010: IPsec is down")
        problem = "Tunnel 2008 to 198.51.100.130: IPsec is down"
        self.assertNotIn(problem, self.problems())
        self.ipsec_becomes(2008, "down")
        self.assert_becomes_problem(problem)
        self.ipsec_becomes(2008, "up")
        self.assert_ends(problem)
        unknown = "Tunnel 2008 to 198.51.100.130: the state of IPsec is unknown"
        self.ipsec_becomes(2008, "unknown")
        self.assert_becomes_problem(unknown)
        self.assertNotIn(problem, self.problems())

    def test_a_tunnel_that_loses_its_protection_or_vanishes_is_a_problem(self):
        self.discovered()
        self.security_becomes(2001, False)
        self.tunnel_goes(2003)
        self.assert_becomes_problem("Tunnel 2001 to 198.51.100.1: IPsec is not demanded any more")
        self.assert_becomes_problem("Tunnel 2003 to 2001:db8:a0:0:0:0:0:1 is gone")
        self.assertFalse([name for name in self.problems() if "2004" in name])

    def test_a_daemon_that_does_not_answer_is_one_problem(self):
        self.discovered()
        before = self.problems()
        self.daemon.end()
        self.assert_becomes_problem("The SNMP agent does not answer: nothing is known of its tunnels")
        self.assertFalse([name for name in self.problems() - before if name.endswith("is gone")])


if __name__ == "__main__":
    test_daemon.main(__doc__)
