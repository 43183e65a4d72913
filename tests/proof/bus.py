"""A bus that dies, floods, nests and lies."""
import contextlib
import random
import signal
import struct
import threading
import time

import world
from broker import Broker
from proof.base import client, fault
from proof.bus_client import ARRAY, HELLO, INVOKE, STATUS, STRING, TABLE, BusClient, attribute, member, members, message, padded


@fault
def broker_dies(run):
    """the broker is killed, twice, and a new one comes

    runs on without a bus and serves the kernel; by design it does not connect again: restarted, it is on the new one
    """
    run.configured(clock=True)
    for number in range(2):
        settings = run.lists()
        run.flows(10, first=number * 1000)
        run.bus.stop(signal.SIGKILL)
        run.provoke()
        run.flows(50, first=number * 1000 + 100)
        run.check(run.daemon.running(), run.how_it_ended())
        run.start_bus()
        run.flows(50, first=number * 1000 + 200)
        run.check(run.ubus("call", "dpi", "SetavDebugSettings", timeout=2).returncode != 0, "it has connected again")
        run.check(run.daemon.stop() == 0, "no orderly end without a bus")
        run.start_daemon(clock=True)
        if run.lists() != settings:
            run.lost("saved settings")
        run.enable()
    run.accepted("requests until it is restarted; changes that were not saved")


@fault
def requests_in_a_row(run):
    """10,000 requests in a row, half of them not waiting for the answer to the one before

    answers each, once, in order; memory stays flat
    """
    run.configured()
    sizes = []
    lists = [members({"appList": [{"appName": name}]}) for name in ("Mail", "Video", "Nobody")]
    with client(run) as bus:
        for number in range(5000):
            bus.answer(bus.ask("SETavAppMonAppList", lists[number % 3]))
            if number == 500:
                sizes.append(run.status("VmRSS"))
        for _ in range(50):
            asked = [bus.ask("CREATEavAppMonAppList", lists[number % 2]) for number in range(100)]
            for number in asked:
                status, data = bus.answer(number)
                run.check(status == 0 and data, "a request without a reply")
        run.provoke(10000)
    sizes.append(run.status("VmRSS"))
    run.check(sizes[1] < sizes[0] + 512, f"resident memory, kB: {sizes}")
    run.judging(1000)


