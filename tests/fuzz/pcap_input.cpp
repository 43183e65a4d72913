// Capture files that the kernel module's stand-in plays, and what it strips from their packets.
#include "fuzz.h"
#include "packet_source.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr char kPath[] = "/tmp/input.pcap";
    fuzz::writeFile(kPath, data, size);
    std::string error;
    const auto source = dpimod::openFiles({kPath}, 1, error);
    FUZZ_CHECK(source || !error.empty());
    if (!source) return 0;
    dpimod::InputCounters counters;
    dpimod::ByteView ip;
    while (source->next(ip, counters) == dpimod::PacketSource::Next::packet) {
        FUZZ_CHECK(!ip.empty() && ip.size() <= dpimod::kMaxPacket);
        FUZZ_CHECK(ip[0] >> 4 == 4 || ip[0] >> 4 == 6);
        std::vector<uint8_t> message(dpimod::packetMessageSize(ip.size()));
        dpimod::writePacketMessage(message.data(), ip);
    }
    return 0;
}
