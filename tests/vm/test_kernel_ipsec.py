"""What tunnelsnmpd tells of tunnels that the kernel's own IPsec protects, driven by real IKE daemons, in
the emulated machine: a gre link in transport mode, a vti link, an xfrm link. After each happening the
two tables are what swanctl says."""

import pathlib
import re
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "system"))

# pylint: disable=wrong-import-position
from ipsec_world import IPSEC, NO_IPSEC, TUNNEL_IF_SECURITY, IpsecTest
import libreswan
import strongswan
import swanctl_raw
import test_daemon
from strongswan import SECRETS, child_of, connection, until
from swanctl_raw import CLOSING, CONNECTING, DOWN, IKE_UP, UNKNOWN, UP

# By name of the link, its connection and its child: what makes the link, and the child.
LINKS = {
    "gre": "gre type gre local 10.9.0.1 remote 10.9.0.2",
    "vti": "vti type vti local 10.9.1.1 remote 10.9.1.2 key 9",
    "xfrm": "xfrm type xfrm dev v if_id 42",
}
EVERYTHING = ("local_ts = 0.0.0.0/0", "remote_ts = 0.0.0.0/0")
CHILDREN = {
    "gre": ("mode = transport", "local_ts = dynamic[gre]", "remote_ts = dynamic[gre]"),
    "vti": ("mark_in = 9", "mark_out = 9", *EVERYTHING),
    "xfrm": ("if_id_in = 42", "if_id_out = 42", *EVERYTHING),
}
# Nothing about a connection without an SA tells which xfrm link it is for.
BIND_XFRM = "xfrm/xfrm@xfrm"


def every_kind(own, peer, child_has=(), connection_has=""):
    return SECRETS + "".join(
        connection(kind, own, peer, child_of(kind, *lines, *child_has), connection_has, network)
        for network, (kind, lines) in enumerate(CHILDREN.items()))


class KernelTest(IpsecTest):
    def pair_of_every_kind(self, connections=every_kind, **how):
        self.pair_is(connections, esp=strongswan.KERNEL, **how)
        self.links_are(*LINKS.values())
        self.pair.start()
        self.a, self.b = self.pair.a, self.pair.b

    def start_up(self):
        self.pair_of_every_kind()
        for kind in LINKS:
            self.a.initiate(kind)
        daemon = self.start_vici(BIND_XFRM, links="linux")
        for kind in LINKS:
            self.assert_agrees_of(kind, UP)
        return daemon

    def assert_agrees_of(self, kind, state):
        """The link is in that state, and the walk of both tables is what swanctl says of all."""
        raw = ""

        def said():
            nonlocal raw
            raw = self.a.swanctl("--list-sas", "--raw")
            return swanctl_raw.state(raw, kind, kind)

        self.assert_comes(state, said, what=f"swanctl of {kind}")
        expected = {}
        for name in LINKS:
            index = self.if_index(name)
            expected[f"{self.conn_state_column()}.{index}"] = swanctl_raw.state(raw, name, name)
            expected[f"{TUNNEL_IF_SECURITY}.{index}"] = IPSEC
        self.assert_comes(expected, self.walked, what=f"the walk, {kind} being {state}")

    def walked(self):
        # At the end of all that there is, snmpwalk says so of the last name, once more.
        texts = [self.snmp("snmpwalk", [column])[1]
                 for column in (self.conn_state_column(), TUNNEL_IF_SECURITY)]
        return {oid: int(value)
                for oid, value in re.findall(r"(?m)^(\S+) = INTEGER: (\d+)$", "\n".join(texts))}


