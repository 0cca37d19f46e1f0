"""What the world may do to the real daemon: a log that nobody reads, no memory, no time to end, two
starts at once. It goes on, or ends as it says."""

import json
import os
import random
import re
import resource
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

import test_daemon
from test_daemon import TUNNEL_IF_TABLE, DaemonTest, many_tunnels

SEED = int(os.environ.get("TEST_SEED", random.randrange(1 << 30)))
CELL = f"{TUNNEL_IF_TABLE}.1.4.2001"


class Faults(DaemonTest):
    def launch_raw(self, *options, err, out=None):
        """The daemon on a free port, with an error stream of the test's choice."""
        out_read, out_write = os.pipe() if out is None else (None, out)
        child = subprocess.Popen(
            [test_daemon.PATHS.daemon, "--control", self.control, "--listen", "udp:127.0.0.1:0",
             "--source", "json:" + self.source, *options], stdout=out_write, stderr=err,
            env=test_daemon.environment(self.folder))
        self.addCleanup(child.wait)
        self.addCleanup(child.kill)
        if out is None:
            os.close(out_write)
            with os.fdopen(out_read) as lines:
                self.address = re.search(r"udp:(\S+)", lines.readline()).group(1)
        self.ctl("wait-ready", "--timeout", str(test_daemon.PATIENCE))
        return child

    def end(self, child):
        began = time.monotonic()
        child.send_signal(signal.SIGTERM)
        status = child.wait(test_daemon.PATIENCE)
        return status, time.monotonic() - began

    def assert_serves(self):
        values, _ = self.snmp("snmpget", [CELL])
        self.assertRegex(values[CELL], r"^INTEGER: \d+$")


class ErrorStream(Faults):
    """Everything is traced, and a machine fails: more lines than any pipe holds."""

    def work_through(self, child):
        for unit in ("TunnelIfTableSm", "TunnelInetConfigTableSm", "IpsecTunnelIfTableSm", "Snmp"):
            self.ctl("trace", "set", f"{unit}=all")
        intf = next(iter(self.document["ifMib"]["ifIndexByIntfId"]))
        self.patch("remove", f"/ifMib/ifIndexByIntfId/{intf}")
        self.patch("add", f"/ifMib/ifIndexByIntfId/{intf}", 4711)
        self.assertIn(4711, self.if_indexes(), "the patch was done to its end")
        for _ in range(5):
            self.assertNotEqual({}, self.walk())
        failures = self.ctl_json("status")["failures"]
        self.assertEqual(1, failures["notifiees"])
        self.assertGreater(failures["linesLost"], 0)
        status, seconds = self.end(child)
        self.assertEqual(0, status)
        self.assertLess(seconds, test_daemon.PATIENCE if test_daemon.PATHS.slow else 1)

    def test_on_a_full_disk_lines_are_lost_and_nothing_else(self):
        with open("/dev/full", "w", encoding="ascii") as full:
            self.work_through(self.launch_raw(err=full))

    def test_in_a_file_that_may_not_grow_lines_are_lost_and_nothing_else(self):
        with open(self.path("log"), "w", encoding="ascii") as log:
            child = self.launch_raw(err=log)
        resource.prlimit(child.pid, resource.RLIMIT_FSIZE, (10, 10))
        self.work_through(child)

    def test_without_a_reader_lines_are_lost_and_nothing_else(self):
        reader, writer = os.pipe()
        child = self.launch_raw(err=writer)
        os.close(writer)
        os.close(reader)
        self.work_through(child)

    def test_beside_a_reader_that_stopped_lines_are_lost_and_nothing_else(self):
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        child = self.launch_raw(err=writer)
        os.close(writer)
        self.work_through(child)

    def test_beside_a_terminal_that_was_stopped_lines_are_lost_and_nothing_else(self):
        keyboard, terminal = os.openpty()
        self.addCleanup(os.close, keyboard)
        child = self.launch_raw(err=terminal)
        os.close(terminal)
        self.work_through(child)

    def test_beside_a_socket_that_nobody_reads_lines_are_lost_and_nothing_else(self):
        ours, theirs = socket.socketpair()
        self.addCleanup(ours.close)
        child = self.launch_raw(err=theirs)
        theirs.close()
        self.work_through(child)

    def test_others_that_hold_the_stream_still_wait_when_they_write(self):
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        self.addCleanup(os.close, writer)
        self.launch_raw(err=writer)
        self.ctl("status")
        self.assertTrue(os.get_blocking(writer))

    def test_says_how_many_lines_were_lost_when_it_can_write_again(self):
        reader, writer = os.pipe()
        child = self.launch_raw(err=writer)
        os.close(writer)
        self.ctl("trace", "set", "Snmp=all")
        while self.ctl_json("status")["failures"]["linesLost"] == 0:
            self.walk()
        self.ctl("trace", "set", "Snmp=none")
        lost = self.ctl_json("status")["failures"]["linesLost"]
        lines = []
        with os.fdopen(reader, encoding="utf-8") as stream:
            taker = threading.Thread(target=lambda: lines.extend(stream))
            taker.start()
            time.sleep(0.2)
            self.write("tunnels.json", "{")
            self.ctl("reread", status=1)
            self.assertEqual(0, self.end(child)[0])
            taker.join()
        said = re.findall(r"(?m)^tunnelsnmpd: (\d+) lines were lost$", "".join(lines))
        self.assertEqual(lost, sum(int(count) for count in said))
        self.assertRegex(lines[-1], "^tunnelsnmpd: json:")
        self.assertFalse("\n" in lines, "an empty line")

    def test_it_starts_with_nobody_at_its_output_either(self):
        with open("/dev/full", "w", encoding="ascii") as full:
            child = self.launch_raw(err=full, out=full)
            self.assertEqual(0, self.end(child)[0])


