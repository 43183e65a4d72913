"""Each allocation of the daemon failing once, on every road; tests/injector says which one fails."""
import contextlib
import json
import mmap
import pathlib
import struct

import world
from proof.base import APPS, RECORDS, RECORDS_OLD, client, fault
from proof.bus_client import BusClient

SHARED = pathlib.Path("/tmp/inject")
PRELOAD = [world.BUILD / "tests/injector/libfailalloc.so"]


class Injector:
    """The four words that the library shares: armed, calls, the one to fail, how many failed."""

    def __init__(self):
        SHARED.write_bytes(bytes(32))
        with open(SHARED, "r+b") as file:
            self.words = mmap.mmap(file.fileno(), 32)

    def arm(self, fail_at=0):
        self.words[:] = struct.pack("=4Q", 0, 0, fail_at, 0)
        self.words[:8] = struct.pack("=Q", 1)

    def disarm(self):
        """(calls counted, whether one was failed)"""
        self.words[:8] = bytes(8)
        _, calls, _, failed = struct.unpack("=4Q", self.words[:])
        return calls, failed > 0


def daemon_options(libraries):
    """The daemon with the injector, which also fails what these libraries allocate for it."""
    return {"clock": True, "preload": PRELOAD, "env": {"KORVID_INJECT": str(SHARED), "KORVID_INJECT_IN": libraries}}


def prepare(run, libraries="libcjson"):
    injector = Injector()
    run.configured(**daemon_options(libraries))
    return injector


def each(run, injector, road, after, most=1000):
    """Takes the road with its first allocation failing, then its second, until it needs no more."""
    for number in range(1, most):
        injector.arm(number)
        try:
            result = road(number)
        finally:
            _, failed = injector.disarm()
        run.check(run.daemon.running(), f"allocation {number}: {run.how_it_ended()}")
        after(number, failed, result)
        if not failed:
            return
        run.provoke()
    run.check(False, f"more than {most} allocations")


def busy_requests(_):
    """Requests with groups and lists; "served", or what became of them."""
    groups = {f"g{number}": [{"appName": name} for name in APPS.values()] for number in range(8)}
    try:
        with contextlib.closing(BusClient(timeout=2)) as bus:
            bus.call("CREATEavAppGroup", appGroup=groups)
            bus.call("CREATEavDpiAppList", appGroup=list(groups))
            bus.call("DELETEavAppGroup", ids=list(groups))
            return "served"
    except (ConnectionError, TimeoutError, world.Failure) as error:
        return type(error).__name__


@fault
def requests(run):
    """each allocation that the daemon makes for requests with groups and lists fails once

    answers a failure, success with all that was asked for, or tells in the log what it left out; the next request is served
    """
    injector = prepare(run)
    groups = {f"g{app}": [{"appName": name}] for app, name in APPS.items()}

    def road(_):
        with client(run) as bus:
            return [bus.call("CREATEavAppGroup", appGroup=groups)["success"],
                    bus.call("CREATEavDpiAppList", appGroup=list(groups))["success"],
                    bus.call("CREATEavAppMonAppList", appList=[{"appName": "Mail"}])["success"]]

    def after(number, failed, result):
        found = run.lists()
        wanted = (len(groups), len(groups) if result[0] else len(found[1]), 1)
        for what, succeeded, there, count in zip(("group members", "enforced groups", "monitored applications"), result,
                                                 found, wanted):
            if not succeeded or len(there) == count:
                continue
            # The answer is success all the same: that is the operation's documented result.
            if run.log().count("Unable to create GrpElement") > told[0]:
                run.accepted("a group member without memory is told in the log, and answered with success all the same")
            else:
                run.lost(f"acknowledged {what} ({len(there)} of {count}) after allocation {number}")
        told[0] = run.log().count("Unable to create GrpElement")
        run.call("SETappMonClearConfig", {"clearConfig": "yes"})
    told = [0]
    run.call("SETappMonClearConfig", {"clearConfig": "yes"})
    each(run, injector, road, after)
    run.serving()


