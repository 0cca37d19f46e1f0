"""tunnelsnmpctl doctor beside the real daemon and Debian's snmpd: once where nothing is wrong, and then
with one thing broken at a time, which it must name, with what to do about it."""

import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "agent"))
import test_daemon  # noqa: E402
from test_daemon import DaemonTest, Process, PATIENCE, REPOSITORY, environment  # noqa: E402
from test_rights import OWNER, as_user, why_not  # noqa: E402

RIGHT, TODO, UNKNOWN = 0, 1, 2  # exit statuses
VIEW = ("view tunnels included .1.3.6.1.2.1.1",
        "view tunnels included .1.3.6.1.2.1.10.131",
        "view tunnels included .1.3.6.1.4.1.8072",
        "rocommunity public default -V tunnels")


class DoctorTest(DaemonTest):
    def setUp(self):
        super().setUp()
        self.mibs = str(REPOSITORY / "mibs")
        self.snmpd_config = self.path("none.conf")
        self.view = (*VIEW, f"view tunnels included .1.3.6.1.4.1.{test_daemon.PATHS.enterprise}.3.34")

    def doctor(self, *arguments, control=None, **options):
        """The exit status and the findings."""
        own = dict(environment(self.folder), MIBDIRS=self.mibs)
        done = subprocess.run(
            [test_daemon.PATHS.ctl, "--json", "--control", control or self.control, "doctor",
             "--snmpd-config", self.snmpd_config, *arguments], capture_output=True, text=True,
            check=False, timeout=PATIENCE, env=own, **options)
        self.assertNotEqual("", done.stdout, done.stderr)
        return done.returncode, json.loads(done.stdout)["findings"]

    def assert_all_right(self, *arguments):
        status, findings = self.doctor(*arguments)
        self.assertEqual([], [one for one in findings if one["verdict"] != "right"])
        self.assertEqual(RIGHT, status)
        return findings

    def assert_finds(self, status, check, what, advice, *arguments, **options):
        """Of that check there is a finding with that status, text and advice."""
        got, findings = self.doctor(*arguments, **options)
        self.assertEqual(status, got, findings)
        verdict = {TODO: "todo", UNKNOWN: "unknown"}[status]
        wrong = [one for one in findings if one["verdict"] == verdict and one["check"] == check]
        self.assertNotEqual([], wrong, findings)
        self.assertRegex(" ".join(one["what"] for one in wrong), what)
        self.assertRegex(" ".join(one["advice"] for one in wrong), advice)
        return findings

    def wrong_checks(self, findings):
        return {one["check"] for one in findings if one["verdict"] != "right"}


class Daemon(DoctorTest):
    def test_that_is_not_there_is_to_be_started(self):
        findings = self.assert_finds(TODO, "daemon", "No such file", "systemctl start tunnelsnmpd")
        self.assertEqual({"daemon"}, self.wrong_checks(findings))

    def test_that_has_left_its_socket_behind_is_to_be_started(self):
        self.start_office().kill()
        self.assert_finds(TODO, "daemon", "refused", "left from a daemon that is gone")

    def test_that_does_not_answer_is_to_be_restarted(self):
        daemon = self.start_office()
        daemon.child.send_signal(signal.SIGSTOP)
        self.addCleanup(daemon.child.send_signal, signal.SIGCONT)
        self.assert_finds(TODO, "daemon", "has not answered within", "restart tunnelsnmpd")

    def test_that_is_somebody_elses_cannot_be_looked_at(self):
        if reason := why_not():
            self.skipTest(reason)
        os.chmod(self.folder, 0o755)
        self.start_office()
        self.assert_finds(UNKNOWN, "daemon", "Permission denied", "as root", **as_user(OWNER))

    def test_that_is_none_is_told(self):
        listening = socket.socket(socket.AF_UNIX)
        self.addCleanup(listening.close)
        listening.bind(self.control)
        os.chmod(self.control, 0o666)
        listening.listen()
        listening.settimeout(PATIENCE)
        def serve():
            connection = listening.accept()[0]
            connection.recv(4096)
            connection.sendall(b"220 mail\n")
            connection.close()
        threading.Thread(target=serve, daemon=True).start()
        self.assertEqual(TODO, self.doctor()[0])


