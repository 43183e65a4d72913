"""A bus client that keeps its connection: thousands of requests without a process for each, and any bytes at all.

Formats: platform/bus/include/ubusmsg.h and libubox/blob.h.
"""
import socket
import struct

import world

HELLO, STATUS, DATA, PING, LOOKUP, INVOKE = range(6)
A_STATUS, A_OBJPATH, A_OBJID, A_METHOD, A_DATA = 1, 2, 3, 4, 7
ARRAY, TABLE, STRING, INT64, INT32, INT16, INT8 = range(1, 8)


def padded(data):
    return data + bytes(-len(data) % 4)


def attribute(number, payload, extended=False):
    """A blob attribute with its padding."""
    return padded(struct.pack(">I", extended << 31 | number << 24 | 4 + len(payload)) + payload)


def member(name, value):
    """A named member of a message."""
    head = padded(struct.pack(">H", len(name.encode())) + name.encode() + b"\0")
    if isinstance(value, bool):
        kind, payload = INT8, bytes([value])
    elif isinstance(value, int):
        kind, payload = INT32, struct.pack(">I", value)
    elif isinstance(value, str):
        kind, payload = STRING, value.encode() + b"\0"
    elif isinstance(value, bytes):
        return value  # ready-made
    elif isinstance(value, dict):
        kind, payload = TABLE, members(value)
    else:
        kind, payload = ARRAY, b"".join(member("", item) for item in value)
    return attribute(kind, head + payload, extended=True)


def members(values):
    return b"".join(member(name, value) for name, value in values.items())


def attributes_of(data):
    """(number, extended, payload) of every attribute."""
    while len(data) >= 4:
        word, = struct.unpack(">I", data[:4])
        length = word & 0xffffff
        yield word >> 24 & 0x7f, bool(word >> 31), data[4:length]
        data = data[(length + 3) & ~3:]


def decode(data):
    """Members as a dictionary; only the types that replies have."""
    found = {}
    for kind, extended, payload in attributes_of(data):
        if not extended:
            continue
        length, = struct.unpack(">H", payload[:2])
        name, value = payload[2:2 + length].decode(), payload[(2 + length + 1 + 3) & ~3:]
        if kind == TABLE:
            found[name] = decode(value)
        elif kind == STRING:
            found[name] = value.rstrip(b"\0").decode()
        elif kind == INT8:
            found[name] = bool(value[0])
        elif kind == INT32:
            found[name], = struct.unpack(">I", value[:4])
    return found


def message(kind, sequence, peer, payload):
    return struct.pack(">BBHII", 0, kind, sequence, peer, 4 + len(payload)) + payload


def invocation(target, method, data):
    """What asks for a method; data is members, encoded."""
    return (attribute(A_OBJID, struct.pack(">I", target)) + attribute(A_METHOD, method.encode() + b"\0") +
            attribute(A_DATA, data))


def exactly(connection, count):
    data = b""
    while len(data) < count:
        piece = connection.recv(count - len(data))
        if not piece:
            raise ConnectionError("the other side closed the connection")
        data += piece
    return data


class BusClient:
    """Connects at once; look() finds an object's id."""

    def __init__(self, path=world.BUS_SOCKET, timeout=None):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(timeout or world.PATIENCE)
        self.socket.connect(path)
        self.sequence = 0
        kind, _, peer, _ = self.receive()
        assert kind == HELLO
        self.id = peer
        self.targets = {}

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def receive(self):
        _, kind, sequence, peer, length = struct.unpack(">BBHII", exactly(self.socket, 12))
        return kind, sequence, peer, exactly(self.socket, (length & 0xffffff) - 4)

    def send(self, kind, peer, payload):
        self.sequence = self.sequence % 65535 + 1
        self.socket.sendall(message(kind, self.sequence, peer, payload))
        return self.sequence

    def answer(self, wanted):
        """(status, data) of the request of that number."""
        data = None
        while True:
            kind, sequence, _, payload = self.receive()
            if sequence != wanted:
                continue
            if kind == DATA:
                data = payload
            elif kind == STATUS:
                status = next(value for number, _, value in attributes_of(payload) if number == A_STATUS)
                return struct.unpack(">I", status[:4])[0], data

    def look(self, name="dpi"):
        if name not in self.targets:
            _, data = self.answer(self.send(LOOKUP, 0, attribute(A_OBJPATH, name.encode() + b"\0")))
            if data is None:
                return None
            self.targets[name], = next(struct.unpack(">I", value) for number, _, value in attributes_of(data)
                                       if number == A_OBJID)
        return self.targets[name]

    def ask(self, method, data=b"", target="dpi"):
        """Sends a request with ready-made members; its number."""
        number = self.look(target)
        return self.send(INVOKE, number, invocation(number, method, data))

    def call(self, method, **values):
        """The reply; a request that the bus refuses raises."""
        status, data = self.answer(self.ask(method, members(values)))
        if data is None:
            raise world.Failure(f"{method}: status {status}")
        return decode(next(value for number, _, value in attributes_of(data) if number == A_DATA))
