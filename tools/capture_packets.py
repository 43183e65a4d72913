"""Reads captures for tools that explain what others make of them: flows, tunnels, fragments, cut packets.

An own reader, because an explanation must not come from the code that is to be explained.  Takes pcap and pcapng
(draft-ietf-opsawg-pcapng) with Ethernet, raw IP, null and Linux cooked links.
"""
import ipaddress
import struct

TCP, UDP, ICMP, ICMP6, GRE, SCTP = 6, 17, 1, 58, 47, 132
PORTS = {TCP, UDP, SCTP, 33, 136}
EXTENSIONS = {0, 43, 44, 51, 60, 135}
VXLAN = 4789
PCAP = {b"\xd4\xc3\xb2\xa1": ("<", 1e6), b"\xa1\xb2\xc3\xd4": (">", 1e6),
        b"\x4d\x3c\xb2\xa1": ("<", 1e9), b"\xa1\xb2\x3c\x4d": (">", 1e9)}


class Layer:
    """One IP header of a packet: 0 is the outermost, the next ones lie in tunnels."""

    def __init__(self, proto, source, target, depth):
        self.proto, self.source, self.target, self.depth = proto, source, target, depth
        self.key = flow_key(proto, source, target)
        self.flags = 0
        self.fragment = self.later = self.cut = False


def flow_key(proto, source, target):
    """The same for both directions; ends are (address text, port)."""
    return (proto, *sorted([source, target]))


def frames(data):
    """(link type, seconds, bytes, length on the wire) of each frame; what is behind a damaged record is lost."""
    if data[:4] in PCAP:
        order, unit = PCAP[data[:4]]
        link = struct.unpack_from(order + "I", data, 20)[0] & 0xFFFF
        at = 24
        while at + 16 <= len(data):
            seconds, fraction, kept, length = struct.unpack_from(order + "IIII", data, at)
            if at + 16 + kept > len(data):
                return
            yield link, seconds + fraction / unit, data[at + 16:at + 16 + kept], length
            at += 16 + kept
    elif data[:4] == b"\x0a\x0d\x0d\x0a":
        yield from pcapng_frames(data)


def pcapng_frames(data):
    order, at, links = "<", 0, []
    while at + 12 <= len(data):
        if data[at:at + 4] == b"\x0a\x0d\x0d\x0a":
            order = "<" if data[at + 8:at + 12] == b"\x4d\x3c\x2b\x1a" else ">"
            links = []
        kind, total = struct.unpack_from(order + "II", data, at)
        if total < 12 or at + total > len(data):
            return
        body = data[at + 8:at + total - 4]
        if kind == 1 and len(body) >= 8:
            links.append((struct.unpack_from(order + "H", body)[0], resolution(order, body[8:])))
        elif kind == 6 and len(body) >= 20:
            interface, high, low, kept, length = struct.unpack_from(order + "IIIII", body)
            if interface < len(links):
                link, unit = links[interface]
                yield link, (high << 32 | low) / unit, body[20:20 + kept], length
        elif kind == 3 and len(body) >= 4 and links:
            length = struct.unpack_from(order + "I", body)[0]
            yield links[0][0], 0.0, body[4:4 + length], length
        at += total


def resolution(order, options):
    """Ticks per second of an interface, from its option if_tsresol (9)."""
    while len(options) >= 4:
        code, length = struct.unpack_from(order + "HH", options)
        if code == 9 and length >= 1 and len(options) > 4:
            power = options[4] & 0x7F
            return 2.0**power if options[4] & 0x80 else 10.0**power
        if code == 0:
            break
        options = options[4 + (length + 3 & ~3):]
    return 1e6


