"""The daemon with each kind of source and master, as tests/inject starts it, and what is asked of it. A
world outlives the daemons that run in it."""

import contextlib
import ctypes
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
REPOSITORY = HERE.parents[1]
sys.path.insert(0, str(HERE.parent / "agent"))

import ber  # pylint: disable=wrong-import-position

ROOTS = ("1.3.6.1.2.1.10.131", "1.3.6.1.4.1.{enterprise}.3.34")
LINE_PATIENCE = 0.5  # seconds until it is asked where it listens
START_PATIENCE = 20  # seconds from the start to the line that says where it listens
CLONE_NEWNET = 0x40000000
ADDED = 4711  # the interface that the exercise adds, and its ifIndex


class Ended(Exception):
    """The daemon has ended, or never came as far as was waited for."""


class World:
    """A daemon that listens itself and reads a JSON file."""

    name = "json"
    needs_root = False
    place = ()  # what the daemon is started through

    def __init__(self, folder, daemon, enterprise):
        self.folder = pathlib.Path(folder)
        self.program = daemon
        self.roots = [root.format(enterprise=enterprise) for root in ROOTS]
        self.control = str(self.folder / "control.sock")
        self.source = self.folder / "tunnels.json"
        shutil.copy(REPOSITORY / "examples" / "branch-office.json", self.source)

    def options(self):
        return ["--listen", "udp:127.0.0.1:0", "--source", f"json:{self.source}"]

    def address_of(self, line):
        return line.rsplit("udp:", 1)[1]

    def touch_inputs(self):
        """Has the source read again something that has changed, and is the same."""
        new = self.folder / "tunnels.new"
        new.write_text(self.source.read_text() + "\n")
        new.replace(self.source)

    def inside(self):
        """Where it is served, for sockets that are made meanwhile."""
        return contextlib.nullcontext()

    def end(self):
        pass


