"""SNMP messages by hand, byte by byte: the basic encoding rules as far as SNMP goes (RFC 3417), PDUs
(RFC 3416), and a manager of SNMPv2c that reads whole tables, faster than to start a program is."""

import socket

INTEGER, OCTETS, NULL, OID, SEQUENCE = 0x02, 0x04, 0x05, 0x06, 0x30
GET, GETNEXT, RESPONSE, SET, GETBULK, REPORT = 0xA0, 0xA1, 0xA2, 0xA3, 0xA5, 0xA8
TOO_BIG = 1
END_OF_MIB_VIEW = 0x82


def length(count):
    if count < 128:
        return bytes([count])
    octets = count.to_bytes((count.bit_length() + 7) // 8, "big")
    return bytes([0x80 | len(octets)]) + octets


def tlv(tag, content):
    return bytes([tag]) + length(len(content)) + content


def integer(value):
    return tlv(INTEGER, value.to_bytes((value + (value < 0)).bit_length() // 8 + 1, "big",
                                       signed=True))


def oid(text):
    parts = [int(part) for part in text.strip(".").split(".")]
    out = bytearray([parts[0] * 40 + parts[1]])
    for part in parts[2:]:
        groups = [part & 127]
        while part := part >> 7:
            groups.append(part & 127 | 128)
        out += bytes(reversed(groups))
    return tlv(OID, bytes(out))


def oid_text(content):
    """The name that the content of an element stands for."""
    parts, part = [], 0
    for octet in content:
        part = part << 7 | octet & 127
        if not octet & 128:
            parts.append(part)
            part = 0
    return ".".join(str(one) for one in [*divmod(parts[0], 40), *parts[1:]])


def pdu(command, names, request_id=1, second=0, third=0, value=tlv(NULL, b"")):
    """`second` and `third` are error-status and error-index, or of a GETBULK the non-repeaters and
    max-repetitions."""
    binds = b"".join(tlv(SEQUENCE, oid(name) + value) for name in names)
    return tlv(command, integer(request_id) + integer(second) + integer(third)
               + tlv(SEQUENCE, binds))


class Element:
    """One element of BER that was read: its tag, its content, and its place in the message."""

    def __init__(self, data, at=0):
        self.tag = data[at]
        first = data[at + 1]
        self.begin = at + 2
        size = first
        if first & 0x80:
            self.begin += first & 127
            size = int.from_bytes(data[at + 2:self.begin], "big")
        self.end = self.begin + size
        self.data = data
        self.content = data[self.begin:self.end]
        if self.end > len(data):
            raise ValueError("an element that is longer than its message")

    def children(self):
        at = self.begin
        while at < self.end:
            child = Element(self.data, at)
            yield child
            at = child.end

    def number(self):
        return int.from_bytes(self.content, "big", signed=True)


class Answer:
    """What came back: the PDU's tag, its error-status, its varbinds, and the message's size."""

    def __init__(self, kind, body, size):
        self.kind = kind
        self.size = size
        request_id, status, index, binds = body
        self.request_id, self.error_status = request_id.number(), status.number()
        self.error_index = index.number()
        self.varbinds = list(binds.children())


class Manager:
    """Asks one agent by SNMPv2c over UDP."""

    def __init__(self, address, patience=1.0, community=b"public"):
        host, port = address.rsplit(":", 1)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.settimeout(patience)
        self.socket.connect((host, int(port)))
        self.community = community
        self.requests = 0

    def close(self):
        self.socket.close()

    def ask(self, command, names, *numbers):
        """The answer. Raises OSError when there is none in time."""
        self.requests = self.requests % 0x7fff + 1
        self.socket.send(tlv(SEQUENCE, integer(1) + tlv(OCTETS, self.community)
                             + pdu(command, names, self.requests, *numbers)))
        while True:
            data = self.socket.recv(65536)
            inner = list(Element(data).children())[2]
            answer = Answer(inner.tag, list(inner.children()), len(data))
            if answer.request_id == self.requests:
                return answer

    def walk(self, root, repetitions=40):
        """{name: (tag, content)} of what is below the root, by GETBULK. Raises OSError where there is
        no answer, or one with an error."""
        found, name = {}, root
        while True:
            answer = self.ask(GETBULK, [name], 0, repetitions)
            if answer.error_status != 0:
                raise OSError(f"error-status {answer.error_status} at {name}")
            for varbind in answer.varbinds:
                key, value = varbind.children()
                name = oid_text(key.content)
                if value.tag == END_OF_MIB_VIEW or not name.startswith(root + "."):
                    return found
                if name in found:
                    raise AssertionError(f"{name} comes twice")
                found[name] = (value.tag, value.content)
