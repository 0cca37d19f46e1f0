"""Tunnels that real strongSwan daemons protect, and the daemon that tells of them: what the tests in
namespaces and those in the emulated machine have in common."""

import json
import os
import pathlib
import sys
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "agent"))

# pylint: disable=wrong-import-position
import packages
import strongswan
import swanctl_raw
import test_daemon
from strongswan import SECRETS, connection, tunnel_child
from swanctl_raw import UP

TUNNEL_IF_SECURITY = test_daemon.TUNNEL_IF_TABLE + ".1.5"
PROMISE = 6  # seconds from a happening to its being seen
SLOW_FACTOR = 4  # what instrumented programs may take instead
NOBODY = 65534  # user and group
NO_IPSEC, IPSEC = 1, 2  # tunnelIfSecurity

VX = "vx type vxlan id 1 local 10.8.0.1 remote 10.8.0.2 dstport 4789"
VX1 = "vx1 type vxlan id 2 local 10.8.1.1 remote 10.8.1.2 dstport 4789"
PLAIN = "plain type vxlan id 3 local 10.8.5.1 remote 10.8.5.2 dstport 4789"


def skip_where_it_cannot_be():
    """For the setUpModule of what runs on this machine."""
    try:
        strongswan.probe()
    except packages.Unavailable as reason:
        raise unittest.SkipTest(str(reason)) from reason


def site(own, peer, more=""):
    return connection("site", own, peer, tunnel_child("vx", own, peer, 0), more) + SECRETS


class IpsecTest(test_daemon.DaemonTest):
    """Two IKE daemons; tunnelsnmpd and its managers are in the namespace of the first, pair.a."""

    def pair_is(self, connections, **how):
        os.chmod(self.folder, 0o755)
        self.pair = strongswan.Pair(self.folder, connections, **how)
        self.addCleanup(self.pair.end)
        self.namespace = self.pair.namespaces[0]
        self.place = tuple(self.namespace.inside())

    def links_are(self, *texts):
        """Makes them in the namespace of `a`: each what follows `ip link add`."""
        self.namespace.ip(*("link add " + text for text in texts))
        links = json.loads(self.namespace.ip("-j link"))
        self.if_indexes_by_name = {link["ifname"]: link["ifindex"] for link in links}

    def as_nobody(self):
        """The daemon is to run as a user without any right."""
        own = self.path("own")
        os.mkdir(own)
        os.chown(own, NOBODY, NOBODY)
        self.control = os.path.join(own, "control.sock")
        self.place += ("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups",
                       "--inh-caps=-all", "--bounding-set=-all")

    def start_vici(self, *binds, links="linux:kinds=+vxlan"):
        """The daemon with both sources; each of `binds` is CONNECTION[/CHILD]@INTERFACE."""
        options = "".join(",bind=" + bind for bind in binds)
        return self.start("--source", links, "--source", f"vici:{self.pair.a.socket}{options}")

    # What managers see

    def if_index(self, name):
        return self.if_indexes_by_name[name]

    def conn_state_column(self):
        """velmoraIpsecTunnelIfConnState."""
        return f".1.3.6.1.4.1.{test_daemon.PATHS.enterprise}.3.34.1.1.1.1"

    def cells(self, name, *columns):
        """The numbers in those columns of the interface's row; None where there is none."""
        oids = [f"{column}.{self.if_index(name)}" for column in columns]
        values, _ = self.snmp("snmpget", oids)
        numbers = (values[oid].partition("INTEGER: ")[2] for oid in oids)
        return tuple(int(number) if number else None for number in numbers)

    def conn_state(self, name):
        return self.cells(name, self.conn_state_column())[0]

    def security(self, name):
        return self.cells(name, TUNNEL_IF_SECURITY)[0]

    # What they must see

    def assert_comes(self, expected, actual, seconds=PROMISE, what=""):
        """Within so many seconds actual() is what is expected."""
        limit = seconds * (SLOW_FACTOR if test_daemon.PATHS.slow else 1)
        began = time.monotonic()
        while (value := actual()) != expected:
            if time.monotonic() > began + limit:
                self.fail(f"{what}: {value}, not {expected}, after {limit} s\n"
                          + self.ctl("status") + self.ctl("show", "ike") + self.pair.a.log()[-1000:])
            time.sleep(0.02)

    def assert_seen(self, state, name="vx", seconds=PROMISE):
        """The interface has that state, within what is promised, and is protected by IPsec."""
        self.assert_comes(
            (state, IPSEC), lambda: self.cells(name, self.conn_state_column(), TUNNEL_IF_SECURITY),
            seconds, f"state and security of {name}")

    def assert_agrees(self, state, name="vx", connection="site", child="vx"):
        """As assert_seen(), and strongSwan's own listing says so too."""
        self.assert_seen(state, name)
        raw = self.pair.a.swanctl("--list-sas", "--raw")
        self.assertEqual(swanctl_raw.state(raw, connection, child), self.conn_state(name), raw)

    def states_during(self, happening, name="vx", seconds=1.0):
        """Those that managers see from before it until so long after it."""
        states = {self.conn_state(name)}
        happening()
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            states.add(self.conn_state(name))
        return states


class Site(IpsecTest):
    """One connection, whose child protects the tunnel vx."""

    def setUp(self):
        super().setUp()
        self.pair_is(site)
        self.links_are(VX, PLAIN)
        self.a, self.b = self.pair.a, self.pair.b

    def start_up(self):
        """Both daemons, the tunnel up, and managers that see it."""
        self.pair.start()
        self.a.initiate("vx")
        daemon = self.start_vici()
        self.assert_agrees(UP)
        return daemon