@unittest.skipIf("--slow" in sys.argv, "a sanitizer needs more addresses than there may be")
class Memory(Faults):
    def limit(self, daemon, extra):
        with open(f"/proc/{daemon.child.pid}/status", encoding="ascii") as status:
            size = int(re.search(r"VmSize:\s+(\d+) kB", status.read()).group(1)) * 1024
        resource.prlimit(daemon.child.pid, resource.RLIMIT_AS, (size + extra, -1))

    def ask(self, request):
        with socket.socket(socket.AF_UNIX) as client:
            client.settimeout(test_daemon.PATIENCE)
            client.connect(self.control)
            client.sendall(request)
            with client.makefile() as answers:
                return answers.readline()

    def test_a_request_that_there_is_no_memory_for_is_refused_and_all_goes_on(self):
        daemon = self.start_office()
        served = self.walk()
        text = b'{"command": "patch", "arguments": {"patch": "' + b"x" * 15_000_000 + b'"}}\n'
        for megabytes in (0, 4, 16, 24, 40):
            self.limit(daemon, megabytes << 20)
            answer = self.ask(text)
            if answer:  # else there was no memory to refuse it either, and the client was dropped
                self.assertRegex(answer, '"ok":false')
            self.assertEqual(served, self.walk())
        self.assertTrue(self.ctl_json("status")["ready"])
        self.assertEqual(0, daemon.end()[0], daemon.err)

    def test_what_cannot_be_survived_ends_it_with_one_line(self):
        daemon = self.start_office()
        self.limit(daemon, 48 << 20)
        self.assertEqual("", self.ask(b'{"command": "patch", "arguments": {"patch": ['
                                      + b"[]," * 4_000_000 + b"0]}}\n"))
        self.assertEqual(1, daemon.wait())
        self.assertEqual(["tunnelsnmpd: out of memory"], daemon.err)

    def test_a_file_that_there_is_no_memory_for_leaves_what_was_there(self):
        daemon = self.start_office()
        served = self.walk()
        self.limit(daemon, 0)
        self.write("tunnels.json", json.dumps(many_tunnels(400_000)))
        errors = []

        def has_given_up():
            try:
                source = self.ctl_json("status")["sources"][0]
            except AssertionError:
                return False  # the reading has all memory, and the client was dropped
            errors.append(source["lastError"])
            return source["state"] == "degraded" and not source["reading"]

        self.wait_until(has_given_up)
        self.assertEqual(served, self.walk())
        self.assertIn("there is not enough memory", errors[-1])
        self.assertEqual(0, daemon.end()[0], daemon.err)

    def test_a_start_without_memory_ends_with_one_line(self):
        many = self.write("many.json", json.dumps(many_tunnels(100_000)))
        for megabytes in (90, 110, 130, 160):
            done = subprocess.run(
                ["prlimit", f"--as={megabytes << 20}", "--", test_daemon.PATHS.daemon,
                 "--control", self.control, "--listen", "udp:127.0.0.1:0", "--source",
                 "json:" + many, "--plugin", self.path("none.so")],
                env=test_daemon.environment(self.folder), capture_output=True, text=True,
                timeout=test_daemon.PATIENCE, check=False)
            self.assertEqual(1, done.returncode, done.stderr)
            self.assertEqual(1, done.stderr.count("\n"), done.stderr)


