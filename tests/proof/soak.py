"""Everything at once for a long time, and a checker that knows the daemon from outside only.

Rounds of full-rate traffic; meanwhile another kit every 20 seconds, other lists ten times a second, exports and dumps.
What the kernel was told and what the record files hold is compared after every round:
  - exactly one verdict for each flow (a kit that is replaced during a round may leave a flow without, or judge it twice);
  - a verdict's name is the one that its kit gives the id;
  - every report of a matched flow is in exactly one record line, with the counters of the report;
  - the daemon's counters are those of the kernel;
  - resident memory stays flat.
"""
import collections
import json
import os
import subprocess
import threading
import time

import world
from proof.base import RECORDS, RECORDS_OLD, Broken, Run
from proof.bus_client import BusClient
from servers import Hostile

FLOWS = 2000  # a round; at most half of them matched: no more than one rotation of the record file in a round
PACKETS = 60000
RELOAD = 20  # seconds
HUGE_PAGE = 2048  # kB: the system may back a busy part of the heap with one at any time
KITS = ({1: "Mail", 2: "Chat", 3: "Games", 4: "Video"}, {1: "Post", 2: "Talk", 3: "Play", 4: "Film"})


class Background(threading.Thread):
    """Calls work() at intervals until the end; a failure is kept for the main thread."""

    def __init__(self, interval, work):
        super().__init__(daemon=True)
        self.interval, self.work, self.failure, self.turns = interval, work, None, 0
        self.ended = threading.Event()
        self.start()

    def run(self):
        try:
            with BusClient(timeout=60) as bus:
                while not self.ended.wait(self.interval):
                    self.work(bus, self.turns)
                    self.turns += 1
        except Exception as error:  # told by the main thread
            self.failure = error

    def end(self):
        self.ended.set()
        self.join(90)
        if self.failure:
            raise self.failure


class Events:
    """New lines of the module's JSON file; what has been read takes no room any more."""

    def __init__(self, path):
        self.path, self.at, self.freed = path, 0, 0

    def take(self):
        with open(self.path, "rb") as file:
            file.seek(self.at)
            data = file.read()
        data = data[:data.rfind(b"\n") + 1]
        self.at += len(data)
        if self.at - self.freed > 32 << 20:
            subprocess.run(["fallocate", "--punch-hole", "-o", str(self.freed), "-l", str(self.at - self.freed), self.path],
                           check=True)
            self.freed = self.at
        return [json.loads(line) for line in data.splitlines()]


class Lines:
    """New lines of a record file and of its rotated copy, by inode: a file that was moved is read on."""

    def __init__(self):
        self.read = {}

    def take(self):
        found, present = [], {}
        for path in (RECORDS_OLD, RECORDS):
            try:
                with open(path, "rb") as file:
                    inode = os.fstat(file.fileno()).st_ino
                    file.seek(self.read.get(inode, 0))
                    data = file.read()
                    present[inode] = file.tell()
            except FileNotFoundError:
                continue
            if data and not data.endswith(b"\n"):
                raise Broken(f"half a line: {data[-100:]}")
            found += data.decode().splitlines()
        self.read = present
        return [line.split(",") for line in found if not line.startswith("IpAddrType")]


def key_of_event(event):
    return event["first"], event["second"], event["first_port"], event["second_port"], event["proto"]


def key_of_line(fields):
    return fields[1], fields[2], int(fields[3]), int(fields[4]), {"TCP": 6, "UDP": 17}[fields[5]]


