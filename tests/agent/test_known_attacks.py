#!/usr/bin/env python3
"""Packets that have ended other SNMP agents in the last ten years, and what else of their kind there
is: after each the daemon serves what it served, and its end is an orderly one."""
import socket

import test_daemon
from test_daemon import DaemonTest

INTEGER, OCTETS, NULL, OID, SEQUENCE = 0x02, 0x04, 0x05, 0x06, 0x30
GET, GET_NEXT, RESPONSE, SET, GET_BULK, INFORM, TRAP2, REPORT = (0xA0, 0xA1, 0xA2, 0xA3, 0xA5, 0xA6,
                                                                 0xA7, 0xA8)
HOP_LIMIT = (1, 3, 6, 1, 2, 1, 10, 131, 1, 1, 1, 1, 4, 2005)


def element(tag, content):
    size = len(content)
    length = bytes([size]) if size < 128 else b"\x82" + size.to_bytes(2, "big")
    return bytes([tag]) + length + content


def integer(value):
    return element(INTEGER, value.to_bytes(max(1, (value.bit_length() + 8) // 8), "big", signed=True))


def name(parts):
    octets = bytes([40 * parts[0] + parts[1]])
    for part in parts[2:]:
        groups = [part & 127]
        while part := part >> 7:
            groups.insert(0, part & 127 | 128)
        octets += bytes(groups)
    return element(OID, octets)


def varbind(parts, value=element(NULL, b"")):
    return element(SEQUENCE, name(parts) + value)


def message(kind, *varbinds, first=0, second=0, version=1, community=b"public", request=7):
    pdu = integer(request) + integer(first) + integer(second) + element(SEQUENCE, b"".join(varbinds))
    return element(SEQUENCE, integer(version) + element(OCTETS, community) + element(kind, pdu))


def v3(flags, engine=b"", user=b"", data=b"", msg_id=5, model=3, usm_extra=b""):
    usm = element(SEQUENCE, element(OCTETS, engine) + integer(0) + integer(0) +
                  element(OCTETS, user) + element(OCTETS, b"") + element(OCTETS, b"") + usm_extra)
    header = element(SEQUENCE, integer(msg_id) + integer(65507) + element(OCTETS, bytes([flags])) +
                     integer(model))
    return element(SEQUENCE, integer(3) + header + element(OCTETS, usm) + data)


def scoped(pdu, context=b""):
    return element(SEQUENCE, element(OCTETS, b"") + element(OCTETS, context) + pdu)


class KnownAttacks(DaemonTest):
    def survives(self, *packets):
        daemon = self.start_office()
        served = self.walk()
        host, port = self.address.rsplit(":", 1)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as attacker:
            attacker.settimeout(test_daemon.PATIENCE)
            attacker.connect((host, int(port)))
            for number, packet in enumerate(packets):
                attacker.send(packet)
                if number % 20 == 0:  # else the daemon's socket runs over, and loses attacks
                    self.wait_for_an_answer(attacker, number)
        self.assertEqual(served, self.walk())
        self.assertEqual(0, daemon.end()[0], daemon.err)

    @staticmethod
    def wait_for_an_answer(attacker, number):
        mark = 0x5A000000 + number
        attacker.send(message(GET, varbind(HOP_LIMIT), request=mark))
        while mark.to_bytes(4, "big") not in attacker.recv(65536):
            pass

    # CVE-2015-5621: a varbind list that ends in the middle left half-made varbinds behind.
    def test_varbinds_that_end_in_the_middle(self):
        whole = message(GET, *[varbind(HOP_LIMIT)] * 4)
        cut = [whole[:1] + bytes([len(whole[:size]) - 2]) + whole[2:size]
               for size in range(20, len(whole)) if size - 2 < 128]
        self.survives(*[whole[:size] for size in range(2, len(whole))], *cut)

    # CVE-2018-18066, CVE-2018-18065: a GETNEXT or GETBULK beyond a table's end, or for an instance
    # whose index has parts missing, met a row that was not there.
    def test_walks_around_the_ends_of_tables(self):
        ends = [HOP_LIMIT[:size] for size in range(2, len(HOP_LIMIT))]
        ends += [HOP_LIMIT[:12] + (column, 2**32 - 1) for column in (0, 1, 4, 12, 2**32 - 1)]
        ends += [HOP_LIMIT[:12] + (4,) + (0,) * count for count in range(100)]
        self.survives(*[message(GET_NEXT, varbind(end)) for end in ends],
                      *[message(GET_BULK, *[varbind(end)] * 3, first=1, second=20) for end in ends])

    # CVE-2019-20892: GETBULKs by SNMPv3 freed the sender's state twice.
    def test_bulks_by_a_user_that_does_not_exist(self):
        bulk = element(GET_BULK, integer(7) + integer(0) + integer(32) +
                       element(SEQUENCE, varbind(HOP_LIMIT[:4])))
        self.survives(*[v3(flags, engine=b"\x80\x00\x1f\x88\x04test", user=user, data=scoped(bulk))
                        for flags in (0, 4) for user in (b"", b"nobody", b"x" * 32)] * 10)

    # CVE-2022-44792 and 44793: a SET whose value is NULL was followed.
    def test_sets_of_null(self):
        self.survives(*[message(SET, varbind(HOP_LIMIT[:12] + (column, 2005)))
                        for column in range(14)])

    # CVE-2022-24805 to 24810: a SET with an index of the wrong form, far too long or with parts out
    # of range.
    def test_sets_of_indexes_of_the_wrong_form(self):
        inet = HOP_LIMIT[:10] + (3, 1, 6)
        wrong = [(), (1,), (1, 2**32 - 1), (1, 4), (1, 4, 256, 0, 0, 0), (1,) + (128,) * 110,
                 (2, 16) + (0,) * 15, (1, 4, 192, 0, 2, 10, 4, 198, 51, 100, 1, 3)]
        self.survives(*[message(SET, varbind(inet + index, value)) for index in wrong
                        for value in (integer(1), element(OCTETS, b"x" * 300), element(0x44, b""))])

    # Of the kind: lengths that lie.
    def test_lengths_that_lie(self):
        whole = message(GET, varbind(HOP_LIMIT))
        lies = [whole[:at] + bytes([lie]) + whole[at + 1:] for at in range(len(whole))
                for lie in (0, 0x7F, 0x80, 0x84, 0xFF)]
        long_forms = [b"\x30\x84\xff\xff\xff\xff" + whole[2:], b"\x30\x88" + b"\x01" * 8 + whole[2:],
                      b"\x30\x80" + whole[2:] + b"\0\0"]
        self.survives(*lies, *long_forms)

    # Of the kind: values that are larger than their type, of types that nobody asks with.
    def test_values_of_the_wrong_size(self):
        values = [element(tag, b"\xff" * size) for size in (0, 1, 5, 9, 127)
                  for tag in (0x02, 0x06, 0x40, 0x41, 0x43, 0x44, 0x46, 0x47, 0x78, 0x79, 0x80, 0x82)]
        self.survives(*[message(kind, varbind(HOP_LIMIT, value)) for kind in (GET, SET)
                        for value in values])

    # Of the kind: what a manager sends to nobody.
    def test_messages_that_no_agent_is_sent(self):
        kinds = [RESPONSE, INFORM, TRAP2, REPORT, 0xA4, 0xA9, 0xBF]
        self.survives(*[message(kind, varbind(HOP_LIMIT), version=version)
                        for kind in kinds for version in (0, 1, 2, 3, 77)],
                      b"", b"\0", b"\x30", b"\x30\0", b"\xff" * 65000, b"\x30\x82" * 30000)

    # Of the kind: repetitions and names beyond all measure.
    def test_bulks_beyond_all_measure(self):
        self.survives(*[message(GET_BULK, *[varbind(HOP_LIMIT[:12])] * count, first=first,
                                second=second)
                        for count in (1, 100, 1000) for first in (-2**31, 0, 2**31 - 1)
                        for second in (-2**31, 0, 2**31 - 1)])

    # Of the kind: security parameters of the wrong form.
    def test_security_parameters_of_the_wrong_form(self):
        get = scoped(element(GET, integer(7) + integer(0) + integer(0) +
                             element(SEQUENCE, varbind(HOP_LIMIT))))
        self.survives(*[v3(flags, engine=engine, user=user, data=data, model=model, usm_extra=extra)
                        for flags in (0, 1, 3, 4, 7, 255) for engine in (b"", b"x" * 5, b"x" * 33)
                        for user in (b"", b"x" * 33) for model in (0, 3, 2**31 - 1)
                        for data, extra in ((get, b""), (element(OCTETS, b"\xff" * 40), b""),
                                            (b"", b"\x30\x80"))])


if __name__ == "__main__":
    test_daemon.main(__doc__)
