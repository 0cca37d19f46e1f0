"""Reads a running agent with pysnmp and prints what it sees, one line for each varbind.

usage: manager_pysnmp.py PORT next ROOT        a walk by GETNEXT
       manager_pysnmp.py PORT bulk N ROOT      a walk by GETBULK of N repetitions
       manager_pysnmp.py PORT get OID...       one GET for all
       manager_pysnmp.py PORT walks COUNT N ROOT...
           so many walks, of each root in turn, by GETBULK of N repetitions: before each a line
           "walk BEGIN ROOT", behind it "end END", in seconds of CLOCK_MONOTONIC

A line is "OID INTEGER NUMBER" or "OID OCTETS HEX" (HEX may be empty).
"""

import sys
import time

from pysnmp.hlapi import (CommunityData, ContextData, ObjectIdentity, ObjectType, SnmpEngine,
                          UdpTransportTarget, bulkCmd, getCmd, nextCmd)
from pysnmp.proto.rfc1902 import Integer32, OctetString
from pysnmp.proto.rfc1905 import endOfMibView


def session_with(port):
    return (SnmpEngine(), CommunityData("public", mpModel=1),
            UdpTransportTarget(("127.0.0.1", port), timeout=10, retries=0), ContextData())


def answers(session, command, arguments):
    options = {"lookupMib": False, "lexicographicMode": False}
    names = [ObjectType(ObjectIdentity(name)) for name in arguments]
    if command == "next":
        return nextCmd(*session, *names, **options)
    if command == "bulk":
        repetitions, root = arguments
        return bulkCmd(*session, 0, int(repetitions), ObjectType(ObjectIdentity(root)), **options)
    return getCmd(*session, *names, lookupMib=False)


def line(name, value):
    if isinstance(value, OctetString):
        return f"{name} OCTETS {bytes(value).hex()}"
    if isinstance(value, Integer32):
        return f"{name} INTEGER {int(value)}"
    return f"{name} {type(value).__name__}"


def main():
    port, command, *arguments = sys.argv[1:]
    session = session_with(int(port))
    if command == "walks":
        count, repetitions, *roots = arguments
        for number in range(int(count)):
            root = roots[number % len(roots)]
            print(f"walk {time.monotonic():.6f} {root}")
            show(answers(session, "bulk", [repetitions, root]))
            print(f"end {time.monotonic():.6f}")
    else:
        show(answers(session, command, arguments))


def show(all_answers):
    for indication, status, index, varbinds in all_answers:
        if indication or status:
            sys.exit(f"{indication or status.prettyPrint()} at {index}")
        for name, value in varbinds:
            if not endOfMibView.isSameTypeWith(value):
                print(line(name, value))


main()
