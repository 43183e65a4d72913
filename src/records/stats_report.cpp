#include "records/stats_report.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "core/text.h"
#include "records/enf_records.h"
#include "switch/protocol.h"

AmFt4QueueEntry amnFt4Queue[kReportQueueSize];
AmFt6QueueEntry amnFt6Queue[kReportQueueSize];
constinit int32_t ft4CommonIndex = 0;
constinit int32_t ft6CommonIndex = 0;
constinit uint64_t amReportsDropped = 0;

namespace {

constexpr uint16_t kMaxAttr = DPI_STA_R_A_QOS_POLICY_RULE;

// One report's attributes by number, null for one that is missing.
using ReportAttrs = std::array<const nlattr *, kMaxAttr + 1>;

// What a nested attribute must be, by its number.  The text types ask only that something is there.
constexpr mnl_attr_data_type kAttrTypes[] = {
    MNL_TYPE_UNSPEC, MNL_TYPE_U8,     MNL_TYPE_U32,    MNL_TYPE_STRING, MNL_TYPE_U32,
    MNL_TYPE_STRING, MNL_TYPE_U8,     MNL_TYPE_U16,    MNL_TYPE_U16,    MNL_TYPE_U8,
    MNL_TYPE_UNSPEC, MNL_TYPE_UNSPEC, MNL_TYPE_STRING, MNL_TYPE_STRING,
};
static_assert(sizeof kAttrTypes / sizeof *kAttrTypes == kMaxAttr + 1);

struct V4 {
    using Key = AmEnfKey4;
    using Entry = AmFt4QueueEntry;
    static constexpr DpiStaReportAttr kFirst = DPI_STA_R_A_FIRST_IPV4;
    static constexpr DpiStaReportAttr kSecond = DPI_STA_R_A_SECOND_IPV4;
    static constexpr const char *kOp = "stats_report_cb4";
    static Entry *queue() { return amnFt4Queue; }
    static int32_t &index() { return ft4CommonIndex; }
    static AmEnfFlow4 *search(const Key &key) REQUIRES(amEnfFlowLock) { return amSearchEnfFlowDb(&key); }
};

struct V6 {
    using Key = AmEnfKey6;
    using Entry = AmFt6QueueEntry;
    static constexpr DpiStaReportAttr kFirst = DPI_STA_R_A_FIRST_IPV6;
    static constexpr DpiStaReportAttr kSecond = DPI_STA_R_A_SECOND_IPV6;
    static constexpr const char *kOp = "stats_report_cb6";
    static Entry *queue() { return amnFt6Queue; }
    static int32_t &index() { return ft6CommonIndex; }
    static AmEnfFlow6 *search(const Key &key) REQUIRES(amEnfFlowLock) { return amSearchEnfFlowDb6(&key); }
};

// Whether an attribute holds a whole value of this size.  Its check lets shorter ones pass: they are as good
// as missing.
bool holds(const nlattr *attr, size_t size) {
    return attr && mnl_attr_get_payload_len(attr) >= size;
}

std::string_view textOf(const nlattr *attr) {
    const auto *text = static_cast<const char *>(mnl_attr_get_payload(attr));
    return {text, strnlen(text, mnl_attr_get_payload_len(attr))};
}

// The attribute's text may lack a terminator.
void logText(const char *format, const nlattr *attr) {
    const std::string_view text = textOf(attr);
    amLog(AM_LOG_STATS, format, static_cast<int>(text.size()), text.data());
}

template <class Ip>
bool complete(const ReportAttrs &attrs) {
    for (const DpiStaReportAttr number :
         {DPI_STA_R_A_PROTO, DPI_STA_R_A_FIRST_PORT, DPI_STA_R_A_SECOND_PORT, DPI_STA_R_A_AGED})
        if (!attrs[number]) return false;
    return holds(attrs[Ip::kFirst], sizeof Ip::Key::fst_ip) &&
           holds(attrs[Ip::kSecond], sizeof Ip::Key::fst_ip) &&
           holds(attrs[DPI_STA_R_A_BYTE_CNT], sizeof(uint32_t)) &&
           holds(attrs[DPI_STA_R_A_PKT_CNT], sizeof(uint32_t));
}

// The values of a complete report.
template <class Ip>
struct Report {
    typename Ip::Key key;
    uint8_t aged;
    uint32_t byteCnt, pktCnt;
    const nlattr *accessProfile, *qosPolicyRule;  // null if not reported

