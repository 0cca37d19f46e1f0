"""The real daemon behind a real snmpd, beside other subagents: some have names next to ours, some claim
ours, one is stuck. And what the master does for all of them: views, contexts, long answers."""

import subprocess
import threading

import test_daemon
from agentx_peers import GET_NEXT, Subagent
from test_agentx import BehindMaster
from test_daemon import TUNNEL_IF_TABLE, TUNNEL_MIB, V3, V3_CONFIG, environment

BEFORE, BEHIND = ".1.3.6.1.2.1.10.130", ".1.3.6.1.2.1.10.132"
DUPLICATE = 263
HOP_LIMITS = TUNNEL_IF_TABLE + ".1.4"


class Neighbours(BehindMaster):
    def serve_both(self, *lines):
        """Starts master and daemon; returns what a walk shows."""
        self.configure(*lines)
        self.start_master()
        self.start_subagent()
        self.wait_until_served()
        return self.walk()

    def walk(self, access=("-v2c", "-c", "public"), command="snmpbulkwalk"):
        """As everywhere, but the end of a view, which is told under the last name, hides nothing."""
        _, text = self.snmp(command, [TUNNEL_MIB], access)
        lines = [line for line in text.splitlines() if " = " in line and "No more" not in line]
        return {oid: value.strip() for oid, value in (line.split(" = ", 1) for line in lines)}

    def neighbour(self, cells):
        one = Subagent(self.path("master"), cells)
        self.addCleanup(one.connection.close)
        return one

    def get(self, oid, *access):
        return self.snmp("snmpget", [oid], *access)[0][oid]


class SideBySide(Neighbours):
    def test_a_walk_passes_from_one_subagent_into_the_next(self):
        ours = self.serve_both()
        cells = {BEFORE + ".1.0": 130, BEHIND + ".1.0": 132}
        one = self.neighbour(cells)
        self.assertEqual(0, one.register(BEFORE))
        self.assertEqual(0, one.register(BEHIND))
        one.serve()
        values, _ = self.snmp("snmpbulkwalk", ["-Cr7", ".1.3.6.1.2.1.10"])
        of_either = (BEFORE + ".", TUNNEL_MIB + ".", BEHIND + ".")
        self.assertEqual([BEFORE + ".1.0", *ours, BEHIND + ".1.0"],
                         [oid for oid in values if oid.startswith(of_either)])
        self.assertEqual(ours, {oid: values[oid] for oid in ours})

    def test_a_getbulk_runs_across_the_end_of_our_tables(self):
        ours = list(self.serve_both())
        one = self.neighbour({BEHIND + f".1.{number}": number for number in range(1, 6)})
        self.assertEqual(0, one.register(BEHIND))
        one.serve()
        values, _ = self.snmp("snmpbulkget", ["-Cn0", "-Cr7", ours[-3]])
        self.assertEqual([*ours[-2:], *(BEHIND + f".1.{number}" for number in range(1, 6))],
                         list(values))

    def test_one_request_asks_both(self):
        self.serve_both()
        one = self.neighbour({BEHIND + ".1.0": 132})
        self.assertEqual(0, one.register(BEHIND))
        one.serve()
        cell = self.first_cell()
        values, _ = self.snmp("snmpget", [cell, BEHIND + ".1.0", cell + ".9"])
        self.assertRegex(values[cell], r"^INTEGER: \d+$")
        self.assertEqual("INTEGER: 132", values[BEHIND + ".1.0"])
        self.assertRegex(values[cell + ".9"], "No Such")

    def test_is_asked_while_another_subagent_is_stuck(self):
        self.serve_both()
        one = self.neighbour({})
        self.assertEqual(0, one.register(BEHIND))  # and never answers a request
        stuck = subprocess.Popen(["snmpget", "-v2c", "-c", "public", "-t", "3", "-r", "0",
                                  self.address, BEHIND + ".1.0"], stderr=subprocess.DEVNULL,
                                 stdout=subprocess.DEVNULL, env=environment(self.folder))
        self.addCleanup(stuck.wait)
        request = one.connection.receive()
        self.assertIsNotNone(request)
        self.assertTrue(self.has_rows())
        values, _ = self.snmp("snmpbulkget", ["-Cn0", "-Cr20", TUNNEL_IF_TABLE])
        self.assertEqual(20, len(values))
        self.assertIsNone(stuck.poll(), "it waits for the other one still")

    def test_serves_on_when_another_subagent_goes_in_the_middle_of_a_request(self):
        before = self.serve_both()
        one = self.neighbour({})
        self.assertEqual(0, one.register(BEHIND))
        asking = threading.Thread(target=self.snmp, args=(
            "snmpget", [BEHIND + ".1.0"]), kwargs={"check": False})
        asking.start()
        self.assertIsNotNone(one.connection.receive())
        one.connection.close()
        asking.join()
        self.assertEqual(before, self.walk())
        self.assertEqual(1, self.master_status()["sessions"])