class Sources(DoctorTest):
    def test_of_which_there_are_none_are_to_be_given(self):
        self.start()
        self.assert_finds(TODO, "sources", "without any source", "--source linux")

    def test_that_are_broken_are_named_with_the_reason(self):
        self.start_office()
        self.write("tunnels.json", "{")
        self.wait_until(lambda: self.ctl_json("status")["sources"][0]["state"] == "degraded")
        self.assert_finds(TODO, f"source json:{self.source}", "not in sync: .*json", "mend")

    def test_without_tunnels_leave_the_tables_empty(self):
        empty = self.write("empty.json", "{}")
        self.start("--source", "json:" + empty)
        self.assert_finds(TODO, "rows", "no source publishes any tunnel", "make one")


class StandAlone(DoctorTest):
    def test_is_all_right_with_the_default_community(self):
        self.start_office()
        findings = self.assert_all_right()
        self.assertEqual({"daemon", f"source json:{self.source}", "rows", "answer", "MIB"},
                         {one["check"] for one in findings})

    def test_is_all_right_with_a_configuration_of_its_own(self):
        self.start_office("--config", self.write("own.conf", "rocommunity secret localhost\n"))
        findings = self.assert_all_right()
        self.assertIn('community "secret"', json.dumps(findings).replace('\\"', '"'))

    def test_has_its_view_looked_at(self):
        self.start_office("--config", self.write(
            "own.conf", "rocommunity public default -V v\nview v included .1.3.6.1.2.1.1\n"))
        findings = self.assert_finds(TODO, "access", "nobody may read TUNNEL-MIB",
                                     "view v included .1.3.6.1.2.1.10.131")
        self.assertEqual({"access", "answer"}, self.wrong_checks(findings))

    def test_with_users_only_is_asked_as_one_of_them(self):
        self.start_office("--config", self.write("own.conf", test_daemon.V3_CONFIG))
        self.assert_finds(UNKNOWN, "answer", "no community", "-v3")
        self.assert_all_right("--", *test_daemon.V3)

    def test_asked_with_wrong_credentials_does_not_answer(self):
        self.start_office()
        self.assert_finds(TODO, "answer", "no answer from", "COMMUNITY", "--", "-v2c", "-c", "no")

    def test_asked_at_another_address_does_not_answer(self):
        self.start_office()
        self.assert_finds(TODO, "answer", "no answer from udp:127.0.0.1:9", "--address", "--address",
                          "udp:127.0.0.1:9")

    def test_without_the_mib_is_to_be_given_it(self):
        self.start_office()
        self.mibs = self.folder
        findings = self.assert_finds(TODO, "MIB", self.folder, "copy mibs/VELMORA-TUNNEL-MIB.txt")
        self.assertEqual({"MIB"}, self.wrong_checks(findings))

    def test_with_wrong_arguments_is_wrong_usage(self):
        self.start_office()
        done = subprocess.run([test_daemon.PATHS.ctl, "--control", self.control, "doctor", "--", "-v9"],
                              capture_output=True, text=True, check=False, timeout=PATIENCE)
        self.assertEqual(2, done.returncode)
        self.assertIn("not what snmpget takes", done.stderr)

    def test_is_told_to_people_on_pages_of_a_hundred_columns(self):
        self.start_office()
        self.mibs = self.folder
        done = subprocess.run([test_daemon.PATHS.ctl, "--control", self.control, "doctor"],
                              capture_output=True, text=True, check=False, timeout=PATIENCE,
                              env=dict(environment(self.folder), MIBDIRS=self.folder))
        self.assertEqual(TODO, done.returncode)
        self.assertRegex(done.stdout, r"(?m)^ok     daemon .*\n(.*\n)*TO DO  MIB ")
        self.assertLessEqual(max(map(len, done.stdout.splitlines())), 100)
        self.assertNotIn("\x1b", done.stdout)
        self.assertEqual("tunnelsnmpctl: one thing to do\n", done.stderr)


