"""A broker by hand, which answers the daemon's requests one at a time, and says or ends what a test tells it to.

Formats: platform/bus/include/ubusmsg.h and libubox/blob.h.
"""
import contextlib
import os
import socket
import struct

import world

HELLO, STATUS, DATA, _, _, INVOKE = range(6)
A_STATUS, A_OBJPATH, A_OBJID, A_METHOD, A_DATA = 1, 2, 3, 4, 7


def attribute(number, payload):
    data = struct.pack(">I", number << 24 | 4 + len(payload)) + payload
    return data + bytes(-len(data) % 4)


def message(kind, sequence, peer, payload=b""):
    return struct.pack(">BBHII", 0, kind, sequence, peer, 4 + len(payload)) + payload


def invocation(target, method, data=b""):
    """Asks an object for a method, or tells it of an event."""
    return message(INVOKE, 5, 99, attribute(A_OBJID, struct.pack(">I", target)) +
                   attribute(A_METHOD, method.encode() + b"\0") + attribute(A_DATA, data))


class Broker:
    EVENTS = 0x700001  # the daemon's sink of events, which its first request makes

    def __init__(self, path=world.BUS_SOCKET):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen()
        self.listener.settimeout(world.PATIENCE)
        self.connection = None
        self.requests = 0

    def greet(self):
        self.connection, _ = self.listener.accept()
        self.connection.settimeout(world.PATIENCE)
        self.connection.sendall(message(HELLO, 0, 0x1234567))

    def exactly(self, count):
        data = b""
        while len(data) < count:
            piece = self.connection.recv(count - len(data))
            if not piece:
                raise ConnectionError("the daemon closed the connection")
            data += piece
        return data

    def request(self):
        """Waits for the next request; the answer that lets the daemon go on.

        The first is for the sink of events, the second names the event, the third is for the object.
        """
        _, _, sequence, peer, length = struct.unpack(">BBHII", self.exactly(12))
        self.exactly((length & 0xffffff) - 4)
        self.requests += 1
        return (message(DATA, sequence, peer, attribute(A_OBJID, struct.pack(">I", 0x700000 + self.requests))) +
                message(STATUS, sequence, peer, attribute(A_STATUS, bytes(4))))

    def answer(self, count):
        for _ in range(count):
            self.connection.sendall(self.request())

    def end(self):
        if self.connection:
            self.connection.close()
        self.listener.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()
