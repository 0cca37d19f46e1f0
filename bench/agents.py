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

PEERS = {"e": "arithmetic", "e2": "arithmetic-bulk", "c": "container", "d": "tdata"}
OURS = ("stock", "host")
MODES = (*PEERS, *OURS)
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

    def __init__(self, command, environment=None):
        self.child = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env=environment)
        self.address = self._address(command)
        threading.Thread(target=self.child.stdout.read, daemon=True).start()

    def _address(self, command):
        for line in self.child.stdout:
            if match := re.search(r"listening on udp:(\S+)", line):
                return match.group(1)
        raise SystemExit(f"bench: did not start: {' '.join(command)}")

    def end(self):
        self.child.send_signal(signal.SIGTERM)
        try:
            self.child.wait(PATIENCE)
        finally:
            self.child.kill()


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

    def peer(self, mode, table, rows):
        return Agent([self.program("benchPeer"), "--table", table, "--rows", str(rows),
                      "--mode", PEERS[mode]])

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

    def manager(self, agent, table, rows, operation, *arguments):
        return [*within(agent.namespace), self.program("benchManager"), "--address", agent.address,
                "--pid", str(agent.child.pid), "--table", table, "--rows", str(rows),
                "--operation", operation, *map(str, arguments)]

    def ask(self, agent, table, rows, operation, *arguments):
        """One run of benchManager: what it says at last. It has reported an error itself."""
        done = subprocess.run(self.manager(agent, table, rows, operation, *arguments),
                              stdout=subprocess.PIPE, text=True)
        if done.returncode != 0:
            raise SystemExit("bench: stopped")
        return json.loads(done.stdout.splitlines()[-1])