class LinuxWorld(World):
    """The links of a network namespace."""

    name = "linux"
    needs_root = True

    def __init__(self, folder, daemon, enterprise):
        super().__init__(folder, daemon, enterprise)
        self.namespace = subprocess.Popen(
            ["unshare", "--net", "--", "sh", "-c", "ip link set lo up && echo ready && exec cat"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        if self.namespace.stdout.readline() != "ready\n":
            raise Ended("no network namespace can be had")
        self.place = ("nsenter", f"--target={self.namespace.pid}", "--net", "--")
        for number in range(1, 9):
            self.ip(f"link add vx{number} type vxlan id {number} local 10.8.0.{number} "
                    f"remote 10.9.0.{number} dstport 4789 ttl {number}")

    def ip(self, words, check=True):
        subprocess.run([*self.place, "ip", *words.split()], check=check, capture_output=True)

    def options(self):
        return ["--listen", "udp:127.0.0.1:0", "--source", "linux:kinds=+vxlan"]

    @contextlib.contextmanager
    def inside(self):
        with open("/proc/thread-self/ns/net", "rb") as here, \
                open(f"/proc/{self.namespace.pid}/ns/net", "rb") as there:
            enter(there)
            try:
                yield
            finally:
                enter(here)

    def touch_inputs(self):
        self.ip("link add more type vxlan id 99 local 10.8.0.99 remote 10.9.0.99 dstport 4789")
        self.ip("link del more")

    def end(self):
        self.namespace.kill()
        self.namespace.communicate()


class AgentXWorld(World):
    """A JSON file, behind a real snmpd."""

    name = "agentx"

    def __init__(self, folder, daemon, enterprise):
        super().__init__(folder, daemon, enterprise)
        self.master_socket = f"unix:{self.folder}/master"
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            self.address = f"127.0.0.1:{probe.getsockname()[1]}"
        config = self.folder / "master.conf"
        config.write_text("rocommunity public 127.0.0.1\nmaster agentx\n"
                          "[snmpd] dontLogTCPWrappersConnects yes\n"
                          f"agentXSocket {self.master_socket}\nagentXTimeout 5\n")
        log = self.folder / "master.log"
        with open(log, "wb") as file:
            self.master = subprocess.Popen(
                ["snmpd", "-f", "-Lo", "-C", "-c", config, "-I", "-smux", "udp:" + self.address],
                env=environment(self.folder), stdout=file, stderr=file)
        end = time.monotonic() + START_PATIENCE
        while "NET-SNMP version" not in log.read_text(errors="replace"):
            if time.monotonic() > end or self.master.poll() is not None:
                raise Ended("snmpd has not started")
            time.sleep(0.01)

    def options(self):
        return ["--agentx", self.master_socket, "--source", f"json:{self.source}"]

    def address_of(self, line):
        return self.address

    def end(self):
        self.master.kill()
        self.master.wait()


def enter(namespace):
    """Has this thread be in that network namespace."""
    if ctypes.CDLL(None, use_errno=True).setns(namespace.fileno(), CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def environment(folder):
    return dict(os.environ, MIBS="", SNMP_PERSISTENT_DIR=str(folder), SNMPCONFPATH=str(folder))


class Run:
    """One life of the daemon in a world."""

    def __init__(self, world, more_environment=None):
        self.world = world
        self.address = None
        self.errors = world.folder / "errors"
        self.lines_before = 0
        wrapper = [f"{name}={value}" for name, value in (more_environment or {}).items()]
        # Only the daemon itself is to be loaded with more.
        command = [*world.place, "env", *wrapper, world.program, "--control", world.control,
                   *world.options()]
        with open(self.errors, "wb") as errors:
            self.child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=errors,
                                          env=environment(world.folder))

    def wait_until_it_listens(self):
        os.set_blocking(self.child.stdout.fileno(), False)
        text = b""
        end = time.monotonic() + START_PATIENCE
        while time.monotonic() < end:
            text += self.child.stdout.read() or b""
            if b"\n" in text:
                self.address = self.world.address_of(text.decode().strip())
                return
            if self.child.poll() is not None:
                raise Ended("at the start")
            if time.monotonic() > end - START_PATIENCE + LINE_PATIENCE and self.knows_its_address():
                return
            time.sleep(0.002)
        raise Ended("it neither listens nor ends")

    def knows_its_address(self):
        """Where the line could not be written its status says where it listens."""
        status = self.ask("status") or {}
        if not status.get("servedAt"):
            return False
        self.address = self.world.address_of(status["servedAt"])
        return True

    def said(self):
        """The lines on its error stream since forget_lines()."""
        return self.errors.read_text(errors="replace").splitlines()[self.lines_before:]

    def forget_lines(self):
        self.lines_before += len(self.said())

    def processor_seconds(self):
        with open(f"/proc/{self.child.pid}/stat", encoding="ascii") as file:
            fields = file.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def walk(self, patience=1.0):
        """Every instance that is served, or None where a part of the answer does not come."""
        with self.world.inside():
            manager = ber.Manager(self.address, patience)
        try:
            found = {}
            for root in self.world.roots:
                found |= manager.walk(root)
            return found
        except OSError:
            return None
        finally:
            manager.close()

    def ask(self, command, arguments=None, patience=5.0):
        """The result; None where the request is refused or gets no answer."""
        try:
            with socket.socket(socket.AF_UNIX) as connection:
                connection.settimeout(patience)
                connection.connect(self.world.control)
                request = {"command": command, "arguments": arguments or {}}
                connection.sendall(json.dumps(request).encode() + b"\n")
                with connection.makefile() as answers:
                    answer = json.loads(answers.readline())
            return answer["result"] if answer["ok"] else None
        except (OSError, ValueError, KeyError):
            return None

    def leave_in_the_middle(self):
        try:
            with socket.socket(socket.AF_UNIX) as connection:
                connection.connect(self.world.control)
                connection.sendall(b'{"command": "tables/show"}\n{"comm')
        except OSError:
            pass

    def add(self):
        self.ask("patch", {"patch": [
            {"op": "add", "path": f"/ifMib/ifIndexByIntfId/{ADDED}", "value": ADDED},
            {"op": "add", "path": f"/tunnelIntfStatusDir/intfStatus/{ADDED}",
             "value": {"srcAddr": "192.0.2.77", "dstAddr": "198.51.100.77", "mode": "gre",
                       "hopLimit": 77, "ipsec": True}}]})

    def remove(self):
        """Each by itself: after a fault only one may be there. An ifIndex that goes before the status
        would leave its row behind."""
        for path in (f"/tunnelIntfStatusDir/intfStatus/{ADDED}",
                     f"/ifMib/ifIndexByIntfId/{ADDED}"):
            self.ask("patch", {"patch": [{"op": "remove", "path": path}]})
            if self.ask("statedb/show", {"pointer": path}) is not None:
                return

    def signal(self, number):
        self.child.send_signal(number)

    def finish(self, patience):
        """Ends it; returns its status, or None when it did not end in time."""
        if self.child.poll() is None:
            self.signal(signal.SIGTERM)
        try:
            return self.child.wait(patience)
        except subprocess.TimeoutExpired:
            return None
        finally:
            self.kill()

    def kill(self):
        if self.child.poll() is None:
            self.child.kill()
            self.child.wait()
        self.child.stdout.close()


WORLDS = {world.name: world for world in (World, LinuxWorld, AgentXWorld)}