@fault
def clients_at_once(run):
    """50 clients at once, of which a third vanishes without reading its replies

    answers all that wait; memory stays flat
    """
    run.configured()
    before, problems = run.status("VmRSS"), []

    def one(number):
        try:
            with client(run) as bus:
                for turn in range(20):
                    if number % 3 == 0 and turn == 10:
                        for _ in range(10):
                            bus.ask("SETavDpiAppList", members({"appList": [{"appName": "Mail"}]}))
                        return
                    reply = bus.call("SETavDpiAppList", appList=[{"appName": "Mail"}])
                    if not reply["success"]:
                        problems.append(str(reply))
        except (OSError, world.Failure, StopIteration) as error:
            problems.append(f"{type(error).__name__} {error}")
    for _ in range(run.often(2, 20)):
        threads = [threading.Thread(target=one, args=(number,)) for number in range(50)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        run.provoke(50)
    run.check(not problems, f"{len(problems)} problems, such as {problems[:1]}")
    run.check(run.status("VmRSS") < before + 2048, f"resident memory: {before} kB, then {run.status('VmRSS')} kB")
    run.serving()


@fault
def requests_odd(run):
    """members of other types than the method has, unnamed, doubled, cut, with lengths beyond the message; 3,000 at random

    answers, or the bus drops the message; another kit installs and packets are judged
    """
    run.configured()
    methods = ("CREATEavAppGroup", "SETavAppGroup", "DELETEavAppGroup", "CREATEavDpiAppList", "SETavAppMonAppList",
               "SETappMonClearConfig", "SETappMonActivateAppList", "SetavDebugSettings", "GETavDpiStats",
               "SETappMonAdminState", "SETappMonUpdateSignatureFile", "CREATEavSignatureProfile")
    odd = [b"", b"\0", attribute(0, b""), attribute(TABLE, b"abc"), attribute(TABLE, b"", extended=True),
           attribute(ARRAY, struct.pack(">H", 60000) + b"appList\0", extended=True),
           attribute(STRING, padded(struct.pack(">H", 2) + b"ids"), extended=True), struct.pack(">I", 0x83ffffff) + bytes(20),
           member("appList", {"appName": "Mail"}), member("appList", [["Mail"]]), member("appList", ["Mail", 7, {}]),
           member("appGroup", [1]), member("appGroup", {"": [{"appName": ""}]}), member("appGroup", {"g" * 500: []}),
           member("ids", ["x" * 5000]), member("appList", [{"appName": "N" * 5000}]), member("username", "u" * 100000),
           member("logLevel", 7), member("debugPrintDb", "\xff\xfe\x01"), member("", "x") * 100,
           attribute(STRING, padded(struct.pack(">H", 8) + b"logLevel\0") + b"no end", extended=True)]
    connection = [BusClient()]

    def send(method, data):
        run.provoke()
        try:
            connection[0].answer(connection[0].ask(method, data))
        except (OSError, ConnectionError, StopIteration, TimeoutError):
            run.check(run.daemon.running(), f"{method}: {run.how_it_ended()}")
            connection[0].close()
            connection[0] = BusClient()
    for data in odd:
        for method in methods[:9]:
            send(method, data)
    chance = random.Random(3)
    good = members({"appGroup": {"g": [{"appName": "Mail"}]}, "ids": ["g"], "appList": [{"appName": "Chat"}]})
    for _ in range(run.often(3000, 30000)):
        data = bytearray(good)
        for _ in range(chance.randrange(1, 5)):
            data[chance.randrange(len(data))] = chance.choice((0, 1, 3, 0x7f, 0x80, 0xff, chance.randrange(256)))
        send(methods[chance.randrange(5)], bytes(data[:chance.randrange(len(data) + 1)]))
    connection[0].close()
    run.serving()
    run.install_kit(version="5.0", apps={1: "Mail"})
    run.judging(1000)


@fault
def messages_large(run):
    """requests of nearly 1 MiB: one text, 20,000 applications, 10,000 groups; nested 2 to 80,000 levels deep

    answers them; the request log leaves out what is nested deeper than 64 levels, and the log tells so
    """
    run.configured()
    run.call("SETappMonClearConfig", {"clearConfig": "yes"})
    run.settle()
    with client(run) as bus:
        for data in (member("logLevel", "x" * 1000000), member("appList", [{"appName": "Mail"}] * 20000),
                     member("appGroup", {f"g{number}": [{"appName": "Video"}] for number in range(10000)}),
                     member("appGroup", {"G" * 40: [{"appName": "Mail"}] * 20000}),
                     member("ids", [f"g{number}" for number in range(10000)])):
            run.check(len(data) < 1040000, "too large for the bus")
            method = "SetavDebugSettings" if b"logLevel" in data[:40] else \
                "DELETEavAppGroup" if b"ids" in data[:40] else \
                "CREATEavDpiAppList" if b"appList" in data[:40] else "CREATEavAppGroup"
            bus.answer(bus.ask(method, data))
            run.provoke()
        for depth in (2, 63, 64, 65, 1000, 20000, 80000):
            nested = b""
            heads = [struct.pack(">H", 0) + b"\0\0"] * depth
            for head in heads:
                nested = struct.pack(">I", 1 << 31 | ARRAY << 24 | 8 + len(nested)) + head + nested
                if len(nested) > 1040000:
                    break
            bus.answer(bus.ask("CREATEavAppMonAppList", nested))
            run.provoke()
    run.check("message of more than 64 levels" in run.log(), "the log does not tell of the nesting")
    run.call("SETappMonClearConfig", {"clearConfig": "yes"})
    run.serving()
    run.judging(1000)


@fault
def broker_hostile(run):
    """a broker that sends messages cut at every byte, wrong lengths, foreign answers, 10,000 random bytes, or nothing

    passes over them or gives the connection up, and runs on; ends in order when it is told to
    """
    run.configured()
    settings = run.lists()
    run.daemon.stop()
    run.bus.stop()
    saved = world.CONFIG.read_bytes()
    world.CONFIG.unlink()  # without a kit to install it starts in no time
    chance = random.Random(9)
    whole = Broker.call(Broker.DPI, "SETavDpiAppList", members({"appList": [{"appName": "Mail"}]}))
    attacks = [whole[:length] for length in range(1, len(whole), run.often(9, 1))]
    attacks += [struct.pack(">BBHII", 0, kind, 1, 1, length) + b"x" * 64 for kind in (2, 5, 13, 255)
                for length in (0, 3, 68, 0xffffff, 0x80000044, 0xffffffff)]
    attacks += [message(INVOKE, 1, 1, chance.randbytes(400)) for _ in range(run.often(20, 500))]
    attacks += [chance.randbytes(10000), message(STATUS, 77, 1, b""), message(HELLO, 0, 0, b"") * 50]
    for attack in attacks:
        with Broker() as broker:
            run.start_daemon(wait=False)
            broker.greet()
            broker.answer(3)
            broker.connection.sendall(attack)
            run.provoke()
            with contextlib.suppress(OSError):
                broker.connection.settimeout(0.03)
                broker.connection.recv(65536)
        time.sleep(0.02)
        run.check(run.daemon.running() and run.daemon.stop() == 0, run.how_it_ended())
    world.CONFIG.write_bytes(saved)
    run.start_bus()
    run.start_daemon()
    if run.lists() != settings:
        run.lost("saved settings")
    run.accepted("the bus: it does not connect again")