class Claims(Neighbours):
    def test_one_of_the_same_priority_is_refused(self):
        before = self.serve_both()
        one = self.neighbour({})
        self.assertEqual(DUPLICATE, one.register(TUNNEL_IF_TABLE))
        self.assertEqual(before, self.walk())

    def test_one_of_a_better_priority_serves_until_it_leaves(self):
        before = self.serve_both()
        one = self.neighbour({HOP_LIMITS + ".2001": 77})
        self.assertEqual(0, one.register(TUNNEL_IF_TABLE, priority=1))
        one.serve()
        self.assertEqual("INTEGER: 77", self.get(HOP_LIMITS + ".2001"))
        self.assertRegex(self.get(HOP_LIMITS + ".2002"), "No Such")
        others = {oid: value for oid, value in before.items()
                  if not oid.startswith(TUNNEL_IF_TABLE + ".")}
        self.assertEqual({HOP_LIMITS + ".2001": "INTEGER: 77", **others}, self.walk())
        one.leave()
        self.wait_until(lambda: self.walk() == before)
        self.assertEqual(1, self.master_status()["sessions"])

    def test_one_of_a_worse_priority_serves_while_we_are_away(self):
        before = self.serve_both()
        one = self.neighbour({HOP_LIMITS + ".2001": 77})
        self.assertEqual(0, one.register(TUNNEL_IF_TABLE, priority=200))
        one.serve()
        self.assertEqual(before, self.walk())
        self.assertEqual([], one.asked)

    def test_a_single_cell_within_our_table_is_its_own(self):
        before = self.serve_both()
        one = self.neighbour({HOP_LIMITS + ".2002": 77})
        self.assertEqual(0, one.register(HOP_LIMITS + ".2002"))
        one.serve()
        self.assertEqual({**before, HOP_LIMITS + ".2002": "INTEGER: 77"}, self.walk())
        self.assertEqual(list(before), list(self.walk()))
        one.leave()
        self.wait_until(lambda: self.walk() == before)

    def test_a_range_of_columns_is_its_own(self):
        before = self.serve_both()
        cells = {f"{TUNNEL_IF_TABLE}.1.{column}.2001": 100 + column for column in (4, 5)}
        one = self.neighbour(cells)
        column_at = HOP_LIMITS.count(".")
        self.assertEqual(0, one.register(HOP_LIMITS, range_sub_id=column_at, upper_bound=5))
        one.serve()
        ours = {oid: value for oid, value in before.items()
                if not oid.startswith((HOP_LIMITS + ".", TUNNEL_IF_TABLE + ".1.5."))}
        theirs = {oid: f"INTEGER: {value}" for oid, value in cells.items()}
        self.assertEqual({**ours, **theirs}, self.walk())

    def test_a_range_of_rows_is_its_own(self):
        before = self.serve_both()
        cells = {f"{HOP_LIMITS}.{row}": row for row in (2002, 2003)}
        one = self.neighbour(cells)
        self.assertEqual(0, one.register(HOP_LIMITS + ".2002", upper_bound=2003,
                                         range_sub_id=HOP_LIMITS.count(".") + 1))
        one.serve()
        self.assertEqual({**before, **{oid: f"INTEGER: {row}" for oid, row in cells.items()}},
                         self.walk())
        self.assertEqual(list(before), list(self.walk("-v1 -c public".split(), "snmpwalk")))

    def test_what_is_registered_above_us_serves_around_us(self):
        before = self.serve_both()
        around = {TUNNEL_MIB + ".1.1.0": 1, TUNNEL_MIB + ".9.0": 9}
        one = self.neighbour(around)
        self.assertEqual(0, one.register(TUNNEL_MIB, priority=1))
        one.serve()
        values = self.walk()
        self.assertEqual({**before, **{oid: f"INTEGER: {value}" for oid, value in around.items()}},
                         values)


