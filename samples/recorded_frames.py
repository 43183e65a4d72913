"""Captures made from a recorded one: its packets, put into tunnels (no kernel here has them all)."""
import ipaddress
import struct

import capture_packets
from record_captures import recipe

OUTER4 = ("203.0.113.1", "203.0.113.2")
OUTER6 = ("2001:db8:f::1", "2001:db8:f::2")
ETHERNET = bytes.fromhex("020000000002020000000001")


def checksum(data):
    total = sum(struct.unpack(f">{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def ip4(proto, payload, ends):
    source, target = (ipaddress.IPv4Address(end).packed for end in ends)
    head = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(payload), 1, 0, 64, proto, 0) + source + target
    return head[:10] + struct.pack(">H", checksum(head)) + head[12:] + payload


def ip6(proto, payload, ends):
    source, target = (ipaddress.IPv6Address(end).packed for end in ends)
    return struct.pack(">IHBB", 6 << 28, len(payload), proto, 64) + source + target + payload


def kind(packet):
    return 0x0800 if packet[0] >> 4 == 4 else 0x86DD


def number(packet):
    return 4 if packet[0] >> 4 == 4 else 41


def ethernet(packet):
    return ETHERNET + struct.pack(">H", kind(packet)) + packet


def udp(ports, payload):
    return struct.pack(">HHHH", *ports, 8 + len(payload), 0) + payload


# name: (addresses of the tunnel's ends, what makes the outer packet of the inner one and those)
TUNNELS = {
    "ipip": (OUTER4, lambda packet, ends: ip4(number(packet), packet, ends)),  # RFC 2003, RFC 4213
    "ip6-in-ip6": (OUTER6, lambda packet, ends: ip6(number(packet), packet, ends)),  # RFC 2473
    "gre": (OUTER4, lambda packet, ends: ip4(47, struct.pack(">HH", 0, kind(packet)) + packet, ends)),
    "vxlan": (OUTER4, lambda packet, ends: ip4(17, udp(  # RFC 7348, network 5
        (49152, 4789), struct.pack(">II", 8 << 24, 5 << 8) + ethernet(packet)), ends)),
}


def write(path, packets):
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 1))
        for time, packet in packets:
            frame = ethernet(packet)
            out.write(struct.pack("<IIII", int(time), int(time % 1 * 1e6), len(frame), len(frame)) + frame)


def wrapped(frames, ends, wrap):
    """Packets go the way that they went inside."""
    for link, time, frame, _ in frames:
        packet = capture_packets.ip_of(link, frame)
        layer = next(capture_packets.layers(packet))
        back = layer.source[1] < layer.target[1]  # servers have the lower port
        yield time, wrap(packet, ends[::-1] if back else ends)


@recipe()
def tunnel(stage):
    stage.serve_udp(53, lambda query: query[:2] + b"\x81\x80" + query[4:6] + bytes(6) + query[12:])
    stage.serve_tcp(80, lambda connection: (connection.recv(512), connection.sendall(
        b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello")))
    with stage.recording(name="tunnel-inner") as path:
        for server in ("198.51.100.1", "2001:db8:2::1"):
            host = f"[{server}]" if ":" in server else server
            stage.client("dig", f"@{server}", "www.example.org", "A")
            stage.client("curl", "-sS", f"http://{host}/")
    frames = list(capture_packets.frames(path.read_bytes()))
    path.unlink()
    for name, (ends, wrap) in TUNNELS.items():
        write(stage.output / f"tunnel-{name}.pcap", list(wrapped(frames, ends, wrap)))