class Ends(Faults):
    def test_quit_ends_it_like_term_and_the_user_signals_do_nothing(self):
        daemon = self.start_office()
        for number in (signal.SIGUSR1, signal.SIGUSR2):
            daemon.child.send_signal(number)
        self.assert_serves()
        status, seconds = daemon.end(signal.SIGQUIT)
        self.assertEqual((0, []), (status, daemon.err))
        self.assertLess(seconds, test_daemon.PATIENCE if test_daemon.PATHS.slow else 1)
        self.assertFalse(os.path.exists(self.control))

    @unittest.skipUnless("--thorough" in sys.argv, "takes a minute")
    def test_term_ends_it_within_a_second_at_any_moment(self):
        print(f"TEST_SEED={SEED}", file=sys.stderr)
        moments = random.Random(SEED)
        many = self.write("many.json", json.dumps(many_tunnels(100_000)))
        for round_number in range(12):
            daemon = self.launch("--listen", "udp:127.0.0.1:0", "--source", "json:" + many)
            if round_number % 3 == 2:
                daemon.wait_for_line(daemon.out, "listening")
                os.utime(many)
            # Before main() sets them up, signals do what they always do.
            self.wait_until(lambda: self.catches_term(daemon))
            time.sleep(moments.uniform(0, 4))
            status, seconds = daemon.end()
            self.assertEqual(0, status, daemon.err)
            self.assertLess(seconds, 1)
            self.assertFalse(os.path.exists(self.control))

    @staticmethod
    def catches_term(daemon):
        with open(f"/proc/{daemon.child.pid}/status", encoding="ascii") as file:
            caught = int(re.search(r"SigCgt:\s+(\S+)", file.read()).group(1), 16)
        return caught >> (signal.SIGTERM - 1) & 1

    def test_term_ends_it_in_the_middle_of_a_patch(self):
        daemon = self.start_office()
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(self.control)
            operations = [{"op": "add", "path": f"/ifMib/ifIndexByIntfId/{number}",
                           "value": number} for number in range(100_000, 160_000)]
            text = json.dumps({"command": "patch", "arguments": {"patch": operations}})
            client.sendall(text.encode() + b"\n")
            time.sleep(0.2)
            status, seconds = daemon.end()
        self.assertEqual(0, status, daemon.err)
        self.assertLess(seconds, 1 if not test_daemon.PATHS.slow else test_daemon.PATIENCE)
        self.assertFalse(os.path.exists(self.control))


class Starts(Faults):
    def test_of_two_daemons_that_start_at_once_one_runs(self):
        """A dead daemon's socket is there each time."""
        for _ in range(60 if test_daemon.PATHS.thorough else 3):
            with socket.socket(socket.AF_UNIX) as dead:
                dead.bind(self.control)
            pair = [self.launch("--listen", "udp:127.0.0.1:0") for _ in range(2)]
            self.wait_until(lambda: any(one.out for one in pair))
            self.wait_until(lambda: any(one.child.poll() is not None for one in pair))
            time.sleep(0.05)
            running = [one for one in pair if one.child.poll() is None]
            self.assertEqual(1, len(running), [one.err for one in pair])
            ended = next(one for one in pair if one not in running)
            self.assertEqual(1, ended.wait())
            self.assertRegex(ended.err[0], "another daemon is listening there")
            self.ctl("status")
            self.assertEqual(0, running[0].end()[0])
            self.assertEqual([], [name for name in os.listdir(self.folder) if "lock" in name])

    def test_a_configuration_that_is_no_file_is_refused_and_not_read(self):
        os.mkfifo(self.path("fifo"))
        for path in (self.path("fifo"), self.folder, "/dev/zero"):
            self.assert_refuses_to_start(2, f"{path}: it is no regular file", "--config", path)


class Clients(Faults):
    def test_silent_clients_do_not_lock_the_operator_out(self):
        self.start_office()
        for number in range(100):
            client = socket.socket(socket.AF_UNIX)
            self.addCleanup(client.close)
            client.connect(self.control)
            if number % 2:
                client.sendall(b'{"half')
        self.ctl("status")

    def test_what_is_asked_comes_back_without_anything_that_a_terminal_obeys(self):
        daemon = self.start_office()
        for text in ("\x1b]0;title\x07", "two\nlines", "\u009b2J", "\x7f"):
            says = self.ctl("show", "state", "/" + text, status=1)
            self.assertEqual(1, says.count("\n"), says)
            self.assertEqual([], [c for c in says[:-1] if ord(c) < 32 or 127 <= ord(c) < 160])
        name = "\x1b[31m\nred"
        self.write("tunnels.json", json.dumps({"ifMib": {name: {}}}))
        self.assertNotIn("\x1b", self.ctl("reread", status=1))
        self.assertNotIn("\x1b", self.ctl("status"))
        self.assertNotIn("\x1b", "".join(daemon.err))


if __name__ == "__main__":
    test_daemon.main(__doc__)
