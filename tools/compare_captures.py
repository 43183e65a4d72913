"""What tools/compare-captures runs inside the sandbox."""
import argparse
import collections
import ipaddress
import itertools
import pathlib
import re
import shutil
import socket
import struct
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
        """Ends are (address text, port)."""
        source, target = ((one_form(address), port) for address, port in (source, target))
        key = flow_key(proto, source, target)
        self.names[key].append(name)
        self.text.setdefault(key, flow_text(proto, source, target))
        return key

    def said(self, key):
        """The flow's names without repetition; a connection's ports may have been used several times."""
        return list(dict.fromkeys(self.names.get(key, [])))


def one_form(address):
    """Of the texts that an address may have; what is none stays as it is."""
    try:
        return str(ipaddress.ip_address(address))
    except ValueError:
        return address


def flow_text(proto, source, target):
    def end(address, port):
        shown = f"[{address}]" if ":" in address else address
        return f"{shown}:{port}" if port or proto in capture_packets.PORTS else shown

    return f"{PROTOCOLS.get(proto, proto)} {end(*source)} > {end(*target)}"


# The reader.

class ReaderAddresses:
    """Which of a capture's addresses a text of the reader means.

    It writes the shortest form, and then "::" for every ":0:" that is left: "1::2::3" may be several addresses.
    """

    def __init__(self, flows):
        self.flows = flows
        self.meant = collections.defaultdict(set)
        for address in {address for key in flows for address, _ in key[1:]}:
            shortest = address
            if ":" in address:
                shortest = socket.inet_ntop(socket.AF_INET6, ipaddress.IPv6Address(address).packed)
            self.meant[shortest.replace(":0:", "::")].add(address)

    def ends(self, proto, *ends, taken):
        """The ends of a flow: preferably one of the capture, and of these one that is not taken yet."""
        pairs = itertools.product(*([(address, port) for address in sorted(self.meant[text] or {text})]
                                    for text, port in ends))
        keys = ((flow_key(proto, *pair), pair) for pair in pairs)
        return min(keys, key=lambda found: (found[0] not in self.flows, found[0] in taken))[1]


def read(capture, flows, *options):
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
    addresses = ReaderAddresses(flows)
    for proto, source, sport, target, dport, name, confidence in READER_FLOW.findall(done.stdout):
        number = READER_PROTOCOLS.get(proto) or int(proto)
        ends = (source.strip("[]"), int(sport)), (target.strip("[]"), int(dport))
        ends = addresses.ends(number, *ends, taken=side.names)
        side.confidence[side.add(number, *ends, name.split(".")[-1])] = confidence
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
    def __init__(self, path, capture, reader):
        self.path, self.capture, self.reader = path, capture, reader
        self.sums = collections.Counter(map(by_sums, capture.flows))
        self._cache = {}

    def is_merged(self, key):
        """Whether the reader has this flow and another one as one."""
        return by_sums(key) is not None and self.sums[by_sums(key)] > 1

    def says(self, key, *options):
        """The reader's names for the flow, run with further options."""
        if options not in self._cache:
            self._cache[options] = read(self.path, self.capture.flows, *options)
        return self._cache[options].said(key)


CLASSES = {
    "guessed": "the packets show nothing: the reader guesses from port or address, the engine never (agrees with -d)",
    "packet limit": f"shows late; agrees when the reader gives up after {ENGINE_PACKETS} packets as the engine does",
    "other flows": "the reader goes by what it saw of the same hosts before, not by this flow; the engine does not",
    "reused ports": "several connections with the same ports: a verdict for each, one flow for the reader",
    "after its end": "packets that show more came after the connection had ended, and with it korvid's verdict",
    "tunnel": "the reader names the flows inside the tunnel, korvid the tunnel: its packets are what the switch forwards",
    "IPv6 sum": "the reader goes by the sum of an address's last two 32-bit words, and takes two flows for one",
    "cut": "the capture holds the beginnings of these packets only, and one of the two leaves them out",
    "fragments": "the reader takes the content of later fragments for ports, korvid leaves them out",
    "odd lengths": "lengths in the packets contradict each other: one of the two leaves them out, or reads other ports",
    "AH": "IPv6 with an authentication header: korvid follows the connection behind it, the reader the header",
    "no ports": "the reader takes no ports from SCTP, DCCP and UDP-Lite, korvid does",
    "no next header": "the IPv6 header says that nothing follows, and the reader leaves such packets out",
    "link": "the packets lie in something that one of the two does not look into: two VLAN tags, LLC, an Ethernet type that is not IP's",
}
# Links as in capture_packets.Flow.
READER_SKIPS = {(1, "vlan", "vlan"), (capture_packets.LOOP,), (capture_packets.SLL2,),
                (capture_packets.PPP, "address"), (capture_packets.PPP, "short")}
