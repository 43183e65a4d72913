#!/usr/bin/env python3
"""compare_test.py TOOLS: that compare-captures explains a difference only where there is evidence for it."""
import ipaddress
import struct
import sys
import unittest

sys.path.insert(0, sys.argv.pop())
sys.dont_write_bytecode = True
import compare_captures as compare  # noqa: E402  once the path is known

A, B = "192.0.2.1", "198.51.100.1"
A6, B6 = "2001:db8:1::1", "2001:db8:2::1"
TCP, SYN, PUSH = 6, 0x02, 0x18
KEY = compare.flow_key(TCP, (A, 1000), (B, 80))


def tcp(flags=PUSH, source=(A, 1000), target=(B, 80), content=b"", length=0x50):
    segment = struct.pack(">HHIIBBHHH", source[1], target[1], 1, 0, length, flags, 100, 0, 0)
    return ip(TCP, segment + content, source[0], target[0])


def ip(proto, payload, source=A, target=B, fragment=0):
    ends = ipaddress.ip_address(source).packed + ipaddress.ip_address(target).packed
    if len(ends) == 32:
        return struct.pack(">IHBB", 6 << 28, len(payload), proto, 64) + ends + payload
    return struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(payload), 1, fragment, 64, proto, 0) + ends + payload


def capture(packets, kept=65535, link=101):
    data = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, link)
    for packet in packets:
        data += struct.pack("<IIII", 0, 0, len(packet[:kept]), len(packet)) + packet[:kept]
    return data


class Compare(unittest.TestCase):
    def explain(self, packets, ours, theirs, key=KEY, confidence="DPI", kept=65535, link=101, **reruns):
        """The class; reruns are the reader's names without guesses, and with the engine's packet limit as well."""
        reader = compare.Side()
        reader.confidence = {key: confidence}
        evidence = compare.Evidence(None, compare.capture_packets.Capture(capture(packets, kept, link)), reader)
        evidence.says = lambda _, *options: reruns.get("limited" if "-T" in options else "unguessed", theirs)
        return compare.explain(key, ours, theirs, evidence)

    def test_differences_without_evidence_stay_unexplained(self):
        for what, packets, ours, theirs in (
                ("other name", [tcp()], ["HTTP"], ["TLS"]),
                ("not recognised", [tcp()], ["Unknown"], ["TLS"]),
                ("two verdicts for one connection", [tcp(SYN), tcp()], ["HTTP", "Unknown"], ["HTTP"]),
                ("no verdict", [tcp()], [], ["TLS"]),
                ("a flow that the reader lacks", [tcp()], ["TLS"], []),
                ("a flow that the capture lacks", [], ["TLS"], [])):
            with self.subTest(what):
                self.assertIsNone(self.explain(packets, ours, theirs))

    def test_each_class_has_its_evidence(self):
        inner = tcp()
        later = compare.flow_key(17, (A, 0), (B, 0))
        tunnel = compare.flow_key(4, (A, 0), (B, 0))
        flow6 = compare.flow_key(TCP, (A6, 1000), (B6, 80))
        twin6 = compare.flow_key(TCP, ("fe80::1:0:0", 1000), (B6, 80))
        packet6, packet_twin = tcp(PUSH, *flow6[1:]), tcp(PUSH, *twin6[1:])
        portless = compare.flow_key(TCP, (A, 0), (B, 0))
        sctp = compare.flow_key(132, (A, 0), (B, 0))
        shown_late = [tcp(0x11), tcp(0x11, (B, 80), (A, 1000)), tcp(content=b"GET")]
        vlans = bytes(12) + bytes.fromhex("8100000181000002 0800")
        for expected, found in (
                ("guessed", self.explain([tcp()], ["Unknown"], ["TLS"], unguessed=["Unknown"])),
                ("guessed", self.explain([tcp()], ["Unknown"], ["TLS"], confidence="Match by port")),
                (None, self.explain([tcp()], ["HTTP"], ["TLS"], confidence="Match by port")),
                ("packet limit", self.explain([tcp()], ["Unknown"], ["TLS"], limited=["Unknown"])),
                ("other flows", self.explain([tcp()], ["Unknown"], ["TLS"], confidence="DPI (cache)")),
                ("reused ports", self.explain([tcp(SYN), tcp(SYN)], ["HTTP", "Unknown"], ["HTTP"])),
                (None, self.explain([tcp(SYN), tcp(SYN)], ["TLS", "Unknown"], ["HTTP"])),
                ("after its end", self.explain(shown_late, ["Unknown"], ["HTTP"])),
                (None, self.explain(shown_late[1:], ["Unknown"], ["HTTP"])),
                ("fragments", self.explain([ip(17, bytes(8), fragment=1)], [], ["Unknown"], key=later)),
                (None, self.explain([ip(17, bytes(8), fragment=1)], ["Unknown"], [], key=later)),
                ("odd lengths", self.explain([tcp(length=0xF0)], ["Unknown"], [])),
                ("odd lengths", self.explain([tcp(length=0xF0)], [], ["Unknown"], key=portless)),
                (None, self.explain([tcp(length=0xF0), tcp()], ["Unknown"], [])),
                ("no ports", self.explain([ip(132, bytes(range(12)))], [], ["SCTP"], key=sctp)),
                ("AH", self.explain([ip(51, bytes([TCP, 4]) + bytes(22) + packet6[40:], A6, B6)], ["TLS"], [],
                                    key=flow6)),
                ("link", self.explain([vlans + tcp()], ["TLS"], [], link=1)),
                (None, self.explain([vlans + tcp()], [], ["TLS"], link=1)),
                ("tunnel", self.explain([ip(4, inner)], [], ["HTTP"])),
                ("tunnel", self.explain([ip(4, inner)], ["IP_in_IP"], [], key=tunnel)),
                (None, self.explain([ip(4, inner), inner], [], ["HTTP"])),
                ("cut", self.explain([tcp()], ["Unknown"], [], kept=30)),
                ("IPv6 sum", self.explain([packet6, packet_twin], ["TLS"], [], key=flow6)),
                (None, self.explain([packet6], ["TLS"], [], key=flow6))):
            self.assertEqual(found, expected)

    def test_addresses_that_the_reader_writes_are_found_in_the_capture(self):
        # It writes both as 1::2::3:4, and the third as 1:2::3:4:5:6:7.
        twins = [compare.flow_key(TCP, (address, 1000), (B6, 80)) for address in ("1:0:2::3:4", "1::2:0:3:4")]
        full = compare.flow_key(TCP, ("1:2:0:3:4:5:6:7", 1000), (B6, 80))
        meant = compare.ReaderAddresses([*twins, full])
        ends = ("1::2::3:4", 1000), (B6, 80)
        first = compare.flow_key(TCP, *meant.ends(TCP, *ends, taken=()))
        second = compare.flow_key(TCP, *meant.ends(TCP, *ends, taken={first}))
        self.assertEqual({first, second}, set(twins))
        self.assertEqual(compare.flow_key(TCP, *meant.ends(TCP, ("1:2::3:4:5:6:7", 1000), (B6, 80), taken=())), full)
        self.assertEqual(compare.one_form("::ffff:192.0.2.1"), compare.one_form("::FFFF:c000:201"))


if __name__ == "__main__":
    unittest.main()
