"""A bus that dies, floods and nests."""
import signal
import struct
import threading

import world
from proof.base import client, fault
from proof.bus_client import ARRAY, member, members


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
def many_that_look(run):
    """50 clients page through 65,536 applications and 100,000 flows while packets come as fast as they are read

    answers all of them, loses no packet, counts every verdict; memory stays flat
    """
    clients, flows = 50, 100_000
    run.start("--report-interval", "0")
    run.install_kit(numbered="65536:App")
    run.call("CREATEavDpiAppList", {"appList": [{"appName": f"App{number}"} for number in range(1, 200)]})
    run.enable()
    ports = ",".join(str(10000 + number) for number in range(1, 200))
    run.module.command(f"generate flows={flows} packets={flows} ports={ports} family=both")
    run.module.command("wait 120000", timeout=120)
    sizes, answers, stop = [run.status("VmRSS")], [0] * clients, threading.Event()

    def look(number):
        with client(run) as bus:
            offset = cursor = None
            while not stop.is_set():
                page = {"limit": 200, "sort": ("flows", "name", "recent")[number % 3]} | ({"offset": offset} if offset else {})
                status, _ = bus.answer(bus.ask("apps", members(page), "korvid"))
                page = {"limit": 150} | ({"address": "192.0.2.77"} if number % 2 else {})
                other, data = bus.answer(bus.ask("flows", members(page), "korvid"))
                run.check(status == other == 0 and data, f"statuses {status}, {other}")
                offset = ((offset or 0) + 200) % 65536
                answers[number] += 2
    threads = [threading.Thread(target=look, args=(number,)) for number in range(clients)]
    for thread in threads:
        thread.start()
    before = run.module.stats()
    run.module.command(f"generate flows={flows // 2} packets={5 * flows} first={2 * flows} ports={ports} family=both")
    run.module.command("wait 120000", timeout=120)
    stop.set()
    for thread in threads:
        thread.join()
    run.provoke(sum(answers))
    stats = run.module.stats()
    lost = {name: value - before[name] for name, value in stats.items() if name.startswith("dropped_") and value != before[name]}
    if lost:
        run.lost(str(lost))
    world.wait_until(lambda: run.ask("counters")["counters"]["verdicts.judged"] == run.module.stats()["results"], "every verdict")
    counters = run.ask("counters")["counters"]
    run.check(counters["packets.received"] == stats["mirrored"], f"{counters['packets.received']} of {stats['mirrored']} packets")
    run.check(all(answers), "a client without an answer")
    run.check(run.status("VmRSS") < sizes[0] + 24576, f"resident memory, kB: {sizes[0]}, {run.status('VmRSS')}")


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
