#!/usr/bin/env python3
"""korvid-netfilter between real clients and a real server: what it costs beside the same rules without a listener, and
beside a classifier that reads the interface (ndpiReader).  Client, router and server share this machine's processors.
Run by ./dev bench, in the sandbox.  Ends with status 1 when a gate is missed."""
import contextlib
import os
import pathlib
import re
import signal
import statistics
import subprocess
import sys
import time

from process import row
from router import lab
from world import BUILD, World

# Many short rounds: the speed of a shared machine changes within seconds.
ROUNDS, LONG_ROUNDS, REQUESTS, SECONDS, LONELY = 24, 7, 8_000, 2, 50
LOOP = BUILD / "bench/bare-loop"
RULES = f"""table inet korvid {{
    counter mirrored {{ }}
    chain mirror {{ type filter hook forward priority -10
        {lab.MIRROR} counter name mirrored
    }}
}}
"""


def busy_seconds():
    """Processor time of the whole machine that was not idle, from any beginning.  Idle time is counted exactly, the rest is
    sampled."""
    fields = pathlib.Path("/proc/stat").read_text().split("\n", 1)[0].split()
    return os.cpu_count() * time.monotonic() - (int(fields[4]) + int(fields[5])) / os.sysconf("SC_CLK_TCK")


def short_connections(laboratory):
    """Requests a second of one connection each, and processor seconds of 10,000."""
    before = busy_seconds()
    text = laboratory.client.run("ab", "-q", "-n", REQUESTS, "-c", 8, laboratory.url("http", 4, "index.html"), seconds=180)
    took = (busy_seconds() - before) * 10_000 / REQUESTS
    if re.search(r"Failed requests: +[1-9]", text):
        raise RuntimeError(text)
    return float(re.search(r"Requests per second: +([\d.]+)", text)[1]), took


def long_connection(laboratory):
    """Bytes a second of one transfer."""
    done = laboratory.client.run("curl", "-s", "-m", SECONDS, "-o", "/dev/null", "-w", "%{speed_download}",
                                 laboratory.url("http", 4, "large"), check=False, seconds=SECONDS + 30)
    return float(done.stdout)


