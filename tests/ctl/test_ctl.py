"""Runs the real tunnelsnmpctl beside daemons that are stopped or none at all, with patches that are
none, and with an output that takes nothing. Waits are bounded."""

import argparse
import json
import os
import pathlib
import pty
import re
import resource
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PATHS = None  # the binaries, from the command line
PATIENCE = 60  # seconds; only a broken program needs them

UNUSABLE = 2
UNWRITTEN = 3


class CtlTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="tunnelsnmpctl-")
        self.addCleanup(shutil.rmtree, self.folder)
        self.control = self.path("control.sock")

    def path(self, name):
        return os.path.join(self.folder, name)

    def run_ctl(self, *arguments, shell="exec \"$@\"", **options):
        """Through a shell, which can close and turn streams as operators do."""
        return subprocess.run(["bash", "-c", shell, "bash", PATHS.ctl, "--control", self.control,
                               *arguments], capture_output=True, text=True, check=False,
                              timeout=PATIENCE, **options)

    def assert_complains(self, status, pattern, done):
        self.assertEqual(status, done.returncode, done)
        self.assertRegex(done.stderr, rf"\Atunnelsnmpctl: .*{pattern}.*\n\Z")
        self.assertEqual(1, done.stderr.count("\n"))

    def start_daemon(self):
        daemon = subprocess.Popen([PATHS.daemon, "--control", self.control, "--listen",
                                   "udp:127.0.0.1:0"], stdout=subprocess.DEVNULL)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        self.wait_ready(daemon)
        return daemon

    def wait_ready(self, daemon):
        while self.run_ctl("wait-ready", "--timeout", "0.2").returncode != 0:
            self.assertIsNone(daemon.poll(), "the daemon has ended")

    def answer(self, text):
        """Somebody at the control socket who answers each request with this text."""
        listening = socket.socket(socket.AF_UNIX)
        self.addCleanup(listening.close)
        listening.bind(self.control)
        listening.listen()

        def serve():
            while True:
                try:
                    with listening.accept()[0] as connection:
                        connection.recv(65536)
                        connection.sendall(text)
                except OSError:
                    return
        threading.Thread(target=serve, daemon=True).start()


class BesideADaemonThatIsNone(CtlTest):
    def test_waiting_is_over_in_time_beside_a_daemon_that_is_stopped(self):
        daemon = self.start_daemon()
        daemon.send_signal(signal.SIGSTOP)
        for seconds in ("0", "0.5", "1"):
            began = time.monotonic()
            done = self.run_ctl("wait-ready", "--timeout", seconds)
            self.assertLess(time.monotonic() - began, 4)
            self.assert_complains(1, "not ready: .*is it stopped or stuck", done)
        daemon.send_signal(signal.SIGCONT)
        self.assertEqual(0, self.run_ctl("wait-ready", "--timeout", "10").returncode)

    def test_waiting_asks_again_until_the_daemon_is_ready(self):
        self.answer(b'{"ok": true, "result": {"ready": false}}\n')
        began = time.monotonic()
        done = self.run_ctl("wait-ready", "--timeout", "0.3")
        self.assertGreaterEqual(time.monotonic() - began, 0.3)
        self.assert_complains(1, "not ready after 0.3 s", done)

    def test_garbage_is_told_and_survived_by_each_command(self):
        for garbage in (b"\n", b"hello\n", b'{"ok": true, "result": 7}\n',
                        b'{"ok": true, "result": {"ready": 7, "machines": 7, "version": 7}}\n',
                        b'{"ok": true, "result": [[7]]}\n', b'{"ok": false, "error": {}}\n', b""):
            self.answer(garbage)
            for command in (["status"], ["version"], ["wait-ready", "--timeout", "0"]):
                with self.subTest(garbage=garbage, command=command):
                    self.assert_complains(UNUSABLE, "(daemon|version)", self.run_ctl(*command))
            os.remove(self.control)

    def test_whatever_comes_as_a_result_ends_no_command_by_a_signal(self):
        for result in (b"7", b"[[7]]", b"[7]", b'{"a": [7]}', b"null", b'"x"', b"[]"):
            self.answer(b'{"ok": true, "result": ' + result + b"}\n")
            for command in (["show", "tables"], ["show", "tunnels"], ["show", "state"], ["show", "ike"],
                            ["watch"] if not isinstance(json.loads(result), list) else ["status"],
                            ["show", "tasks"], ["show", "counters"], ["trace", "list"],
                            ["trace", "set", "A=1"], ["reread"], ["restart-machines"]):
                with self.subTest(result=result, command=command):
                    done = self.run_ctl(*command)
                    self.assertIn(done.returncode, (0, UNUSABLE), done)
                    self.assertEqual(done.returncode != 0, done.stderr != "")
            os.remove(self.control)


