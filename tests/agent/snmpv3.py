"""SNMPv3 requests made by hand, byte by byte: no client of SNMP announces a small msgMaxSize (RFC 3412
section 6) or a negative msgID. The user-based security model (RFC 3414) with HMAC-SHA-256 (RFC 7860)
and AES (RFC 3826); the keys are made of passwords as those say."""

import hashlib
import hmac
import os
import socket

from Cryptodome.Cipher import AES

INTEGER, OCTETS, NULL, OID, SEQUENCE = 0x02, 0x04, 0x05, 0x06, 0x30
GET, GETNEXT, RESPONSE, SET, GETBULK, REPORT = 0xA0, 0xA1, 0xA2, 0xA3, 0xA5, 0xA8
TOO_BIG = 1
MAC_SIZE = 24
LARGEST = 65507


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


def local_key(password, engine):
    repeated = (password * (1048576 // len(password) + 1))[:1048576]
    key = hashlib.sha256(repeated).digest()
    return hashlib.sha256(key + engine + key).digest()


def aes(key, vector):
    return AES.new(key, AES.MODE_CFB, iv=vector, segment_size=128)


class Manager:
    """Talks to one agent over UDP as one user, who authenticates and encrypts if there are passwords."""

    def __init__(self, address, user, auth=None, priv=None, patience=5):
        host, port = address.rsplit(":", 1)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.settimeout(patience)
        self.socket.connect((host, int(port)))
        self.user, self.auth, self.priv = user, auth, priv
        self.engine, self.boots, self.time = b"", 0, 0
        self.auth_key = self.priv_key = b""
        self.message_id = 1000

    def close(self):
        self.socket.close()

    def discover(self):
        """Asks for the agent's engine (RFC 3414 section 4)."""
        self.socket.send(self.message(pdu(GET, []), LARGEST, user="", secure=False))
        self.receive()
        if self.auth:
            self.auth_key = local_key(self.auth, self.engine)
            self.priv_key = local_key(self.priv, self.engine)[:16]

    def message(self, scoped, announced, user=None, secure=True, message_id=None, context=b""):
        secure = secure and self.auth is not None
        self.message_id += 1
        body = tlv(SEQUENCE, tlv(OCTETS, self.engine) + tlv(OCTETS, context) + scoped)
        salt = b""
        if secure:
            salt = os.urandom(8)
            body = tlv(OCTETS, aes(self.priv_key, self.vector(salt)).encrypt(body))
        security = tlv(SEQUENCE, tlv(OCTETS, self.engine) + integer(self.boots)
                       + integer(self.time)
                       + tlv(OCTETS, (self.user if user is None else user).encode())
                       + tlv(OCTETS, bytes(MAC_SIZE) if secure else b"") + tlv(OCTETS, salt))
        header = tlv(SEQUENCE, integer(self.message_id if message_id is None else message_id)
                     + integer(announced) + tlv(OCTETS, bytes([7 if secure else 4])) + integer(3))
        whole = tlv(SEQUENCE, integer(3) + header + tlv(OCTETS, security) + body)
        if secure:
            mac = hmac.new(self.auth_key, whole, hashlib.sha256).digest()[:MAC_SIZE]
            whole = whole.replace(tlv(OCTETS, bytes(MAC_SIZE)), tlv(OCTETS, mac), 1)
        return whole

    def vector(self, salt):
        return self.boots.to_bytes(4, "big") + self.time.to_bytes(4, "big") + salt

    def receive(self):
        data = self.socket.recv(65536)
        _, header, security, body = Element(data).children()
        flags = list(header.children())[2].content[0]
        engine, boots, now, _, _, salt = Element(security.content).children()
        self.engine, self.boots, self.time = engine.content, boots.number(), now.number()
        scoped = body
        if flags & 2:
            cipher = aes(self.priv_key, self.vector(salt.content))
            scoped = Element(cipher.decrypt(body.content))
        inner = list(scoped.children())[2]
        return Answer(inner.tag, list(inner.children()), len(data))

    def ask_version_2(self, request, community=b"public"):
        """The same of SNMPv2c."""
        self.socket.send(tlv(SEQUENCE, integer(1) + tlv(OCTETS, community) + request))
        try:
            data = self.socket.recv(65536)
        except TimeoutError:
            return None
        inner = list(Element(data).children())[2]
        return Answer(inner.tag, list(inner.children()), len(data))

    def ask(self, scoped, announced=LARGEST, **how):
        """Sends one request; returns the answer, or None when there is none in time."""
        self.socket.send(self.message(scoped, announced, **how))
        try:
            return self.receive()
        except TimeoutError:
            return None