@fault
def configuration(run):
    """each allocation of saving the configuration fails once

    keeps the file that was there, whole, and tells it in the log
    """
    injector = prepare(run)

    def road(number):
        with client(run) as bus:
            bus.look()
            before = world.CONFIG.read_bytes(), len(run.log())
            bus.call("SETappMonActivateAppList")
            bus.call("SetavDebugSettings")
            return before

    def after(number, failed, result):
        json.loads(world.CONFIG.read_text())
        told = "the configuration file stays as it is" in run.log()[result[1]:]
        run.check(told or world.CONFIG.read_bytes() == result[0], "neither saved nor told")
    each(run, injector, road, after)
    wanted = run.lists()
    run.call("SETappMonActivateAppList", {})
    run.restart_daemon()
    if run.lists() != wanted:
        run.lost("saved settings")


@fault
def reading_configuration(run):
    """each allocation of reading the configuration and applying it fails once

    applies what it has memory for and serves on; the file stays as it was, and the next reading is complete
    """
    injector = prepare(run)
    wanted, text = run.lists(), world.CONFIG.read_bytes()

    def road(number):
        run.ubus("send", "userconfig.reload", "{}")
        run.settle()

    def after(number, failed, result):
        run.check(world.CONFIG.read_bytes() == text, "the file was changed")
    each(run, injector, road, after, most=600)
    run.ubus("send", "userconfig.reload", "{}")
    run.settle()
    if run.lists() != wanted:
        run.lost("settings of the file")


@fault
def kit_index(run):
    """each allocation of installing a kit of six or seven applications fails once

    leaves out the application that there is no memory for, tells it, judges packets by what there is
    """
    injector = prepare(run)

    def road(number):
        world.make_kit(numbered=f"{6 + number % 2}:K{number}-", version=f"{number}.0")
        reply = run.reply("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
        run.settle()
        return reply

    def after(number, failed, result):
        if failed:
            run.check("malloc error" in run.log() or "Malloc failed" in run.log() or "no memory" in run.log() or
                      not result["success"], "it tells nothing")
    each(run, injector, road, after)
    run.serving()
    run.install_kit(apps=APPS)
    run.judging(1000)


@fault
def flow_records(run):
    """each allocation of 1,500 flows of either family, their verdicts and their flow records fails once

    sends every verdict; a flow without memory for its record is told in the log
    """
    injector = prepare(run)

    def road(number):
        run.module.command("clear")
        run.flows(1500, first=number * 3000, family="4")
        run.flows(1500, first=number * 3000, family="6")

    def after(number, failed, result):
        if failed:
            run.check("malloc failed !!" in run.log(), "it tells nothing")
        run.report("age-all")
        run.advance(901)
    each(run, injector, road, after)
    run.serving()
    run.accepted("record lines of flows for which there was no memory")


@fault
def reports_and_records(run):
    """each allocation of 250 reports through the full queue, their flush and an export fails once, the C library's included

    needs none for reports, queue and lines, and for an export only what opens the file: that export is told to have failed
    """
    injector = prepare(run, "libcjson:libc.so")
    run.flows(250)
    served = [0]

    def road(_):
        run.report()
        run.flush()

    def after(number, failed, result):
        served[0] += 250
        found = sum(world.text_of(path).count("\nIPv4,") for path in (RECORDS, RECORDS_OLD))
        if found < min(served[0], 1000):
            run.lost(f"{served[0] - found} reported flows")
    each(run, injector, road, after)

    def export(_):
        before = len(run.log())
        run.call("GETavDpiStats", {"username": "u", "password": "p", "filePath": "http://127.0.0.1:1/"})
        world.wait_until(lambda: "not present" in run.log()[before:] or "Upload FAILURE" in run.log()[before:] or
                         "Curl Init failure" in run.log()[before:] or
                         "Failed to upload" in world.text_of(world.REQUEST_LOG), "the end of the export", 10)
        world.wait_until(lambda: run.status("Threads") <= 3, "the end of the upload thread", 10)
    each(run, injector, export, lambda number, failed, result: run.settle())
    run.serving()
