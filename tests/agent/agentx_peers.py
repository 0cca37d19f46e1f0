"""AgentX (RFC 2741) as a test speaks it: messages as tuples, a master that does what a test tells it,
and a subagent beside ours. Everything is in network byte order."""

import socket
import struct
import threading

OPEN, CLOSE, REGISTER, UNREGISTER, GET, GET_NEXT, GET_BULK, TEST_SET = range(1, 9)
PING, RESPONSE = 13, 18
INTEGER, NO_SUCH_OBJECT, NO_SUCH_INSTANCE, END_OF_MIB_VIEW = 2, 128, 129, 130
NETWORK_ORDER, WITH_CONTEXT = 0x10, 0x08
HEADER = struct.Struct("!BBBxIIII")
PATIENCE = 60


def numbers(oid):
    return tuple(int(number) for number in oid.strip(".").split("."))


def text(oid):
    return "." + ".".join(map(str, oid))


def encoded_oid(oid, include=False):
    return struct.pack(f"!BBBB{len(oid)}I", len(oid), 0, include, 0, *oid)


def encoded_text(octets):
    return struct.pack("!I", len(octets)) + octets + bytes(-len(octets) % 4)


def encoded_range(start, end=(), include=False):
    return encoded_oid(start, include) + encoded_oid(end)


class Message:
    def __init__(self, kind, payload=b"", *, session=0, transaction=0, packet=0, flags=0):
        self.kind, self.payload, self.session = kind, payload, session
        self.transaction, self.packet, self.flags = transaction, packet, flags

    def octets(self):
        return HEADER.pack(1, self.kind, NETWORK_ORDER | self.flags, self.session,
                           self.transaction, self.packet, len(self.payload)) + self.payload


