"""Feeds the real daemon and its tool what is no good JSON: at the control socket, in patches and as
sources. Nothing ends, nothing hangs, nothing is lost, and what is said to the operator is one line
that names no library."""

import json
import os
import re
import signal
import socket
import time

import test_daemon
from test_daemon import DaemonTest

# Of nlohmann-json, of CLI11 and of the C++ library.
NAMES_OF_LIBRARIES = re.compile(
    r"nlohmann|json\.exception|json_sax|parse_error|type_error|out_of_range|invalid_iterator|"
    r"CLI::|std::|basic_string|bad_alloc|_M_|vector::|stoul|stoi\b|filesystem error|__")
DEEP = 100_000
NUL = "there is a NUL octet, which JSON text cannot hold"
TOO_DEEP = "nested deeper than 64 levels"


def nested(levels):
    return "[" * levels + "]" * levels


BAD_TEXTS = {
    "empty": (b"", "unexpected end"),
    "cut off": (b'{"a": [1, ', "syntax error"),
    "two": (b"{} {}", "syntax error"),
    "a huge number": (b"[1e999]", "number overflow"),
    "no UTF-8": (b'["\xff"]', "ill-formed UTF-8"),
    "a lone surrogate": (b'["\\ud800"]', "syntax error"),
    "a control character": (b'["\x01"]', "syntax error"),
    "NUL behind": (b"{}\0", NUL),
    "NUL and more": (b"{}\0garbage", NUL),
    "UTF-16": ("{}".encode("utf-16"), "syntax error|" + NUL),
    "deep": (nested(DEEP).encode(), TOO_DEEP),
    "deep and cut off": (b"[" * DEEP, TOO_DEEP),
    "deep objects": (b'{"a":' * DEEP + b"1" + b"}" * DEEP, TOO_DEEP),
}