class Happenings(KernelTest):
    def test_a_life_of_each_kind(self):
        self.pair_of_every_kind()
        self.start_vici(BIND_XFRM, links="linux")
        for kind in LINKS:
            with self.subTest(kind):
                self.live(kind)

    def live(self, kind):
        a, b = self.a, self.b
        self.assert_agrees_of(kind, DOWN)
        b.freeze()
        a.begin_to_initiate(kind)
        self.assert_agrees_of(kind, CONNECTING)
        a.ask("terminate", ike=kind, force="yes")
        self.assert_agrees_of(kind, DOWN)
        b.thaw()
        a.initiate(kind)
        self.assert_agrees_of(kind, UP)
        self.assertEqual({UP}, self.states_during(lambda: a.rekey("child", kind), kind))
        self.assertEqual({UP}, self.states_during(lambda: a.rekey("ike", kind), kind))
        self.assert_agrees_of(kind, UP)
        a.terminate("child", kind)
        self.assert_agrees_of(kind, IKE_UP)
        a.initiate(kind)
        self.assert_agrees_of(kind, UP)
        b.freeze()
        a.ask("terminate", ike=kind, timeout="-1")
        self.assert_agrees_of(kind, CLOSING)
        b.thaw()
        self.assert_agrees_of(kind, DOWN)

    def test_children_that_the_peer_refuses_leave_ike_up(self):
        self.pair_of_every_kind(lambda own, peer: every_kind(own, peer).replace(
            "esp_proposals = aes128", "esp_proposals = aes" + ("256" if own == 2 else "128")))
        self.start_vici(BIND_XFRM, links="linux")
        for kind in LINKS:
            self.a.begin_to_initiate(kind)
            self.assert_agrees_of(kind, IKE_UP)

    def test_a_wrong_key_leaves_them_down(self):
        self.pair_of_every_kind(
            lambda own, peer: every_kind(own, peer).replace("test-only", f"test-only-{own}"))
        self.start_vici(BIND_XFRM, links="linux")
        for kind in LINKS:
            self.assertLessEqual(
                self.states_during(lambda: self.a.begin_to_initiate(kind), kind),  # pylint: disable=cell-var-from-loop
                {DOWN, CONNECTING})
            self.assert_agrees_of(kind, DOWN)

    def test_peers_that_are_gone_leave_them_down(self):
        self.pair_of_every_kind(
            lambda own, peer: every_kind(own, peer, connection_has="dpd_delay = 1s"), tries=2)
        self.start_vici(BIND_XFRM, links="linux")
        for kind in LINKS:
            self.a.initiate(kind)
            self.assert_agrees_of(kind, UP)
        self.pair.namespaces[1].ip("link set v down")
        until(lambda: not self.a.sas(), "given up")
        for kind in LINKS:
            self.assert_agrees_of(kind, DOWN)

    def test_peers_that_never_answer_leave_them_connecting_then_down(self):
        self.pair_of_every_kind(tries=30)
        self.start_vici(BIND_XFRM, links="linux")
        self.b.freeze()
        for kind in LINKS:
            self.a.begin_to_initiate(kind)
        until(lambda: [sa["state"] for sa in self.a.sas().values()] == ["CONNECTING"] * len(LINKS),
              "all connecting")
        self.assert_agrees_of("gre", CONNECTING)
        until(lambda: not self.a.sas(), "given up", seconds=90)
        for kind in LINKS:
            self.assert_agrees_of(kind, DOWN)

    def test_traps_alone_are_down(self):
        self.pair_of_every_kind(
            lambda own, peer: every_kind(own, peer, child_has=["start_action = trap"]))
        self.assertRegex(self.a.swanctl("--list-pols"), "gre")
        self.start_vici(BIND_XFRM, links="linux")
        for kind in LINKS:
            self.assert_agrees_of(kind, DOWN)

    def test_an_xfrm_link_is_bound_by_its_if_id_while_there_is_an_sa(self):
        self.pair_of_every_kind()
        self.start_vici(links="linux")
        self.assert_seen(UNKNOWN, name="xfrm")
        self.a.initiate("xfrm")
        self.assert_agrees_of("xfrm", UP)
        self.assertRegex(self.ctl("show", "ike"), r"(?m)^xfrm +xfrm +up +xfrm +if_id\b")
        self.a.terminate("ike", "xfrm")
        self.assert_seen(UNKNOWN, name="xfrm")