KORVID_SKIPS = {(1, "snap"), (1, capture_packets.OTHER_TYPE)}


def by_sums(key):
    """The flow as the reader tells it from others, if it is of IPv6; else None."""
    if ":" not in key[1][0]:
        return None
    return (key[0], *sorted((sum(struct.unpack(">8xII", ipaddress.ip_address(address).packed)) % 2**32, port)
                            for address, port in key[1:]))


def without_flow(key, capture):
    """Why the reader may see a flow that the capture does not hold: a class, or None."""
    oddities = capture.oddities_of(key)
    if key[0] == capture_packets.AH and "AH" in oddities:
        return "AH"
    if key[0] in {132, 33, 136} and any(capture_packets.hosts(other) == capture_packets.hosts(key)
                                        for other in capture.flows):
        return "no ports"
    return "fragments" if "fragments" in oddities else "odd lengths" if "odd" in oddities else None


def one_sided(key, flow, ours, evidence):
    """Why only one of the two has a flow: a class, or None."""
    if not ours and 0 not in flow.depths:
        return "tunnel"
    if ours and 0 in flow.depths and key[0] in TUNNEL_PROTOCOLS:
        return "tunnel"
    if ours and evidence.is_merged(key):
        return "IPv6 sum"
    if flow.damaged == flow.packets:
        return "odd lengths" if flow.odd else "cut"
    if ours and flow.authenticated == flow.packets:
        return "AH"
    if ours and key[0] in {132, 33, 136}:
        return "no ports"
    if ours and key[0] == capture_packets.NO_NEXT_HEADER:
        return "no next header"
    return "link" if flow.links <= (READER_SKIPS if ours else KORVID_SKIPS) else None


def explain(key, ours, theirs, evidence):
    """A class, or None."""
    flow = evidence.capture.flows.get(key)
    if flow is None:
        return None if ours else without_flow(key, evidence.capture)
    if not ours or not theirs:
        return one_sided(key, flow, ours, evidence)
    confidence = evidence.reader.confidence.get(key, "")
    if evidence.says(key, "-d") == ours or (ours == [UNKNOWN] and confidence.startswith("Match by")):
        return "guessed"
    if evidence.says(key, "-d", "-T", str(ENGINE_PACKETS), "-U", str(ENGINE_PACKETS)) == ours:
        return "packet limit"
    if ours == [UNKNOWN] and confidence == "DPI (cache)":
        return "other flows"
    if flow.connections > 1 and set(theirs) <= set(ours):
        return "reused ports"
    if flow.after_end and UNKNOWN in ours:
        return "after its end"
    if evidence.is_merged(key):
        return "IPv6 sum"
    return "odd lengths" if flow.odd else None


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


def differences(path, capture, reader, ours):
    """{flow key: class, or None for an unexplained difference}"""
    keys = [key for key in dict.fromkeys([*reader.names, *ours.names]) if ours.said(key) != reader.said(key)]
    evidence = Evidence(path, capture, reader) if keys else None
    return {key: explain(key, ours.said(key), reader.said(key), evidence) for key in keys}


def compare(name, path, system, summary, options):
    capture = capture_packets.Capture(path.read_bytes())
    reader = read(path, capture.flows)
    most_flows = 2 * len(reader.names) + 100
    ours = play(system, path, most_flows)
    found = differences(path, capture, reader, ours)
    if None in found.values():
        # Unlike the reader, which knows one file, this engine has seen the captures before.
        fresh_engine(system)
        ours = play(system, path, most_flows)
        found = differences(path, capture, reader, ours)

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
