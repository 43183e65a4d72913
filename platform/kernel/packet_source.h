// Where mirrored packets come from: capture files, a live interface, or a generator.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "wire.h"

namespace dpimod {

struct InputCounters {
    uint64_t frames = 0;        // read from the input
    uint64_t notIp = 0;         // dropped: no IPv4 or IPv6
    uint64_t tooShort = 0;      // dropped: ends before its IP header does
    uint64_t wrongVersion = 0;  // dropped: link header and IP version disagree
    uint64_t cut = 0;           // passed on with fewer bytes than were on the wire
    uint64_t lostBefore = 0;    // live interface: dropped before they were read
};

class PacketSource {
  public:
    enum class Next { packet, later, end };
    virtual ~PacketSource() = default;
    // The next IP packet; the bytes stay valid until the next call.  `later`: a live interface has none now.
    virtual Next next(ByteView &ip, InputCounters &counters) = 0;
    // Descriptor to wait on after `later`, -1 if there is none.
    [[nodiscard]] virtual int fd() const { return -1; }
    // What happened before packets were read.
    virtual void finish(InputCounters &) {}
};

// Reads pcap or pcapng files one after the other, `loops` times (0: for ever).  All are opened once to begin
// with, so that a missing file or a link type that carries no IP is found before anything is mirrored. Null
// with a message in `error`.
std::unique_ptr<PacketSource> openFiles(const std::vector<std::string> &paths, uint64_t loops,
                                        std::string &error);
std::unique_ptr<PacketSource> openInterface(const std::string &name, std::string &error);

// Packets of `flows` distinct flows in turn, `packets` in all (0: for ever).  The destination port of flow i
// is ports[i % ports.size()]; source address and port follow from i.
struct GeneratorSettings {
    uint64_t flows = 100, packets = 1000;
    uint64_t firstFlow = 0;     // number of the first flow: other numbers give other flows
    std::string family = "4";   // "4", "6" or "both" (alternating)
    std::string proto = "udp";  // "udp", "tcp" or "both" (alternating in pairs)
    std::vector<uint16_t> ports{80, 443, 53, 22, 5060};
    size_t payload = 64;  // bytes after the UDP or TCP header
    bool close = false;   // TCP flows end with RST in their last round
};

// Parses "flows=10 packets=100 family=both ports=80,443 ..."; unknown words and bad values are named in
// `error`.
bool parseGenerator(const std::vector<std::string> &words, GeneratorSettings &settings, std::string &error);
std::unique_ptr<PacketSource> openGenerator(const GeneratorSettings &settings);

}  // namespace dpimod
