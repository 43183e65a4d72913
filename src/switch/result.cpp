#include "switch/result.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/counts.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/text.h"
#include "flows/enf_flow_db.h"
#include "flows/kernel_side.h"
#include "switch/protocol.h"
#include "switch/side_counts.h"
#include "switch/sockets.h"

namespace {

constexpr size_t attrSize(size_t payload) {
    return MNL_ALIGN(MNL_ATTR_HDRLEN + payload);
}
static_assert(MNL_NLMSG_HDRLEN + kFamilyHeaderSize + attrSize(1) + 2 * attrSize(sizeof(in6_addr)) +
                  attrSize(1) + 2 * attrSize(2) + attrSize(1) + attrSize(4) + attrSize(kAppNameSize) +
                  attrSize(1) + attrSize(kGroupNameSize) <=
              am::kResultSize);

// Appends attributes to the message that a zero-filled buffer begins with.  libmnl's own calls cost more than
// all else that a verdict does in user space; with sizes that the compiler knows these come to a few stores.
class Attributes {
  public:
    explicit Attributes(nlmsghdr *message)
        : message_(message), end_(reinterpret_cast<char *>(message) + message->nlmsg_len) {}

    template <class Value>
    void put(uint16_t type, const Value &value) {
        putBytes(type, &value, sizeof value);
    }
    void put(uint16_t type, std::string_view text) { putBytes(type, text.data(), text.size()); }

    nlmsghdr *finish() {
        message_->nlmsg_len = static_cast<uint32_t>(end_ - reinterpret_cast<char *>(message_));
        return message_;
    }

  private:
    void putBytes(uint16_t type, const void *bytes, size_t size) {
        const nlattr header{static_cast<uint16_t>(MNL_ATTR_HDRLEN + size), type};
        memcpy(end_, &header, sizeof header);
        memcpy(end_ + MNL_ATTR_HDRLEN, bytes, size);
        end_ += attrSize(size);
    }

    nlmsghdr *message_;
    char *end_;
};

constexpr char kProgressLine[] = "%s:%d amSendResultMessage6 \n";
constexpr char kProgressName[] = "amSendResultMessage6";

// All that differs between the families.  Only the IPv6 one writes progress lines.
struct V4 {
    static constexpr uint8_t kFamily = AF_INET;
    static constexpr uint8_t kIpType = AM_IP_TYPE_IPV4;
    static void putAddresses(Attributes &attributes, const capture_flow_info &info) {
        attributes.put(DPI_RS_A_FIRST_IPV4, info.src_ip);
        attributes.put(DPI_RS_A_SECOND_IPV4, info.dst_ip);
    }
    static void logBuilt(const capture_flow_info &, unsigned, const AmActiveApp *) {}
    static void logFailed() {}
    static void logSent(const capture_flow_info &, const AmActiveApp *) {}  // the flow database does
    static int record(const capture_flow_info *info) REQUIRES_SHARED(amModelLock) {
        return amUpdateEnfFlowDb(info);
    }
    static void noteUntold(const capture_flow_info &info) { am::noteUntold4(info); }
};

struct V6 {
    static constexpr uint8_t kFamily = AF_INET6;
    static constexpr uint8_t kIpType = AM_IP_TYPE_IPV6;
    static void putAddresses(Attributes &attributes, const capture_flow_info &info) {
        attributes.put(DPI_RS_A_FIRST_IPV6, info.src_ip6);
        attributes.put(DPI_RS_A_SECOND_IPV6, info.dst_ip6);
    }
    static void logBuilt(const capture_flow_info &info, unsigned match, const AmActiveApp *app)
        REQUIRES_SHARED(amModelLock) {
        if (!amLogWanted(AM_LOG_DEBUG)) return;
        amLog(AM_LOG_DEBUG, kProgressLine, kProgressName, __LINE__);
        amLog(AM_LOG_DEBUG, "amSendResultMessage6 DPI_RS_A_FIRST_IPV6 \n");
        amLog(AM_LOG_DEBUG, kProgressLine, kProgressName, __LINE__);
        if (match == 1)
            amLog(AM_LOG_DEBUG, "Enforcement: appid: %d, name: %s match: %d \n", info.app_id,
                  am::appNameText(app).text, match);
    }
    static void logFailed() { amLog(AM_LOG_DEBUG, kProgressLine, kProgressName, __LINE__); }
    static void logSent(const capture_flow_info &info, const AmActiveApp *app) REQUIRES_SHARED(amModelLock) {
        if (flow_debug.load(std::memory_order_relaxed) == 0) return;
        amLog(AM_LOG_FLOW,
              "amSendResultMessage6: %s, secnd_ip: %s, fstPort: %u, scndPort: %u, l4 proto: %u App-Id %d "
              "App-Name "
              "%s\n",
              am::addressText(info.src_ip6).text, am::addressText(info.dst_ip6).text, info.src_port & 0xffffU,
              info.dst_port & 0xffffU, info.proto & 0xffU, info.app_id, am::appNameText(app).text);
    }
    static int record(const capture_flow_info *info) REQUIRES_SHARED(amModelLock) {
        return amUpdateEnfFlowDb6(info);
    }
    static void noteUntold(const capture_flow_info &info) { am::noteUntold6(info); }
};

uint8_t lowByte(uint32_t word) {
    return static_cast<uint8_t>(word);
}

uint16_t wirePort(uint32_t port) {
    return htons(static_cast<uint16_t>(port));
}

constexpr AmActiveApp kNoApp{};

template <class Ip>
const nlmsghdr *build(void *buffer, const capture_flow_info &info, unsigned match, const AmActiveApp *app)
    REQUIRES_SHARED(amModelLock) {
    Attributes attributes(amNlmsgPutDpiHeader(buffer, DPI_MSG_RESULT, Ip::kFamily));
    attributes.put(DPI_RS_A_IP_TYPE, Ip::kIpType);
    Ip::putAddresses(attributes, info);
    attributes.put(DPI_RS_A_PROTO, lowByte(info.proto));
    attributes.put(DPI_RS_A_FIRST_PORT, wirePort(info.src_port));
    attributes.put(DPI_RS_A_SECOND_PORT, wirePort(info.dst_port));
    attributes.put(DPI_RS_A_MATCH, lowByte(match));
    if (match != 1) return attributes.finish();

    const AmActiveApp &entry = app ? *app : kNoApp;
    attributes.put(DPI_RS_A_APP_ID, info.app_id);
    attributes.put(DPI_RS_A_APP_NAME, am::fieldText(entry.appName));
    attributes.put(DPI_RS_A_STATE_CLEAR, uint8_t{info.flow_state == 0});
    if (entry.isPartOfGroup) attributes.put(DPI_RS_A_GROUP_NAME, am::fieldText(entry.grpName));
    return attributes.finish();
}

template <class Ip>
int sendResult(const capture_flow_info *info, unsigned match) REQUIRES_SHARED(amModelLock) {
    // Zero-filled because the padding of the attributes goes out too.
    alignas(nlmsghdr) char buffer[am::kResultSize] = {};
    const AmActiveApp *app = amActiveApp(info->app_id);
    const nlmsghdr *message = build<Ip>(buffer, *info, match, app);
    Ip::logBuilt(*info, match, app);
    const bool sent = am::sendMessage(control_nls, message) >= 1;
    if (!sent) {
        const int error = errno;
        Ip::logFailed();
        errno = error;
        perror("packet_cb: send result message");
        am::countUp(am::sideCounts.verdictsNotSent);
    }
    Ip::logSent(*info, app);
    if (match == 1) {
        (void)Ip::record(info);
        if (!sent) Ip::noteUntold(*info);
    }
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
