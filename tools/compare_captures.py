"""What tools/compare-captures runs inside the sandbox."""
import argparse
import collections
import ipaddress
import pathlib
import re
import shutil
import subprocess
import sys

import capture_packets
import playing
import world
from capture_packets import flow_key

# What platform/engine/ndpi_engine.cpp allows a flow, in the reader's terms.
ENGINE_PACKETS = 32
SUFFIXES = {".pcap", ".pcapng", ".cap"}
PROTOCOLS = {1: "ICMP", 2: "IGMP", 4: "IPIP", 6: "TCP", 17: "UDP", 41: "IPv6-in-IP", 47: "GRE", 50: "ESP", 51: "AH",
             58: "ICMPv6", 132: "SCTP"}
READER_PROTOCOLS = {"TCP": 6, "UDP": 17, "ICMP": 1, "ICMPV6": 58, "VRRP": 112, "IGMP": 2}
READER_FLOW = re.compile(r"^\t\d+\t(\w+) (\S+):(\d+) <?-> (\S+):(\d+) .*?\[proto: [\d.]+/([^\]]+)\]"
                         r"(?:.*?\[Confidence: ([^\]]+)\])?", re.M)
TUNNEL_PROTOCOLS = {4, 41}
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
    done = subprocess.run(["ndpiReader", "-v", "2", "-i", str(capture), *options], capture_output=True, text=True,
                          errors="replace", check=False)
    if done.returncode != 0:
        said = done.stderr.strip() or done.stdout.strip().rpartition("\n")[2]
        raise RuntimeError(f"ndpiReader ended with {done.returncode}: {said[-300:]}")
    side = Side()
    side.confidence = {}
    for proto, source, sport, target, dport, name, confidence in READER_FLOW.findall(done.stdout):
        number = READER_PROTOCOLS.get(proto) or int(proto)
        ends = (source.strip("[]"), int(sport)), (target.strip("[]"), int(dport))
        side.add(number, *ends, name.split(".")[-1])
        side.confidence[flow_key(number, *ends)] = confidence
    return side


# korvid.

KITS = [pathlib.Path(f"/tmp/{name}.kit") for name in ("even", "odd")]


def start(system):
    """One daemon for all captures."""
    system.start("--report-interval", "0", clock=True)
    for number, kit in enumerate(KITS):
        world.make_kit(kit, ndpi=True, version=f"4.2.{number}")
    system.enable()
    fresh_engine(system)


