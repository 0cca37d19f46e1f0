"""The plug-in check_tunnels, by its command line of managers/nagios, against the real daemon in each state."""

from manager_test import have
from nagios_command import CRITICAL, OK, OWN_PLUGINS, UNKNOWN, WARNING, CommandTest, test_daemon


def setUpModule():  # pylint: disable=invalid-name
    have("snmpbulkwalk")


class AllTunnels(CommandTest):
    COUNTS = ("tunnels={};;;0 ipsec={};;;0 unknown={};;;0 down={};;;0 connecting={};;;0 ikeUp={};;;0 "
              "up={};;;0 rekeying={};;;0 closing={};;;0")

    def assert_counted(self, status, text, *counts):
        seen, line = self.checked("check_tunnels", 15)
        self.assertEqual(f"{text} | {self.COUNTS.format(*counts)}", line)
        self.assertEqual(status, seen)

    def test_the_worst_state_counts(self):
        self.assert_counted(CRITICAL, "TUNNELS CRITICAL - 15 tunnels, 5 with IPsec, down: 2010, "
                            "not up: 2002 connecting", 15, 5, 0, 1, 1, 0, 2, 1, 0)
        self.ipsec_becomes(2010, "up")
        self.assert_counted(WARNING, "TUNNELS WARNING - 15 tunnels, 5 with IPsec, not up: 2002 "
                            "connecting", 15, 5, 0, 0, 1, 0, 3, 1, 0)
        self.ipsec_becomes(2002, "up")
        self.assert_counted(OK, "TUNNELS OK - 15 tunnels, 5 with IPsec", 15, 5, 0, 0, 0, 0, 4, 1, 0)
        for state in ("unknown", "ikeUp", "closing"):
            self.ipsec_becomes(2002, state)
            self.assert_checked(WARNING, f"not up: 2002 {state} ", "check_tunnels", 15)

    def test_a_tunnel_that_is_missing_is_critical(self):
        for if_index in (2002, 2010):
            self.ipsec_becomes(if_index, "up")
        self.assert_checked(OK, "15 tunnels", "check_tunnels", 15)
        self.tunnel_goes(2003)
        self.assert_checked(CRITICAL, "14 tunnels, 5 with IPsec, at least 15 expected", "check_tunnels", 15)
        self.assert_checked(OK, "14 tunnels", "check_tunnels", 14)

    def test_no_tunnel_at_all_is_critical(self):
        for if_index in range(2001, 2016):
            self.tunnel_goes(if_index)
        self.assert_checked(CRITICAL, "0 tunnels, 0 with IPsec, at least 1 expected", "check_tunnels", 1)

    def test_a_daemon_that_is_gone_is_unknown(self):
        self.daemon.end()
        host, port = self.address.rsplit(":", 1)
        status, line = self.run_check(f"{OWN_PLUGINS}/check_tunnels -H {host} -p {port} -t 1")
        self.assertEqual(UNKNOWN, status, line)
        self.assertRegex(line, "^TUNNELS UNKNOWN - Timeout")

    def test_a_wrong_number_is_unknown(self):
        self.assert_checked(UNKNOWN, "a number, not 'x'", "check_tunnels", "x")


if __name__ == "__main__":
    test_daemon.main(__doc__)
