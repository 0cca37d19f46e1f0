"""Debian's Prometheus and snmp_exporter with the files of managers/prometheus read the real daemon: what is
shown of each tunnel, that the module is what the generator makes, and that alerts fire.

Seconds stand where the files have minutes; `promtool test rules` checks those."""

import json
import os
import re
import urllib.parse

import yaml

import manager_test
from manager_test import MANAGERS, ManagerTest, examples, found, libraries, unpacked

import test_agentx  # pylint: disable=wrong-import-order

test_daemon = manager_test.test_daemon
HERE = MANAGERS / "prometheus"
MIBS = manager_test.TESTS / "docs" / "mibs"
DEBIAN = None  # the folder with the programs
ADDRESS_LABELS = {"addressType", "localIPv4", "localIPv6", "remoteIPv4", "remoteIPv6"}


def setUpModule():  # pylint: disable=invalid-name
    global DEBIAN
    DEBIAN = unpacked("prometheus", "prometheus-snmp-exporter", alone=("prometheus",))


def program(name):
    return found(DEBIAN, "usr/bin/" + name)


class Files(ManagerTest):
    def test_the_rules_are_right(self):
        self.run_program([program("promtool"), "check", "rules", HERE / "tunnels.rules.yml"])

    def test_the_rules_do_what_they_are_for(self):
        self.run_program([program("promtool"), "test", "rules", HERE / "tunnels.rules.test.yml"])

    def test_every_rule_is_tried_where_it_fires_and_where_not(self):
        rules = yaml.safe_load((HERE / "tunnels.rules.yml").read_text())["groups"][0]["rules"]
        tried = [one for test in yaml.safe_load((HERE / "tunnels.rules.test.yml").read_text())["tests"]
                 for one in test["alert_rule_test"]]
        for fires in (True, False):
            self.assertEqual({rule["alert"] for rule in rules},
                             {one["alertname"] for one in tried if ("exp_alerts" in one) == fires})

    def test_the_scrape_configuration_is_right(self):
        self.run_program([program("promtool"), "check", "config", "--syntax-only",
                          HERE / "prometheus.yml"])

    def test_the_module_is_what_the_generator_makes_and_the_addresses(self):
        made, written = self.generated(), yaml.safe_load(self.shipped("prometheus/snmp.yml"))["tunnels"]
        self.assertEqual(
            [(metric["name"], metric["oid"], metric["type"], metric["indexes"])
             for metric in sorted(made["metrics"], key=lambda metric: metric["name"])],
            [(metric["name"], metric["oid"], metric["type"], metric["indexes"])
             for metric in sorted(written["metrics"], key=lambda metric: metric["name"])])
        for metric, own in zip(made["metrics"], written["metrics"]):
            self.assertEqual(metric["lookups"], [lookup for lookup in own["lookups"]
                                                 if lookup["labelname"] not in ADDRESS_LABELS])
        self.assertLess(set(made["walk"]), set(written["walk"]))
        for name in ("max_repetitions", "retries", "timeout"):
            self.assertEqual(made[name], written[name], name)

    def generated(self):
        """What the generator makes of generator.yml and the MIB modules."""
        mib = self.shipped("../mibs/VELMORA-TUNNEL-MIB.txt")
        os.mkdir(self.path("mibs"))
        self.write("mibs/VELMORA-TUNNEL-MIB.txt", mib.replace(
            "enterprises 32473", f"enterprises {test_daemon.PATHS.enterprise}"))
        self.write("generator.yml", self.shipped("prometheus/generator.yml"))
        self.run_program([program("prometheus-snmp-generator"), "generate"], cwd=self.folder,
                         env=libraries(DEBIAN) | {"MIBDIRS": f"{MIBS}:{self.path('mibs')}",
                                                  "SNMPCONFPATH": self.folder})
        with open(self.path("snmp.yml"), encoding="utf-8") as file:
            return yaml.safe_load(file)["tunnels"]


class ExporterTest(ManagerTest):
    """With snmp_exporter at work."""

    def setUp(self):
        super().setUp()
        self.exporter = f"127.0.0.1:{manager_test.free_port()}"
        module = self.write("snmp.yml", self.shipped("prometheus/snmp.yml"))
        self.spawn("exporter", [program("prometheus-snmp-exporter"), f"--config.file={module}",
                                f"--web.listen-address={self.exporter}"], env=libraries(DEBIAN))
        self.soon(lambda: self.fetched(f"http://{self.exporter}/metrics"), lambda: self.log("exporter"))

    def url(self):
        return f"http://{self.exporter}/snmp?module=tunnels&target={self.address}"

    def series(self):
        """{name: {ifIndex: (labels, value)}} of what it tells."""
        text = self.fetched(self.url())
        found = {}
        for name, labels, value in re.findall(r"(?m)^(\w+)\{(.*)\} (\S+)$", text):
            labels = dict(re.findall(r'(\w+)="([^"]*)"', labels))
            if "ifIndex" in labels:
                found.setdefault(name, {})[int(labels["ifIndex"])] = labels, float(value)
        return found


