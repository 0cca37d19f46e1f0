"""What tunnelsnmpd tells of the connections of a real strongSwan: two daemons in namespaces, ESP in user
space, vxlan tunnels under it. Each happening must be seen by managers within six seconds, and as
swanctl tells it. Skipped, with the reason, where this machine cannot have the two daemons.

With --thorough the IKE daemon is restarted fifty times."""

import os
import time
import unittest

import ipsec_world
import packages
import strongswan
import test_daemon
from ipsec_world import IPSEC, NO_IPSEC, IpsecTest
from strongswan import SECRETS, connection, tunnel_child, until
from swanctl_raw import CLOSING, CONNECTING, DOWN, IKE_UP, UNKNOWN, UP

VX = "vx type vxlan id 1 local 10.8.0.1 remote 10.8.0.2 dstport 4789"
VX1 = "vx1 type vxlan id 2 local 10.8.1.1 remote 10.8.1.2 dstport 4789"
PLAIN = "plain type vxlan id 3 local 10.8.5.1 remote 10.8.5.2 dstport 4789"
UNANSWERED = 12  # seconds until a daemon that hangs is taken for unknown: docs/ipsec.md


def site(own, peer, more=""):
    return connection("site", own, peer, tunnel_child("vx", own, peer, 0), more) + SECRETS


def setUpModule():  # pylint: disable=invalid-name
    try:
        strongswan.probe()
    except packages.Unavailable as reason:
        raise unittest.SkipTest(str(reason)) from reason


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


class Life(Site):
    def test_a_tunnel_is_configured_comes_up_and_goes(self):
        self.pair.start()
        self.start_vici()
        self.assert_agrees(DOWN)
        self.b.freeze()
        self.a.begin_to_initiate("vx")
        self.assert_agrees(CONNECTING)
        self.a.ask("terminate", ike="site", force="yes")
        self.assert_agrees(DOWN)
        self.b.thaw()
        self.a.initiate("vx")
        self.assert_agrees(UP)
        self.a.terminate("child", "vx")
        self.assert_agrees(IKE_UP)
        self.a.initiate("vx")
        self.assert_agrees(UP)
        self.b.freeze()
        self.a.ask("terminate", ike="site", timeout="-1")
        self.assert_agrees(CLOSING)
        self.b.thaw()
        self.assert_agrees(DOWN)
        self.b.initiate("vx")
        self.assert_agrees(UP)

    def test_a_tunnel_stays_up_while_it_is_rekeyed(self):
        self.start_up()
        self.assertEqual({UP}, self.states_during(lambda: self.a.rekey("child", "vx")))
        self.assertEqual({UP}, self.states_during(lambda: self.a.rekey("ike", "site")))
        self.assertEqual({UP}, self.states_during(lambda: self.b.rekey("child", "vx")))
        self.assert_agrees(UP)

    def test_a_tunnel_stays_up_while_a_slow_peer_rekeys(self):
        self.start_up()
        for what, name, key in (("ike", "site", "ike"), ("child", "vx", "child")):
            self.b.freeze()
            self.assertEqual({UP}, self.states_during(
                lambda: self.a.ask("rekey", **{key: name})))  # pylint: disable=cell-var-from-loop
            self.assert_agrees(UP)
            self.b.thaw()
            until(lambda: self.a.sas()["site"]["state"] == "ESTABLISHED", what)

    def test_a_tunnel_without_a_connection_is_not_protected(self):
        self.start_up()
        self.assertEqual(NO_IPSEC, self.security("plain"))
        self.assertIsNone(self.conn_state("plain"))

    def test_a_tunnel_that_comes_later_is_bound_and_one_that_goes_is_gone(self):
        self.start_up()
        index = self.if_index("vx")
        self.namespace.ip("link del vx")
        self.assert_comes([], lambda: [oid for oid in self.walk() if oid.endswith(f".{index}")])
        self.links_are(VX)
        self.assert_agrees(UP)

    def test_people_are_told_what_is_bound_and_by_which_rule(self):
        self.start_up()
        self.assertRegex(self.ctl("show", "ike"), r"(?m)^site +vx +up +vx +selectors\b")
        self.assertRegex(self.ctl("status"), r"strongSwan 5\.9\.\d+")
        self.assertRegex(self.ctl("status"), r"1 bound")


