"""Disturbs a daemon until TERM: bench/disturb.py garbage HOST:PORT, bench/disturb.py links, or
bench/disturb.py strongswan SOCKET. Prints at the end how much a second that was. Called by measure.py,
each in a process of its own."""

import contextlib
import json
import pathlib
import random
import selectors
import signal
import socket
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "system"))

import vici_client as vici

BURST = 64  # datagrams; so many a daemon's socket holds, and those of managers beside them
LINKS = 200  # that come and go at once
PAUSE = 0.1  # seconds from one coming to the next: 2 000 links a second
FIRST_INDEX = 1_000_001  # no tunnel of the documents has it
GROUP = 4711
# GET of sysUpTime.0, SNMPv2c, community "public".
PROBE = bytes.fromhex("302602010104067075626c6963a019020101020100020100300e300c06082b060102010103000500")

CONNECTIONS = 10_000  # of a strongSwan, each with an SA
QUIET = 0.1  # seconds from a whole listing to the next event
CHILD = {"mode": "TUNNEL", "local-ts": ["10.1.0.0/16"], "remote-ts": ["10.2.0.0/16"]}


class Stop(Exception):
    """TERM has come."""


def garbage(address):
    """As fast as the daemon takes it: each burst begins when the one before has been read."""
    host, port = address.rsplit(":", 1)
    client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    client.connect((host, int(port)))
    client.settimeout(1)
    moments = random.Random(1)
    while True:
        for _ in range(BURST):
            client.send(b"\x30" + moments.randbytes(moments.randrange(1, 400)))
            yield
        client.send(PROBE)
        try:
            client.recv(65535)
        except TimeoutError:
            pass  # the probe was lost: go on


def links():
    coming = "".join(f"link add index {FIRST_INDEX + i} v{i} type vxlan id {i + 1} dstport 4789 "
                     f"local 127.0.0.1 remote 10.1.{i // 250}.{i % 250 + 1}\n"
                     f"link set v{i} group {GROUP}\n" for i in range(LINKS))
    while True:
        begin = time.monotonic()
        subprocess.run(["ip", "-batch", "-"], input=coming, text=True, check=True)
        subprocess.run(["ip", "link", "del", "group", str(GROUP)], check=True)
        for _ in range(LINKS):
            yield
        time.sleep(max(0, begin + PAUSE - time.monotonic()))


class StrongSwan:
    """Says that all its connections are up, and that one has changed as soon as it has been listed."""

    def __init__(self, path):
        self.conns = b"".join(segment(vici.EVENT, "list-conn", connection(number))
                              for number in range(CONNECTIONS))
        self.sas = b"".join(segment(vici.EVENT, "list-sa", sa(number))
                            for number in range(CONNECTIONS))
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen()
        self.clients = selectors.DefaultSelector()
        self.clients.register(self.listener, selectors.EVENT_READ)
        self.hearer = None
        self.next_event = None

    def run(self):
        """Yields for each SA that has been listed."""
        while True:
            for key, _ in self.clients.select(QUIET):
                if key.fileobj is self.listener:
                    self.clients.register(self.listener.accept()[0], selectors.EVENT_READ)
                    continue
                try:
                    yield from self._serve(key.fileobj)
                except OSError:  # it has gone
                    self.clients.unregister(key.fileobj)
                    key.fileobj.close()
            if self.next_event and time.monotonic() >= self.next_event:
                self.next_event = None
                self._tell()

    def _tell(self):
        with contextlib.suppress(OSError):
            self.hearer.sendall(segment(vici.EVENT, "child-updown", sa(0)))

    def _serve(self, client):
        length = client.recv(4, socket.MSG_WAITALL)
        if len(length) < 4:
            raise ConnectionError
        packet = client.recv(int.from_bytes(length, "big"), socket.MSG_WAITALL)
        name = packet[2:2 + packet[1]].decode()
        if packet[0] == vici.REGISTER:
            if name == "child-updown":
                self.hearer = client
            client.sendall(segment(vici.CONFIRMED))
            return
        if name == "list-conns":
            client.sendall(self.conns)
        if name == "list-sas":
            client.sendall(self.sas)
            self.next_event = time.monotonic() + QUIET
            yield from range(CONNECTIONS)
        client.sendall(segment(vici.RESPONSE, message={"daemon": "charon", "version": "5.9.8"}
                               if name == "version" else {}))


def segment(kind, name=None, message=None):
    octets = bytes([kind])
    if name:
        octets += bytes([len(name)]) + name.encode()
    octets += vici.encode(message or {})
    return len(octets).to_bytes(4, "big") + octets


def connection(number):
    return {f"connection-{number}": {"local_addrs": ["10.0.0.1"], "remote_addrs": [peer(number)],
                                     "version": "IKEv2", "children": {"net": CHILD}}}


def sa(number):
    child = {"name": "net", "uniqueid": str(number), "reqid": str(number), "state": "INSTALLED",
             "mode": "TUNNEL", "protocol": "ESP", "spi-in": f"{number:08x}",
             "spi-out": f"{number:08x}", "encr-alg": "AES_CBC", "encr-keysize": "128",
             "integ-alg": "HMAC_SHA2_256_128", "bytes-in": "123456789", "bytes-out": "123456789",
             "rekey-time": "3000", "life-time": "4000", "install-time": "600",
             "local-ts": CHILD["local-ts"], "remote-ts": CHILD["remote-ts"]}
    return {f"connection-{number}": {"uniqueid": str(number), "version": "2",
                                     "state": "ESTABLISHED", "local-host": "10.0.0.1",
                                     "remote-host": peer(number),
                                     "child-sas": {f"net-{number}": child}}}


def peer(number):
    return f"10.9.{number >> 8}.{number & 255}"


def stop(*_):
    raise Stop


def main():
    what, *arguments = sys.argv[1:]
    work = {"garbage": garbage, "links": links,
            "strongswan": lambda path: StrongSwan(path).run()}[what](*arguments)
    signal.signal(signal.SIGTERM, stop)
    count = 0
    begin = time.monotonic()
    try:
        for _ in work:
            count += 1
    except Stop:
        pass
    print(json.dumps({"perSecond": count / (time.monotonic() - begin)}))


main()