class Exporter(ExporterTest):
    """snmp_exporter alone, asked for the daemon's tunnels."""

    def test_every_tunnel_is_told_with_its_columns(self):
        self.start_office()
        series = self.series()
        statuses = self.document["tunnelIntfStatusDir"]["intfStatus"].values()
        for name, expected in (
                ("tunnelIfHopLimit", [status["hopLimit"] for status in statuses]),
                ("tunnelIfTOS", [status["tos"] for status in statuses]),
                ("tunnelIfSecurity", [1 + status["ipsec"] for status in statuses])):
            self.assertEqual(expected, [value for _, (_, value) in sorted(series[name].items())])
        methods = {"gre": "gre", "direct": "direct"}
        self.assertEqual([methods.get(status["mode"], "other") for status in statuses],
                         [labels["tunnelIfEncapsMethod"] for _, (labels, _)
                          in sorted(series["tunnelIfEncapsMethod_info"].items())])
        self.assertEqual({2001: 4, 2002: 2, 2008: 4, 2009: 5, 2010: 1},
                         {index: value for index, (_, value)
                          in series["velmoraIpsecTunnelIfConnState"].items()})

    def test_the_addresses_are_labels_of_both_families(self):
        self.start_office()
        labels = {index: labels for index, (labels, _) in self.series()["tunnelIfTOS"].items()}
        self.assertEqual(("1", "192.0.2.10", "198.51.100.1"),
                         tuple(labels[2001][name] for name in ("addressType", "localIPv4", "remoteIPv4")))
        self.assertEqual(("2", "2001:0DB8:00B0:0001:0000:0000:0000:0010",
                          "2001:0DB8:00A0:0000:0000:0000:0000:0001"),
                         tuple(labels[2003][name] for name in ("addressType", "localIPv6", "remoteIPv6")))
        self.assertEqual("0", labels[2010]["addressType"])


class BehindSnmpd(ExporterTest, test_agentx.BehindMaster):
    """With Debian's snmpd between, which serves the names of interfaces as well."""

    def setUp(self):
        super().setUp()
        self.start_master()
        self.daemon = self.start_subagent()
        self.wait_until_served()

    def test_a_tunnel_has_the_name_of_its_interface(self):
        self.patch("replace", f"/ifMib/ifIndexByIntfId/{manager_test.FIRST_INTERFACE}", 1)
        series = self.series()
        self.assertEqual({"lo"}, {series[name][1][0]["ifName"] for name in (
            "tunnelIfEncapsMethod_info", "tunnelIfSecurity", "velmoraIpsecTunnelIfConnState")})
        self.assertEqual("", series["tunnelIfSecurity"][2002][0].get("ifName", ""))

    def test_without_the_daemon_no_tunnel_is_told(self):
        self.assertEqual(15, len(self.series()["tunnelIfSecurity"]))
        self.daemon.end()
        self.assertEqual({}, self.series())


