"""What tools/compare-captures runs inside the sandbox."""
import argparse
import collections
import pathlib
import re
import subprocess
import sys
import tarfile

import capture_packets
import world
from capture_packets import flow_key

# What platform/engine/ndpi_engine.cpp allows a flow, in the reader's terms.
ENGINE_PACKETS = 32
SUFFIXES = {".pcap", ".pcapng", ".cap"}
PROTOCOLS = {1: "ICMP", 2: "IGMP", 4: "IPIP", 6: "TCP", 17: "UDP", 41: "6in4", 47: "GRE", 50: "ESP", 51: "AH",
             58: "ICMPv6", 132: "SCTP"}
READER_PROTOCOLS = {"TCP": 6, "UDP": 17, "ICMP": 1, "ICMPV6": 58, "VRRP": 112, "IGMP": 2}
READER_FLOW = re.compile(r"^\t\d+\t(\w+) (\S+):(\d+) <?-> (\S+):(\d+) .*?\[proto: [\d.]+/([^\]]+)\]", re.M)
NOTHING = "-"
UNKNOWN = "Unknown"


class Side:
    """What one of the two says: {flow key: names in order}, and how each flow is written."""

    def __init__(self):
        self.names = collections.defaultdict(list)
        self.text = {}

    def add(self, proto, source, target, name):
        key = flow_key(proto, source, target)
        self.names[key].append(name)
        self.text.setdefault(key, flow_text(proto, source, target))

    def said(self, key):
        """The flow's names without repetition; a connection's ports may have been used several times."""
        return list(dict.fromkeys(self.names.get(key, [])))


def flow_text(proto, source, target):
    def end(address, port):
        shown = f"[{address}]" if ":" in address else address
        return f"{shown}:{port}" if port or proto in capture_packets.PORTS else shown

    return f"{PROTOCOLS.get(proto, proto)} {end(*source)} > {end(*target)}"


# The reader.

def read(capture, *options):
    """ndpiReader's flows; a protocol inside another ("TLS.Wikipedia") counts as the inner one, as in korvid's verdict.

    From its text: the table that it can write leaves out the flows that it did not recognise.
    """
    link = pathlib.Path("/tmp/reader-input")  # the reader takes commas for separators
    link.unlink(missing_ok=True)
    link.symlink_to(capture)
    done = subprocess.run(["ndpiReader", "-v", "2", "-i", str(link), *options], capture_output=True, text=True,
                          errors="replace", check=False)
    if done.returncode != 0:
        raise RuntimeError(f"ndpiReader ended with {done.returncode}: {done.stderr.strip()[-300:]}")
    side = Side()
    for proto, source, sport, target, dport, name in READER_FLOW.findall(done.stdout):
        number = READER_PROTOCOLS.get(proto) or int(proto)
        side.add(number, (source.strip("[]"), int(sport)), (target.strip("[]"), int(dport)), name.split(".")[-1])
    return side


# korvid.