class Reader:
    """Takes the fields of a payload one by one, in the order of the message's flags."""

    def __init__(self, message):
        self.rest = message.payload
        self.order = "!" if message.flags & NETWORK_ORDER else "<"
        if message.flags & WITH_CONTEXT:
            self.octets()

    def take(self, form):
        form = self.order + form
        size = struct.calcsize(form)
        fields, self.rest = struct.unpack(form, self.rest[:size]), self.rest[size:]
        return fields

    def octets(self):
        size, = self.take("I")
        value, self.rest = self.rest[:size], self.rest[(size + 3) // 4 * 4:]
        return value

    def oid(self):
        """The name, and whether it is included."""
        count, prefix, include, _ = self.take("BBBB")
        head = (1, 3, 6, 1, prefix) if prefix else ()
        return head + self.take(f"{count}I"), bool(include)

    def ranges(self):
        """[(start, whether it is included, end)]"""
        found = []
        while self.rest:
            start, include = self.oid()
            found.append((start, include, self.oid()[0]))
        return found

    def response(self):
        """(error, index, [(type, name, value of an integer)])"""
        _, error, index = self.take("IHH")
        found = []
        while self.rest:
            kind, _ = self.take("HH")
            name = self.oid()[0]
            value = None
            if kind in (INTEGER, 65, 66, 67):
                value, = self.take("I")
            elif kind in (4, 64, 68):
                value = self.octets()
            elif kind == 6:
                value = self.oid()[0]
            found.append((kind, name, value))
        return error, index, found


def response(error=0, index=0, var_binds=(), up_time=0):
    payload = struct.pack("!IHH", up_time, error, index)
    for kind, name, value in var_binds:
        payload += struct.pack("!HH", kind, 0) + encoded_oid(name)
        if kind == INTEGER:
            payload += struct.pack("!I", value)
    return payload


class Connection:
    """One AgentX connection, as master or as subagent."""

    def __init__(self, connected):
        self.socket = connected
        self.socket.settimeout(PATIENCE)

    def close(self):
        self.socket.close()

    def send(self, *arguments, **fields):
        self.socket.sendall(Message(*arguments, **fields).octets())

    def answer(self, request, payload=None, **fields):
        fields = {"session": request.session, "transaction": request.transaction,
                  "packet": request.packet, **fields}
        self.send(RESPONSE, response() if payload is None else payload, **fields)

    def receive(self):
        """The next message; None when the other side has hung up."""
        head = self._exactly(HEADER.size)
        if head is None:
            return None
        little = not head[2] & NETWORK_ORDER
        version, kind, flags, session, transaction, packet, size = struct.unpack(
            ("<" if little else "!") + "BBBxIIII", head)
        assert version == 1, head
        return Message(kind, self._exactly(size), session=session, transaction=transaction,
                       packet=packet, flags=flags)

    def _exactly(self, size):
        octets = b""
        while len(octets) < size:
            try:
                more = self.socket.recv(size - len(octets))
            except ConnectionResetError:
                more = b""
            if not more:
                return None
            octets += more
        return octets


class Master:
    """Listens where a subagent connects to; what it does, a test does with its connections."""

    def __init__(self, path):
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen(8)
        self.listener.settimeout(PATIENCE)
        self.connections = []

    def close(self):
        self.listener.close()
        for connection in self.connections:
            connection.close()

    def accept(self):
        self.connections.append(Connection(self.listener.accept()[0]))
        return self.connections[-1]

    def accept_open(self, session=1):
        """A connection whose Open is answered."""
        connection = self.accept()
        opening = connection.receive()
        assert opening.kind == OPEN, opening.kind
        connection.answer(opening, session=session)
        return connection

    def accept_serving(self, session=1, regions=3):
        """A connection whose Open and registrations are answered."""
        connection = self.accept_open(session)
        for _ in range(regions):
            registration = connection.receive()
            assert registration.kind == REGISTER, registration.kind
            connection.answer(registration)
        return connection


class Subagent:
    """A subagent of a real master, with cells of a test's own."""

    def __init__(self, path, cells):
        self.cells = {numbers(oid): value for oid, value in cells.items()}
        self.asked = []  # (kind, context) of each request
        self.packet = 0
        connected = socket.socket(socket.AF_UNIX)
        connected.connect(path)
        self.connection = Connection(connected)
        self.connection.send(OPEN, bytes(4) + encoded_oid(()) + encoded_text(b"neighbour"))
        self.session = self.connection.receive().session

    def register(self, oid, *, priority=127, range_sub_id=0, upper_bound=0, context=b""):
        """Returns the master's error."""
        self.packet += 1
        payload = encoded_text(context) if context else b""
        payload += struct.pack("!BBBB", 0, priority, range_sub_id, 0) + encoded_oid(numbers(oid))
        if range_sub_id:
            payload += struct.pack("!I", upper_bound)
        self.connection.send(REGISTER, payload, session=self.session, packet=self.packet,
                             flags=WITH_CONTEXT if context else 0)
        return Reader(self.connection.receive()).response()[0]

    def serve(self):
        threading.Thread(target=self._serve, daemon=True).start()

    def leave(self):
        self.connection.send(CLOSE, struct.pack("!Bxxx", 5), session=self.session)
        self.connection.close()

    def _serve(self):
        try:
            while (request := self.connection.receive()) is not None:
                if request.kind in (GET, GET_NEXT):
                    self.asked.append((request.kind, bool(request.flags & WITH_CONTEXT)))
                    self._answer(request)
        except OSError:
            pass  # left

    def _answer(self, request):
        find = self._exact if request.kind == GET else self._next
        found = [find(*one) for one in Reader(request).ranges()]
        self.connection.answer(request, response(var_binds=found))

    def _exact(self, start, _include, _end):
        if start in self.cells:
            return INTEGER, start, self.cells[start]
        return NO_SUCH_INSTANCE, start, None

    def _next(self, start, include, end):
        for name in sorted(self.cells):
            if (name > start or include and name == start) and (not end or name < end):
                return INTEGER, name, self.cells[name]
        return END_OF_MIB_VIEW, start, None