class Connections(CtlTest):
    def test_are_a_line_each_whatever_their_names(self):
        long = "n" * 200
        rows = [{"connection": long, "child": long, "state": "up", "interface": long,
                 "reason": long, "source": "vici"}]
        self.answer(json.dumps({"ok": True, "result": rows}).encode() + b"\n")
        header, line, cut = self.run_ctl("show", "ike").stdout.splitlines()
        self.assertRegex(header, r"\ACONNECTION +CHILD +STATE +INTERFACE +RULE OR REASON\Z")
        self.assertEqual(100, len(line))
        self.assertRegex(cut, r"\A\(cut to 100 columns: CONNECTION, .*; --json shows all\)\Z")
        self.assertEqual(rows, json.loads(self.run_ctl("--json", "show", "ike").stdout))

    def test_of_a_daemon_without_such_a_source_are_none_and_told_how_to_come_by(self):
        self.start_daemon()
        done = self.run_ctl("show", "ike")
        self.assertEqual(0, done.returncode, done)
        self.assertRegex(done.stdout, r"\Ano source tells of IPsec connections; .* --help.*\n\Z")
        self.assertEqual([], json.loads(self.run_ctl("--json", "show", "ike").stdout))


TUNNEL = [{"op": "add", "path": "/ifMib/ifIndexByIntfId/7", "value": 12},
          {"op": "add", "path": "/tunnelIntfStatusDir/intfStatus/7",
           "value": {"srcAddr": "192.0.2.1", "dstAddr": "192.0.2.2", "mode": "gre", "hopLimit": 64}}]


