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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    test_capture();
    timeval when{1'700'000'000, 0};
    while (size >= 2) {
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
    test_capture_exit();
    return 0;
}
