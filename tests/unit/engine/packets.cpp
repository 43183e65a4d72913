#include "packets.h"

#include <utility>

Bytes joined(Bytes first, const Bytes &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

void putWord(Bytes &bytes, size_t at, size_t value) {
    bytes[at] = static_cast<uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<uint8_t>(value);
}

Bytes udp(uint16_t srcPort, uint16_t dstPort, const Bytes &payload) {
    Bytes bytes(8);
    putWord(bytes, 0, srcPort);
    putWord(bytes, 2, dstPort);
    putWord(bytes, 4, 8 + payload.size());
    return joined(bytes, payload);
}

Bytes tcp(uint16_t srcPort, uint16_t dstPort, uint8_t flags) {
    Bytes bytes(20);
    putWord(bytes, 0, srcPort);
    putWord(bytes, 2, dstPort);
    bytes[12] = 0x50;
    bytes[13] = flags;
    return bytes;
}

Bytes ipv4(uint8_t proto, const Bytes &payload, const Bytes &options) {
    Bytes bytes{0x45, 0, 0, 0, 0, 0, 0, 0, 64, proto, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2};
    bytes[0] = static_cast<uint8_t>(0x45 + options.size() / 4);
    bytes = joined(joined(bytes, options), payload);
    putWord(bytes, 2, bytes.size());
    return bytes;
}

Bytes ipv6(uint8_t next, const Bytes &payload) {
    Bytes bytes(40);
    bytes[0] = 0x60;
    putWord(bytes, 4, payload.size());
    bytes[6] = next;
    bytes[7] = 64;
    bytes[8] = bytes[24] = 0xfd;
    bytes[23] = 1;
    bytes[39] = 2;
    return joined(bytes, payload);
}

Bytes answer(Bytes bytes) {
    const bool v4 = bytes[0] >> 4 == 4;
    const size_t address = v4 ? 12 : 8, size = v4 ? 4 : 16, ports = v4 ? 20 : 40;
    for (size_t i = 0; i < size; i++) std::swap(bytes[address + i], bytes[address + size + i]);
    for (size_t i = 0; i < 2; i++) std::swap(bytes[ports + i], bytes[ports + 2 + i]);
    return bytes;
}
