"""What tunnelsnmpd tells while the IKE daemon that it asks is not there, is killed, hangs or must not be
asked; and how soon managers are answered meanwhile. Skipped, with the reason, where this machine cannot
have a strongSwan. With --thorough the IKE daemon is restarted fifty times."""

import json
import os
import subprocess
import sys
import time

import ipsec_world
import test_daemon
from ipsec_world import NO_IPSEC, Site
from swanctl_raw import DOWN, UNKNOWN, UP

UNANSWERED = 9  # seconds; one that hangs is unknown after 8 at most, says docs/ipsec.md


def setUpModule():  # pylint: disable=invalid-name
    ipsec_world.skip_where_it_cannot_be()


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

    def latencies_while(self, happening, seconds, addresses):
        """Those of SNMP requests to each agent, while it happens and after it, for so long in all."""
        name = f"{ipsec_world.TUNNEL_IF_SECURITY}.{self.if_index('vx')}"
        measuring = [subprocess.Popen(
            [*self.place, "/usr/bin/python3", ipsec_world.HERE / "snmp_latency.py", address, name,
             str(seconds)], stdout=subprocess.PIPE, text=True) for address in addresses]
        for each in measuring:
            self.assertEqual("begins\n", each.stdout.readline())
        happening()
        return [json.loads(each.communicate()[0]) for each in measuring]

    def test_managers_are_answered_as_ever_whatever_happens_to_the_daemon(self):
        # As by an agent beside it, on the same machine at the same time, that asks no daemon.
        control, self.control = self.control, self.path("idle.sock")
        self.start("--source", "linux:kinds=+vxlan")
        idle_address, self.control = self.address, control
        self.start_up()
        for name, happening, seconds in (
                ("rekeyed", lambda: [self.a.rekey("child", "vx") for _ in range(5)], 1),
                ("frozen", self.a.freeze, 8), ("thawed", self.a.thaw, 1), ("killed", self.a.kill, 3),
                ("back", self.a.start, 2)):
            latency, idle = self.latencies_while(happening, seconds, (self.address, idle_address))
            print(f"p99 of SNMP while the daemon is {name}: {latency['p99'] * 1000:.2f} ms, idle "
                  f"{idle['p99'] * 1000:.2f} ms", file=sys.stderr)
            if not test_daemon.PATHS.slow:
                self.assertLess(latency["p99"], 2 * idle["p99"] + 0.02, name)
                # A step that waited for the daemon would be one long answer among many.
                self.assertLess(latency["longest"], 2 * idle["longest"] + 0.2, name)

    def test_who_may_not_ask_the_daemon_is_told_which_group_may(self):
        self.pair.start()
        self.as_nobody()
        self.start_vici()
        self.assert_comes(NO_IPSEC, lambda: self.security("vx"))
        self.assertRegex(self.ctl("status"), r"(?i)permission denied.*group root")


if __name__ == "__main__":
    test_daemon.main(__doc__)
