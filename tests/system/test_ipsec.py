"""What tunnelsnmpd tells of the connections of a real strongSwan: two daemons in namespaces, ESP in user
space, vxlan tunnels under it. Each happening must be seen by managers within six seconds, and as
swanctl tells it. Skipped, with the reason, where this machine cannot have the two daemons."""

import ipsec_world
import test_daemon
from ipsec_world import NO_IPSEC, PLAIN, VX, VX1, IpsecTest, Site, site
from strongswan import SECRETS, connection, tunnel_child, until
from swanctl_raw import CLOSING, CONNECTING, DOWN, IKE_UP, UP


def setUpModule():  # pylint: disable=invalid-name
    ipsec_world.skip_where_it_cannot_be()


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


if __name__ == "__main__":
    test_daemon.main(__doc__)
