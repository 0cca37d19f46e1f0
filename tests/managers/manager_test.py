"""Managers from Debian that read the real daemon: their programs, unpacked beside the build and not
installed, run on loopback with all that they write in the test's folder, and end with the test."""

import contextlib
import itertools
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import time
import unittest
import urllib.error
import urllib.request

TESTS = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(TESTS / "agent"), str(TESTS / "system")]

# pylint: disable=wrong-import-position
import packages
import test_daemon

REPOSITORY = TESTS.parent
MANAGERS = REPOSITORY / "managers"
UNPACKED = REPOSITORY / "build" / "managers"
PATIENCE = 60  # seconds for a manager to start, or to see a change
NOBODY = 65534  # user and group
CONN_STATE = "1.3.6.1.4.1.32473.3.34.1.1.1.1"

# What the example office has: tunnels by the number of their interface, whose ifIndex is 2000 and more.
FIRST_INTERFACE, FIRST_IF_INDEX = 50331649, 2001


def unpacked(name, *wanted, alone=()):
    """The folder with the packages and what they need; of those `alone` nothing that they need."""
    folder = UNPACKED / name
    try:
        if not folder.exists():
            needed = packages.with_needed(*wanted) if wanted else ()
            packages.unpack(folder, *needed, *alone)
    except packages.Unavailable as reason:
        raise unittest.SkipTest(str(reason)) from reason
    return folder


def found(folder, pattern):
    """The file, below the folder or, where the package is installed, of the machine."""
    return next(itertools.chain(folder.glob(pattern), pathlib.Path("/").glob(pattern)))


def libraries(folder):
    """The environment in which programs of the folder find their libraries."""
    paths = [str(path) for path in [*folder.glob("usr/lib/*-linux-gnu"), *folder.glob("lib/*-linux-gnu")]]
    return dict(os.environ, LD_LIBRARY_PATH=":".join(paths), LC_ALL="C.UTF-8")


def free_port(among=(0,)):
    """A port that nobody has now, for programs that take a number only: any, or one of these."""
    for port in random.sample(among, len(among)):
        with socket.socket() as probe:
            with contextlib.suppress(OSError):
                probe.bind(("127.0.0.1", port))
                return probe.getsockname()[1]
    raise AssertionError("no port is free")


def examples(program, address):
    """[(command, lines)] of managers/README.md whose commands begin with it, for an agent at the address:
    the page has 127.0.0.1:1161, as ./run starts it."""
    host, port = address.rsplit(":", 1)
    page = (MANAGERS / "README.md").read_text(encoding="utf-8")
    pairs = [pair for session in re.findall(r"(?ms)^```\n(.*?)^```$", page)
             for pair in re.findall(r"(?m)^\$ (.*)\n((?:(?!\$ ).*\n)*)", session)]
    return [(command.replace("127.0.0.1:1161", address).replace("127.0.0.1 -p 1161", f"{host} -p {port}"),
             lines.replace("127.0.0.1:1161", address).strip("\n").splitlines())
            for command, lines in pairs if pathlib.Path(command.split()[0]).name.startswith(program)]


class ManagerTest(test_daemon.DaemonTest):
    def shipped(self, name):
        """The text of a file of managers/, for the enterprise number of this build."""
        return self.for_this_build((MANAGERS / name).read_text(encoding="utf-8"))

    @staticmethod
    def for_this_build(text):
        return re.sub(r"\b32473\b", str(test_daemon.PATHS.enterprise), text)

    def spawn(self, name, command, **options):
        """Starts a program whose output goes into the file `name`.log, and ends it with the test."""
        with open(self.path(name + ".log"), "ab") as log:
            child = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "--", *map(str, command)],
                                     stdin=subprocess.DEVNULL, stdout=log, stderr=log, **options)
        self.addCleanup(self._end, child)
        return child

    @staticmethod
    def _end(child):
        if child.poll() is None:
            child.send_signal(signal.SIGTERM)
            try:
                child.wait(PATIENCE)
            except subprocess.TimeoutExpired:
                child.kill()
                child.wait()

    def log(self, name):
        return pathlib.Path(self.path(name + ".log")).read_text(encoding="utf-8", errors="replace")

    def run_program(self, command, status=0, **options):
        """What it prints; it has to end with the status."""
        done = subprocess.run([*map(str, command)], capture_output=True, text=True, timeout=PATIENCE,
                              check=False, **options)
        self.assertEqual(status, done.returncode, f"{command}: {done.stdout}{done.stderr}")
        return done.stdout

    def soon(self, look, what, seconds=PATIENCE):
        """What `look` returns once that is true."""
        end = time.monotonic() + seconds
        while not (seen := look()):
            self.assertLess(time.monotonic(), end, what() if callable(what) else what)
            time.sleep(0.1)
        return seen

    @staticmethod
    def fetched(url, **options):
        """The text behind a URL on loopback, or nothing where it is not served yet."""
        try:
            with urllib.request.urlopen(urllib.request.Request(url, **options), timeout=20) as answer:
                return answer.read().decode()
        except (urllib.error.URLError, ConnectionError, TimeoutError):
            return ""

    # The example office

    @staticmethod
    def _interface(if_index):
        return str(FIRST_INTERFACE + if_index - FIRST_IF_INDEX)

    def ipsec_becomes(self, if_index, state):
        """As when an IKE daemon says so."""
        interface = self._interface(if_index)
        profile = self.document["ikeStatus"]["ipsecTunnelInfo"][interface]["profileName"]
        self.patch("replace", "/ikeStatus/appliedProfiles/" + profile.replace("/", "~1")
                   + f"/appliedIntfId/{interface}/connState", state)

    def tunnel_goes(self, if_index):
        self.patch("remove", "/tunnelIntfStatusDir/intfStatus/" + self._interface(if_index))

    def security_becomes(self, if_index, ipsec):
        self.patch("replace", f"/tunnelIntfStatusDir/intfStatus/{self._interface(if_index)}/ipsec", ipsec)


def have(*programs):
    """For the setUpModule of what needs them."""
    for program in programs:
        if shutil.which(program) is None:
            raise unittest.SkipTest(f"there is no program {program}")