class Failures(IpsecTest):
    def start_with(self, connections, **how):
        self.pair_is(connections, **how)
        self.links_are(VX)
        self.pair.start()
        self.start_vici()
        self.assert_agrees(DOWN)
        return self.pair.a, self.pair.b

    def test_a_child_that_the_peer_refuses_leaves_ike_up(self):
        a, _ = self.start_with(lambda own, peer: connection(
            "site", own, peer, tunnel_child("vx", own, peer, 7 * (own - 1))) + SECRETS)
        a.begin_to_initiate("vx")
        self.assert_agrees(IKE_UP)

    def test_a_wrong_key_leaves_it_down(self):
        a, _ = self.start_with(
            lambda own, peer: site(own, peer).replace("test-only", f"test-only-{own}"))
        self.assertLessEqual(self.states_during(lambda: a.begin_to_initiate("vx")),
                             {DOWN, CONNECTING})
        self.assert_agrees(DOWN)

    def test_a_peer_that_is_gone_leaves_it_down(self):
        a, b = self.start_with(lambda own, peer: site(own, peer, "dpd_delay = 1s"), tries=1)
        a.initiate("vx")
        self.assert_agrees(UP)
        b.kill()
        until(lambda: "site" not in a.sas(), "given up")
        self.assert_agrees(DOWN)

    def test_a_peer_that_never_answers_leaves_it_connecting_then_down(self):
        a, b = self.start_with(site, tries=7)  # longer than from one listing to the next
        b.freeze()
        a.begin_to_initiate("vx")
        self.assert_agrees(CONNECTING)
        until(lambda: "site" not in a.sas(), "given up")
        self.assert_agrees(DOWN)


class Several(IpsecTest):
    def connections(self, own, peer):
        return (connection("site", own, peer, tunnel_child("vx", own, peer, 0)
                           + tunnel_child("vx1", own, peer, 1))
                + connection("other", own, peer, tunnel_child("far", own, peer, 3)) + SECRETS)

    def setUp(self):
        super().setUp()
        self.pair_is(self.connections)
        self.links_are(VX, VX1, PLAIN)
        self.pair.start()

    def test_children_of_one_connection_have_states_of_their_own(self):
        self.start_vici()
        self.pair.a.initiate("vx")
        self.assert_agrees(UP)
        self.pair.a.initiate("vx1")
        self.assert_agrees(UP, name="vx1", child="vx1")
        self.pair.a.terminate("child", "vx")
        self.assert_agrees(IKE_UP)
        self.assert_agrees(UP, name="vx1", child="vx1")

    def test_an_interface_has_the_connection_that_it_was_given(self):
        self.start_vici("other/far@plain")
        self.assert_agrees(DOWN, name="plain", connection="other", child="far")
        self.pair.a.initiate("far")
        self.assert_agrees(UP, name="plain", connection="other", child="far")
        self.assertRegex(self.ctl("show", "ike"), r"(?m)^other +far +up +plain +explicit\b")


class IkeDaemonFaults(Site):
    def start_again(self):
        self.a.start()
        self.assert_seen(DOWN)

    def test_nothing_is_known_without_a_daemon_and_all_when_it_comes(self):
        self.start_vici()
        self.assertEqual(NO_IPSEC, self.security("vx"))
        self.assertRegex(self.ctl("status"), r"no such socket")
        self.pair.start()
        # The tries to connect are up to 30 s apart, the first ones less.
        self.assert_comes(DOWN, lambda: self.conn_state("vx"), 2 * ipsec_world.PROMISE)
        self.assert_agrees(DOWN)

    def test_a_killed_daemons_tunnel_is_unknown_until_it_is_back(self):
        self.start_up()
        self.a.kill()
        self.assert_seen(UNKNOWN)
        self.start_again()
        self.a.initiate("vx")
        self.assert_agrees(UP)

    def test_a_stopped_daemons_tunnel_goes_down_and_is_then_unknown(self):
        self.start_up()
        self.a.stop()
        self.assert_seen(UNKNOWN)
        self.start_again()

    def test_a_frozen_daemons_tunnel_is_unknown_until_it_goes_on(self):
        self.start_up()
        self.a.freeze()
        self.assert_seen(UNKNOWN, seconds=UNANSWERED)
        self.a.thaw()
        self.assert_agrees(UP)

    def test_each_of_many_restarts_is_seen(self):
        daemon = self.start_up()
        times = 50 if test_daemon.PATHS.thorough else 5
        for time_ in range(times):
            (self.a.kill if time_ % 2 else self.a.stop)()
            time.sleep(0.3 * (time_ % 4))
            self.a.start()
            self.assert_agrees(DOWN)
            self.a.initiate("vx")
            self.assert_agrees(UP)
            if time_ == 0:
                before = self.descriptors(daemon)
        self.assert_comes(before, lambda: self.descriptors(daemon), what="open descriptors")
        self.assertTrue(self.ctl_json("status")["ready"])

    def descriptors(self, daemon):
        return len(os.listdir(f"/proc/{daemon.child.pid}/fd"))

    def test_who_may_not_ask_the_daemon_is_told_which_group_may(self):
        self.pair.start()
        own = self.path("own")
        os.mkdir(own)
        os.chown(own, 65534, 65534)
        self.control = os.path.join(own, "control.sock")
        self.place = (*self.namespace.inside(), "setpriv", "--reuid=65534", "--regid=65534",
                      "--clear-groups", "--inh-caps=-all", "--bounding-set=-all")
        self.start_vici()
        self.assert_comes(NO_IPSEC, lambda: self.security("vx"))
        status = self.ctl("status")
        self.assertRegex(status, r"(?i)permission denied.*group")
        self.assertRegex(status, r"CAP_NET_ADMIN")