@unittest.skipUnless(shutil.which("snmpd"), "there is no snmpd to be the master")
class BehindMaster(DoctorTest):
    def setUp(self):
        super().setUp()
        self.master_socket = self.path("master")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            self.listener = f"127.0.0.1:{probe.getsockname()[1]}"
        self.configure()

    def configure(self, *lines, master="master agentx", view=None):
        """What the master reads, and the doctor."""
        self.snmpd_config = self.write("snmpd.conf", "\n".join(
            [master, f"agentXSocket {self.master_socket}", f"agentaddress {self.listener}",
             *(self.view if view is None else view), *lines, ""]))

    def start_master(self):
        state = self.path("snmpd-state")
        os.makedirs(state, exist_ok=True)
        own = dict(environment(self.folder), SNMP_PERSISTENT_DIR=state)
        master = Process(["snmpd", "-f", "-Lo", "-C", "-c", self.snmpd_config, "-I", "-smux"], own)
        self.addCleanup(master.kill)
        master.wait_for_line(master.out, "^NET-SNMP version")
        return master

    def start_subagent(self):
        return self.start_office_at("--agentx", self.master_socket)

    def start_office_at(self, *transport):
        return self.start("--source", "json:" + self.source, transport=transport)

    def wait_until_served(self):
        self.wait_until(lambda: self.ctl_json("status")["agentx"]["state"] == "serving")

    def serve(self):
        master = self.start_master()
        daemon = self.start_subagent()
        self.wait_until_served()
        return master, daemon


class Master(BehindMaster):
    def test_with_all_in_order_is_all_right(self):
        self.serve()
        findings = self.assert_all_right()
        self.assertEqual({"daemon", f"source json:{self.source}", "rows", "master", "session",
                          "registration", "configuration", "access", "answer", "MIB"},
                         {one["check"] for one in findings})

    def test_that_is_not_there_is_to_be_started(self):
        self.start_subagent()
        self.assert_finds(TODO, "master", f"{self.master_socket} does not exist", "restart snmpd")

    def test_whose_folder_is_not_there_is_to_be_started(self):
        self.start_office_at("--agentx", self.path("agentx/master"))
        self.assert_finds(TODO, "master", "/agentx does not exist", "master agentx")

    def test_that_has_left_its_socket_behind_is_to_be_started(self):
        with socket.socket(socket.AF_UNIX) as gone:
            gone.bind(self.master_socket)
        self.start_subagent()
        self.assert_finds(TODO, "master", "nobody takes connections", "restart snmpd")

    def test_that_is_no_master_is_to_be_made_one(self):
        self.configure(master="")
        self.start_master()
        self.start_subagent()
        findings = self.assert_finds(TODO, "configuration", "has no \"master agentx\"", "add the line")
        self.assertIn("master", self.wrong_checks(findings))

    def test_at_another_socket_is_told_with_both(self):
        self.start_master()
        self.start_office_at("--agentx", self.path("other"))
        self.assert_finds(TODO, "configuration", "listen at .*/master, the daemon tries .*/other",
                          f"--agentx {self.master_socket}")

    def test_that_does_not_answer_leaves_the_session_closed(self):
        master = self.start_master()
        master.child.send_signal(signal.SIGSTOP)
        self.addCleanup(master.child.send_signal, signal.SIGCONT)
        self.start_subagent()
        findings = self.assert_finds(TODO, "session", "opening", "tries again")
        self.assertNotIn("master", self.wrong_checks(findings))

    def test_whose_socket_is_closed_to_the_daemon_is_to_be_opened(self):
        if reason := why_not():
            self.skipTest(reason)
        os.chmod(self.folder, 0o755)
        os.makedirs(self.path("run"))
        os.chown(self.path("run"), OWNER, OWNER)
        os.chmod(self.source, 0o644)
        self.start_master()
        os.chmod(self.master_socket, 0o600)
        self.control = self.path("run/control.sock")
        daemon = Process([test_daemon.PATHS.daemon, "--control", self.control, "--agentx",
                          self.master_socket, "--source", "json:" + self.source],
                         environment(self.folder), **as_user(OWNER))
        self.addCleanup(daemon.kill)
        self.ctl("wait-ready", "--timeout", str(PATIENCE))
        self.assert_finds(TODO, "master", "may not connect to .*mode 0600", "agentXPerms")
        os.chmod(self.folder, 0o700)
        self.assert_finds(TODO, "master", f"may not go through {self.folder}", "agentXPerms")


