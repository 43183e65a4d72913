"""An HTTP server that does what servers should not.  The first parts of a URL's path choose how:

    ok                serves `body`; stores what is sent
    empty             success without a body
    status/CODE       this status, with a small page; what is sent is read to its end
    silent            takes the request and never answers
    stall/N           stops after N bytes of the body, either way, until release()
    close/N           ends the connection there: a truncated download, an upload cut off
    reset/N           the same with a reset
    throttle/RATE     so many bytes of the body a second, either way
    garbage           an answer that is not HTTP
    longer/N          N bytes beyond the announced length
    endless           a body without end

What follows them is free: url("status/404") with "/records.csv" behind it.  It runs on a thread of its own, and every
request is kept in `requests`, with what came of its body.
"""
import asyncio
import contextlib
import dataclasses
import socket
import struct
import threading

import world
from servers import base

CHUNK = 16384
WITH_NUMBER = {"status", "stall", "close", "reset", "throttle", "longer"}


@dataclasses.dataclass
class Request:
    method: str
    path: str
    headers: dict
    body: bytearray = dataclasses.field(default_factory=bytearray)
    complete: bool = False  # the announced body has come whole
    ended: bool = False     # the connection is over


class Hostile:
    name = "hostile"
    user, password = "stats", "s3cret words"

    def __init__(self, body=b""):
        self.body = body
        self.requests = []
        self.port = None
        self._loop = self._thread = self._server = self._released = None

    # Life on its own thread.

    def start(self):
        self._loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._loop.run_forever, name=self.name, daemon=True)
        self._thread.start()
        self._run(self._listen())
        return self

    def stop(self):
        if self._loop is None:
            return
        self._run(self._close())
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join(world.PATIENCE)
        self._loop.close()
        self._loop = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()

    def url(self, path="ok"):
        return f"http://{base.ADDRESS}:{self.port}/{path}"

    def release(self):
        """Lets everything that stalls go on."""
        self._loop.call_soon_threadsafe(self._released.set)

    def wait_for(self, predicate, what):
        """The first request for which predicate(request) is true, once there is one."""
        return world.wait_until(lambda: next(filter(predicate, list(self.requests)), None), what)

    def _run(self, task):
        return asyncio.run_coroutine_threadsafe(task, self._loop).result(world.PATIENCE)

    async def _listen(self):
        self._released = asyncio.Event()
        self._server = await asyncio.start_server(self._serve, base.ADDRESS, self.port or 0)
        self.port = self._server.sockets[0].getsockname()[1]

    async def _close(self):
        self._server.close()
        tasks = [task for task in asyncio.all_tasks() if task is not asyncio.current_task()]
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)

    # One connection, one request.

    async def _serve(self, reader, writer):
        request = None
        try:
            head = (await reader.readuntil(b"\r\n\r\n")).decode("latin-1").split("\r\n")
            method, path, _ = head[0].split(" ")
            headers = {name.lower(): value.strip() for name, _, value in (line.partition(":") for line in head[1:])}
            request = Request(method, path, headers)
            self.requests.append(request)
            await self._behave(request, reader, writer)
        except (OSError, asyncio.IncompleteReadError, asyncio.LimitOverrunError, ValueError):
            pass  # the other side went, or was none of ours
        finally:
            if request:
                request.ended = True
            writer.close()
            with contextlib.suppress(OSError):
                await writer.wait_closed()

    async def _behave(self, request, reader, writer):
        parts = request.path.strip("/").split("/")
        word = parts[0]
        number = int(parts[1]) if word in WITH_NUMBER else 0
        if word == "silent":
            await asyncio.Event().wait()
        if word == "garbage":
            writer.write(b"\0\xff this is no answer\n" * 20)
            return await writer.drain()
        if request.method in ("PUT", "POST"):
            if not await self._take(request, word, number, reader, writer):
                return None
            return await self._answer(writer, self._status(word, number, 201), b"")
        status = self._status(word, number, 200)
        return await self._give(word, number, status, b"no\n" if word == "status" else self.body, writer)

    @staticmethod
    def _status(word, number, good):
        return number if word == "status" else good

    async def _answer(self, writer, status, body, announced=None):
        length = len(body) if announced is None else announced
        challenge = 'WWW-Authenticate: Basic realm="records"\r\n' if status == 401 else ""
        writer.write(f"HTTP/1.1 {status} Status\r\nContent-Length: {length}\r\n{challenge}"
                     "Connection: close\r\n\r\n".encode() + body)
        await writer.drain()

    async def _take(self, request, word, number, reader, writer):
        """Reads what is sent; whether it is to be answered."""
        announced = int(request.headers.get("content-length", 0))
        if request.headers.get("expect", "").lower() == "100-continue":
            writer.write(b"HTTP/1.1 100 Continue\r\n\r\n")
        while len(request.body) < announced:
            room = min(CHUNK, announced - len(request.body))
            if word in ("stall", "close", "reset"):
                room = min(room, number - len(request.body))
            if word == "throttle":
                room = min(room, max(1, number // 10))
                await asyncio.sleep(room / number)
            if room <= 0:
                if not await self._turn(word, writer):
                    return False
                word = "ok"
                continue
            data = await reader.read(room)
            if not data:
                return False
            request.body += data
        request.complete = True
        return True

    async def _give(self, word, number, status, body, writer):
        if word == "empty":
            return await self._answer(writer, 200, b"")
        if word == "longer":
            return await self._answer(writer, 200, body + b"x" * number, len(body))
        if word in ("stall", "close", "reset"):
            await self._answer(writer, 200, body[:number], len(body))
            if await self._turn(word, writer):
                writer.write(body[number:])
                await writer.drain()
            return None
        if word == "throttle":
            await self._answer(writer, 200, b"", len(body))
            step = max(1, number // 10)
            for start in range(0, len(body), step):
                await asyncio.sleep(step / number)
                writer.write(body[start:start + step])
                await writer.drain()
            return None
        if word == "endless":
            writer.write(b"HTTP/1.1 200 Status\r\nConnection: close\r\n\r\n")
            while True:
                writer.write(b"endless " * (CHUNK // 8))
                await writer.drain()
        return await self._answer(writer, status, body)

    async def _turn(self, word, writer):
        """The point at which the behaviour strikes; whether the transfer goes on afterwards."""
        if word == "stall":
            await self._released.wait()
            return True
        if word == "reset":
            # Everything sent so far has to be out: a reset throws the rest away.
            peer = writer.get_extra_info("socket")
            peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            writer.transport.abort()
        return False
