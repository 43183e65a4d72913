"""Reads captures for tools that explain what others make of them: flows, tunnels, fragments, cut packets.

An own reader, because an explanation must not come from the code that is to be explained.  Takes pcap and pcapng
(draft-ietf-opsawg-pcapng) with Ethernet, PPP, Cisco HDLC, raw IP, null and Linux cooked links.
"""
import ipaddress
import struct

TCP, UDP, ICMP, ICMP6, GRE, SCTP, DCCP, UDP_LITE = 6, 17, 1, 58, 47, 132, 33, 136
FRAGMENT, AH, NO_NEXT_HEADER = 44, 51, 59
PORTS = {TCP, UDP, SCTP, DCCP, UDP_LITE}
IN_IP = {4, 41}
SMALLEST = {TCP: 20, UDP: 8}
EXTENSIONS = {0, 43, FRAGMENT, AH, 60, 135}
VXLAN = 4789
PCAP = {b"\xd4\xc3\xb2\xa1": ("<", 1e6), b"\xa1\xb2\xc3\xd4": (">", 1e6),
        b"\x4d\x3c\xb2\xa1": ("<", 1e9), b"\xa1\xb2\x3c\x4d": (">", 1e9)}


class Layer:
    """One IP header of a packet: 0 is the outermost, the next ones lie in tunnels."""

    def __init__(self, proto, source, target):
        self.proto, self.source, self.target, self.depth = proto, (source, 0), (target, 0), 0
        self.flags = self.payload = 0  # of TCP; what lies behind its header, in bytes
        self.fragment = self.later = self.cut = False
        self.odd = False  # lengths that contradict each other, or the packet
        self.authenticated = False  # IPv6 with AH in front of the protocol

    def connect(self, source, target):
        self.source, self.target = (self.source[0], source), (self.target[0], target)

    @property
    def key(self):
        return flow_key(self.proto, self.source, self.target)


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


ETHERNET, PPP, PPP_SERIAL, CISCO, LOOP, SLL, SLL2 = 1, 9, 50, 104, 108, 113, 276
OTHER_TYPE = "other type"  # IP by its first byte, but not by the type in front of it
WITHOUT_TYPE = {0: 4, LOOP: 4, 12: 0, 14: 0, 101: 0, 228: 0, 229: 0}


def ip_of(link, frame):
    """The bytes from the IP header on; empty if there is none."""
    around, packet = link_of(link, frame)
    return b"" if OTHER_TYPE in around else packet


def link_of(link, frame):
    """What lies around the IP header, in order, and the bytes from it on: ({"vlan", "vlan"}, b"E...")."""
    if link in WITHOUT_TYPE:
        return [], frame[WITHOUT_TYPE[link]:]
    if link == PPP_SERIAL and frame[:1] in (b"\x0f", b"\x8f"):
        link = CISCO
    if link in (PPP, PPP_SERIAL):
        form = "address" if frame.startswith(b"\xff\x03") else "short" if frame[:1] in (b"\x21", b"\x57") else "plain"
        return [form], inside_ppp(frame)
    at = {ETHERNET: 12, SLL: 14, SLL2: 0, CISCO: 2}.get(link)
    if at is None:
        return [], b""
    around = []
    kind = int.from_bytes(frame[at:at + 2], "big")
    at = 20 if link == SLL2 else at + 2
    while kind in (0x8100, 0x88A8, 0x9100):
        around.append("vlan")
        kind = int.from_bytes(frame[at + 2:at + 4], "big")
        at += 4
    if kind in (0x8847, 0x8848):  # RFC 3032
        while len(frame) >= at + 4 and not frame[at + 2] & 1:
            at += 4
        return around + ["mpls"], frame[at + 4:]
    if kind == 0x8864:  # RFC 2516
        return around + ["pppoe"], inside_ppp(frame[at + 6:])
    if kind <= 1500 and frame[at:at + 6] == b"\xaa\xaa\x03\0\0\0":  # RFC 1042
        around.append("snap")
        kind, at = int.from_bytes(frame[at + 6:at + 8], "big"), at + 8
    return around + [OTHER_TYPE] * (kind not in (0x0800, 0x86DD)), frame[at:]


def inside_ppp(frame):
    """RFC 1661, RFC 1662; a protocol number may be one byte."""
    if frame[:2] == b"\xff\x03":
        frame = frame[2:]
    size = 1 if frame[:1] and frame[0] & 1 else 2
    return frame[size:] if int.from_bytes(frame[:size], "big") in (0x21, 0x57) else b""


