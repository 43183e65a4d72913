#!/usr/bin/env python3
"""The process as a whole beside an empty daemon with the same libraries, on the same broker: start-up to the first
reply, memory without a kit, and a method that changes memory beside one that does nothing.  Run by ./dev bench, in
the sandbox.  Ends with status 1 when a gate is missed."""
import os
import pathlib
import signal
import statistics
import subprocess
import sys

from world import BUILD, BUS_SOCKET, MODULE_SOCKET, World, wait_until

STARTS, CALL_ROUNDS, CALLS = 15, 31, 500
PROBE, EMPTY, KORVID = BUILD / "bench/bus-probe", BUILD / "bench/empty-daemon", BUILD / "src/korvid"
# Both sides are preloaded with the stand-in for the kernel's netlink protocol.
ENVIRONMENT = {**os.environ, "LD_PRELOAD": str(BUILD / "platform/kernel/libnetlink26.so"),
               "KORVID_DPIMOD_SOCKET": MODULE_SOCKET}
# Both change memory and write no configuration.
METHODS = {"the log level": ("SetavDebugSettings", '{"logLevel": "ERROR"}'),
           "a list": ("SETavAppMonAppList", '{"appList": [{"appName": "Mail"}, {"appName": "Video"}]}')}


def probe(*words):
    return [float(word) for word in
            subprocess.run([str(PROBE), BUS_SOCKET, *map(str, words)], check=True, stdout=subprocess.PIPE, text=True,
                           env=ENVIRONMENT).stdout.split()]


def start(program, name, method):
    took, pid = probe("start", name, method, program, "-s", BUS_SOCKET)
    return took, int(pid)


def stop(pid):
    os.kill(pid, signal.SIGKILL)  # how they end is not measured
    wait_until(lambda: not pathlib.Path(f"/proc/{pid}/exe").exists(), "the end of a daemon")


def memory(pid, field):
    for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
        if line.startswith(field + ":"):
            return int(line.split()[1])
    raise LookupError(field)


def keep_apart(broker, *daemons):
    """Clients and broker on one processor, daemons on the other: left to itself the scheduler wakes one daemon on its
    client's processor and the other one across, which takes twice as long and has nothing to do with either."""
    processors = sorted(os.sched_getaffinity(0))
    for pid, processor in [(os.getpid(), 0), (broker, 0), *((daemon, -1) for daemon in daemons)]:
        for thread in os.listdir(f"/proc/{pid}/task"):
            os.sched_setaffinity(int(thread), {processors[processor]})


def stripped_size():
    stripped = pathlib.Path("/tmp/korvid.stripped")
    subprocess.run(["strip", "-o", str(stripped), str(KORVID)], check=True)
    return stripped.stat().st_size / 1024


def row(what, reference, goal, values, unit=""):
    low, median, high = (statistics.quantiles(values, n=4) if len(values) > 1 else values * 3)
    good = median <= goal
    # As korvid-bench prints them; every goal here is its own gate.
    limit = f"{goal:.2f}" if not unit else f"{goal:g}{unit}"
    print(f"{what:58} {reference:34} {limit:>8} {limit:>8} {median:9.2f} {low:9.2f} {high:9.2f}  "
          f"{'ok' if good else 'MISSED'}", flush=True)
    return not good


def main():
    starts, resident, dirty, half, most = [], [], [], {}, {}
    with World() as world:
        world.start_bus()
        world.start_module()
        for n in range(STARTS):
            sides = [(EMPTY, "empty", "nothing"), (KORVID, "dpi", "SetavDebugSettings")]
            # By turns in either order, so that neither side always follows the other.
            took = {}
            for program, name, method in sides if n % 2 else reversed(sides):
                took[name], pid = start(program, name, method)
                took[name, "Rss"], took[name, "Dirty"] = memory(pid, "Rss"), memory(pid, "Private_Dirty")
                stop(pid)
            starts.append(took["dpi"] / took["empty"])
            resident.append(took["dpi", "Rss"] - took["empty", "Rss"])
            dirty.append(took["dpi", "Dirty"] - took["empty", "Dirty"])
        _, empty = start(*[EMPTY, "empty", "nothing"])
        _, korvid = start(*[KORVID, "dpi", "SetavDebugSettings"])
        keep_apart(world.bus.pid, korvid, empty)
        world.install_kit(apps={1: "Mail", 2: "Video"})
        for what, (method, arguments) in METHODS.items():
            # The same bytes there and back.
            rounds = [probe("calls", CALLS, "dpi", method, arguments, "empty", "nothing", arguments)
                      for _ in range(CALL_ROUNDS)]
            half[what] = [p50 / bare50 for p50, _, bare50, _ in rounds]
            most[what] = [p99 / bare99 for _, p99, _, bare99 in rounds]
        stop(korvid)
        stop(empty)
    missed = [row("start-up to the first reply", "empty daemon, same libraries", 1.20, starts),
              row("resident memory, no kit", "the same, difference", 512, resident, " KiB"),
              row("dirty memory, no kit", "the same, difference", 256, dirty, " KiB"),
              row("stripped size", "", 160, [stripped_size()], " KiB")]
    for what in METHODS:
        missed += [row(f"bus method that changes {what}, p50", "method that does nothing", 1.15, half[what]),
                   row(f"bus method that changes {what}, p99", "method that does nothing", 1.30, most[what])]
    return 1 if any(missed) else 0


if __name__ == "__main__":
    sys.exit(main())
