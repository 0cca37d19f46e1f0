"""Disturbs a daemon until TERM: bench/disturb.py garbage HOST:PORT, or bench/disturb.py links. Prints
at the end how much a second that was. Called by measure.py, each in a process of its own."""

import json
import random
import signal
import socket
import subprocess
import sys
import time

BURST = 64  # datagrams; so many a daemon's socket holds, and those of managers beside them
LINKS = 200  # that come and go at once
PAUSE = 0.1  # seconds from one coming to the next: 2 000 links a second
FIRST_INDEX = 1_000_001  # no tunnel of the documents has it
GROUP = 4711
# GET of sysUpTime.0, SNMPv2c, community "public".
PROBE = bytes.fromhex("302602010104067075626c6963a019020101020100020100300e300c06082b060102010103000500")


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


def main():
    stopped = []
    signal.signal(signal.SIGTERM, lambda *_: stopped.append(True))
    count = 0
    begin = time.monotonic()
    for count, _ in enumerate(garbage(sys.argv[2]) if sys.argv[1] == "garbage" else links(), 1):
        if stopped:
            break
    print(json.dumps({"perSecond": count / (time.monotonic() - begin)}))


main()
