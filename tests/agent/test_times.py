"""The real daemon while its clock is set back and forth, and after it was suspended: what has changed
meanwhile is seen within seconds, and nothing else is disturbed. With --thorough it is suspended for
70 seconds, longer than any of its own periods; without, for two. Times that were measured are printed."""

import json
import mmap
import os
import pathlib
import signal
import struct
import subprocess
import sys
import time
import unittest

import test_daemon
from test_agentx import BehindMaster, limit, measured
from test_daemon import TUNNEL_IF_TABLE, V3_CONFIG

import ber
import snmpv3

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "faults"))

from worlds import LinuxWorld, Run  # pylint: disable=wrong-import-position

DAY = 86_400
SHIFTS = (-DAY, 365 * DAY, -10 * 365 * DAY, 0)  # seconds from the system's clock


class Changes:
    """For a test with a JSON file: changes of it that a manager can see."""

    def new_hop_limit(self, value):
        """Writes it to the file, for the first tunnel; returns where it is to be seen."""
        intf, index = next(iter(self.document["ifMib"]["ifIndexByIntfId"].items()))
        self.document["tunnelIntfStatusDir"]["intfStatus"][intf]["hopLimit"] = value
        new = self.write("tunnels.new", json.dumps(self.document))
        os.rename(new, self.source)
        return f"{TUNNEL_IF_TABLE}.1.4.{index}"

    def wait_until_shown(self, cell, value):
        """Returns the seconds that it took."""
        began = time.monotonic()
        wanted = f"INTEGER: {value}"
        self.wait_until(lambda: self.snmp("snmpget", [cell], check=False)[0].get(cell) == wanted)
        return time.monotonic() - began


@unittest.skipIf("--slow" in sys.argv, "a sanitizer must be loaded before anything else")
class Clock(Changes, BehindMaster):
    def setUp(self):
        super().setUp()
        library = self.path("clock.so")
        source = test_daemon.REPOSITORY / "tests" / "faults" / "clock.c"
        subprocess.run(["cc", "-O2", "-Wall", "-Wextra", "-Werror", "-fPIC", "-shared", "-o",
                        library, source], check=True)
        shift = self.path("shift")
        with open(shift, "wb") as file:
            file.write(bytes(8))
        with open(shift, "r+b") as file:
            self.shift = mmap.mmap(file.fileno(), 8)
        self.preloaded = ("env", f"LD_PRELOAD={library}", f"CLOCK_SHIFT={shift}")

    def launch(self, *options, control=None):
        self.place = self.preloaded
        try:
            return super().launch(*options, control=control)
        finally:
            self.place = ()  # the managers have the system's clock

    def clock_is_set(self, shift):
        struct.pack_into("=q", self.shift, 0, shift)

    def since(self):
        """The year in which, by the daemon's clock, its session began or ended."""
        return int(self.master_status()["since"][:4])

    def test_a_changed_file_is_seen_at_once_whatever_the_clock_says(self):
        self.start_office()
        for value, shift in enumerate(SHIFTS, 10):
            before = self.walk()
            self.clock_is_set(shift)
            self.assertEqual(before, self.walk())
            seconds = self.wait_until_shown(self.new_hop_limit(value), value)
            measured(f"clock {shift // DAY} days off: the file's change was seen after", seconds)
            self.assertLess(seconds, limit(1))
            os.utime(self.source, (time.time() + shift, time.time() + shift))
            seconds = self.wait_until_shown(self.new_hop_limit(value + 100), value + 100)
            self.assertLess(seconds, limit(1))
            self.ctl("reread")

    def test_a_manager_of_version_3_that_knows_the_engine_goes_on(self):
        config = self.write("access.conf", V3_CONFIG)
        self.start_office("--config", config)
        manager = snmpv3.Manager(self.address, "reader", b"the-auth-pass", b"the-priv-pass")
        self.addCleanup(manager.close)
        manager.discover()
        cell = f"{TUNNEL_IF_TABLE}.1.4.{self.expected_if_indexes()[0]}"
        for shift in SHIFTS:
            self.clock_is_set(shift)
            answer = manager.ask(ber.pdu(ber.GET, [cell]))
            self.assertEqual((ber.RESPONSE, 0), (answer.kind, answer.error_status), shift)

    def test_a_master_that_restarts_is_found_whatever_the_clock_says(self):
        master = self.start_master()
        self.start_subagent()
        self.wait_until_served()
        for shift in SHIFTS:
            self.clock_is_set(shift)
            master.child.kill()
            master.wait()
            self.wait_until(lambda: self.master_status()["state"] != "serving")
            self.assertEqual(time.gmtime(time.time() + shift).tm_year, self.since(),
                             "the clock of the daemon is the shifted one")
            master = self.start_master()
            began = time.monotonic()
            self.wait_until(self.has_rows)
            seconds = time.monotonic() - began
            measured(f"clock {shift // DAY} days off: rows were back after", seconds)
            self.assertLess(seconds, limit(2))