class Registrations(BehindMaster):
    def test_that_another_has_are_told_with_its_name(self):
        self.serve()
        self.control = self.path("second.sock")
        self.start_subagent()
        self.wait_until(lambda: "refused" in {
            one["state"] for one in self.ctl_json("status")["agentx"]["registrations"]})
        findings = self.assert_finds(TODO, "registration", r"belongs to somebody else: .*\w",
                                     "stop the other")
        self.assertNotIn("does not say to whom", json.dumps(findings))

    def test_that_another_has_are_told_where_the_master_does_not_say_whose(self):
        self.view = [line for line in self.view if "8072" not in line]
        self.configure()
        self.serve()
        self.control = self.path("second.sock")
        self.start_subagent()
        self.wait_until(lambda: "refused" in {
            one["state"] for one in self.ctl_json("status")["agentx"]["registrations"]})
        self.assert_finds(TODO, "registration", "does not say to whom", "stop the other")


class Access(BehindMaster):
    def test_as_debian_has_it_hides_the_tables(self):
        self.configure(view=("view   systemonly  included   .1.3.6.1.2.1.1",
                             "view   systemonly  included   .1.3.6.1.2.1.25.1",
                             "rocommunity  public default -V systemonly"))
        self.serve()
        findings = self.assert_finds(TODO, "access", "public is limited to view systemonly",
                                     "view systemonly included .1.3.6.1.2.1.10.131")
        self.assertEqual({"access", "answer"}, self.wrong_checks(findings))

    def test_to_one_of_the_modules_is_not_enough(self):
        self.configure(view=VIEW)
        self.serve()
        findings = self.assert_finds(TODO, "access", "nobody may read VELMORA-TUNNEL-MIB",
                                     rf"\.{test_daemon.PATHS.enterprise}\.3\.34")
        self.assertEqual(2, len([one for one in findings if one["verdict"] == "todo"]))

    def test_that_nobody_has_is_to_be_given(self):
        self.configure(view=())
        self.serve()
        self.assert_finds(TODO, "access", "lets nobody read anything", "rocommunity")

    def test_of_which_the_configuration_cannot_be_read_cannot_be_told(self):
        self.serve()
        self.snmpd_config = self.path("nothing.conf")
        self.assert_finds(UNKNOWN, "access", "nothing.conf: No such file", "--snmpd-config",
                          "--address", self.listener)

    def test_in_an_included_file_counts(self):
        os.makedirs(self.path("snmpd.conf.d"))
        self.write("snmpd.conf.d/tunnels.conf", "\n".join(self.view) + "\n")
        self.configure(f"includeDir {self.path('snmpd.conf.d')}", view=())
        self.serve()
        self.assert_all_right()

    def test_from_elsewhere_alone_cannot_be_tried_here(self):
        self.configure("rocommunity far 192.0.2.0/24", view=())
        self.serve()
        self.assert_finds(UNKNOWN, "answer", "no community .* from this machine", "-- -v2c")


if __name__ == "__main__":
    test_daemon.main(__doc__)