class BadInputs(DaemonTest):
    def assert_plain(self, text):
        self.assertIsNone(NAMES_OF_LIBRARIES.search(text), text)
        self.assertEqual(1, len(text.rstrip("\n").splitlines()), text)

    def request(self, line):
        """What the control socket answers to the octets."""
        with socket.socket(socket.AF_UNIX) as client:
            client.settimeout(test_daemon.PATIENCE)
            client.connect(self.control)
            client.sendall(line + b"\n")
            with client.makefile("rb") as answers:
                return json.loads(answers.readline())

    def assert_refused(self, line, pattern):
        answer = self.request(line)
        self.assertFalse(answer["ok"])
        self.assertRegex(answer["error"], pattern)
        self.assert_plain(answer["error"])

    def test_requests(self):
        daemon = self.start_office()
        rows = self.if_indexes()
        for name, (text, pattern) in BAD_TEXTS.items():
            with self.subTest(name):
                self.assert_refused(text, pattern)
        for text in ("5", "[]", '"x"', "null", '{"command": 5}', '{"command": "patch"}',
                     '{"command": "status", "arguments": []}', '{"command": "nothing"}',
                     '{"command": "trace/set", "arguments": {"unit": 1, "levels": 2}}',
                     '{"command": "trace/set", "arguments": {"unit": "Snmp", "levels": "9999999999999999999999"}}',
                     '{"command": "statedb/show", "arguments": {"pointer": 5}}',
                     '{"command": "statedb/show", "arguments": {"pointer": "x"}}'):
            with self.subTest(text):
                self.assert_refused(text.encode(), ".")
        self.assertEqual(rows, self.if_indexes())
        self.assertEqual([], daemon.err)

    def test_patches(self):
        self.start_office()
        rows = self.if_indexes()
        in_status = "/tunnelIntfStatusDir/intfStatus/5"
        patches = [{"op": "add"}, {"op": "add", "path": 5}, {"op": "add", "path": "x", "value": 1},
                   {"op": "add", "path": in_status, "value": json.loads(nested(50))},
                   {"op": "add", "path": in_status + "/hopLimit", "value": 1e300},
                   {"op": "add", "path": in_status, "value": {"srcAddr": 5}},
                   {"op": "move", "path": in_status, "from": 1}, {"op": "fly", "path": ""}, 5, None]
        for patch in [*([one] for one in patches), {}, 5, "x"]:
            with self.subTest(patch):
                self.assert_refused(json.dumps(
                    {"command": "patch", "arguments": {"patch": patch}}).encode(), ".")
        deep = nested(DEEP).encode()
        self.assert_refused(b'{"command": "patch", "arguments": {"patch": [{"op": "test", '
                            b'"path": "", "value": ' + deep + b"}]}}", TOO_DEEP)
        self.assertEqual(rows, self.if_indexes())

    def test_patch_files_of_the_tool(self):
        self.start_office()
        rows = self.if_indexes()
        for name, (text, pattern) in BAD_TEXTS.items():
            with self.subTest(name):
                with open(self.path("patch.json"), "wb") as file:
                    file.write(text)
                said = self.ctl("patch", self.path("patch.json"), status=2)
                self.assertRegex(said, pattern)
                self.assert_plain(said)
        self.assertEqual(rows, self.if_indexes())

    def test_sources_that_the_start_refuses(self):
        for name, (text, pattern) in BAD_TEXTS.items():
            with self.subTest(name):
                with open(self.path("bad.json"), "wb") as file:
                    file.write(text)
                wanted = "the file is empty" if name == "empty" else pattern
                self.assert_refuses_to_start(1, wanted, "--source", "json:" + self.path("bad.json"))
        os.mkfifo(self.path("pipe"))
        for path, kind in ((self.path("pipe"), "a named pipe"), (self.folder, "a folder"),
                           ("/dev/zero", "a device"), ("/dev/null", "a device")):
            with self.subTest(path):
                began = time.monotonic()
                self.assert_refuses_to_start(1, f"is {kind}; the tunnels must be in a regular file",
                                             "--source", "json:" + path)
                self.assertLess(time.monotonic() - began, 30)
        with open(self.path("huge"), "wb") as file:
            file.truncate(1 << 30)
        self.assert_refuses_to_start(1, "no more than 268435456 are read",
                                     "--source", "json:" + self.path("huge"))

    def test_sources_that_go_bad_at_run_time_are_told_once_and_keep_their_tunnels(self):
        daemon = self.start_office()
        rows = self.if_indexes()
        for name, (text, _) in BAD_TEXTS.items():
            with self.subTest(name):
                with open(self.source, "wb") as file:
                    file.write(text)
                self.wait_until(lambda: self.source_status()["state"] == "degraded")
                self.assert_plain(self.source_status()["lastError"])
                self.assertEqual(rows, self.if_indexes())
        self.assertEqual(1, len(daemon.err), daemon.err)
        self.assertRegex(daemon.err[0], "^tunnelsnmpd: json:.*tunnels.json")
        self.assert_plain(daemon.err[0])
        self.write("tunnels.json", json.dumps(self.document))
        daemon.wait_for_line(daemon.err, "in sync again$")
        self.assertEqual("inSync", self.source_status()["state"])
        self.assertEqual(2, len(daemon.err), daemon.err)

    def test_many_hups_are_few_readings(self):
        daemon = self.start_office()
        before = self.source_status()["fullReads"]
        statuses = {str(number): {} for number in range(1, 20_001)}
        self.write("tunnels.json", json.dumps({"tunnelIntfStatusDir": {"intfStatus": statuses}}))
        for _ in range(50):
            daemon.child.send_signal(signal.SIGHUP)
            time.sleep(0.001)
        self.wait_until(lambda: self.source_status()["records"].get("intfStatus") == 20_000
                        and not self.source_status()["reading"])
        self.assertLess(self.source_status()["fullReads"] - before, 25)

    def test_term_during_the_start_with_a_large_file_is_heard_in_time(self):
        statuses = {str(number): {"srcAddr": "192.0.2.1", "dstAddr": "192.0.2.2", "mode": "gre"}
                    for number in range(1, 300_001)}
        large = self.write("large.json",
                           json.dumps({"tunnelIntfStatusDir": {"intfStatus": statuses}}))
        daemon = self.launch("--listen", "udp:127.0.0.1:0", "--source", "json:" + large)
        time.sleep(0.3)
        status, seconds = daemon.end()
        self.assertEqual(0, status, daemon.err)
        self.assertLess(seconds, 30 if test_daemon.PATHS.slow else 3)

    def source_status(self):
        return self.ctl_json("status")["sources"][0]


if __name__ == "__main__":
    test_daemon.main(__doc__)