    explicit Report(const ReportAttrs &attrs)
        : key{},
          aged(mnl_attr_get_u8(attrs[DPI_STA_R_A_AGED])),
          byteCnt(mnl_attr_get_u32(attrs[DPI_STA_R_A_BYTE_CNT])),
          pktCnt(mnl_attr_get_u32(attrs[DPI_STA_R_A_PKT_CNT])),
          accessProfile(attrs[DPI_STA_R_A_ACCESS_PROFILE]),
          qosPolicyRule(attrs[DPI_STA_R_A_QOS_POLICY_RULE]) {
        memcpy(&key.fst_ip, mnl_attr_get_payload(attrs[Ip::kFirst]), sizeof key.fst_ip);
        memcpy(&key.secnd_ip, mnl_attr_get_payload(attrs[Ip::kSecond]), sizeof key.secnd_ip);
        key.fstPort = ntohs(mnl_attr_get_u16(attrs[DPI_STA_R_A_FIRST_PORT]));
        key.scndPort = ntohs(mnl_attr_get_u16(attrs[DPI_STA_R_A_SECOND_PORT]));
        key.proto = mnl_attr_get_u8(attrs[DPI_STA_R_A_PROTO]);
    }
};

// A matched flow's share of its database record, read under the lock.
struct FlowFacts {
    uint16_t appId;
    time_t startTime;
};

// Marks the flow's record with the reported age.  Also where the report itself finds no room: the kernel says
// it once, and a record that nobody marks stays for good.
template <class Ip>
bool matchFlow(const Report<Ip> &report, FlowFacts &facts) {
    const AmGuard guard(amEnfFlowLock);
    auto *const flow = Ip::search(report.key);
    if (!flow) return false;
    flow->aged = report.aged;
    facts = {flow->appId, flow->startTime};
    return true;
}

// A flush that fails says so itself; how many reports that cost is told once there is room again.
void tellDropped(const char *op) {
    static uint64_t told = 0;
    if (amReportsDropped == told) return;
    amLog(AM_LOG_ERROR, "%s:%d %" PRIu64 " reports dropped while records could not be written\n", op,
          __LINE__, amReportsDropped - told);
    told = amReportsDropped;
}

template <class Ip>
void enqueue(const Report<Ip> &report, const FlowFacts &facts) {
    tellDropped(Ip::kOp);
    typename Ip::Entry &entry = Ip::queue()[Ip::index()++];
    entry.fst_ip = report.key.fst_ip;
    entry.secnd_ip = report.key.secnd_ip;
    entry.fstPort = report.key.fstPort;
    entry.scndPort = report.key.scndPort;
    entry.proto = report.key.proto;
    entry.aged = report.aged;
    entry.byteCnt = report.byteCnt;
    entry.pktCnt = report.pktCnt;
    entry.appId = facts.appId;
    entry.startTime = facts.startTime;
    if (report.accessProfile) am::copyText(entry.access_profile, textOf(report.accessProfile));
    if (report.qosPolicyRule) am::copyText(entry.qos_policy_rule, textOf(report.qosPolicyRule));
}

void logReport(const Report<V4> &report) {
    amLog(AM_LOG_STATS,
          "fst_ip %s, secnd_ip %s, fstPort %u, scndPort %u, proto %u, aged %u, byteCnt %u, pktCnt %u\n",
          am::addressText(report.key.fst_ip).text, am::addressText(report.key.secnd_ip).text,
          report.key.fstPort, report.key.scndPort, report.key.proto, report.aged, report.byteCnt,
          report.pktCnt);
    if (report.accessProfile) logText("access_profile: %.*s\n", report.accessProfile);
}

void logReport(const Report<V6> &report) {
    amLog(AM_LOG_STATS,
          "ipv6: fst_ip %s, secnd_ip %s, fstPort %u, scndPort %u, proto %u, aged %u, byteCnt %u, pktCnt %u\n",
          am::addressText(report.key.fst_ip).text, am::addressText(report.key.secnd_ip).text,
          report.key.fstPort, report.key.scndPort, report.key.proto, report.aged, report.byteCnt,
          report.pktCnt);
    if (!report.accessProfile) return;
    logText("access_profile: %.*s\n", report.accessProfile);
    if (report.qosPolicyRule) logText("qos_policy_rule: %.*s\n", report.qosPolicyRule);
}

template <class Ip>
void recordReport(const ReportAttrs &attrs) {
    const Report<Ip> report(attrs);
    if (Ip::index() >= kReportQueueSize) (void)amWriteEnfFlowRecordToFile();

    FlowFacts facts{};
    if (!matchFlow(report, facts))
        amLog(AM_LOG_DEBUG, "%s:%d Stats received for non exisiting flow in Flow DB\n", Ip::kOp, __LINE__);
    else if (Ip::index() < kReportQueueSize)
        enqueue(report, facts);
    else
        amReportsDropped++;
    if (stats_debug.load(std::memory_order_relaxed)) logReport(report);
}

int stats_report_cb4(const ReportAttrs &attrs) {
    if (!complete<V4>(attrs)) {
        perror("incomplete state message");
        return MNL_CB_OK;
    }
    recordReport<V4>(attrs);
    return MNL_CB_OK;
}

int stats_report_cb6(const ReportAttrs &attrs) {
    if (!complete<V6>(attrs)) {
        amLog(AM_LOG_DEBUG, "%s:%d stats_report_cb6\n", __func__, __LINE__);
        perror("incomplete state message");
        return MNL_CB_OK;
    }
    amLog(AM_LOG_DEBUG, "stats_report_cb6 DPI_STA_R_A_FIRST_IPV6 \n");
    recordReport<V6>(attrs);
    return MNL_CB_OK;
}

// Enters one nested attribute into the table; numbers that this daemon does not know are passed over.
int collectAttr(const nlattr *attr, void *table) {
    if (mnl_attr_type_valid(attr, kMaxAttr) < 0) return MNL_CB_OK;
    const uint16_t number = mnl_attr_get_type(attr);
    if (kAttrTypes[number] != MNL_TYPE_UNSPEC && mnl_attr_validate(attr, kAttrTypes[number]) < 0) {
        perror("mnl_attr_validate");
        return MNL_CB_ERROR;
    }
    (*static_cast<ReportAttrs *>(table))[number] = attr;
    return MNL_CB_OK;
}

int parseReport(const nlattr *attr, uint16_t &count) {
    ReportAttrs attrs{};
    if (mnl_attr_parse_nested(attr, collectAttr, &attrs) < 0) return MNL_CB_ERROR;
    if (!attrs[DPI_STA_R_A_IP_TYPE]) {
        perror("incomplete state message");
        amLog(AM_LOG_DEBUG, "%s:%d stats_report_cb \n", "stats_report_cb", __LINE__);
        return MNL_CB_STOP;
    }
    const uint8_t type = mnl_attr_get_u8(attrs[DPI_STA_R_A_IP_TYPE]);
    amLog(AM_LOG_DEBUG, "Stats_report_cb Ip_type %d\n", type);
    count--;
    return type == AM_IP_TYPE_IPV6 ? stats_report_cb6(attrs) : stats_report_cb4(attrs);
}

// One top-level attribute; `expected` is the message's count of reports still to come.
int stats_report_cb(const nlattr *attr, void *expected) {
    auto &count = *static_cast<uint16_t *>(expected);
    if (mnl_attr_type_valid(attr, kMaxAttr) < 0) {
        amLog(AM_LOG_NONE, "%s:%d stats_report_cb \n", __func__, __LINE__);
        return MNL_CB_OK;
    }
    switch (mnl_attr_get_type(attr)) {
        case DPI_STA_A_REPORT_NUM:
            if (mnl_attr_validate(attr, MNL_TYPE_U16) < 0) break;
            count = mnl_attr_get_u16(attr);
            return MNL_CB_OK;
        case DPI_STA_A_REPORT:
            if (mnl_attr_validate(attr, MNL_TYPE_NESTED) < 0) break;
            return parseReport(attr, count);
        default:
            return MNL_CB_OK;
    }
    amLog(AM_LOG_DEBUG, "%s:%d stats_report_cb \n", __func__, __LINE__);
    return MNL_CB_ERROR;
}

}  // namespace

int stats_cb(const nlmsghdr *nlh, void *) {
    amLog(AM_LOG_DEBUG, "%s:%d stats_cb Get package\n", __func__, __LINE__);
    uint16_t expected = 0;
    const int result = mnl_attr_parse(nlh, kFamilyHeaderSize, stats_report_cb, &expected);
    if (result == MNL_CB_OK && expected != 0)
        amLog(AM_LOG_ERROR, "Warning: The ACTUAL report number is not equals to REPORT_NUM value!\n");
    return result;
}
