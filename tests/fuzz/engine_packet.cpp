// Packets as the daemon hands them to an engine: several in turn, each preceded by its length.
#include <algorithm>

#include "engine_api.h"
#include "fuzz.h"

namespace {

int takeReport(const capture_flow_info *info) {
    FUZZ_CHECK(info->ipproto == FLOW_IP_TYPE_IPV4 || info->ipproto == FLOW_IP_TYPE_IPV6);
    FUZZ_CHECK(info->src_port <= 65535 && info->dst_port <= 65535 && info->proto <= 255);
    FUZZ_CHECK(memchr(info->app_name, 0, sizeof(info->app_name)));
    return 0;
}

}  // namespace

extern "C" {
__attribute__((visibility("default"))) int (*capture_flow_func)(const capture_flow_info *) = takeReport;
}

namespace {

timeval when{1'700'000'000, 0};

#ifdef ENGINE_STARTS_SLOWLY
// Started once; between inputs, time passes until all flows have expired.
void start() {
    static const bool started = (test_capture(), true);
    (void)started;
}
void stop(size_t packets) {
    constexpr capture_pkt kEmpty{nullptr, 0};
    when.tv_sec += 3600;
    for (size_t i = 0; i < packets; i++) pcap_packet(&kEmpty, &when);
}
#else
void start() {
    test_capture();
}
void stop(size_t) {
    test_capture_exit();
}
#endif

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    size_t packets = 0;
    start();
    for (; size >= 2; packets++) {
        const size_t high = fuzz::takeByte(data, size);
        const size_t length = std::min(high << 8 | fuzz::takeByte(data, size), size);
        fuzz::ExactCopy packet(data, length);
        capture_pkt pkt{packet.data(), length + 4};
        if (!length) pkt = {nullptr, 0};
        pcap_packet(&pkt, &when);
        data += length;
        size -= length;
        when.tv_sec++;
    }
    stop(packets);
    return 0;
}
