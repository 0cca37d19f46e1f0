"""Starts the agents that are measured, and asks them through benchManager."""

import contextlib
import json
import os
import re
import signal
import socket
import subprocess
import threading
import time

import tunnels

SUBAGENTS = ("c", "i", "host")
PEERS = {"i": "iterator", "e": "arithmetic", "e2": "arithmetic-bulk", "c": "container", "d": "tdata"}
OURS = ("stock", "host")
MODES = ("e", "e2", "c", "d", *OURS)
PATIENCE = 600  # seconds; only a broken agent needs them


def within(namespace):
    """What runs a command there."""
    return ["ip", "netns", "exec", namespace] if namespace else []


@contextlib.contextmanager
def network_namespace():
    """A namespace with nothing but its loopback, or None where none may be made."""
    name = f"bench-{os.getpid()}"
    made = subprocess.run(["ip", "netns", "add", name], stderr=subprocess.DEVNULL).returncode == 0
    try:
        if made:
            subprocess.run([*within(name), "ip", "link", "set", "lo", "up"], check=True)
        yield name if made else None
    finally:
        if made:
            subprocess.run(["ip", "netns", "del", name], check=True)


class Agent:
    """A running agent. `end()` it."""

    namespace = None
    subagent = None  # the agent that it has the answers from

    def __init__(self, command, environment=None):
        self.child = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env=environment)
        self.address = self._address(command)
        threading.Thread(target=self.child.stdout.read, daemon=True).start()

    def _address(self, command):
        for line in self.child.stdout:
            if match := re.search(r"listening on (?:udp:)?(\S+)", line):
                return match.group(1)
        raise SystemExit(f"bench: did not start: {' '.join(command)}")

    def end(self):
        self.child.send_signal(signal.SIGTERM)
        try:
            self.child.wait(PATIENCE)
        finally:
            self.child.kill()


class Master(Agent):
    """net-snmp's snmpd as an AgentX master on loopback. Ready when it is made."""

    def __init__(self, path, config, folder):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        with open(config, "w", encoding="utf-8") as file:
            file.write(f"rocommunity public 127.0.0.1\nmaster agentx\nagentXSocket {path}\n")
        super().__init__(["snmpd", "-f", "-Lo", "-C", "-c", config, "-I", "-smux",
                          f"udp:127.0.0.1:{self.port}"],
                         dict(os.environ, MIBS="", SNMP_PERSISTENT_DIR=folder,
                              SNMPCONFPATH=folder))

    def _address(self, command):
        for line in self.child.stdout:
            if line.startswith("NET-SNMP version"):
                return f"127.0.0.1:{self.port}"
        raise SystemExit(f"bench: did not start: {' '.join(command)}")


class Control:
    """The daemon's control socket. Asked without a program in between: the moments count."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(path)
        self.answers = self.socket.makefile(encoding="utf-8")

    def ask(self, command):
        self.socket.sendall((json.dumps({"command": command}) + "\n").encode())
        answer = json.loads(self.answers.readline())
        if not answer["ok"]:
            raise SystemExit(f"bench: {command}: {answer}")
        return answer["result"]

    def wait_ready(self):
        while not self.ask("status")["ready"]:
            time.sleep(0.005)


class Workshop:
    """Where the programs are, and a folder for documents and control sockets."""

    def __init__(self, binaries, folder):
        self.binaries = binaries
        self.folder = folder

    def program(self, name):
        return os.path.join(self.binaries, name)

    def path(self, name):
        return os.path.join(self.folder, name)

    def has_host_iterator(self):
        text = subprocess.run([self.program("tunnelsnmpd"), "--help"], check=True,
                              capture_output=True, text=True).stdout
        return "--iterator" in text

    def document(self, rows):
        path = self.path(f"tunnels-{rows}.json")
        if not os.path.exists(path):
            tunnels.write(path, rows)
        return path

    def peer(self, mode, table, rows, *options):
        return Agent([self.program("benchPeer"), "--table", table, "--rows", str(rows),
                      "--mode", PEERS[mode], *options])

    def daemon(self, mode, rows, *, namespace=None, sources=()):
        """The daemon, listening; not yet ready. In a network namespace if one is named."""
        chosen = ["--iterator", mode] if self.has_host_iterator() else []
        control = self.path(f"{mode}-{rows}.sock")
        documents = ["json:" + self.document(rows), *sources]
        agent = Agent([*within(namespace), self.program("tunnelsnmpd"), "--listen",
                       "udp:127.0.0.1:0", "--control", control, *chosen,
                       *(word for source in documents for word in ("--source", source))])
        agent.namespace = namespace
        agent.control = Control(control)
        return agent

    @contextlib.contextmanager
    def agents(self, modes, table, rows):
        """Runs an agent of each mode side by side: {mode: agent}, all ready."""
        running = {}
        try:
            for mode in modes:
                if mode in OURS:
                    running[mode] = self.daemon(mode, rows)
                    running[mode].control.wait_ready()
                else:
                    running[mode] = self.peer(mode, table, rows)
            yield running
        finally:
            for agent in running.values():
                agent.end()

    @contextlib.contextmanager
    def masters(self, modes, table, rows):
        """As agents(): each an snmpd of its own, with a subagent of that mode behind it."""
        with contextlib.ExitStack() as running:
            yield {mode: running.enter_context(self._master(mode, table, rows)) for mode in modes}

    @contextlib.contextmanager
    def _master(self, mode, table, rows):
        path = "unix:" + self.path(f"master-{mode}")
        master = Master(path, self.path(f"master-{mode}.conf"), self.folder)
        try:
            if mode in OURS:
                master.subagent = self.subagent(mode, rows, path)
            else:
                master.subagent = self.peer(mode, table, rows, "--agentx", path)
            yield master
        finally:
            if master.subagent:
                master.subagent.end()
            master.end()

    def subagent(self, mode, rows, master):
        control = self.path(f"{mode}-{rows}-agentx.sock")
        agent = Agent([self.program("tunnelsnmpd"), "--agentx", master, "--control", control,
                       "--iterator", mode, "--source", "json:" + self.document(rows)])
        control = Control(control)
        control.wait_ready()
        while control.ask("status")["agentx"]["state"] != "serving":
            time.sleep(0.005)
        return agent

    def manager(self, agent, table, rows, operation, *arguments):
        behind = ["--subagent", str(agent.subagent.child.pid)] if agent.subagent else []
        return [*within(agent.namespace), self.program("benchManager"), "--address", agent.address,
                *behind, "--pid", str(agent.child.pid), "--table", table, "--rows", str(rows),
                "--operation", operation, *map(str, arguments)]

    def ask(self, agent, table, rows, operation, *arguments):
        """One run of benchManager: what it says at last. It has reported an error itself."""
        done = subprocess.run(self.manager(agent, table, rows, operation, *arguments),
                              stdout=subprocess.PIPE, text=True)
        if done.returncode != 0:
            raise SystemExit("bench: stopped")
        return json.loads(done.stdout.splitlines()[-1])
