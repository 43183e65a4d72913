#!/usr/bin/env python3
"""compare_test.py TOOLS: that compare-captures explains a difference only where there is evidence for it."""
import ipaddress
import pathlib
import struct
import sys
import tempfile
import unittest

sys.path.insert(0, sys.argv.pop())
sys.dont_write_bytecode = True
import compare_captures as compare  # noqa: E402  once the path is known

A, B = "192.0.2.1", "198.51.100.1"
A6, B6 = "2001:db8:1::1", "2001:db8:2::1"
TCP, SYN, PUSH = 6, 0x02, 0x18
KEY = compare.flow_key(TCP, (A, 1000), (B, 80))


def tcp(flags=PUSH, source=(A, 1000), target=(B, 80)):
    segment = struct.pack(">HHIIBBHHH", source[1], target[1], 1, 0, 0x50, flags, 100, 0, 0)
    return ip(TCP, segment, source[0], target[0])


def ip(proto, payload, source=A, target=B, fragment=0):
    ends = ipaddress.ip_address(source).packed + ipaddress.ip_address(target).packed
    if len(ends) == 32:
        return struct.pack(">IHBB", 6 << 28, len(payload), proto, 64) + ends + payload
    return struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(payload), 1, fragment, 64, proto, 0) + ends + payload


def capture(packets, kept=65535):
    data = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101)
    for packet in packets:
        data += struct.pack("<IIII", 0, 0, len(packet[:kept]), len(packet)) + packet[:kept]
    return data


class Compare(unittest.TestCase):
    def explain(self, packets, ours, theirs, key=KEY, confidence="DPI", reader_flows=(), kept=65535, **reruns):
        """The class; reruns are the reader's names without guesses, and with the engine's packet limit as well."""
        reader = compare.Side()
        reader.confidence = {key: confidence}
        reader.names.update({flow: ["TLS"] for flow in reader_flows})
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "capture")
            path.write_bytes(capture(packets, kept))
            evidence = compare.Evidence(path, reader)
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
        twin6 = compare.flow_key(TCP, ("fe80::1", 1000), (B6, 80))
        packets6 = [tcp(PUSH, (A6, 1000), (B6, 80))]
        for expected, found in (
                ("guessed", self.explain([tcp()], ["Unknown"], ["TLS"], unguessed=["Unknown"])),
                ("guessed", self.explain([tcp()], ["Unknown"], ["TLS"], confidence="Match by port")),
                (None, self.explain([tcp()], ["HTTP"], ["TLS"], confidence="Match by port")),
                ("packet limit", self.explain([tcp()], ["Unknown"], ["TLS"], limited=["Unknown"])),
                ("other flows", self.explain([tcp()], ["Unknown"], ["TLS"], confidence="DPI (cache)")),
                ("reused ports", self.explain([tcp(SYN), tcp(SYN)], ["HTTP", "Unknown"], ["HTTP"])),
                (None, self.explain([tcp(SYN), tcp(SYN)], ["TLS", "Unknown"], ["HTTP"])),
                (None, self.explain([ip(17, bytes(8), fragment=1)], [], ["Unknown"], key=later)),
                ("tunnel", self.explain([ip(4, inner)], [], ["HTTP"])),
                ("tunnel", self.explain([ip(4, inner)], ["IP_in_IP"], [], key=tunnel)),
                (None, self.explain([ip(4, inner), inner], [], ["HTTP"])),
                ("cut", self.explain([tcp()], ["Unknown"], [], kept=30)),
                ("IPv6 prefix", self.explain(packets6, ["TLS"], [], key=flow6, reader_flows=[twin6])),
                (None, self.explain(packets6, ["TLS"], [], key=flow6,
                                    reader_flows=[compare.flow_key(TCP, ("fe80::1", 1001), (B6, 80))]))):
            self.assertEqual(found, expected)


if __name__ == "__main__":
    unittest.main()
