// Packets made up on the spot: many distinct flows without a file.
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "packet_source.h"

namespace dpimod {
namespace {

void putBe16(uint8_t *to, unsigned value) {
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

void putBe32(uint8_t *to, uint64_t value) {
    putBe16(to, static_cast<unsigned>(value >> 16 & 0xffff));
    putBe16(to + 2, static_cast<unsigned>(value & 0xffff));
}

// RFC 1071 over a header of 16-bit words.
unsigned checksum(const uint8_t *header, size_t size) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < size; i += 2) sum += static_cast<uint32_t>(header[i] << 8 | header[i + 1]);
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return ~sum & 0xffff;
}

class Generator : public PacketSource {
  public:
    explicit Generator(const GeneratorSettings &settings)
        : settings_(settings), buffer_(40 + 20 + settings.payload) {}

    Next next(ByteView &ip, InputCounters &counters) override {
        if (settings_.packets != 0 && sent_ == settings_.packets) return Next::end;
        const uint64_t index = sent_ % settings_.flows, round = sent_ / settings_.flows;
        const bool lastRound = settings_.packets != 0 && sent_ + settings_.flows >= settings_.packets;
        ++sent_;
        ++counters.frames;
        const uint64_t flow = settings_.firstFlow + index;
        const bool v6 = settings_.family == "6" || (settings_.family == "both" && flow % 2 == 1);
        const bool tcp = settings_.proto == "tcp" || (settings_.proto == "both" && flow / 2 % 2 == 1);
        const uint16_t port = settings_.ports[flow % settings_.ports.size()];
        uint8_t *transport = v6 ? header6(flow, tcp) : header4(flow, tcp);
        putBe16(transport, static_cast<unsigned>(32768 + flow % 28000));
        putBe16(transport + 2, port);
        if (tcp) {
            putBe32(transport + 4, round + 1);  // sequence number
            std::memset(transport + 8, 0, 12);
            transport[12] = 5 << 4;
            transport[13] = round == 0 ? 2 : settings_.close && lastRound ? 4 : 16;  // SYN, RST, ACK
            putBe16(transport + 14, 65535);
        } else {
            putBe16(transport + 4, static_cast<unsigned>(8 + settings_.payload));
            putBe16(transport + 6, 0);
        }
        const auto start = static_cast<size_t>(transport - buffer_.data());
        ip = ByteView(buffer_).first(start + (tcp ? 20 : 8) + settings_.payload);
        return Next::packet;
    }

  private:
    uint8_t *header4(uint64_t flow, bool tcp) {
        uint8_t *p = buffer_.data();
        const size_t length = 20 + (tcp ? 20 : 8) + settings_.payload;
        std::memset(p, 0, 20);
        p[0] = 0x45;
        putBe16(p + 2, static_cast<unsigned>(length));
        p[8] = 64;
        p[9] = tcp ? IPPROTO_TCP : IPPROTO_UDP;
        putBe32(p + 12, 0x0a000000 | (flow & 0xffffff));       // 10.0.0.0/8
        putBe32(p + 16, 0xc6120000 | (flow >> 24 & 0x1ffff));  // 198.18.0.0/15, RFC 2544
        putBe16(p + 10, checksum(p, 20));
        return p + 20;
    }
    uint8_t *header6(uint64_t flow, bool tcp) {
        uint8_t *p = buffer_.data();
        std::memset(p, 0, 40);
        p[0] = 0x60;
        putBe16(p + 4, static_cast<unsigned>((tcp ? 20 : 8) + settings_.payload));
        p[6] = tcp ? IPPROTO_TCP : IPPROTO_UDP;
        p[7] = 64;
        p[8] = p[24] = 0xfd;  // RFC 4193
        putBe32(p + 16, flow >> 32);
        putBe32(p + 20, flow);
        p[39] = 1;
        return p + 40;
    }

    GeneratorSettings settings_;
    Bytes buffer_;
    uint64_t sent_ = 0;
};

bool parseNumber(std::string_view text, uint64_t limit, uint64_t &value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() && value <= limit;
}

bool parsePorts(std::string_view text, std::vector<uint16_t> &ports) {
    ports.clear();
    while (true) {
        const size_t comma = text.find(',');
        uint64_t port = 0;
        if (!parseNumber(text.substr(0, comma), UINT16_MAX, port)) return false;
        ports.push_back(static_cast<uint16_t>(port));
        if (comma == std::string_view::npos) return true;
        text.remove_prefix(comma + 1);
    }
}

bool setOne(GeneratorSettings &settings, std::string_view name, std::string_view value) {
    uint64_t number = 0;
    if (name == "flows") return parseNumber(value, 1ULL << 32, settings.flows) && settings.flows > 0;
    if (name == "packets") return parseNumber(value, UINT64_MAX, settings.packets);
    if (name == "first") return parseNumber(value, 1ULL << 32, settings.firstFlow);
    if (name == "family") {
        settings.family = value;
        return value == "4" || value == "6" || value == "both";
    }
    if (name == "proto") {
        settings.proto = value;
        return value == "udp" || value == "tcp" || value == "both";
    }
    if (name == "ports") return parsePorts(value, settings.ports);
    if (name == "payload") {
        if (!parseNumber(value, 65000, number)) return false;
        settings.payload = number;
        return true;
    }
    if (name == "close") {
        settings.close = value == "1";
        return value == "1" || value == "0";
    }
    return false;
}

}  // namespace

bool parseGenerator(const std::vector<std::string> &words, GeneratorSettings &settings, std::string &error) {
    for (const std::string &word : words) {
        const size_t equals = word.find('=');
        if (equals == std::string::npos || !setOne(settings, std::string_view(word).substr(0, equals),
                                                   std::string_view(word).substr(equals + 1))) {
            error = "bad setting '" + word + "'";
            return false;
        }
    }
    return true;
}

std::unique_ptr<PacketSource> openGenerator(const GeneratorSettings &settings) {
    return std::make_unique<Generator>(settings);
}

}  // namespace dpimod