def fresh_engine(system):
    """An engine that has learnt nothing of hosts yet, with every application of its index under enforcement.

    Two kits take turns, as the daemon does not install again what it has.
    """
    KITS.append(KITS.pop(0))
    shutil.copyfile(KITS[0], world.KIT)
    system.call("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
    for method, arguments in playing.enforcing(playing.applications()):
        system.call(method, arguments)


def play(system, capture, flows):
    """korvid's verdicts on one capture; flows is how many it may hold."""
    seen = len(system.module.events("result"))
    system.module.command("clear")
    playing.mirror(system, capture)
    playing.finish_flows(system, flows)
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
        self.lower_halves = {lower_halves(key) for key in reader.names} - {None}
        self._cache = {}

    def says(self, key, *options):
        """The reader's names for the flow, run with further options."""
        if options not in self._cache:
            self._cache[options] = read(self.capture, *options)
        return self._cache[options].said(key)


CLASSES = {
    "guessed": "the packets show nothing: the reader guesses from port or address, the engine never (agrees with -d)",
    "packet limit": f"shows late; agrees when the reader gives up after {ENGINE_PACKETS} packets as the engine does",
    "other flows": "the reader goes by what it saw of the same hosts before, not by this flow; the engine does not",
    "reused ports": "several connections with the same ports: a verdict for each, one flow for the reader",
    "tunnel": "the reader names the flows inside the tunnel, korvid the tunnel: its packets are what the switch forwards",
    "IPv6 prefix": "the reader goes by the last 64 bits of addresses, and takes two flows for one",
    "cut": "the capture holds the beginnings of these packets only, and the reader leaves them out",
}


def lower_halves(key):
    """The flow, its IPv6 addresses without their prefixes; None for IPv4."""
    if ":" not in key[1][0]:
        return None
    return (key[0], *sorted((ipaddress.ip_address(address).packed[8:], port) for address, port in key[1:]))


def explain(key, ours, theirs, evidence):
    """A class, or None."""
    flow = evidence.flows.get(key)
    if flow is None:
        return None
    if not ours:
        return "tunnel" if 0 not in flow.depths else None
    if not theirs:
        if 0 in flow.depths and key[0] in TUNNEL_PROTOCOLS:
            return "tunnel"
        if lower_halves(key) in evidence.lower_halves:
            return "IPv6 prefix"
        return "cut" if flow.cut == flow.packets else None
    confidence = evidence.reader.confidence.get(key, "")
    if evidence.says(key, "-d") == ours or (ours == [UNKNOWN] and confidence.startswith("Match by")):
        return "guessed"
    if evidence.says(key, "-d", "-T", str(ENGINE_PACKETS), "-U", str(ENGINE_PACKETS)) == ours:
        return "packet limit"
    if ours == [UNKNOWN] and confidence == "DPI (cache)":
        return "other flows"
    if flow.starts > 1 and set(theirs) <= set(ours):
        return "reused ports"
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
                (name, str(count), CLASSES[name]) for name, count in self.classes.most_common()],
                markdown), sep="\n")
        for name, reason in self.failed:
            print(f"{name}: NOT COMPARED: {reason}")


def differences(capture, reader, ours):
    """{flow key: class, or None for an unexplained difference}"""
    keys = [key for key in dict.fromkeys([*reader.names, *ours.names]) if ours.said(key) != reader.said(key)]
    evidence = Evidence(capture, reader) if keys else None
    return {key: explain(key, ours.said(key), reader.said(key), evidence) for key in keys}


def compare(name, capture, system, summary, options):
    reader = read(capture)
    most_flows = 2 * len(reader.names) + 100
    ours = play(system, capture, most_flows)
    found = differences(capture, reader, ours)
    if None in found.values():
        # Unlike the reader, which knows one file, this engine has seen the captures before.
        fresh_engine(system)
        ours = play(system, capture, most_flows)
        found = differences(capture, reader, ours)

    rows = [("flow", "korvid", "ndpiReader", "", "why")]
    keys = list(dict.fromkeys([*reader.names, *ours.names]))
    for key in keys:
        mine, theirs = ours.said(key), reader.said(key)
        summary.applications.update(set(mine) - {UNKNOWN})
        verdict = "different" if key in found else "same"
        if key in found:
            why = found[key] or "UNEXPLAINED"
        elif options.different:
            continue
        else:
            why = ""
        rows.append((ours.text.get(key) or reader.text[key], ", ".join(mine) or NOTHING,
                     ", ".join(theirs) or NOTHING, verdict, why))
    unexplained = list(found.values()).count(None)
    summary.classes.update(filter(None, found.values()))
    summary.add(name, (len(keys), len(keys) - len(found), len(found), unexplained))
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
            link = pathlib.Path("/tmp/capture")  # neither takes every name
            link.unlink(missing_ok=True)
            link.symlink_to(capture)
            try:
                compare(name, link, system, summary, options)
            except (RuntimeError, OSError, world.Failure) as error:
                summary.failed.append((name, str(error)))
        status = system.daemon.stop()
        if status != 0:
            summary.failed.append(("korvid", f"ended with {status}: {system.daemon.stderr[-3000:]}"))
    summary.print(options.markdown)
    return 2 if summary.failed else 1 if summary.totals[3] else 0


if __name__ == "__main__":
    sys.exit(main())
