"""Asks an agent for one value again and again, and says how long the answers took.

    snmp_latency.py HOST:PORT OID SECONDS

It writes one line when it begins and, at the end, {"requests": N, "median": S, "p99": S, "longest": S},
seconds as a document of JSON. A request is made every 2 ms; one that is not answered ends it badly."""

import json
import pathlib
import socket
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "agent"))

import ber  # pylint: disable=wrong-import-position

PERIOD = 0.002
PATIENCE = 10
VERSION_2C = 1


def main(address, name, seconds):
    host, port = address.rsplit(":", 1)
    message = ber.tlv(ber.SEQUENCE, ber.integer(VERSION_2C)
                      + ber.tlv(ber.OCTETS, b"public")
                      + ber.pdu(ber.GET, [name]))
    took = []
    print("begins", flush=True)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as agent:
        agent.settimeout(PATIENCE)
        agent.connect((host, int(port)))
        end = time.monotonic() + float(seconds)
        while (began := time.monotonic()) < end:
            agent.send(message)
            agent.recv(65536)
            took.append(time.monotonic() - began)
            time.sleep(PERIOD)
    took.sort()
    print(json.dumps({"requests": len(took), "median": took[len(took) // 2],
                      "p99": took[len(took) * 99 // 100], "longest": took[-1]}))


if __name__ == "__main__":
    main(*sys.argv[1:])
