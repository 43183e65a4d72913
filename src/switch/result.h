// The engine's verdicts: the per-flow callback, and the result messages that it sends to the kernel.
//
// Threads: the callback runs on whatever thread the engine calls it from, mostly the capture thread, also on
// the event-loop thread from the engine's exit entry.  It holds amModelLock shared for its whole run.
#pragma once
#include <libmnl/libmnl.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "appmodel/app_pool.h"
#include "core/text.h"

// What the engine hands over, one per classified flow.  The layout is the engine's; integers in host order
// unless stated.
struct capture_flow_info {
    char app_name[256];  // the engine's own name; not used
    in6_addr src_ip6;
    in6_addr dst_ip6;
    uint8_t src_mac[6];  // not used
    uint8_t dst_mac[6];  // not used
    uint32_t vlan;       // not used
    uint32_t ipproto;    // AmIpType
    uint32_t src_ip;     // network order
    uint32_t dst_ip;     // network order
    uint32_t src_port;   // low 16 bits
    uint32_t dst_port;   // low 16 bits
    uint32_t proto;      // low 8 bits
    uint32_t unused;
    uint32_t app_id;      // index into the active application array
    uint32_t flow_state;  // tested for zero only
};
static_assert(sizeof(capture_flow_info) == 340 && offsetof(capture_flow_info, src_ip6) == 256 &&
              offsetof(capture_flow_info, vlan) == 300 && offsetof(capture_flow_info, src_ip) == 308 &&
              offsetof(capture_flow_info, proto) == 324 && offsetof(capture_flow_info, app_id) == 332 &&
              offsetof(capture_flow_info, flow_state) == 336);

// One result message for every flow of a known family and an id in range while mirroring is on; a record in
// the enforcement flow database, a monitoring entry and a count where the application's lists say so.  Always
// 0. Exported for engines that look the function up rather than the pointer capture_flow_func.
extern "C" __attribute__((visibility("default"))) int am_capture_flow_func(const capture_flow_info *info)
    EXCLUDES(amModelLock);

// Sends the result message and, with a match, records the flow, whether or not the send succeeded.  Always 1.
// Called by the callback, which has checked the id.
int amSendResultMessage(const capture_flow_info *info, unsigned match) REQUIRES_SHARED(amModelLock);
int amSendResultMessage6(const capture_flow_info *info, unsigned match) REQUIRES_SHARED(amModelLock);

namespace am {

// The application's name as log lines show it, terminated; empty without an entry.
struct AppNameText {
    char text[kAppNameSize + 1];
};
inline AppNameText appNameText(const AmActiveApp *app) REQUIRES_SHARED(amModelLock) {
    AppNameText out{};
    if (app) copyText(out.text, fieldText(app->appName));
    return out;
}

inline constexpr size_t kResultSize = 256;  // bytes: no result message is longer

// Build the message in a zero-filled, aligned buffer of kResultSize bytes.  `app` is looked at with a match
// only; names that are absent are sent empty.
const nlmsghdr *buildResultMessage(void *buffer, const capture_flow_info &info, unsigned match,
                                   const AmActiveApp *app) REQUIRES_SHARED(amModelLock);
const nlmsghdr *buildResultMessage6(void *buffer, const capture_flow_info &info, unsigned match,
                                    const AmActiveApp *app) REQUIRES_SHARED(amModelLock);

}  // namespace am