def layers(data, cut=False, depth=0):
    """The IP headers of a packet, outermost first."""
    while data and depth < 8:
        found = header4(data) if data[0] >> 4 == 4 else header6(data) if data[0] >> 4 == 6 else None
        if not found:
            return
        layer, at, total = found
        cut = cut or len(data) < total
        layer.cut, layer.depth = cut, depth
        layer.odd |= not cut and not at <= total <= len(data)
        data = data[:total] if total else data
        if layer.proto in PORTS and not layer.later:
            layer.odd |= len(data) < at + SMALLEST.get(layer.proto, 4) and not cut
            if len(data) >= at + 4:
                layer.connect(*struct.unpack_from(">HH", data, at))
        if layer.proto == TCP and not layer.later and len(data) > at + 13:
            layer.flags = data[at + 13]
            header = (data[at + 12] >> 4) * 4
            layer.odd |= not cut and not 20 <= header <= len(data) - at
            layer.payload = max(0, len(data) - at - header)
        if layer.proto == UDP and not layer.fragment and len(data) >= at + 8 and not cut:
            layer.odd |= int.from_bytes(data[at + 4:at + 6], "big") != len(data) - at
        yield layer
        # Some look for an IP header in a tunnel's later fragments as well.
        data = b"" if layer.later and layer.proto not in IN_IP else inside(layer, data, at)
        depth += 1


def header4(data):
    """(layer, where its payload begins, length that the header states), or None."""
    if len(data) < 20:
        return None
    word = int.from_bytes(data[6:8], "big")
    layer = Layer(data[9], *(str(ipaddress.IPv4Address(data[at:at + 4])) for at in (12, 16)))
    layer.fragment, layer.later = bool(word & 0x3FFF), bool(word & 0x1FFF)
    at = (data[0] & 15) * 4
    layer.odd = at < 20
    return layer, at, int.from_bytes(data[2:4], "big")


def header6(data):
    if len(data) < 40:
        return None
    layer = Layer(data[6], *(str(ipaddress.IPv6Address(data[at:at + 16])) for at in (8, 24)))
    payload = int.from_bytes(data[4:6], "big")
    layer.odd = not payload
    at = 40
    while layer.proto in EXTENSIONS and len(data) >= at + 8 and not layer.later:
        kind, layer.proto = layer.proto, data[at]
        layer.authenticated |= kind == AH
        if kind == FRAGMENT:
            word = int.from_bytes(data[at + 2:at + 4], "big")
            layer.fragment, layer.later = bool(word & 0xFFF9), bool(word & 0xFFF8)
        at += 8 if kind == FRAGMENT else (data[at + 1] + 2) * 4 if kind == AH else (data[at + 1] + 1) * 8
    return layer, at, payload and 40 + payload


def inside(layer, data, at):
    """What a tunnel carries, from its IP header on."""
    if layer.proto in IN_IP:
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
        self.cut = self.odd = self.damaged = self.authenticated = 0  # of them; damaged: cut or odd
        self.connections = 0  # one after the other, with the same ports
        self.after_end = 0  # packets with content that came after FIN both ways, or RST
        self.depths = set()  # 0: on the wire, 1: in a tunnel, ...
        self.links = set()  # (link type, what else is around the packet)
        self._ends = set()

    def add(self, layer, link, around):
        self.packets += 1
        self.depths.add(layer.depth)
        self.links.add((link, *around))
        self.cut += layer.cut
        self.odd += layer.odd
        self.damaged += layer.cut or layer.odd
        self.authenticated += layer.authenticated
        start = layer.proto == TCP and layer.flags & 0x12 == 0x02
        self.connections += start or self.packets == 1
        if start:
            self._ends.clear()
        self.after_end += len(self._ends) == 2 and layer.payload > 0
        if layer.flags & 0x01:
            self._ends.add(layer.source)
        if layer.flags & 0x04:
            self._ends |= {layer.source, layer.target}


class Capture:
    """flows: {flow key: Flow}; oddities: {(protocol, address, address): of "fragments", "odd", "AH"}, which packets
    between two hosts are of no flow, or of another one for some readers."""

    def __init__(self, data):
        self.flows, self.oddities = {}, {}
        for link, _, frame, length in frames(data):
            around, packet = link_of(link, frame)
            for layer in layers(packet, cut=len(frame) < length):
                self._add(layer, link, around)

    def _add(self, layer, link, around):
        kinds = {kind for kind, is_so in (("fragments", layer.later), ("odd", layer.odd), ("AH", layer.authenticated))
                 if is_so}
        if kinds:
            for proto in {layer.proto} | ({AH} if layer.authenticated else set()):
                self.oddities.setdefault(hosts(flow_key(proto, layer.source, layer.target)), set()).update(kinds)
        if not layer.later:
            self.flows.setdefault(layer.key, Flow()).add(layer, link, around)

    def oddities_of(self, key):
        return self.oddities.get(hosts(key), set())


def hosts(key):
    """A flow key without its ports."""
    return (key[0], *sorted(address for address, _ in key[1:]))