class ThroughTheMaster(Neighbours):
    def test_a_view_hides_what_it_does_not_include(self):
        self.serve_both(f"view part included {HOP_LIMITS}", f"view part excluded {HOP_LIMITS}.2002",
                        "rocommunity part 127.0.0.1 -V part")
        everything = self.walk()
        part = ("-v2c", "-c", "part")
        expected = {oid: value for oid, value in everything.items()
                    if oid.startswith(HOP_LIMITS + ".") and oid != HOP_LIMITS + ".2002"}
        self.assertIn(HOP_LIMITS + ".2001", expected)
        self.assertEqual(expected, self.walk(part))
        self.assertEqual(expected, self.walk(part, "snmpwalk"))
        self.assertRegex(self.get(HOP_LIMITS + ".2002", part), "No Such")

    def test_a_context_that_we_do_not_serve_is_empty(self):
        before = self.serve_both("com2sec -Cn other reader default elsewhere",
                                 "group readers v2c reader", "view all included .1",
                                 'access readers other any noauth exact all none none')
        elsewhere = ("-v2c", "-c", "elsewhere")
        cell = HOP_LIMITS + ".2001"
        one = self.neighbour({cell: 55})
        self.assertEqual(0, one.register(TUNNEL_IF_TABLE, context=b"other"))
        one.serve()
        self.assertEqual("INTEGER: 55", self.get(cell, elsewhere))
        self.assertEqual({cell: "INTEGER: 55"}, self.walk(elsewhere))
        self.assertIn((GET_NEXT, True), one.asked)
        self.assertEqual(before, self.walk(), "the default context is ours alone")

    def test_an_snmpv3_manager_names_the_context(self):
        before = self.serve_both(V3_CONFIG.replace("rouser reader priv",
                                                   "group readers usm reader\n"
                                                   "view all included .1\n"
                                                   'access readers "" usm priv exact all none none\n'
                                                   'access readers other usm priv exact all '
                                                   'none none'))
        cell = HOP_LIMITS + ".2001"
        one = self.neighbour({cell: 55})
        self.assertEqual(0, one.register(TUNNEL_IF_TABLE, context=b"other"))
        one.serve()
        self.assertEqual(before, self.walk(V3))
        self.assertEqual("INTEGER: 55", self.get(cell, [*V3, "-n", "other"]))

    def test_long_answers_arrive_whole(self):
        walked = self.serve_both("maxGetbulkRepeats 500", "maxGetbulkResponses 500")
        values, _ = self.snmp("snmpbulkget", ["-Cn0", "-Cr400", TUNNEL_MIB])
        ours = {oid: value for oid, value in values.items() if oid.startswith(TUNNEL_MIB)}
        self.assertEqual(walked, {oid: value for oid, value in ours.items()
                                  if "No more" not in value})
        cells = list(walked)[:100]
        self.assertEqual({cell: walked[cell] for cell in cells}, self.snmp("snmpget", cells)[0])

    def test_a_set_of_ours_and_of_anothers_changes_neither(self):
        self.serve_both()
        one = self.neighbour({BEHIND + ".1.0": 132})
        self.assertEqual(0, one.register(BEHIND))
        one.serve()
        before = self.get(self.first_cell())
        _, text = self.snmp("snmpset", [self.first_cell(), "i", "7",
                                        ".1.3.6.1.2.1.1.6.0", "s", "elsewhere"],
                            ("-v2c", "-c", "write"), check=False)
        self.assertIn("notWritable", text)
        self.assertEqual(before, self.get(self.first_cell()))
        self.assertNotIn("elsewhere", self.get(".1.3.6.1.2.1.1.6.0"))
        self.assertEqual(1, self.master_status()["sessions"])

    def test_other_managers_work_while_one_walks(self):
        before = self.serve_both()
        walks = []
        threads = [threading.Thread(target=lambda: walks.append(self.walk())) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([before] * 4, walks)


if __name__ == "__main__":
    test_daemon.main(__doc__)
