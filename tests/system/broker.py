"""A broker by hand: greets the daemon, answers its requests one at a time, and says or ends what a test tells it to."""
import contextlib
import os
import socket
import struct

import world
from proof.bus_client import A_OBJID, A_STATUS, DATA, HELLO, INVOKE, STATUS, attribute, exactly, invocation, message


class Broker:
    # The daemon's requests: a sink of events (1), the event that it wants (2), its object (3).
    EVENTS, DPI = 0x700001, 0x700003

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
        self.connection.sendall(message(HELLO, 0, 0x1234567, b""))

    def request(self):
        """Waits for the next request; the answer that lets the daemon go on."""
        _, _, sequence, peer, length = struct.unpack(">BBHII", exactly(self.connection, 12))
        exactly(self.connection, (length & 0xffffff) - 4)
        self.requests += 1
        return (message(DATA, sequence, peer, attribute(A_OBJID, struct.pack(">I", 0x700000 + self.requests))) +
                message(STATUS, sequence, peer, attribute(A_STATUS, bytes(4))))

    def answer(self, count):
        for _ in range(count):
            self.connection.sendall(self.request())

    @staticmethod
    def call(target, method, data=b""):
        """The message that calls a method of the daemon's, or tells it of an event."""
        return message(INVOKE, 5, 99, invocation(target, method, data))

    def end(self):
        if self.connection:
            self.connection.close()
        self.listener.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()
