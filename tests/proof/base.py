"""What the faults share: how one is declared and run, and what has to hold after each.

A fault is a function with a Run as its argument; its docstring is its row of the table: the first paragraph names the
fault, the second says what korvid does, which the function has to verify.  It counts with run.provoke() how often it
struck, tells with run.lost() of something acknowledged or reported that went missing, which fails the proof, and with
run.accepted() of what is given up by design.
"""
import contextlib
import dataclasses
import inspect
import re
import signal
import subprocess
import time

import world
from proof.bus_client import BusClient

APPS = {1: "Mail", 2: "Chat", 3: "Games", 4: "Video"}
RECORDS = world.FLASH / "appmon_enforcement_flow_records.csv"
RECORDS_OLD = world.FLASH / "appmon_enforcement_flow_records_old.csv"
MONITORED = world.FLASH / "appmon_monitor_flow_records.csv"
MONITORED_OLD = world.FLASH / "appmon_monitor_flow_records_old.csv"
HOURLY = world.FLASH / "appmon_monitoring_app_records.csv"
FLUSH = 901  # seconds until the enforcement records are written


@dataclasses.dataclass
class Fault:
    family: str
    name: str
    function: object

    @property
    def title(self):
        return f"{self.family}.{self.name}"

    def words(self):
        """(the fault, what korvid does)"""
        parts = inspect.getdoc(self.function).split("\n\n")
        return tuple(re.sub(r"\s+", " ", part).strip() for part in (parts + [""])[:2])


FAULTS = []


def fault(function):
    FAULTS.append(Fault(function.__module__.removeprefix("proof."), function.__name__, function))
    return function


class Broken(Exception):
    """korvid did something other than the table says."""