class Suspended(Changes, BehindMaster):
    def suspend(self, daemon, meanwhile):
        """Stops the process, has things happen and time pass, and lets it go on."""
        daemon.send_signal(signal.SIGSTOP)
        end = time.monotonic() + (70 if test_daemon.PATHS.thorough else 2)
        try:
            meanwhile()
            time.sleep(max(0, end - time.monotonic()))
        finally:
            daemon.send_signal(signal.SIGCONT)

    def test_a_file_that_changed_and_a_master_that_was_replaced_are_seen_afterwards(self):
        master = self.start_master()
        daemon = self.start_subagent()
        self.wait_until_served()

        cell = self.new_hop_limit(10)

        def meanwhile():
            self.new_hop_limit(11)
            self.new_hop_limit(12)
            daemon.child.send_signal(signal.SIGHUP)
            master.child.kill()
            master.wait()
            self.start_master()
        self.suspend(daemon.child, meanwhile)
        seconds = self.wait_until_shown(cell, 12)
        measured("suspended: through the new master the file was seen after", seconds)
        self.assertLess(seconds, limit(3))
        self.assertEqual(self.expected_if_indexes(), self.if_indexes())
        self.assertEqual("", self.ctl_json("status")["sources"][0]["lastError"])

    def test_a_master_that_waited_all_the_while_is_answered_again(self):
        self.start_master()
        daemon = self.start_subagent()
        self.wait_until_served()
        self.suspend(daemon.child, lambda: self.snmp("snmpget", [self.first_cell()], check=False))
        began = time.monotonic()
        self.wait_until(self.has_rows)
        seconds = time.monotonic() - began
        measured("suspended: the same master was answered after", seconds)
        self.assertLess(seconds, limit(3))

    @unittest.skipIf(os.geteuid() != 0, "network namespaces need root")
    def test_links_that_came_and_went_by_the_hundred_are_seen_afterwards(self):
        world = LinuxWorld(self.folder, test_daemon.PATHS.daemon, test_daemon.PATHS.enterprise)
        self.addCleanup(world.end)
        run = Run(world)
        self.addCleanup(run.kill)
        run.wait_until_it_listens()
        self.suspend(run.child, lambda: many_links(world))
        began = time.monotonic()
        expected = {*range(3, 9), *range(1000, 1400)}
        self.wait_until(lambda: ids_of(run.walk()) == expected)
        seconds = time.monotonic() - began
        measured("suspended: 800 changes of links were seen after", seconds)
        self.assertLess(seconds, limit(3))


def many_links(world):
    """400 come, of the eight that were there two go, and 400 come and go."""
    batch = [f"link add n{number} type vxlan id {number} local 10.1.{number // 250}."
             f"{number % 250 + 1} remote 10.9.9.9 dstport 4789 ttl 9"
             for number in range(1000, 1800)]
    batch += [f"link del n{number}" for number in range(1400, 1800)]
    batch += ["link del vx1", "link del vx2"]
    subprocess.run([*world.place, "ip", "-batch", "-"], input="\n".join(batch), text=True,
                   check=True, capture_output=True)


def ids_of(walk):
    """The number that each link's addresses were made of, by their columns in tunnelIfTable."""
    column = TUNNEL_IF_TABLE[1:] + ".1.9."
    ids = set()
    for name, (_, octets) in (walk or {}).items():
        if name.startswith(column):
            _, area, high, low = octets
            ids.add(low if area == 8 else high * 250 + low - 1)
    return ids


if __name__ == "__main__":
    test_daemon.main(__doc__)
