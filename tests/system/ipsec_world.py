"""Tunnels that real strongSwan daemons protect, and the daemon that tells of them: what the tests in
namespaces and those in the emulated machine have in common."""

import json
import os
import pathlib
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "agent"))

import strongswan  # pylint: disable=wrong-import-position
import swanctl_raw  # pylint: disable=wrong-import-position
import test_daemon  # pylint: disable=wrong-import-position

TUNNEL_IF_SECURITY = test_daemon.TUNNEL_IF_TABLE + ".1.5"
PROMISE = 6  # seconds from a happening to its being seen
SLOW_FACTOR = 4  # what instrumented programs may take instead
NO_IPSEC, IPSEC = 1, 2  # tunnelIfSecurity


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