class Run(world.World):
    """A world for one fault, with the words that faults are written in."""

    def __init__(self, full=False):
        super().__init__()
        self.full = full
        self.provoked = 0
        self.losses, self.remarks = [], []

    def often(self, short, full):
        return full if self.full else short

    def provoke(self, times=1):
        self.provoked += times

    def lost(self, what):
        self.losses.append(what)

    def accepted(self, what):
        if what not in self.remarks:
            self.remarks.append(what)

    @staticmethod
    def check(holds, text):
        if not holds:
            raise Broken(text)

    # The system under test.

    def configured(self, *module_options, apps=None, engine="scripted", **daemon_options):
        """Mail and the group of Chat and Games enforced, Mail and Video monitored, all of it saved, mirroring on."""
        self.start("--report-interval", "0", *module_options, **daemon_options)
        self.install_kit(engine=engine, apps=apps or APPS)
        self.call("CREATEavAppGroup", {"appGroup": {"talk": [{"appName": "Chat"}, {"appName": "Games"}]}})
        self.call("SETavDpiAppList", {"appList": [{"appName": "Mail"}], "appGroup": ["talk"]})
        self.call("SETavAppMonAppList", {"appList": [{"appName": "Mail"}, {"appName": "Video"}]})
        self.enable()
        self.call("SETappMonActivateAppList", {})
        self.settle()
        return self

    def afresh(self):
        """Ends everything in order, for another start."""
        self.finish()
        self.module.stop()
        self.bus.stop()

    def log(self):
        return world.text_of(world.LOG)

    def flows(self, count, first=0, family="4", ports="10001", rate=0):
        """New flows, each of one packet, and their verdicts; at a rate, what finds no room is dropped."""
        before = self.module.stats()["results"]
        self.module.command(f"generate flows={count} packets={count} first={first} family={family} ports={ports} rate={rate}")
        self.module.command("wait 30000")
        world.wait_until(lambda: self.module.stats()["results"] >= before + count, f"{count} verdicts")
        self.check(self.module.stats()["results"] == before + count, "more than one verdict for a flow")

    def report(self, command="report-now"):
        """The kernel reports every enforced flow; returns once the reports are served."""
        self.module.command(command)
        self.module.command("wait 30000")
        self.settle()

    def flush(self):
        self.advance(FLUSH)

    def serving(self):
        """The daemon runs, answers on the bus and judges a packet."""
        self.check(self.daemon.running(), self.how_it_ended())
        self.settle()

    def judging(self, first):
        """A fresh flow gets its verdict."""
        self.enable()
        self.flows(1, first=first)

    def how_it_ended(self):
        return f"korvid ended with {self.daemon.child.poll()}: {self.daemon.stderr[-500:]}"

    def ended_with(self, status, text):
        """The daemon has ended with this status, saying why, and starts again."""
        found = self.daemon.wait()
        self.check(found == status, f"ended with {found} instead of {status}")
        self.check(text in self.log() + self.daemon.stderr, f"it did not say '{text}'")
        self.start_daemon()

    def lists(self):
        """What is configured, as a dump of the daemon shows it: (groups, enforcement, monitoring), sorted."""
        self.log_level("INFO")
        found, title = {"": set(), "Enforcement": set(), "Monitoring": set()}, ""
        for line in self.dump("yes").splitlines():
            if line.startswith("----"):
                title = line.split()[1]
            elif line.startswith("Grp-Name ") or line.startswith("AppId "):
                found[title if line.startswith("AppId ") else ""].add(line)
        self.log_level("ERROR")
        return tuple(tuple(sorted(found[key])) for key in found)

    def unwritten(self, expected, paths=(RECORDS_OLD, RECORDS), doubles=False):
        """Fails the proof when a record line is missing, doubled (unless that is allowed) or broken; expected: {source
        port: lines}."""
        found = {}
        for path in paths:
            for line in world.text_of(path).splitlines():
                fields = line.split(",")
                if fields[0] == "IpAddrType":
                    continue
                self.check(len(fields) in (9, 18) and fields[0] in ("IPv4", "IPv6"), f"half a line: {line}")
                found[int(fields[3])] = found.get(int(fields[3]), 0) + 1
        missing = sum(max(0, number - found.get(port, 0)) for port, number in expected.items())
        doubled = sum(max(0, number - expected.get(port, 0)) for port, number in found.items())
        if missing:
            self.lost(f"{missing} reported flows")
        self.check(doubles or not doubled, f"{doubled} lines too many")

    def unwritten_ports(self, ports):
        """Fails the proof when one of these source ports has no record line."""
        found = {int(line.split(",")[3]) for path in (RECORDS_OLD, RECORDS)
                 for line in world.text_of(path).splitlines()[1:] if line.count(",") == 17}
        missing = ports - found
        if missing:
            self.lost(f"{len(missing)} reported flows")

    def finish(self):
        """After the fault: an orderly end."""
        if not self.daemon:
            return
        if not self.daemon.running():
            status = self.daemon.child.poll()
            self.check(status >= 0 or status == -signal.SIGKILL, f"crash: {self.how_it_ended()}")
            return
        try:
            status = self.daemon.stop(signal.SIGTERM)
        except subprocess.TimeoutExpired as error:
            raise Broken("hang: no end after SIGTERM") from error
        self.check(status == 0, f"end by SIGTERM with {status}: {self.daemon.stderr[-500:]}")


def port_of(flow):
    """The source port of a generated flow."""
    return 32768 + flow % 28000


def client(run):
    """A fast client of the daemon's bus."""
    return contextlib.closing(BusClient())


@dataclasses.dataclass
class Outcome:
    fault: Fault
    run: Run
    error: str
    seconds: float

    @property
    def good(self):
        return not self.error and not self.run.losses

    def row(self):
        what, does = self.fault.words()
        lost = "; ".join(self.run.losses) or "nothing"
        if self.run.remarks:
            lost += " (" + "; ".join(self.run.remarks) + ")"
        cells = (self.fault.title, what, str(self.run.provoked), self.error or does, lost)
        return "| " + " | ".join(cell.replace("\n", " ").replace("|", "/") for cell in cells) + " |"


def prove(chosen, full):
    """Provokes one fault."""
    run, error, began = Run(full), "", time.monotonic()
    with run:
        try:
            chosen.function(run)
            run.finish()
            if run.provoked == 0:
                error = "FAILED: the fault did not strike"
        except Exception as exception:  # whatever it is: a row of the table, and the next fault
            error = f"FAILED: {type(exception).__name__}: {exception}"
            if run.daemon and not run.daemon.running():
                error += f" [korvid ended with {run.daemon.child.poll()}]"
    return Outcome(chosen, run, error, time.monotonic() - began)
