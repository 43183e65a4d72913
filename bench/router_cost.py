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

ROUNDS, REQUESTS, SECONDS, LONELY = 3, 10_000, 2, 50
LOOP = BUILD / "bench/bare-loop"
RULES = """table inet korvid {
    counter mirrored { }
    chain mirror { type filter hook forward priority -10
        ct mark & 0x20000 == 0 ct packets < 33 counter name mirrored log group 26 snaplen 4072
    }
}
"""


def busy_seconds():
    """Processor time of the whole machine that was not idle."""
    fields = [int(word) for word in pathlib.Path("/proc/stat").read_text().split("\n", 1)[0].split()[1:9]]
    return (sum(fields) - fields[3] - fields[4]) / os.sysconf("SC_CLK_TCK")


def short_connections(laboratory):
    """Requests a second, and processor time, of one connection each."""
    before = busy_seconds()
    text = laboratory.client.run("ab", "-q", "-n", REQUESTS, "-c", 8, laboratory.url("http", 4, "index.html"), seconds=120)
    took = busy_seconds() - before
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


def latencies(laboratory):
    """Milliseconds from a lone request to the mark in place, as conntrack's events tell it; half and 99 in 100."""
    found = []
    events = laboratory.router.start("conntrack", "-E", "-e", "UPDATES", "-o", "timestamp", "-p", "tcp",
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    client = laboratory.client.start("python3", "-uc", f"""
import http.client, sys, time
for line in sys.stdin:
    connection = http.client.HTTPConnection("{laboratory.target(4)}")
    connection.connect()
    time.sleep(0.02)  # its packets have gone by
    sent = time.time()
    connection.request("GET", "/")
    connection.getresponse().read()
    print(connection.sock.getsockname()[1], sent)
    time.sleep(0.05)
    connection.close()""", stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    time.sleep(0.3)
    for _ in range(LONELY):
        client.stdin.write("\n")
        client.stdin.flush()
        port, sent = client.stdout.readline().split()
        for line in events.stdout:
            mark = re.search(rf" sport={port} .* mark=(\d+)", line)
            if mark and int(mark[1]) & 0x20000:
                found.append((float(re.match(r"\[([\d.]+)", line.strip())[1]) - float(sent)) * 1000)
                break
    for child in (client, events):
        child.send_signal(signal.SIGKILL)
        child.wait()
    client.stdin.close()
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
        for number in range(ROUNDS):
            for side in list(sides) if number % 2 else reversed(list(sides)):
                with sides[side]():
                    before = laboratory.counted("mirrored")
                    rate, seconds = short_connections(laboratory)
                    after = laboratory.counted("mirrored")
                    laboratory.end_connections()
                    long[side].append(long_connection(laboratory))
                    if side == "korvid":
                        copied = {"short": (after - before) / REQUESTS, "long": laboratory.counted("mirrored") - after}
                short[side].append(rate)
                cpu[side].append(seconds)
                laboratory.end_connections()
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
          f"for {REQUESTS}: {statistics.median(cpu['nothing']):.2f}, {statistics.median(cpu['korvid']):.2f}, "
          f"{statistics.median(cpu['reader']):.2f}; long, MB/s: "
          + ", ".join(f"{statistics.median(long[side]) / 1e6:.0f}" for side in sides)
          + f"; bare loop, ms: {fresh[0][2]:.1f} / {fresh[0][3]:.1f}; lost: {'yes' if lost else 'none'}")
    missed = [row("long connection, time a byte", "the same rules, no listener", 1 / 0.97, ratio(long, "korvid")),
              row("short connections, time for one", "the same rules, no listener", 1 / 0.85, ratio(short, "korvid")),
              row("short connections, time for one", "ndpiReader on the interface", 1.0,
                  [there / here for here, there in zip(short["korvid"], short["reader"])]),
              row("processor time that 10,000 short connections add", "what ndpiReader adds, s", 1.0,
                  [statistics.median(added) / max(statistics.median(theirs), 0.01)]),
              row("packets copied for a short connection", "its packets until the verdict", 12, [copied["short"]], ""),
              row("packets copied for a long connection", "", 32, [copied["long"]], ""),
              row("from the deciding packet to the mark, p50", "bare loop", 1.5, [f[0] for f in fresh]),
              row("from the deciding packet to the mark, p99", "bare loop", 2.0, [f[1] for f in fresh])]
    return 1 if any(missed) or lost else 0


if __name__ == "__main__":
    sys.exit(main())
