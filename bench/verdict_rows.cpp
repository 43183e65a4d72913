// A verdict of the engine: message to the kernel and, for an enforced application, the flow's record.
#include <sys/socket.h>

#include <array>
#include <memory>

#include "records/verdict.h"
#include "rows.h"
#include "switch/protocol.h"
#include "switch/result.h"
#include "switch/sockets.h"
#include "world.h"

namespace bench {
namespace {

constexpr size_t kBatch = 128;

// The flows of a stretch and the bytes that their verdicts put on the wire.
struct Batch {
    std::array<capture_flow_info, kBatch> flows;
    alignas(nlmsghdr) char messages[kBatch][am::kResultSize];

    void refill(uint32_t appId) {
        for (size_t i = 0; i < kBatch; i++) {
            flows[i] = freshFlow(appId);
            memset(messages[i], 0, sizeof messages[i]);
            const AmActiveApp *app = amActiveApp(appId);
            am::buildResultMessage(messages[i], flows[i], app->isEnforcement, app);
        }
    }
};

Row verdict(std::string what, const Limits &limits, uint32_t appId, size_t held) {
    const auto batch = std::make_shared<Batch>();
    const auto prepare = [batch, appId, held] {
        drainControl();
        if (held != 0) holdFlows(held);
        batch->refill(appId);
    };
    return {
        .what = std::move(what),
        .reference = "sendto of the same bytes",
        .limits = limits,
        .bare = {prepare,
                 [batch] {
                     const int fd = mnl_socket_get_fd(control_nls);
                     for (size_t i = 0; i < kBatch; i++) {
                         const auto *message = reinterpret_cast<const nlmsghdr *>(batch->messages[i]);
                         keep(sendto(fd, message, message->nlmsg_len, 0, nullptr, 0));
                     }
                     return kBatch;
                 }},
        .ours = {prepare,
                 [batch] {
                     for (const capture_flow_info &flow : batch->flows) keep(am_capture_flow_func(&flow));
                     return kBatch;
                 }},
    };
}

}  // namespace

void addVerdictRows(Table &table) {
    table.add(verdict("verdict, not enforced", {.goal = 1.07}, kPlainApp, 0));
    table.add(verdict("verdict, enforced, 1e3 flows held", {.goal = 1.30}, kEnforcedApp, 1'000));
    table.add(verdict("verdict, enforced, 1e4 flows held", {.goal = 1.40}, kEnforcedApp, 10'000));
    table.add(verdict("verdict, enforced, 1e5 flows held", {.goal = 1.60}, kEnforcedApp, 100'000));
}

}  // namespace bench