class Alerts(ExporterTest):
    """Prometheus with the shipped job and rules, every minute of which is a second or less."""

    def setUp(self):
        super().setUp()
        self.daemon = self.start_office()
        self.prometheus = f"127.0.0.1:{manager_test.free_port()}"
        os.mkdir(self.path("data"))
        self.write("rules.yml", yaml.safe_dump(self.hurried_rules()))
        self.write("prometheus.yml", yaml.safe_dump(self.configuration()))
        self.spawn("prometheus", [
            program("prometheus"), f"--config.file={self.path('prometheus.yml')}",
            f"--storage.tsdb.path={self.path('data')}", f"--web.listen-address={self.prometheus}"])
        self.soon(lambda: len(self.values("tunnelIfSecurity")) == 15, lambda: self.log("prometheus"))

    def hurried_rules(self):
        rules = yaml.safe_load(self.shipped("prometheus/tunnels.rules.yml"))
        for rule in rules["groups"][0]["rules"]:
            rule["for"] = "1s"
        return rules

    def configuration(self):
        shipped = yaml.safe_load(self.shipped("prometheus/prometheus.yml"))
        job = shipped["scrape_configs"][0]
        job["static_configs"][0]["targets"] = [self.address]
        for rule in job["relabel_configs"]:
            if rule.get("replacement") == "127.0.0.1:9116":
                rule["replacement"] = self.exporter
        return {"global": {"scrape_interval": "1s", "scrape_timeout": "1s", "evaluation_interval": "1s"},
                "rule_files": [self.path("rules.yml")], "scrape_configs": [job]}

    def asked(self, path, **query):
        text = self.fetched(f"http://{self.prometheus}/api/v1/{path}?{urllib.parse.urlencode(query)}")
        return json.loads(text)["data"] if text else None

    def values(self, query):
        """[(labels, value)] of an instant query."""
        answer = self.asked("query", query=query) or {"result": []}
        return [(one["metric"], float(one["value"][1])) for one in answer["result"]]

    def firing(self):
        """{(alert, ifIndex): summary} of the alerts that fire."""
        alerts = (self.asked("alerts") or {"alerts": []})["alerts"]
        return {(alert["labels"]["alertname"], int(alert["labels"].get("ifIndex", 0))):
                alert["annotations"]["summary"] for alert in alerts if alert["state"] == "firing"}

    def fires(self, alert, if_index=0):
        """The summary of the alert once it fires."""
        return self.soon(lambda: self.firing().get((alert, if_index)),
                         lambda: f"{alert} of {if_index} does not fire: {self.firing()}")

    def ends(self, alert, if_index=0):
        self.soon(lambda: (alert, if_index) not in self.firing(), f"{alert} does not end")

    def test_each_series_has_the_addresses_of_its_tunnel_and_no_other_labels(self):
        labels = {labels["ifIndex"]: labels for labels, _ in self.values("tunnelIfSecurity")}
        self.assertEqual({"__name__": "tunnelIfSecurity", "job": "tunnels", "instance": self.address,
                          "ifIndex": "2001", "local": "192.0.2.10", "remote": "198.51.100.1"},
                         labels["2001"])
        self.assertEqual("2001:0DB8:00A0:0000:0000:0000:0000:0001", labels["2003"]["remote"])
        self.assertNotIn("remote", labels["2010"])

    def test_the_page_shows_what_it_tells(self):
        self.fires("TunnelIpsecDown", 2010)
        shown = examples("promtool", self.address)
        self.assertGreaterEqual(len(shown), 2)
        for command, lines in shown:
            command = command.replace("promtool", str(program("promtool")), 1)
            said = self.run_program(["sh", "-c", command.replace("127.0.0.1:9090", self.prometheus)])
            self.assertEqual(sorted(lines), sorted(re.sub(r" @\[.*", "", line) for line in
                                                   said.strip().splitlines()))

    def test_ipsec_that_goes_down_fires_and_ends(self):
        self.assertNotIn(("TunnelIpsecDown", 2008), self.firing())
        self.ipsec_becomes(2008, "down")
        self.assertEqual(f"IPsec of tunnel 2008 to 198.51.100.130 on {self.address} is down",
                         self.fires("TunnelIpsecDown", 2008))
        self.ipsec_becomes(2008, "up")
        self.ends("TunnelIpsecDown", 2008)
        self.assertIn(("TunnelIpsecDown", 2010), self.firing(), "it is down from the beginning")
        self.assertNotIn(("TunnelIpsecDown", 2009), self.firing(), "traffic passes while it is rekeyed")

    def test_an_unknown_state_fires(self):
        self.ipsec_becomes(2008, "unknown")
        self.fires("TunnelIpsecUnknown", 2008)
        self.assertNotIn(("TunnelIpsecDown", 2008), self.firing())

    def test_a_tunnel_that_loses_its_protection_fires(self):
        self.security_becomes(2001, False)
        self.fires("TunnelUnprotected", 2001)

    def test_a_tunnel_that_vanishes_fires_alone(self):
        self.tunnel_goes(2003)
        self.assertIn("Tunnel 2003 to 2001:0DB8:00A0", self.fires("TunnelVanished", 2003))
        self.assertEqual({("TunnelVanished", 2003)}, {key for key in self.firing()
                                                     if key[0] in ("TunnelVanished", "TunnelsAllGone")})

    def test_an_agent_without_its_tunnels_fires_once(self):
        for if_index in range(2001, 2016):
            self.tunnel_goes(if_index)
        self.assertIn("none of its 15 tunnels", self.fires("TunnelsAllGone"))
        self.soon(lambda: not any(name == "TunnelVanished" for name, _ in self.firing()),
                  "each of them fires as well")

    def test_a_daemon_that_does_not_answer_fires(self):
        self.assertEqual(0, self.daemon.end()[0])
        self.fires("TunnelAgentNotAnswering")


if __name__ == "__main__":
    test_daemon.main(__doc__)
