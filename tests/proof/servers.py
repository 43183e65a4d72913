"""File servers that stall, reset, truncate, refuse or close; a thousand exports in a row."""
import hashlib
import os
import signal
import time

import world
from proof.base import MONITORED, RECORDS, RECORDS_OLD, fault
from proof.bus_client import BusClient
from servers import Hostile

KIT = bytes(range(256)) * 400


def fetch(run, server, path, digest=None, **other):
    run.call("CREATEavSignatureProfile", {"username": "u", "password": "p", "filePath": server.url(path),
                                          "fileCheckSum": digest or hashlib.md5(KIT).hexdigest(), **other})
    run.settle()
    run.provoke()


def export(run, server, path, method="GETavDpiStats"):
    run.provoke()
    return run.call(method, {"username": "u", "password": "p", "filePath": server.url(path)})


@fault
def downloads(run):
    """kits from a server that closes, resets, truncates, answers 401, 404, 500, nothing, garbage, or a wrong digest

    says why in the log, judges with the kit that runs; only a whole kit with its digest is called a success
    """
    run.configured()
    run.log_level("DEBUG")
    with Hostile(KIT) as server:
        for path in ("close/0", "close/1000", "reset/0", "reset/50000", "status/401", "status/404", "status/500", "empty",
                     "garbage"):
            before = len(run.log())
            fetch(run, server, path)
            run.check("Failed to download the kit" in run.log()[before:], f"{path}: not told")
        before = len(run.log())
        fetch(run, server, "ok", digest="0" * 32)
        run.check("Md5sum not matching" in run.log()[before:], "a wrong digest was taken")
        fetch(run, server, "ok")
        run.check("Successfully downloaded the kit" in run.log()[before:], "the good download failed")
        run.check(world.KIT.read_bytes() == KIT, "the kit is not what the server has")
    run.judging(1000)


@fault
def download_stalls(run):
    """a kit download that stalls, while packets flow and SIGINT, then SIGTERM with the server's end, come

    goes on judging packets; ends at once on SIGINT, and on SIGTERM when the transfer is over
    """
    for number in (signal.SIGINT, signal.SIGTERM):
        if run.daemon:
            run.daemon.stop()
            run.module.stop()
            run.bus.stop()
        run.configured()
        with Hostile(KIT) as server:
            run.call("CREATEavSignatureProfile", {"filePath": server.url("stall/1000"), "fileCheckSum": ""})
            server.wait_for(lambda request: request.method == "GET", "the request")
            run.provoke()
            run.flows(500)
            run.daemon.send(number)
            if number == signal.SIGTERM:
                time.sleep(0.1)
                server.release()
            began = time.monotonic()
            run.check(run.daemon.wait() == 0, "no orderly end")
            run.check(time.monotonic() - began < 3, "it took more than 3 s")
    run.accepted("requests on the bus wait while a download stalls")


@fault
def uploads(run):
    """uploads to a server that closes or resets midway, answers 401, 404, 500 or garbage, is not there, or stalls

    logs the failure, frees the slot, keeps the record files; the next upload brings every byte
    """
    run.configured()
    run.log_level("DEBUG")
    content = b"header\n" + b"1,2,3\n" * 60000
    for path in (RECORDS, RECORDS_OLD, MONITORED):
        path.write_bytes(content)
    with Hostile() as server:
        for path in ("close/0", "close/1000", "reset/0", "reset/100000", "garbage", "status/401", "status/404", "status/500"):
            before = len(run.log())
            export(run, server, path)
            world.wait_until(lambda: run.log()[before:].count("STATS CSV Upload") >= 2, f"{path}: both uploads' ends")
        export(run, server, "stall/1000")
        server.wait_for(lambda request: "stall" in request.path and len(request.body) == 1000, "the stalled upload")
        run.flows(100)
        export(run, server, "ok/mon", "GETavAppMonStats")
        done = server.wait_for(lambda request: "ok/mon" in request.path and request.complete, "the other slot's upload")
        run.check(bytes(done.body) == content, "the upload is not the file")
        server.release()
        world.wait_until(lambda: run.log().count("STATS CSV Upload SUCCESS") >= 3, "the end of the stall")
        export(run, server, "ok/last")
        done = server.wait_for(lambda request: "ok/last" in request.path and request.complete and
                               "old" not in request.path, "the last upload")
        run.check(bytes(done.body) == content, "the upload is not the file")
        gone = server.url("ok")
    run.call("GETavDpiStats", {"username": "u", "password": "p", "filePath": gone})
    run.provoke()
    run.serving()
    run.check(RECORDS.read_bytes() == content, "the record file has changed")
    run.accepted("files that a server refuses with 404 or 500 are not kept for it: the next request sends them again")


@fault
def exports_in_a_row(run):
    """1,000 exports in a row of two record files, some while the one before still runs

    answers each and uploads whole files; memory, descriptors and threads stay flat
    """
    run.configured()
    content = b"header\n" + b"1,2,3\n" * 300
    for path in (RECORDS, MONITORED):
        path.write_bytes(content)
    idle, sizes = run.status("Threads"), []
    with Hostile() as server, BusClient() as bus:
        for number in range(1000):
            if number % 400 != 399:
                world.wait_until(lambda: run.status("Threads") == idle, "the end of the upload before")
            method = "GETavAppMonStats" if number % 2 else "GETavDpiStats"
            reply = bus.call(method, username="u", password="p", filePath=server.url("ok"))
            run.check(reply["success"], f"export {number}: {reply}")
            bus.call("SetavDebugSettings")  # the answer comes before the upload has begun
            run.provoke()
            if number in (200, 999):
                world.wait_until(lambda: run.status("Threads") == idle, "the end of the uploads")
                sizes.append((run.status("VmRSS"), len(os.listdir(f"/proc/{run.daemon.pid}/fd"))))
        whole = [request for request in server.requests if request.complete]
        run.check(all(bytes(request.body) == content for request in whole), "an upload is not the file")
        run.check(len(whole) >= 990, f"only {len(whole)} uploads came whole")
    run.check(sizes[1][0] < sizes[0][0] + 1024 and sizes[1][1] <= sizes[0][1],
              f"resident memory, kB, and descriptors: {sizes}")
    run.serving()
