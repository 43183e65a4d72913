// Statistics reports of the kernel: parsed, matched with the flow's record, queued.
#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>

#include "boost_flows.h"
#include "records/stats_report.h"
#include "rows.h"
#include "switch/protocol.h"
#include "switch/reports.h"
#include "switch/sockets.h"
#include "world.h"

namespace bench {
namespace {

constexpr size_t kReports = 180;  // of a stretch: a full queue would be flushed
constexpr size_t kHeld = 10'000;
constexpr uint16_t kStatsType = 23;  // not examined by the daemon
constexpr char kProfile[] = "default-profile";

using Attrs = std::array<const nlattr *, DPI_STA_R_A_QOS_POLICY_RULE + 1>;

struct Messages {
    unsigned perMessage;
    alignas(nlmsghdr) char bytes[kReports][kMessageSize];

    size_t count() const { return kReports / perMessage; }

    void refill() {
        holdFlows(kHeld);
        ft4CommonIndex = 0;
        for (size_t i = 0; i < count(); i++) {
            memset(bytes[i], 0, sizeof bytes[i]);
            nlmsghdr *message = amNlmsgPutDpiHeader(bytes[i], kStatsType);
            mnl_attr_put_u16(message, DPI_STA_A_REPORT_NUM, static_cast<uint16_t>(perMessage));
            for (unsigned n = 0; n < perMessage; n++) putReport(message);
        }
    }

    static void putReport(nlmsghdr *message) {
        const AmEnfKey4 &key = heldKeys()[anyNumber() % kHeld];
        nlattr *report = mnl_attr_nest_start(message, DPI_STA_A_REPORT);
        mnl_attr_put_u8(message, DPI_STA_R_A_IP_TYPE, AM_IP_TYPE_IPV4);
        mnl_attr_put_u32(message, DPI_STA_R_A_FIRST_IPV4, key.fst_ip);
        mnl_attr_put_u32(message, DPI_STA_R_A_SECOND_IPV4, key.secnd_ip);
        mnl_attr_put_u8(message, DPI_STA_R_A_PROTO, key.proto);
        mnl_attr_put_u16(message, DPI_STA_R_A_FIRST_PORT, htons(key.fstPort));
        mnl_attr_put_u16(message, DPI_STA_R_A_SECOND_PORT, htons(key.scndPort));
        mnl_attr_put_u8(message, DPI_STA_R_A_AGED, 0);
        mnl_attr_put_u32(message, DPI_STA_R_A_BYTE_CNT, 1500);
        mnl_attr_put_u32(message, DPI_STA_R_A_PKT_CNT, 3);
        mnl_attr_put_str(message, DPI_STA_R_A_ACCESS_PROFILE, kProfile);
        mnl_attr_nest_end(message, report);
    }
};

// The reference: libmnl's own idiom, a set of the same flows, the same queue entries.
struct BareFlows {
    std::vector<std::unique_ptr<BoostFlow>> flows;
    BoostFlows set;  // lets go of the flows first
    AmEnfKey4 first{};