@contextlib.contextmanager
def reader(laboratory):
    child = laboratory.router.start("ndpiReader", "-i", "inside", "-q", stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(1)
    yield
    child.send_signal(signal.SIGKILL)
    child.wait()


@contextlib.contextmanager
def daemon(world):
    world.enable()
    yield
    world.disable()


ANSWER = """
import socket, time
listener = socket.create_server(("", 8080))
while True:
    connection, (_, port) = listener.accept()
    connection.recv(1000)
    time.sleep(0.02)  # what came before it has gone by
    sent = time.time()
    connection.sendall(b"HTTP/1.1 200 OK\\r\\nContent-Type: text/html\\r\\nContent-Length: 2\\r\\n\\r\\nhi")
    print(port, sent)
    connection.recv(1)
    connection.close()"""
QUESTION = f"""
import socket, time
for _ in range({LONELY}):
    with socket.create_connection(("{lab.SERVER[4]}", 8080)) as connection:
        connection.sendall(b"GET / HTTP/1.1\\r\\nHost: example.com\\r\\nUser-Agent: bench\\r\\n\\r\\n")
        connection.recv(1000)
        time.sleep(0.05)"""


def latencies(laboratory):
    """Milliseconds from a lone connection's deciding packet, its answer, to the mark in place, as conntrack's events tell
    it; half and 99 in 100."""
    with contextlib.ExitStack() as stack:
        def start(host, *command):
            child = stack.enter_context(host.start(*command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True))
            stack.callback(child.kill)
            return child
        server = start(laboratory.server, "python3", "-uc", ANSWER)
        events = start(laboratory.router, "conntrack", "-E", "-e", "UPDATES", "-o", "timestamp", "-p", "tcp")
        time.sleep(0.5)
        laboratory.client.run("python3", "-c", QUESTION, seconds=60)
        found = []
        for _ in range(LONELY):
            port, sent = server.stdout.readline().split()
            for line in events.stdout:
                mark = re.search(rf" sport={port} .* mark=(\d+)", line)
                if mark and int(mark[1]) & 0x20000:
                    found.append((float(re.match(r"\[([\d.]+)", line.strip())[1]) - float(sent)) * 1000)
                    break
    found.sort()
    return statistics.median(found), found[LONELY * 99 // 100 - 1]


def main():
    fresh, short, cpu, long = [], {}, {}, {}
    with lab.Lab() as laboratory, World(router=True) as world:
        laboratory.serve("http")
        laboratory.file("large", 64 << 30)
        laboratory.rules(RULES)
        world.start()
        world.install_kit(ndpi=True)
        sides = {"nothing": contextlib.nullcontext, "korvid": lambda: daemon(world), "reader": lambda: reader(laboratory)}
        for side in sides:
            short[side], cpu[side], long[side] = [], [], []
        copied = {}

        def measured(side, work):
            """What work gives with that side at it, and how many packets were copied meanwhile."""
            with sides[side]():
                before = laboratory.counted("mirrored")
                result = work(laboratory)
                copied[side] = laboratory.counted("mirrored") - before
            laboratory.end_connections()
            return result
        for number in range(ROUNDS):
            for side in list(sides) if number % 2 else reversed(list(sides)):
                rate, seconds = measured(side, short_connections)
                short[side].append(rate)
                cpu[side].append(seconds)
        of_short = copied["korvid"] / REQUESTS
        for number in range(LONG_ROUNDS):
            for side in list(sides) if number % 2 else reversed(list(sides)):
                long[side].append(measured(side, long_connection))
        # The bare loop and the daemon, by turns.
        for number in range(3):
            loop = laboratory.router.start(LOOP, stdout=subprocess.DEVNULL)
            time.sleep(0.5)
            bare = latencies(laboratory)
            loop.terminate()
            loop.wait()
            laboratory.end_connections()
            with daemon(world):
                fresh.append([ours / theirs for ours, theirs in zip(latencies(laboratory), bare)] + list(bare))
            laboratory.end_connections()
        lost = "mirrored packets lost" in pathlib.Path("/var/log/dpi.log").read_text()

    def ratio(of, side):
        return [there / here for here, there in zip(of[side], of["nothing"])]
    added = [korvid - nothing for korvid, nothing in zip(cpu["korvid"], cpu["nothing"])]
    theirs = [reader - nothing for reader, nothing in zip(cpu["reader"], cpu["nothing"])]
    print(f"medians: short connections/s without {statistics.median(short['nothing']):.0f}, korvid "
          f"{statistics.median(short['korvid']):.0f}, ndpiReader {statistics.median(short['reader']):.0f}; processor seconds "
          f"for 10,000: {statistics.median(cpu['nothing']):.2f}, {statistics.median(cpu['korvid']):.2f}, "
          f"{statistics.median(cpu['reader']):.2f}; long, MB/s: "
          + ", ".join(f"{statistics.median(long[side]) / 1e6:.0f}" for side in sides)
          + f"; bare loop, ms: {fresh[0][2]:.2f} / {fresh[0][3]:.2f}; lost: {'yes' if lost else 'none'}")
    missed = [row("long connection, time a byte", "the same rules, no listener", 1 / 0.97, ratio(long, "korvid")),
              row("short connections, time for one", "the same rules, no listener", 1 / 0.85, ratio(short, "korvid")),
              row("short connections, time for one", "ndpiReader on the interface", 1.0,
                  [there / here for here, there in zip(short["korvid"], short["reader"])]),
              row("processor time that 10,000 short connections add", "what ndpiReader adds, s", 1.0,
                  [statistics.median(added) / max(statistics.median(theirs), 0.01)]),
              row("packets copied for a short connection", "its packets until the verdict", 12, [of_short], ""),
              row("packets copied for a long connection", "", 32, [copied["korvid"]], ""),
              row("from the deciding packet to the mark, p50", "bare loop", 1.5, [f[0] for f in fresh]),
              row("from the deciding packet to the mark, p99", "bare loop", 2.0, [f[1] for f in fresh])]
    return 1 if any(missed) or lost else 0


if __name__ == "__main__":
    sys.exit(main())
