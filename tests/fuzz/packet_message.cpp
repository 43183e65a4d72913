// Packet messages as the kernel puts them into a ring frame, up to the engine's entry.
#include "fuzz.h"
#include "switch/packets.h"
#include "world.h"

namespace {

constexpr unsigned int kPortid = 0x10001;

// Reads what it is given, as an engine may: the length counts the attribute's header.
void engineEntry(const capture_pkt *pkt, const timeval *) {
    if (!pkt->data) {
        FUZZ_CHECK(pkt->len == 0);
        return;
    }
    FUZZ_CHECK(pkt->len >= 4);
    static volatile uint8_t seen;
    for (uint64_t i = 0; i + 4 < pkt->len; i++) seen = seen ^ pkt->data[i];
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::makeWorld();
    amEngineGate.lock();
    process_pktptr = engineEntry;
    amEngineGate.unlock();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::ExactCopy message(data, size, alignof(nlmsghdr));  // receive buffers end so
    amEngineEnter();
    const int result = am::runMessages(message.data(), size, kPortid, packet_cb);
    amEngineLeave();
    FUZZ_CHECK(result >= -1 && result <= 1);
    return 0;
}