def start(system):
    """One daemon for all captures, every application of the index enforced."""
    system.start("--report-interval", "0")
    world.make_kit(ndpi=True)
    with tarfile.open(world.KIT) as kit:
        index = kit.extractfile("AppMon_Signature_Index.csv").read().decode().splitlines()[1:]
    names = [line.split(",")[1] for line in index]
    system.call("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
    system.settle()
    system.call("SETavDpiAppList", {"appList": [{"appName": name} for name in names]})
    system.enable()


def play(system, capture):
    """korvid's verdicts on one capture."""
    seen = len(system.module.events("result"))
    system.module.command("clear")
    system.module.command(f"play {capture}")
    system.module.command("wait 120000", timeout=130)
    # The engine is stopped by the reload, and reports the flows that it still follows.
    system.call("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
    system.settle()
    side = Side()
    for event in system.module.events("result")[seen:]:
        if event["problems"]:
            raise RuntimeError(f"a verdict with faults: {event}")
        side.add(event["proto"], (event["first"], event["first_port"]), (event["second"], event["second_port"]),
                 event.get("app_name", UNKNOWN))
    return side


# Differences.  A class is given on evidence: what the reader says under the engine's rules, and what the capture
# holds of the flow.  A flow that no rule covers stays unexplained.

class Evidence:
    def __init__(self, capture, reader):
        self.capture, self.reader = capture, reader
        self.flows = capture_packets.flows(capture.read_bytes())
        self._cache = {}

    def says(self, key, *options):
        """The reader's names for the flow, run with further options."""
        if options not in self._cache:
            self._cache[options] = read(self.capture, *options)
        return self._cache[options].said(key)


def explain(key, ours, theirs, evidence):
    """(class, one sentence), or None."""
    flow = evidence.flows.get(key)
    if flow is None:
        return None
    if not ours:
        return explain_missing(key, flow)
    if not theirs:
        return explain_extra(key, flow, evidence)
    if evidence.says(key, "-d") == ours:
        return "guessed", "the reader guesses from port or address where the packets show nothing (agrees with -d)"
    limits = ("-d", "-T", str(ENGINE_PACKETS), "-U", str(ENGINE_PACKETS))
    if evidence.says(key, *limits) == ours:
        return "packet limit", f"agrees when the reader gives up after {ENGINE_PACKETS} packets as well"
    return None


def explain_missing(key, flow):
    if flow.later == flow.packets:
        return "fragments", "later fragments only, which carry no ports: the engine follows no flow for them"
    if 0 not in flow.depths:
        return "tunnel", "the reader looks inside the tunnel; korvid enforces the flow on the wire, the tunnel's own"
    return None


def explain_extra(key, flow, evidence):
    return None


# Tables.

def layout(rows, markdown):
    if markdown:
        yield "| " + " | ".join(rows[0]) + " |"
        yield "|" + " --- |" * len(rows[0])
        for row in rows[1:]:
            yield "| " + " | ".join(row) + " |"
        return
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    for row in rows:
        yield "  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()


class Summary:
    def __init__(self):
        self.rows = [("capture", "flows", "same", "different", "unexplained")]
        self.classes = collections.Counter()
        self.sentences = {}
        self.applications = set()
        self.totals = [0, 0, 0, 0]
        self.failed = []

    def add(self, name, counts):
        self.rows.append((name, *map(str, counts)))
        self.totals = [a + b for a, b in zip(self.totals, counts)]

    def print(self, markdown):
        print("\n## Summary\n" if markdown else "\nSUMMARY")
        print(*layout([*self.rows, ("all", *map(str, self.totals))], markdown), sep="\n")
        print(f"\n{len(self.applications)} applications: " + ", ".join(sorted(self.applications, key=str.lower)))
        if self.classes:
            print()
            print(*layout([("difference", "flows", "why")] + [
                (name, str(count), self.sentences[name]) for name, count in self.classes.most_common()],
                markdown), sep="\n")
        for name, reason in self.failed:
            print(f"{name}: NOT COMPARED: {reason}")


def compare(name, capture, system, summary, options):
    reader = read(capture)
    ours = play(system, capture)
    keys = list(dict.fromkeys([*reader.names, *ours.names]))
    rows = [("flow", "korvid", "ndpiReader", "", "why")]
    evidence = None
    different = unexplained = 0
    for key in keys:
        mine, theirs = ours.said(key), reader.said(key)
        summary.applications.update(set(mine) - {UNKNOWN})
        why, verdict = "", "same"
        if mine != theirs:
            different += 1
            verdict = "different"
            evidence = evidence or Evidence(capture, reader)
            found = explain(key, mine, theirs, evidence)
            if found:
                why = found[0]
                summary.classes[found[0]] += 1
                summary.sentences[found[0]] = found[1]
            else:
                why = "UNEXPLAINED"
                unexplained += 1
        elif options.different:
            continue
        text = ours.text.get(key) or reader.text[key]
        rows.append((text, ", ".join(mine) or NOTHING, ", ".join(theirs) or NOTHING, verdict, why))
    summary.add(name, (len(keys), len(keys) - different, different, unexplained))
    if len(rows) > 1 or not options.different:
        print(f"\n## {name}\n" if options.markdown else f"\n{name}")
        print(*layout(rows, options.markdown), sep="\n", flush=True)


def captures_in(folder):
    """(name to show, path) of the captures, each folder's in order."""
    found = [path for path in folder.rglob("*") if path.is_file() and path.suffix in SUFFIXES]
    return [("/".join(path.relative_to(folder).parts[1:]), path) for path in sorted(found)]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--markdown", action="store_true")
    parser.add_argument("--different", action="store_true")
    parser.add_argument("folder", type=pathlib.Path)
    options = parser.parse_args()
    captures = captures_in(options.folder)
    if not captures:
        print("compare-captures: no *.pcap, *.pcapng or *.cap there", file=sys.stderr)
        return 2
    summary = Summary()
    with world.World() as system:
        start(system)
        for name, capture in captures:
            try:
                compare(name, capture, system, summary, options)
            except (RuntimeError, world.Failure) as error:
                summary.failed.append((name, str(error)))
        status = system.daemon.stop()
    summary.print(options.markdown)
    if status != 0:
        summary.failed.append(("korvid", f"ended with {status}"))
    return 2 if summary.failed else 1 if summary.totals[3] else 0


if __name__ == "__main__":
    sys.exit(main())
