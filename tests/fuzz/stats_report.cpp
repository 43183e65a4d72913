// Statistics reports of the kernel, up to the queues of the enforcement records.  The first byte says how
// full the queues are already.
#include <arpa/inet.h>

#include "flows/enf_flow_db.h"
#include "flows/flow_info.h"
#include "fuzz.h"
#include "records/stats_report.h"
#include "switch/protocol.h"
#include "switch/reports.h"
#include "world.h"

namespace {

constexpr unsigned int kPortid = 1;

// The flows that the corpus reports on: 10.0.0.1 and fd00::1 port 40000 to 10.0.0.2 and fd00::2 port 443,
// TCP.
void makeFlows() {
    capture_flow_info info{};
    info.proto = IPPROTO_TCP;
    info.src_port = 40000;
    info.dst_port = 443;
    info.app_id = 1;
    info.ipproto = AM_IP_TYPE_IPV4;
    info.src_ip = htonl(0x0a000001);
    info.dst_ip = htonl(0x0a000002);
    amUpdateEnfFlowDb(&info);
    info.ipproto = AM_IP_TYPE_IPV6;
    inet_pton(AF_INET6, "fd00::1", &info.src_ip6);
    inet_pton(AF_INET6, "fd00::2", &info.dst_ip6);
    amUpdateEnfFlowDb6(&info);
}

template <class Entry>
void checkQueue(const Entry (&queue)[kReportQueueSize], int32_t filled) {
    FUZZ_CHECK(filled >= 0 && filled <= kReportQueueSize);
    for (const Entry &entry : queue) {
        FUZZ_CHECK(strnlen(entry.qos_policy_rule, sizeof(entry.qos_policy_rule)) <
                   sizeof(entry.qos_policy_rule));
        FUZZ_CHECK(strnlen(entry.access_profile, sizeof(entry.access_profile)) <
                   sizeof(entry.access_profile));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::makeWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ft4CommonIndex = ft6CommonIndex = fuzz::takeByte(data, size) % (kReportQueueSize + 1);
    makeFlows();
    fuzz::ExactCopy message(data, size, alignof(nlmsghdr));  // receive buffers end so
    const int result = am::runMessages(message.data(), size, kPortid, stats_cb);
    FUZZ_CHECK(result >= -1 && result <= 1);
    checkQueue(amnFt4Queue, ft4CommonIndex);
    checkQueue(amnFt6Queue, ft6CommonIndex);
    std::memset(static_cast<void *>(amnFt4Queue), 0, sizeof(amnFt4Queue));
    std::memset(static_cast<void *>(amnFt6Queue), 0, sizeof(amnFt6Queue));
    ft4CommonIndex = ft6CommonIndex = 0;
    fuzz::resetModel();
    return 0;
}