class Soak:
    def __init__(self, run, server):
        self.run, self.server = run, server
        self.kit, self.installed = -1, -1  # the one asked for last, the one that is in
        self.model = threading.Lock()  # held over what must see one kit
        self.totals = collections.Counter()

    # What goes on all the time.

    def change_lists(self, bus, turn):
        with self.model:
            names = KITS[self.kit % 2]
            bus.call("CREATEavAppGroup", appGroup={"talk": [{"appName": names[2]}]})
            listed = [{"appName": names[1]}] if turn % 3 else []
            replies = [bus.call("SETavDpiAppList", appList=listed, appGroup=["talk"] if turn % 2 else []),
                       bus.call("SETavAppMonAppList", appList=[{"appName": names[3]}])]
            if turn % 10 == 0:
                replies.append(bus.call("SETappMonActivateAppList"))
        for reply in replies:
            self.run.check(reply["success"], f"a list was refused: {reply}")

    def export(self, bus, turn):
        method = "GETavAppMonStats" if turn % 2 else "GETavDpiStats"
        self.run.check(bus.call(method, username="u", password="p", filePath=self.server.url("ok"))["success"], "export")

    def dump(self, bus, turn):
        bus.call("SetavDebugSettings", debugPrintDb="yes", logLevel="INFO" if turn % 2 else "ERROR")

    def reload(self, bus=None, turn=0):
        with self.model:
            world.make_kit(apps=KITS[(self.kit + 1) % 2], version=f"{self.kit + 1}.0")
            self.kit += 1
            call = bus.call if bus else lambda method, **values: self.run.reply(method, values)
            reply = call("SETappMonUpdateSignatureFile", reloadSignFile="force")
            self.run.check(reply["success"], f"the kit was refused: {reply}")
            call("SetavDebugSettings")
            self.installed = self.kit

    # One round and its checks.

    def round(self, number, events, lines):
        run = self.run
        kit, settled = self.kit, self.installed == self.kit
        run.module.command(f"generate flows={FLOWS} packets={PACKETS} first={number * FLOWS} family=both proto=both "
                           "ports=10001,10002,10003,10004", timeout=120)
        run.module.command("wait 60000", timeout=120)
        run.module.command("age-all", timeout=120)
        run.module.command("wait 60000", timeout=120)
        run.settle()
        run.advance(901)
        happened, written = events.take(), lines.take()
        # A kit that is installed meanwhile empties the flow database under reports on their way.
        mixed = not settled or self.kit != kit
        results = [event for event in happened if event["event"] == "result"]
        reports = [event for event in happened if event["event"] == "report"]
        self.check_results(results, kit, mixed)
        self.check_lines(reports, written, mixed)
        self.totals.update(rounds=1, results=len(results), matches=sum(event["match"] for event in results),
                           reports=len(reports), mixed=mixed)

    def check_results(self, results, kit, mixed):
        counts = collections.Counter(map(key_of_event, results))
        if mixed:
            self.run.check(max(counts.values(), default=0) <= 2, "more than two verdicts for a flow")
        else:
            self.run.check(set(counts.values()) <= {1} and len(counts) == FLOWS,
                           f"{len(counts)} of {FLOWS} flows have verdicts, up to {max(counts.values(), default=0)} each")
        for event in results:
            self.run.check(not event["problems"], f"a malformed verdict: {event}")
            if event["match"]:
                names = {index[event["app_id"]] for index in (KITS if mixed else [KITS[kit % 2]])}
                self.run.check(event["app_name"] in names and event.get("group", "talk") == "talk", f"a wrong name: {event}")

    def check_lines(self, reports, lines, mixed):
        reported = collections.Counter((key_of_event(event), event["packets"], event["bytes"]) for event in reports)
        written = collections.Counter((key_of_line(line), int(line[12]), int(line[13])) for line in lines)
        extra, missing = written - reported, reported - written
        self.run.check(not extra, f"lines that no report accounts for: {list(extra)[:3]}")
        if missing and not mixed:
            self.run.lost(f"{sum(missing.values())} of {len(reports)} reports, such as {next(iter(missing))}")
        self.totals.update(lines=len(lines), unmatched=sum(missing.values()))

    def check_counters(self):
        run = self.run
        run.log_level("INFO")
        text = run.dump("counter")
        packets, four, six = (int(text.split(f"{name} Counter [")[1].split("]")[0]) for name in ("Packet", "Flow4", "Flow6"))
        stats = run.module.stats()
        run.check(packets == stats["mirrored"], f"{packets} packets counted, {stats['mirrored']} mirrored")
        run.check(four + six == stats["matches"] == self.totals["matches"],
                  f"{four} + {six} flows counted, {stats['matches']} verdicts matched")
        for name in ("dropped_ring_full", "dropped_queue_full", "overruns", "reports_skipped", "unusable_results"):
            run.check(stats[name] == 0, f"the kernel counts {stats[name]} {name}")
        self.totals["packets"] = packets


def check_uploads(run, server):
    whole = [bytes(request.body) for request in server.requests if request.complete]
    for body in whole:
        fields = 18 if body.startswith(b"IpAddrType") and b"IntEnd" in body[:200] else 9
        bad = [line for line in body.splitlines() if line.count(b",") != fields - 1 and line.count(b",") not in (8, 17)]
        run.check(not bad, f"an upload holds half a line: {bad[:1]}")
    server.requests.clear()
    return len(whole)


def soak(run, seconds):
    with Hostile() as server:
        run.start("--report-interval", "0", "--age-idle", "3600", clock=True)
        work, events, lines, sizes = Soak(run, server), Events(run.module.json_file), Lines(), []
        work.reload()
        run.enable()
        background = [Background(0.1, work.change_lists), Background(0.7, work.export), Background(0.9, work.dump),
                      Background(RELOAD, work.reload)]
        began, number, uploads = time.monotonic(), 0, 0
        try:
            while time.monotonic() - began < seconds:
                work.round(number, events, lines)
                number += 1
                uploads += check_uploads(run, server)
                failed = [thread.failure for thread in background if thread.failure]
                if failed:
                    raise failed[0]
                sizes.append(run.status("VmRSS"))
                run.check(run.daemon.running(), run.how_it_ended())
                run.check(not run.losses, "; ".join(run.losses))
        finally:
            for thread in background:
                thread.ended.set()
        for thread in background:
            thread.end()
        work.check_counters()
        run.check(work.totals["rounds"] > work.totals["mixed"], "no round without a new kit")
        early = max(sizes[len(sizes) // 4:len(sizes) // 2] or sizes)
        late = max(sizes[-len(sizes) // 4:])
        run.check(late < early + HUGE_PAGE + 1024, f"resident memory grew from {early} kB to {late} kB")
        run.finish()
        total = work.totals
        print(f"{time.monotonic() - began:.0f} s, {total['rounds']} rounds: {total['packets']} packets, {total['results']} "
              f"verdicts, {total['matches']} matched, {total['reports']} reports, {total['lines']} record lines "
              f"({total['unmatched']} reports of flows that a new kit had made the daemon forget), {work.installed + 1} kits, "
              f"{background[0].turns} list changes, {uploads} uploads, {background[2].turns} dumps; resident memory "
              f"{early} kB at first, {late} kB at last: nothing lost")


def main(seconds):
    run = Run()
    with run:
        try:
            soak(run, seconds)
        except Exception as error:  # the end of the run, whatever it was
            print(f"FAILED: {type(error).__name__}: {error}; lost: {'; '.join(run.losses) or 'nothing'}")
            if run.daemon and not run.daemon.running():
                print(run.how_it_ended())
            return 1
    return 0
