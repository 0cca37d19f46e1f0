"""What tunnelsnmpd tells of IPsec that the kernel itself has: policies and states as ip makes them, in a
namespace with a vxlan tunnel, as on a gateway whose keys are set by hand. Skipped, with the reason,
where this machine cannot have it."""

import ipsec_world
import test_daemon
from ipsec_world import IPSEC, NO_IPSEC, VX, IpsecTest, site
from swanctl_raw import DOWN, UP


def setUpModule():  # pylint: disable=invalid-name
    ipsec_world.skip_where_it_cannot_be()


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

    def test_who_may_not_read_policies_is_told_so(self):
        self.namespace.ip("xfrm policy add " + self.POLICY + self.DEMAND)
        self.as_nobody()
        self.start("--source", "linux:kinds=+vxlan")
        self.assertEqual(NO_IPSEC, self.security("vx"))
        self.assertRegex(self.ctl("status"), r"policies .*CAP_NET_ADMIN")

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
            self.skipTest(f"no ESP in this kernel: {str(reason).rpartition('): ')[2].strip()}")
        self.namespace.ip("xfrm policy add " + self.POLICY + self.DEMAND)
        self.start("--source", "linux:kinds=+vxlan,ipsec=states")
        self.assert_comes(UP, lambda: self.conn_state("vx"))
        self.namespace.ip("xfrm state flush")
        self.assert_comes(DOWN, lambda: self.conn_state("vx"))


if __name__ == "__main__":
    test_daemon.main(__doc__)