class KernelPolicies(IpsecTest):
    """Policies of the kernel itself, with no IKE daemon: what a gateway has whose keys are set by hand."""

    POLICY = "src 10.8.0.1/32 dst 10.8.0.2/32 proto udp dport 4789 dir out"
    DEMAND = " tmpl src 10.8.0.1 dst 10.8.0.2 proto esp mode transport"

    def setUp(self):
        super().setUp()
        self.pair_is(site)
        self.links_are(VX)

    def test_a_policy_that_demands_esp_protects_the_tunnel_while_it_is_there(self):
        self.start("--source", "linux:kinds=+vxlan")
        self.assert_comes(NO_IPSEC, lambda: self.security("vx"))
        self.namespace.ip("xfrm policy add " + self.POLICY + self.DEMAND)
        self.assert_comes(IPSEC, lambda: self.security("vx"))
        self.namespace.ip("xfrm policy add " + self.POLICY.replace("udp dport 4789", "udp")
                          + " priority 7")
        self.assertEqual(IPSEC, self.security("vx"), "priority 0 comes first")
        self.namespace.ip("xfrm policy del " + self.POLICY)
        self.assert_comes(NO_IPSEC, lambda: self.security("vx"))
        self.namespace.ip("xfrm policy flush")
        self.assertEqual(NO_IPSEC, self.security("vx"))

    def test_a_policy_that_was_there_before_counts_and_a_flush_is_heard_of(self):
        self.namespace.ip("xfrm policy add " + self.POLICY + self.DEMAND)
        self.start("--source", "linux:kinds=+vxlan")
        self.assert_comes(IPSEC, lambda: self.security("vx"))
        self.namespace.ip("xfrm policy flush")
        self.assert_comes(NO_IPSEC, lambda: self.security("vx"))

    def test_without_an_sa_the_kernel_says_down(self):
        self.namespace.ip("xfrm policy add " + self.POLICY + self.DEMAND)
        self.start("--source", "linux:kinds=+vxlan,ipsec=states")
        self.assert_comes(DOWN, lambda: self.conn_state("vx"))
        self.assertEqual(IPSEC, self.security("vx"))

    def test_with_an_sa_the_kernel_says_up(self):
        try:
            self.namespace.ip("xfrm state add src 10.8.0.1 dst 10.8.0.2 proto esp spi 0x100 "
                              "mode transport enc cipher_null 0x")
        except AssertionError as reason:
            self.skipTest(f"no ESP in this kernel: {str(reason).splitlines()[-1]}")
        self.namespace.ip("xfrm policy add " + self.POLICY + self.DEMAND)
        self.start("--source", "linux:kinds=+vxlan,ipsec=states")
        self.assert_comes(UP, lambda: self.conn_state("vx"))
        self.namespace.ip("xfrm state flush")
        self.assert_comes(DOWN, lambda: self.conn_state("vx"))


if __name__ == "__main__":
    test_daemon.main(__doc__)
