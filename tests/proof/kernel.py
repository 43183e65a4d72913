"""What a kernel module can do wrong: overruns, malformed messages, reports of unknown flows, a restart."""
import random
import signal
import struct
import threading

import world
from proof.base import fault, port_of

FATAL_PACKET = "mnl_cb_run error!!!"
FATAL_CONTROL = "mnl_cb_run: "
NO_ROOM = "packet socket error: No buffer space available"


def attribute(number, payload):
    return struct.pack("=HH", 4 + len(payload), number) + payload + bytes(-len(payload) % 4)


def message(kind, *attributes, flags=0, port=0, length=None, family=2):
    body = bytes([family, 0, 0, 0]) + b"".join(attributes)
    return struct.pack("=IHHII", 16 + len(body) if length is None else length, kind, flags, 0, port) + body


def udp(sport, dport=10001, payload=b"x" * 8):
    head = struct.pack(">BBHHHBBH", 0x45, 0, 28 + len(payload), 0, 0, 64, 17, 0) + bytes([10, 0, 0, 1, 10, 0, 0, 2])
    return head + struct.pack(">HHHH", sport, dport, 8 + len(payload), 0) + payload


def report(sport, **other):
    """A statistics message about the flow of udp(sport)."""
    fields = {1: bytes([81]), 2: bytes([10, 0, 0, 1]), 4: bytes([10, 0, 0, 2]), 6: bytes([17]),
              7: struct.pack(">H", sport), 8: struct.pack(">H", 10001), 9: b"\0", 10: struct.pack("=I", 100),
              11: struct.pack("=I", 1), 12: b"profile\0", 13: b"rule\0"}
    fields.update({int(key[1:]): value for key, value in other.items()})
    return b"".join(attribute(number, value) for number, value in fields.items())


def statistics(*reports, count=None):
    number = len(reports) if count is None else count
    return message(24, attribute(1, struct.pack("=H", number)), *(attribute(2, body) for body in reports))


class Kernel:
    """A module in whose name any bytes are sent; what ends the daemon is told from what it survives."""

    def __init__(self, run):
        self.run, self.port = run, 20000
        self.survived = self.ended = 0

    def send(self, data, control=False):
        run = self.run
        run.provoke()
        run.module.command(("inject-control " if control else "inject-hex ") + data.hex())
        run.module.command("wait 10000")
        if control:
            run.ubus("call", "dpi", "SetavDebugSettings", timeout=2)
        if self.running():
            self.survived += 1
            return True
        self.ended += 1
        run.ended_with(1, FATAL_CONTROL if control else FATAL_PACKET)
        return False

    def running(self):
        return self.run.daemon.running()

    def still_judges(self):
        self.port += 1
        before = self.run.module.stats()["results"]
        self.run.module.command("inject-hex " + message(23, attribute(1, udp(self.port))).hex())
        world.wait_until(lambda: self.run.module.stats()["results"] == before + 1, "a verdict", 10)


def records_again(run):
    """Fresh flows are judged, reported and recorded."""
    run.module.command("clear")
    run.flows(50, first=200000)
    run.report()
    run.flush()
    run.unwritten_ports({port_of(flow) for flow in range(200000, 200050)})


@fault
def ring_overflows(run):
    """the daemon stands still while three times as many packets come as the ring holds

    judges every packet that found room, logs the overrun and goes on
    """
    run.configured(clock=True)
    burst, room = 3000, 1024
    for number in range(run.often(5, 30)):
        before, lines = run.module.stats(), run.log().count(NO_ROOM)
        run.daemon.send(signal.SIGSTOP)
        run.module.command(f"generate flows={burst} packets={burst} first={number * burst} ports=10001 rate=10000000")
        world.wait_until(lambda: run.module.stats()["offered"] == before["offered"] + burst, "the burst")
        dropped = run.module.stats()["dropped_ring_full"] - before["dropped_ring_full"]
        run.daemon.send(signal.SIGCONT)
        run.provoke()
        run.check(dropped == burst - room, f"{dropped} packets found no room")
        world.wait_until(lambda: run.module.stats()["results"] == before["results"] + room, f"{room} verdicts")
        world.wait_until(lambda: run.log().count(NO_ROOM) > lines, "the log line")
    run.accepted("packets beyond the 1,024 that the ring holds, which the kernel counts")
    records_again(run)


@fault
def bursts_during_walks(run):
    """bursts of 1,024 packets of new flows at 100,000 a second while 100,000 flow records are dumped and swept

    judges and records every one; the ring of 1,024 frames never overflows
    """
    run.configured("--age-idle", "3600", clock=True)
    run.flows(100000)
    run.log_level("INFO")
    before, first = run.module.stats(), 200000
    for walk in ("dump", "sweep") * run.often(2, 10):
        if walk == "sweep":
            run.report("age-all")
        walking = threading.Thread(target=run.dump, args=["flow"]) if walk == "dump" else threading.Thread(target=run.flush)
        walking.start()
        while walking.is_alive():
            run.flows(1024, first=first, rate=100000)
            first += 1024
            run.provoke()
        walking.join()
    after = run.module.stats()
    for name in ("dropped_ring_full", "dropped_queue_full", "overruns"):
        if after[name] != before[name]:
            run.lost(f"{name} {after[name] - before[name]}")


@fault
def reports_odd(run):
    """reports with missing, short, long, doubled, unknown attributes, other counts, of unknown flows, random ones

    passes over incomplete ones and flows it does not know, or ends with status 1 and its text; good reports are recorded
    """
    run.start("--report-interval", "0")  # without a kit: it starts in no time
    kernel = Kernel(run)
    for number in range(1, 14):
        for value in (b"", b"\0", b"\1\2\3", b"x" * 300):
            kernel.send(statistics(report(1, **{f"a{number}": value})), control=True)
    for odd in (statistics(), statistics(report(1), count=9), statistics(report(1) + attribute(40, b"x")),
                statistics(report(1) + attribute(9, b"\1")), message(24, attribute(2, report(1))),
                message(24, attribute(9, b"abc")), statistics(report(9), report(8)), message(77, attribute(1, b"xx"))):
        kernel.send(odd, control=True)
    chance = random.Random(7)
    for _ in range(run.often(200, 2000)):
        data = bytearray(statistics(report(1), report(2)))
        for _ in range(4):
            data[chance.randrange(20, len(data))] = chance.randrange(256)
        kernel.send(bytes(data), control=True)
    run.afresh()
    run.configured(clock=True)
    run.flows(50, first=5000)
    run.report()
    run.flush()
    run.unwritten_ports({port_of(flow) for flow in range(5000, 5050)})


@fault
def module_restarts(run):
    """the module is reloaded and forgets the daemon; it dies and another one comes

    runs on without packets, as a kernel module tells nobody that it is back; once restarted it is served again
    """
    run.configured()
    run.flows(10)
    run.module.command("restart")
    run.provoke()
    run.serving()
    run.check(not run.module.stats()["registered"], "the module has not forgotten")
    run.restart_daemon()
    run.judging(100)
    run.module.stop()
    run.provoke()
    status = None
    try:
        run.serving()
        run.accepted("packets until korvid is restarted")
    except Exception:
        status = run.daemon.wait()
        run.check(status == 1, run.how_it_ended())
    run.start_module("--report-interval", "0")
    run.restart_daemon() if run.daemon.running() else run.start_daemon()
    run.judging(200)