class IkeDaemonFaults(KernelTest):
    def test_a_stopped_daemons_tunnels_are_unknown(self):
        self.start_up()
        self.a.stop()
        for kind in LINKS:
            self.assert_seen(UNKNOWN, name=kind)

    def test_a_killed_daemons_tunnels_are_unknown_though_its_policies_stay(self):
        self.start_up()
        self.a.kill()
        self.assertRegex(self.namespace.ip("xfrm policy"), r"dst 10\.9\.0\.2/32 proto \w+ \n\tdir out")
        for kind in LINKS:
            self.assert_seen(UNKNOWN, name=kind)
        self.a.start()
        for kind in LINKS:
            self.assert_agrees_of(kind, DOWN)
        for kind in LINKS:
            self.a.initiate(kind)
        for kind in LINKS:
            self.assert_agrees_of(kind, UP)


class KernelStates(KernelTest):
    """No vici: the kernel alone tells."""

    POLICY = "src 10.9.0.1 dst 10.9.0.2 proto gre dir out"
    TEMPLATE = "tmpl src 10.9.0.1 dst 10.9.0.2 proto esp reqid 7 mode transport"
    STATE = ("src 10.9.0.1 dst 10.9.0.2 proto esp spi 0x100 reqid 7 mode transport "
             "auth-trunc hmac(sha256) 0x" + 32 * "11" + " 128 enc cbc(aes) 0x" + 16 * "22")

    def start_states(self):
        return self.start("--source", "linux:ipsec=states")

    def test_policies_and_states_set_by_hand(self):
        self.pair_is(every_kind, esp=strongswan.KERNEL)
        self.links_are(*LINKS.values())
        self.start_states()
        self.assert_comes(NO_IPSEC, lambda: self.security("gre"))
        self.namespace.ip(f"xfrm policy add {self.POLICY} {self.TEMPLATE}")
        self.assert_seen(DOWN, "gre")
        self.namespace.ip("xfrm state add " + self.STATE)
        self.assert_seen(UP, "gre")
        self.namespace.ip("xfrm state flush")
        self.assert_seen(DOWN, "gre")
        self.namespace.ip("xfrm policy flush")
        self.assert_comes(NO_IPSEC, lambda: self.security("gre"))

    def test_an_sa_that_is_only_being_acquired_is_connecting(self):
        self.pair_of_every_kind(
            lambda own, peer: every_kind(own, peer, child_has=["start_action = trap"]))
        self.start_states()
        for kind in LINKS:
            self.assert_seen(DOWN, kind)
        self.b.freeze()
        self.namespace.ip("address add 10.7.0.1/24 dev gre")
        self.namespace.ip("link set gre up")
        self.namespace.run("sh", "-c", "ping -c 1 -w 1 10.7.0.2 || true")
        self.assert_seen(CONNECTING, "gre")
        # What was asked while the peer was frozen it may refuse, having been asked too often.
        self.a.ask("terminate", ike="gre", force="yes")
        self.b.thaw()
        self.a.initiate("gre")
        self.assert_seen(UP, "gre")

    def test_what_strongswan_negotiated_is_seen_in_the_kernel(self):
        self.pair_of_every_kind()
        self.start_states()
        for kind in LINKS:
            self.a.initiate(kind)
            self.assert_seen(UP, kind)
            self.assertEqual({UP}, self.states_during(lambda: self.a.rekey("child", kind), kind))  # pylint: disable=cell-var-from-loop

    def test_what_libreswan_negotiated_is_seen_in_the_kernel(self):
        self.pair_is(every_kind, esp=strongswan.KERNEL)
        self.links_are(LINKS["gre"])
        self.pair.b.start()
        daemon = libreswan.Daemon(self.namespace, self.path("libreswan"))
        self.addCleanup(daemon.end)
        daemon.start()
        self.start_states()
        self.assertEqual(NO_IPSEC, self.security("gre"))
        daemon.whack("--initiate", "--name", "gre")
        self.assert_seen(UP, "gre")
        daemon.whack("--rekey-ipsec", "--name", "gre")
        self.assert_seen(UP, "gre")
        daemon.whack("--terminate", "--name", "gre")  # its outbound policy stays
        self.assert_seen(DOWN, "gre")
        daemon.whack("--delete", "--name", "gre")
        self.assert_comes(NO_IPSEC, lambda: self.security("gre"))


if __name__ == "__main__":
    test_daemon.main(__doc__)