class Tunnels(CtlTest):
    def patch(self, *operations):
        done = self.run_ctl("patch", "-", input=json.dumps(operations))
        self.assertEqual(0, done.returncode, done.stderr)
        self.assertEqual(0, self.run_ctl("wait-ready").returncode)

    def start_watch(self, *options):
        watch = subprocess.Popen([PATHS.ctl, "--control", self.control, *options, "watch", "--interval",
                                  "0.1"], stdout=subprocess.PIPE, text=True)
        self.addCleanup(watch.stdout.close)
        self.addCleanup(watch.wait)
        self.addCleanup(watch.kill)
        return watch

    def assert_tells(self, watch, pattern):
        """There may be lines before it: a look can come before the rows are written."""
        lines = []
        for line in watch.stdout:
            lines.append(line)
            if re.search(pattern, line):
                return
            self.assertLess(len(lines), 5, lines)

    def test_are_a_line_each_and_what_is_missing_is_told_below(self):
        self.start_daemon()
        self.assertRegex(self.run_ctl("show", "tunnels").stdout, "^no tunnels: .*doctor")
        self.patch(*TUNNEL, {"op": "replace", "path": TUNNEL[1]["path"] + "/dstAddr", "value": ""})
        self.assertEqual(["IFINDEX  KIND  LOCAL      TTL  SECURITY  NOTE",
                          "     12  gre   192.0.2.1   64  none      1",
                          "1) no row in tunnelInetConfigTable: no remote address"],
                         self.run_ctl("show", "tunnels").stdout.splitlines())
        tunnel, = json.loads(self.run_ctl("--json", "show", "tunnels").stdout)
        self.assertEqual((12, "192.0.2.1", ""), (tunnel["ifIndex"], tunnel["local"], tunnel["remote"]))
        self.assertEqual({"tunnelInetConfigTable": "no remote address",
                          "ipsecTunnelIfTable": "IPsec does not protect it"}, tunnel["missing"])

    def test_of_the_same_addresses_are_told_who_has_the_row(self):
        self.start_daemon()
        second = [dict(one, path=one["path"][:-1] + "8") for one in TUNNEL]
        second[0]["value"] = 13
        self.patch(*TUNNEL, *second)
        self.assertIn("1) no row in tunnelInetConfigTable: same addresses as ifIndex 12\n",
                      self.run_ctl("show", "tunnels").stdout)

    def test_show_names_in_tables_for_people_and_numbers_for_programs(self):
        self.start_daemon()
        self.patch(*TUNNEL)
        self.assertRegex(self.run_ctl("show", "tables").stdout,
                         r"(?m)^ipv4 +192\.0\.2\.1 +192\.0\.2\.2 +gre +1 +12 +active +read only$")
        row, = json.loads(self.run_ctl("--json", "show", "tables").stdout)["tunnelInetConfigTable"]
        self.assertEqual((1, 3, "'c0000201'"), (row["addrType"], row["encapsMethod"], row["localAddr"]))
        self.assertIn("key", row)

    def test_have_the_names_that_the_mib_has(self):
        self.start_daemon()
        self.patch(*TUNNEL, {"op": "replace", "path": TUNNEL[1]["path"] + "/ipsec", "value": True})
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(self.control)
            client.sendall(b'{"command": "tables/columns"}\n')
            columns = json.loads(client.makefile().readline())["result"]
        names = {column["name"]: column.get("enumerators") for table in columns.values()
                 for column in table}
        mib = (pathlib.Path(__file__).resolve().parents[2] / "mibs/VELMORA-TUNNEL-MIB.txt").read_text()
        told = re.search(r"SYNTAX +INTEGER \{(.*?)\}", mib, re.DOTALL).group(1)
        self.assertEqual({number: name for name, number in re.findall(r"(\w+)\((\d+)\)", told)},
                         names["connState"])

    def test_are_watched(self):
        daemon = self.start_daemon()
        watch = self.start_watch()
        self.assert_tells(watch, "^no tunnels")
        self.patch(*TUNNEL)
        self.assert_tells(watch, r"^\d\d:\d\d:\d\d  added    ifIndex 12: gre from 192\.0\.2\.1 to 192\.0\.2\.2$")
        self.patch({"op": "replace", "path": TUNNEL[1]["path"] + "/hopLimit", "value": 9})
        self.assert_tells(watch, r"  changed  ifIndex 12: hop limit 64 -> 9$")
        self.patch({"op": "remove", "path": TUNNEL[1]["path"]})
        self.assert_tells(watch, r"  removed  ifIndex 12: ")
        daemon.terminate()
        daemon.wait(PATIENCE)
        self.assert_tells(watch, r"  (lost|cannot reach) the daemon at .*")
        self.start_daemon()
        self.assert_tells(watch, r"  the daemon is back$")

    def test_are_watched_by_programs(self):
        self.start_daemon()
        watch = self.start_watch("--json")
        self.assertEqual({"tunnels": []}, json.loads(watch.stdout.readline()))
        self.patch(*TUNNEL)
        line = json.loads(watch.stdout.readline())
        self.assertEqual(("added", 12), (line["change"], line["tunnel"]["ifIndex"]))
        self.assertRegex(line["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")

    def test_are_not_watched_more_often_than_the_daemon_can_bear(self):
        for interval in ("0", "0.01", "-1", "nan"):
            self.assert_complains(UNUSABLE, "give 0.1 to 1000000 seconds",
                                  self.run_ctl("watch", "--interval", interval))


class Colours(CtlTest):
    def run_on_a_terminal(self, **variables):
        """What a terminal gets."""
        reading, writing = pty.openpty()
        self.addCleanup(os.close, reading)
        own = {name: value for name, value in os.environ.items() if name != "NO_COLOR"}
        own.update({"TERM": "xterm"} | variables)
        subprocess.run([PATHS.ctl, "--control", self.control, "status"], stdout=writing, env=own,
                       timeout=PATIENCE, check=True)
        os.close(writing)
        text = b""
        while select.select([reading], [], [], 0)[0]:
            try:
                text += os.read(reading, 65536)
            except OSError:  # all is read
                break
        return text

    def test_are_shown_on_a_terminal_only(self):
        self.start_daemon()
        self.assertIn(b"\x1b[1mMachines\x1b[0m", self.run_on_a_terminal())
        self.assertNotIn("\x1b", self.run_ctl("status").stdout)

    def test_are_not_shown_where_they_are_not_wanted(self):
        self.start_daemon()
        for variables in ({"NO_COLOR": "1"}, {"TERM": "dumb"}, {"TERM": ""}):
            text = self.run_on_a_terminal(**variables)
            self.assertIn(b"Machines", text)
            self.assertNotIn(b"\x1b", text)


class Patches(CtlTest):
    def test_a_patch_that_cannot_be_read_is_told(self):
        none, folder = self.path("none"), self.folder
        self.assert_complains(UNUSABLE, f"cannot read {none}: No such file",
                              self.run_ctl("patch", none))
        self.assert_complains(UNUSABLE, f"cannot read {folder}: Is a directory",
                              self.run_ctl("patch", folder))
        self.assert_complains(UNUSABLE, "cannot read -: Is a directory",
                              self.run_ctl("patch", "-", shell=f'exec "$@" < {folder}'))
        self.assert_complains(UNUSABLE, "cannot read -: Bad file descriptor",
                              self.run_ctl("patch", "-", shell='exec "$@" <&-'))

    def test_a_patch_without_end_is_read_no_further_than_the_daemon_would_take(self):
        self.assert_complains(UNUSABLE, "/dev/zero is longer than 16777216 bytes",
                              self.run_ctl("patch", "/dev/zero"))

    def test_a_patch_that_is_no_json_is_told_with_its_place_and_without_names_of_libraries(self):
        done = self.run_ctl("patch", "-", input='[\n{"op": }]')
        self.assert_complains(UNUSABLE, "- is no JSON: line 2: ", done)
        self.assertNotRegex(done.stderr, r"json\.exception|nlohmann|std::")
        self.assert_complains(UNUSABLE, "- is no JSON: .*", self.run_ctl("patch", "-", input=""))

    def test_a_patch_goes_to_the_daemon_as_it_is_written(self):
        self.start_daemon()
        patch = ('[\n  {"op": "add",\r\n\t"path": "/ikeStatus/ipsecTunnelInfo/7",\n'
                 '   "value": {"profileName": "a\\nb }]} \\u00e9"}}\n]\n')
        self.assertEqual(0, self.run_ctl("patch", "-", input=patch).returncode)
        shown = self.run_ctl("show", "state", "/ikeStatus/ipsecTunnelInfo/7")
        self.assertEqual({"profileName": "a\nb }]} é"}, json.loads(shown.stdout))

    def test_a_deep_patch_ends_nobody(self):
        daemon = self.start_daemon()
        done = self.run_ctl("patch", "-", input="[" * 5000 + "]" * 5000)
        self.assert_complains(UNUSABLE, "nested deeper than 64 levels", done)
        self.assertIsNone(daemon.poll())


class AnOutputThatTakesNothing(CtlTest):
    def test_is_told_and_has_a_status_of_its_own(self):
        self.start_daemon()
        for command in (["status"], ["show", "tables"], ["version"], ["--json", "status"],
                        ["--help"], ["show", "--help"]):
            for shell, reason in (('exec "$@" > /dev/full', "No space left on device"),
                                  ('exec "$@" >&-', "Bad file descriptor")):
                with self.subTest(command=command, shell=shell):
                    self.assert_complains(UNWRITTEN, reason, self.run_ctl(*command, shell=shell))

    def test_a_pipe_that_nobody_reads_is_told_and_sends_no_signal(self):
        self.start_daemon()
        reading, writing = os.pipe()
        os.close(reading)
        done = subprocess.run([PATHS.ctl, "--control", self.control, "status"], stdout=writing,
                              stderr=subprocess.PIPE, text=True, timeout=PATIENCE, check=False)
        os.close(writing)
        self.assert_complains(UNWRITTEN, "Broken pipe", done)

    def test_a_file_that_may_grow_no_further_is_told(self):
        self.start_daemon()

        def no_room():
            resource.setrlimit(resource.RLIMIT_FSIZE, (10, 10))
        with open(self.path("out"), "wb") as out:
            done = subprocess.run([PATHS.ctl, "--control", self.control, "status"], stdout=out,
                                  stderr=subprocess.PIPE, text=True, timeout=PATIENCE, check=False,
                                  preexec_fn=no_room)
        self.assert_complains(UNWRITTEN, "File too large", done)

    def test_changes_no_status_where_there_is_nothing_to_write(self):
        self.start_daemon()
        patch = '[{"op": "add", "path": "/ifMib/ifIndexByIntfId/7", "value": 12}]'
        for shell in ('exec "$@" > /dev/full', 'exec "$@" >&-'):
            done = self.run_ctl("patch", "-", shell=shell, input=patch)
            self.assertEqual((0, ""), (done.returncode, done.stderr))
        self.assertEqual("12\n", self.run_ctl("show", "state", "/ifMib/ifIndexByIntfId/7").stdout)

    def test_an_error_stream_that_takes_nothing_changes_no_status(self):
        for shell in ('exec "$@" 2> /dev/full', 'exec "$@" 2>&-', 'exec "$@" <&- >&- 2>&-'):
            self.assertEqual(UNUSABLE, self.run_ctl("status", shell=shell).returncode)
            self.assertEqual(UNUSABLE, self.run_ctl("dance", shell=shell).returncode)

    def test_of_the_daemon_is_told_by_its_status_too(self):
        for option in ("--help", "--version"):
            with open("/dev/full", "wb") as full:
                done = subprocess.run([PATHS.daemon, option], stdout=full, timeout=PATIENCE,
                                      stderr=subprocess.PIPE, check=False)
            self.assertEqual(1, done.returncode, done.stderr)

    def test_does_not_keep_the_daemon_from_serving(self):
        daemon = subprocess.Popen(["bash", "-c", 'exec "$@" <&- >&- 2>&-', "bash", PATHS.daemon,
                                   "--control", self.control, "--listen", "udp:127.0.0.1:0"])
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        self.wait_ready(daemon)
        streams = [os.readlink(f"/proc/{daemon.pid}/fd/{number}") for number in range(3)]
        self.assertEqual(["/dev/null"] * 3, streams)
        daemon.terminate()
        self.assertEqual(0, daemon.wait(PATIENCE))


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--ctl", required=True)
    PATHS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
