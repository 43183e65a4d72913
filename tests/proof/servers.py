"""A file server that stalls; a thousand exports in a row."""
import os
import signal
import time

import world
from proof.base import MONITORED, RECORDS, fault
from proof.bus_client import BusClient
from servers import Hostile

KIT = bytes(range(256)) * 400


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
