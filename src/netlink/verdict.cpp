#include "netlink/verdict.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>

#include "core/lock.h"
#include "core/log.h"
#include "core/text.h"
#include "netlink/enf_flow_db.h"
#include "netlink/protocol.h"
#include "netlink/sockets.h"
#include "records/mon_records.h"

namespace {

constexpr size_t attrSize(size_t payload) {
    return MNL_ALIGN(MNL_ATTR_HDRLEN + payload);
}
static_assert(MNL_NLMSG_HDRLEN + kFamilyHeaderSize + attrSize(1) + 2 * attrSize(sizeof(in6_addr)) +
                  attrSize(1) + 2 * attrSize(2) + attrSize(1) + attrSize(4) + attrSize(kAppNameSize) +
                  attrSize(1) + attrSize(kGroupNameSize) <=
              am::kResultSize);

constexpr char kProgressLine[] = "%s:%d amSendResultMessage6 \n";
constexpr char kProgressName[] = "amSendResultMessage6";

// All that differs between the families.  Only the IPv6 one writes progress lines.
struct V4 {
    static constexpr uint8_t kFamily = AF_INET;
    static constexpr uint8_t kIpType = AM_IP_TYPE_IPV4;
    static void putAddresses(nlmsghdr *message, const capture_flow_info &info) {
        mnl_attr_put_u32(message, DPI_RS_A_FIRST_IPV4, info.src_ip);
        mnl_attr_put_u32(message, DPI_RS_A_SECOND_IPV4, info.dst_ip);
    }
    static void logBuilt(const capture_flow_info &, unsigned, const AmActiveApp *) {}
    static void logFailed() {}
    static void logSent(const capture_flow_info &, const AmActiveApp *) {}  // the flow database does
    static int record(const capture_flow_info *info) { return amUpdateEnfFlowDb(info); }
};

struct V6 {
    static constexpr uint8_t kFamily = AF_INET6;
    static constexpr uint8_t kIpType = AM_IP_TYPE_IPV6;
    static void putAddresses(nlmsghdr *message, const capture_flow_info &info) {
        mnl_attr_put(message, DPI_RS_A_FIRST_IPV6, sizeof info.src_ip6, &info.src_ip6);
        mnl_attr_put(message, DPI_RS_A_SECOND_IPV6, sizeof info.dst_ip6, &info.dst_ip6);
    }
    static void logBuilt(const capture_flow_info &info, unsigned match, const AmActiveApp *app) {
        if (!amLogWanted(AM_LOG_DEBUG)) return;
        amLog(AM_LOG_DEBUG, kProgressLine, kProgressName, __LINE__);
        amLog(AM_LOG_DEBUG, "amSendResultMessage6 DPI_RS_A_FIRST_IPV6 \n");
        amLog(AM_LOG_DEBUG, kProgressLine, kProgressName, __LINE__);
        if (match == 1)
            amLog(AM_LOG_DEBUG, "Enforcement: appid: %d, name: %s match: %d \n", info.app_id,
                  am::appNameText(app).text, match);
    }
    static void logFailed() { amLog(AM_LOG_DEBUG, kProgressLine, kProgressName, __LINE__); }
    static void logSent(const capture_flow_info &info, const AmActiveApp *app) {
        if (flow_debug.load(std::memory_order_relaxed) == 0) return;
        amLog(AM_LOG_FLOW,
              "amSendResultMessage6: %s, secnd_ip: %s, fstPort: %u, scndPort: %u, l4 proto: %u App-Id %d "
              "App-Name "
              "%s\n",
              am::addressText(info.src_ip6).text, am::addressText(info.dst_ip6).text, info.src_port & 0xffffU,
              info.dst_port & 0xffffU, info.proto & 0xffU, info.app_id, am::appNameText(app).text);
    }
    static int record(const capture_flow_info *info) { return amUpdateEnfFlowDb6(info); }
};

template <size_t N>
void putName(nlmsghdr *message, uint16_t type, const char (&field)[N]) {
    const std::string_view name = am::fieldText(field);
    mnl_attr_put(message, type, name.size(), name.data());
}

uint16_t wirePort(uint32_t port) {
    return htons(static_cast<uint16_t>(port));
}

template <class Ip>
const nlmsghdr *build(void *buffer, const capture_flow_info &info, unsigned match, const AmActiveApp *app) {
    nlmsghdr *message = amNlmsgPutDpiHeader(buffer, DPI_MSG_RESULT, Ip::kFamily);
    mnl_attr_put_u8(message, DPI_RS_A_IP_TYPE, Ip::kIpType);
    Ip::putAddresses(message, info);
    mnl_attr_put_u8(message, DPI_RS_A_PROTO, static_cast<uint8_t>(info.proto));
    mnl_attr_put_u16(message, DPI_RS_A_FIRST_PORT, wirePort(info.src_port));
    mnl_attr_put_u16(message, DPI_RS_A_SECOND_PORT, wirePort(info.dst_port));
    mnl_attr_put_u8(message, DPI_RS_A_MATCH, static_cast<uint8_t>(match));
    if (match != 1) return message;

    static constexpr AmActiveApp kNoApp{};
    const AmActiveApp &entry = app ? *app : kNoApp;
    mnl_attr_put_u32(message, DPI_RS_A_APP_ID, info.app_id);
    putName(message, DPI_RS_A_APP_NAME, entry.appName);
    mnl_attr_put_u8(message, DPI_RS_A_STATE_CLEAR, info.flow_state == 0);
    if (entry.isPartOfGroup) putName(message, DPI_RS_A_GROUP_NAME, entry.grpName);
    return message;
}

template <class Ip>
int sendResult(const capture_flow_info *info, unsigned match) {
    // Zero-filled because the padding of the attributes goes out too.
    alignas(nlmsghdr) char buffer[am::kResultSize] = {};
    const AmActiveApp *app = amActiveApp(info->app_id);
    const nlmsghdr *message = build<Ip>(buffer, *info, match, app);
    Ip::logBuilt(*info, match, app);
    if (am::sendMessage(control_nls, message) < 1) {
        const int error = errno;
        Ip::logFailed();
        errno = error;
        perror("packet_cb: send result message");
    }
    Ip::logSent(*info, app);
    if (match == 1) (void)Ip::record(info);
    return 1;
}

}  // namespace