    void hold() {
        if (!flows.empty() && memcmp(&first, heldKeys().data(), sizeof first) == 0) return;
        set.clear();
        flows.clear();
        for (const AmEnfKey4 &key : heldKeys()) {
            flows.push_back(std::make_unique<BoostFlow>());
            flows.back()->key = key;
            set.insert(*flows.back());
        }
        first = heldKeys().front();
    }
};
BareFlows bareFlows;
AmFt4QueueEntry bareQueue[kReportQueueSize];
size_t bareIndex = 0;

constexpr mnl_attr_data_type kTypes[] = {
    MNL_TYPE_UNSPEC, MNL_TYPE_U8,  MNL_TYPE_U32,    MNL_TYPE_STRING, MNL_TYPE_U32,
    MNL_TYPE_STRING, MNL_TYPE_U8,  MNL_TYPE_U16,    MNL_TYPE_U16,    MNL_TYPE_U8,
    MNL_TYPE_U32,    MNL_TYPE_U32, MNL_TYPE_STRING, MNL_TYPE_STRING,
};

int bareReportAttr(const nlattr *attr, void *table) {
    if (mnl_attr_type_valid(attr, DPI_STA_R_A_QOS_POLICY_RULE) < 0) return MNL_CB_OK;
    const uint16_t type = mnl_attr_get_type(attr);
    if (mnl_attr_validate(attr, kTypes[type]) < 0) return MNL_CB_ERROR;
    (*static_cast<Attrs *>(table))[type] = attr;
    return MNL_CB_OK;
}

void bareReport(const Attrs &attrs) {
    AmEnfKey4 key{};
    key.fst_ip = mnl_attr_get_u32(attrs[DPI_STA_R_A_FIRST_IPV4]);
    key.secnd_ip = mnl_attr_get_u32(attrs[DPI_STA_R_A_SECOND_IPV4]);
    key.fstPort = ntohs(mnl_attr_get_u16(attrs[DPI_STA_R_A_FIRST_PORT]));
    key.scndPort = ntohs(mnl_attr_get_u16(attrs[DPI_STA_R_A_SECOND_PORT]));
    key.proto = mnl_attr_get_u8(attrs[DPI_STA_R_A_PROTO]);
    const auto found = bareFlows.set.find(key);
    if (found == bareFlows.set.end()) return;
    found->aged = mnl_attr_get_u8(attrs[DPI_STA_R_A_AGED]);
    AmFt4QueueEntry &entry = bareQueue[bareIndex++];
    entry.fst_ip = key.fst_ip;
    entry.secnd_ip = key.secnd_ip;
    entry.fstPort = key.fstPort;
    entry.scndPort = key.scndPort;
    entry.proto = key.proto;
    entry.aged = found->aged;
    entry.byteCnt = mnl_attr_get_u32(attrs[DPI_STA_R_A_BYTE_CNT]);
    entry.pktCnt = mnl_attr_get_u32(attrs[DPI_STA_R_A_PKT_CNT]);
    entry.appId = found->appId;
    entry.startTime = found->startTime;
    const nlattr *profile = attrs[DPI_STA_R_A_ACCESS_PROFILE];
    const size_t length =
        std::min<size_t>(mnl_attr_get_payload_len(profile), sizeof entry.access_profile - 1);
    memcpy(entry.access_profile, mnl_attr_get_payload(profile), length);
    entry.access_profile[length] = '\0';
}

int bareTopAttr(const nlattr *attr, void *count) {
    if (mnl_attr_get_type(attr) == DPI_STA_A_REPORT_NUM) {
        *static_cast<uint16_t *>(count) = mnl_attr_get_u16(attr);
        return MNL_CB_OK;
    }
    Attrs attrs{};
    if (mnl_attr_parse_nested(attr, bareReportAttr, &attrs) < 0) return MNL_CB_ERROR;
    bareReport(attrs);
    return MNL_CB_OK;
}

int bareMessage(const nlmsghdr *nlh, void *) {
    uint16_t count = 0;
    return mnl_attr_parse(nlh, kFamilyHeaderSize, bareTopAttr, &count);
}

uint32_t lengthOf(const char *message) {
    return reinterpret_cast<const nlmsghdr *>(message)->nlmsg_len;
}

Row reports(unsigned perMessage, const Limits &limits) {
    const auto messages = std::make_shared<Messages>();
    messages->perMessage = perMessage;
    return {
        .what = "report, " + std::to_string(perMessage) + " a message",
        .reference = "libmnl parse, boost find, entry",
        .limits = limits,
        .bare = {[messages] {
                     messages->refill();
                     bareFlows.hold();
                     bareIndex = 0;
                 },
                 [messages] {
                     for (size_t i = 0; i < messages->count(); i++)
                         keep(mnl_cb_run(messages->bytes[i], lengthOf(messages->bytes[i]), 0, control_portid,
                                         bareMessage, nullptr));
                     return kReports;
                 }},
        .ours = {[messages] { messages->refill(); },
                 [messages] {
                     for (size_t i = 0; i < messages->count(); i++)
                         keep(am::runMessages(messages->bytes[i], lengthOf(messages->bytes[i]),
                                              control_portid, stats_cb));
                     return kReports;
                 }},
    };
}

}  // namespace

Loop reportLoop(unsigned perMessage) {
    return reports(perMessage, {}).ours;
}

void addReportRows(Table &table) {
    table.add(reports(1, {.goal = 1.0}));
    table.add(reports(10, {.goal = 1.0}));
    table.add(reports(30, {.goal = 1.0}));
}

}  // namespace bench