def ip_of(link, frame):
    """The bytes from the IP header on; empty if there is none."""
    at = {1: 12, 113: 14, 276: 0}.get(link)
    if at is None:
        skip = {0: 4, 108: 4, 12: 0, 14: 0, 101: 0, 228: 0, 229: 0}.get(link)
        return b"" if skip is None else frame[skip:]
    kind = int.from_bytes(frame[at:at + 2], "big")
    at = 20 if link == 276 else at + 2
    while kind in (0x8100, 0x88A8, 0x9100):
        kind = int.from_bytes(frame[at + 2:at + 4], "big")
        at += 4
    return frame[at:] if kind in (0x0800, 0x86DD) else b""


def layers(data, cut=False, depth=0):
    """The IP headers of a packet, outermost first."""
    while data and depth < 8:
        found = header4(data) if data[0] >> 4 == 4 else header6(data) if data[0] >> 4 == 6 else None
        if not found:
            return
        proto, source, target, at, total, fragment, later = found
        cut = cut or len(data) < total
        data = data[:total] if total else data
        ports = (0, 0)
        if proto in PORTS and not later and len(data) >= at + 4:
            ports = struct.unpack_from(">HH", data, at)
        layer = Layer(proto, (source, ports[0]), (target, ports[1]), depth)
        layer.fragment, layer.later, layer.cut = fragment, later, cut
        if proto == TCP and len(data) > at + 13:
            layer.flags = data[at + 13]
        yield layer
        data = b"" if fragment else inside(layer, data, at)
        depth += 1


def header4(data):
    if len(data) < 20:
        return None
    at, total = (data[0] & 15) * 4, int.from_bytes(data[2:4], "big")
    word = int.from_bytes(data[6:8], "big")
    return (data[9], str(ipaddress.IPv4Address(data[12:16])), str(ipaddress.IPv4Address(data[16:20])), at,
            total, bool(word & 0x3FFF), bool(word & 0x1FFF))


def header6(data):
    if len(data) < 40:
        return None
    total = 40 + int.from_bytes(data[4:6], "big")
    proto, at, fragment, later = data[6], 40, False, False
    while proto in EXTENSIONS and len(data) >= at + 8:
        if proto == 44:
            word = int.from_bytes(data[at + 2:at + 4], "big")
            fragment, later = True, bool(word & 0xFFF8)
        kind, proto = proto, data[at]
        at += 8 if kind == 44 else (data[at + 1] + 2) * 4 if kind == 51 else (data[at + 1] + 1) * 8
        if later:
            break
    return (proto, str(ipaddress.IPv6Address(data[8:24])), str(ipaddress.IPv6Address(data[24:40])), at, total,
            fragment, later)


def inside(layer, data, at):
    """What a tunnel carries, from its IP header on."""
    if layer.proto in (4, 41):
        return data[at:]
    if layer.proto == GRE and len(data) >= at + 4:  # RFC 2784, RFC 2890
        flags, kind = struct.unpack_from(">HH", data, at)
        at += 4 + 4 * (bool(flags & 0x8000) + bool(flags & 0x2000) + bool(flags & 0x1000))
        return ip_of(1, data[at:]) if kind == 0x6558 else data[at:] if kind in (0x0800, 0x86DD) else b""
    if layer.proto == UDP and VXLAN in (layer.source[1], layer.target[1]):  # RFC 7348
        return ip_of(1, data[at + 16:])
    return b""


class Flow:
    """What a capture holds of one flow."""

    def __init__(self):
        self.packets = 0
        self.cut = 0     # of them cut by the capture
        self.starts = 0  # of TCP connections
        self.depths = set()  # 0: on the wire, 1: in a tunnel, ...


def flows(data):
    """{flow key: Flow} of a whole capture."""
    found = {}
    for link, _, frame, length in frames(data):
        for layer in layers(ip_of(link, frame), cut=len(frame) < length):
            flow = found.setdefault(layer.key, Flow())
            flow.packets += 1
            flow.depths.add(layer.depth)
            flow.cut += layer.cut
            flow.starts += layer.proto == TCP and layer.flags & 0x12 == 0x02
    return found
