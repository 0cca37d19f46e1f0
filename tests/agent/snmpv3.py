"""SNMPv3 requests made by hand, byte by byte: no client of SNMP announces a small msgMaxSize (RFC 3412
section 6) or a negative msgID. The user-based security model (RFC 3414) with HMAC-SHA-256 (RFC 7860)
and AES (RFC 3826); the keys are made of passwords as those say."""

import hashlib
import hmac
import os
import socket

from Cryptodome.Cipher import AES

from ber import GET, OCTETS, SEQUENCE, Answer, Element, integer, pdu, tlv

MAC_SIZE = 24
LARGEST = 65507


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