namespace am {

const nlmsghdr *buildResultMessage(void *buffer, const capture_flow_info &info, unsigned match,
                                   const AmActiveApp *app) {
    return build<V4>(buffer, info, match, app);
}

const nlmsghdr *buildResultMessage6(void *buffer, const capture_flow_info &info, unsigned match,
                                    const AmActiveApp *app) {
    return build<V6>(buffer, info, match, app);
}

}  // namespace am

int amSendResultMessage(const capture_flow_info *info, unsigned match) {
    return sendResult<V4>(info, match);
}

int amSendResultMessage6(const capture_flow_info *info, unsigned match) {
    return sendResult<V6>(info, match);
}

int am_capture_flow_func(const capture_flow_info *info) {
    if (!info) return 0;
    // For the whole run: the entry stays where it is, the lists do not change halfway, and mirroring is not
    // switched off between the look at the state and the flow's record.
    const AmSharedGuard model(amModelLock);
    if (amAdminState.load(std::memory_order_relaxed) != 1) return 0;
    if (info->app_id >= amMaxAppIdCount) {
        amLog(AM_LOG_ERROR, "%s:%d Out of appid:%d\n", __func__, __LINE__, info->app_id);
        return 0;
    }
    AmActiveApp *app = amActiveApp(info->app_id);
    if (!app) return 0;

    const unsigned match = app->isEnforcement ? 1 : 0;
    switch (info->ipproto) {
        case AM_IP_TYPE_IPV6:
            amLog(AM_LOG_DEBUG, "%s:%d Capture flow Get package\n", __func__, __LINE__);
            amLog(AM_LOG_DEBUG, "%s:%d Capture flow Get package\n", __func__, __LINE__);
            (void)amSendResultMessage6(info, match);
            if (!app->isMonitoring) return 0;
            (void)amUpdateMonFlow6(info);
            break;
        case AM_IP_TYPE_IPV4:
            (void)amSendResultMessage(info, match);
            if (!app->isMonitoring) return 0;
            (void)amUpdateMonFlow(info);
            break;
        default:
            return 0;
    }
    app->monFlowCount.fetch_add(1, std::memory_order_relaxed);
    return 0;
}
