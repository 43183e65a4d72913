#include "switch/reports.h"

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "core/counts.h"
#include "core/log.h"
#include "flows/flow_report.h"
#include "switch/protocol.h"
#include "switch/side_counts.h"

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
    static constexpr DpiStaReportAttr kFirst = DPI_STA_R_A_FIRST_IPV4;
    static constexpr DpiStaReportAttr kSecond = DPI_STA_R_A_SECOND_IPV4;
};

struct V6 {
    using Key = AmEnfKey6;
    static constexpr DpiStaReportAttr kFirst = DPI_STA_R_A_FIRST_IPV6;
    static constexpr DpiStaReportAttr kSecond = DPI_STA_R_A_SECOND_IPV6;
};

// Whether an attribute holds a whole value of this size.  Its check lets shorter ones pass: they are as good
// as missing.
bool holds(const nlattr *attr, size_t size) {
    return attr && mnl_attr_get_payload_len(attr) >= size;
}

// Of an optional attribute; its text may lack a terminator.
std::string_view textOf(const nlattr *attr) {
    if (!attr) return {};
    const auto *text = static_cast<const char *>(mnl_attr_get_payload(attr));
    return {text, strnlen(text, mnl_attr_get_payload_len(attr))};
}

template <class Ip>
bool complete(const ReportAttrs &attrs) {
    return attrs[DPI_STA_R_A_PROTO] && attrs[DPI_STA_R_A_FIRST_PORT] && attrs[DPI_STA_R_A_SECOND_PORT] &&
           attrs[DPI_STA_R_A_AGED] && holds(attrs[Ip::kFirst], sizeof Ip::Key::fst_ip) &&
           holds(attrs[Ip::kSecond], sizeof Ip::Key::fst_ip) &&
           holds(attrs[DPI_STA_R_A_BYTE_CNT], sizeof(uint32_t)) &&
           holds(attrs[DPI_STA_R_A_PKT_CNT], sizeof(uint32_t));
}

template <class Address>
Address addressOf(const nlattr *attr) {
    Address address;
    memcpy(&address, mnl_attr_get_payload(attr), sizeof address);
    return address;
}

// The values of a complete report.
template <class Ip>
am::FlowReport<typename Ip::Key> reportOf(const ReportAttrs &attrs) {
    using Address = decltype(Ip::Key::fst_ip);
    return {.key = {.fst_ip = addressOf<Address>(attrs[Ip::kFirst]),
                    .secnd_ip = addressOf<Address>(attrs[Ip::kSecond]),
                    .fstPort = ntohs(mnl_attr_get_u16(attrs[DPI_STA_R_A_FIRST_PORT])),
                    .scndPort = ntohs(mnl_attr_get_u16(attrs[DPI_STA_R_A_SECOND_PORT])),
                    .proto = mnl_attr_get_u8(attrs[DPI_STA_R_A_PROTO]),
                    .zero = {}},
            .aged = mnl_attr_get_u8(attrs[DPI_STA_R_A_AGED]),
            .byteCnt = mnl_attr_get_u32(attrs[DPI_STA_R_A_BYTE_CNT]),
            .pktCnt = mnl_attr_get_u32(attrs[DPI_STA_R_A_PKT_CNT]),
            .accessProfile = textOf(attrs[DPI_STA_R_A_ACCESS_PROFILE]),
            .qosPolicyRule = textOf(attrs[DPI_STA_R_A_QOS_POLICY_RULE])};
}

int stats_report_cb4(const ReportAttrs &attrs) {
    if (!complete<V4>(attrs)) {
        perror("incomplete state message");
        am::countUp(am::sideCounts.reportsIncomplete);
        return MNL_CB_OK;
    }
    am::reportFlow4(reportOf<V4>(attrs));
    return MNL_CB_OK;
}

int stats_report_cb6(const ReportAttrs &attrs) {
    if (!complete<V6>(attrs)) {
        amLog(AM_LOG_DEBUG, "%s:%d stats_report_cb6\n", __func__, __LINE__);
        perror("incomplete state message");
        am::countUp(am::sideCounts.reportsIncomplete);
        return MNL_CB_OK;
    }
    amLog(AM_LOG_DEBUG, "stats_report_cb6 DPI_STA_R_A_FIRST_IPV6 \n");
    am::reportFlow6(reportOf<V6>(attrs));
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
        am::countUp(am::sideCounts.reportsIncomplete);
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
