"""A client of vici, strongSwan's control interface, for the tests: asks, hears of events, and keeps
the octets that went each way. It trusts its peer, which the source under test must not."""

import socket
import struct

REQUEST, RESPONSE, UNKNOWN_COMMAND, REGISTER, UNREGISTER, CONFIRMED, UNKNOWN_EVENT, EVENT = range(8)
SECTION, SECTION_END, KEY_VALUE, LIST, LIST_ITEM, LIST_END = range(1, 7)
PATIENCE = 20  # seconds for an answer


class Refused(Exception):
    """The daemon does not know the command or event, or could not do what it was asked for."""


class Vici:
    """One connection to a daemon's socket."""

    def __init__(self, path):
        self.exchange = []  # (">" to the daemon or "<" from it, the packet without its length)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(PATIENCE)
        try:
            self.socket.connect(path)
        except OSError:
            self.socket.close()
            raise

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def register(self, event):
        self._send(bytes([REGISTER]) + _name(event))
        if self._receive()[0] != CONFIRMED:
            raise Refused(event)

    def request(self, command, message=None):
        """The answer to a command, after the events that came before it: (answer, [(event, it)])."""
        self._send(bytes([REQUEST]) + _name(command) + encode(message or {}))
        events = []
        while True:
            packet = self._receive()
            if packet[0] == EVENT:
                events.append(_event(packet))
            elif packet[0] == RESPONSE:
                return decode(packet[1:]), events
            else:
                raise Refused(command)

    def listing(self, command, event, message=None):
        """What a command tells in events, as one dictionary."""
        self.register(event)
        _, events = self.request(command, message)
        return {name: value for _, item in events for name, value in item.items()}

    def wait_for_event(self, seconds):
        """The next event, (name, message), or None when there is none for so long."""
        self.socket.settimeout(seconds)
        try:
            return _event(self._receive())
        except TimeoutError:
            return None
        finally:
            self.socket.settimeout(PATIENCE)

    def _send(self, packet):
        self.exchange.append((">", packet))
        self.socket.sendall(struct.pack(">I", len(packet)) + packet)

    def _receive(self):
        packet = self._read(struct.unpack(">I", self._read(4))[0])
        self.exchange.append(("<", packet))
        return packet

    def _read(self, count):
        octets = b""
        while len(octets) < count:
            more = self.socket.recv(count - len(octets))
            if not more:
                raise EOFError("the daemon has closed the connection")
            octets += more
        return octets


def encode(message):
    """The octets of {name: text, or list of texts, or such a dictionary}."""
    octets = b""
    for name, value in message.items():
        if isinstance(value, dict):
            octets += bytes([SECTION]) + _name(name) + encode(value) + bytes([SECTION_END])
        elif isinstance(value, list):
            octets += bytes([LIST]) + _name(name)
            octets += b"".join(bytes([LIST_ITEM]) + _value(item) for item in value)
            octets += bytes([LIST_END])
        else:
            octets += bytes([KEY_VALUE]) + _name(name) + _value(value)
    return octets


def decode(octets):
    """The dictionary that encode() makes such octets of."""
    return _Decoder(octets).section()


class _Decoder:
    def __init__(self, octets):
        self.octets = octets

    def section(self):
        message = {}
        while self.octets:
            kind = self._take(1)[0]
            if kind == SECTION_END:
                break
            name = self._take(self._take(1)[0]).decode()
            if kind == SECTION:
                message[name] = self.section()
            elif kind == LIST:
                message[name] = self._items()
            else:
                message[name] = self._long_text()
        return message

    def _items(self):
        items = []
        while self._take(1)[0] == LIST_ITEM:
            items.append(self._long_text())
        return items

    def _long_text(self):
        return self._take(struct.unpack(">H", self._take(2))[0]).decode()

    def _take(self, count):
        taken, self.octets = self.octets[:count], self.octets[count:]
        return taken


def _name(text):
    return bytes([len(text)]) + text.encode()


def _value(text):
    return struct.pack(">H", len(text)) + text.encode()


def _event(packet):
    end = 2 + packet[1]
    return packet[2:end].decode(), decode(packet[end:])
