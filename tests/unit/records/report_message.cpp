#include "unit/records/report_message.h"

#include <arpa/inet.h>

#include <cstring>
#include <memory>

#include "records/stats_report.h"
#include "switch/reports.h"

Attrs reportOf(const capture_flow_info &flow, uint8_t aged, uint32_t byteCnt, uint32_t pktCnt) {
    Attrs attrs{{DPI_STA_R_A_IP_TYPE, bytesOf(static_cast<uint8_t>(flow.ipproto))}};
    if (flow.ipproto == AM_IP_TYPE_IPV6) {
        attrs.push_back({DPI_STA_R_A_FIRST_IPV6, bytesOf(flow.src_ip6)});
        attrs.push_back({DPI_STA_R_A_SECOND_IPV6, bytesOf(flow.dst_ip6)});
    } else {
        attrs.push_back({DPI_STA_R_A_FIRST_IPV4, bytesOf(flow.src_ip)});
        attrs.push_back({DPI_STA_R_A_SECOND_IPV4, bytesOf(flow.dst_ip)});
    }
    attrs.push_back({DPI_STA_R_A_PROTO, bytesOf(static_cast<uint8_t>(flow.proto))});
    attrs.push_back({DPI_STA_R_A_FIRST_PORT, bytesOf(htons(static_cast<uint16_t>(flow.src_port)))});
    attrs.push_back({DPI_STA_R_A_SECOND_PORT, bytesOf(htons(static_cast<uint16_t>(flow.dst_port)))});
    attrs.push_back({DPI_STA_R_A_AGED, bytesOf(aged)});
    attrs.push_back({DPI_STA_R_A_BYTE_CNT, bytesOf(byteCnt)});
    attrs.push_back({DPI_STA_R_A_PKT_CNT, bytesOf(pktCnt)});
    return attrs;
}

std::string attrBytes(const Attrs &attrs) {
    std::string bytes;
    for (const Attr &attr : attrs) {
        const nlattr header{static_cast<uint16_t>(sizeof header + attr.payload.size()), attr.number};
        bytes += bytesOf(header) + attr.payload;
        bytes.resize((bytes.size() + 3) / 4 * 4);
    }
    return bytes;
}

Attrs without(Attrs attrs, uint16_t number) {
    std::erase_if(attrs, [number](const Attr &attr) { return attr.number == number; });
    return attrs;
}

Attrs with(Attrs attrs, uint16_t number, const std::string &payload) {
    for (Attr &attr : attrs)
        if (attr.number == number) {
            attr.payload = payload;
            return attrs;
        }
    attrs.push_back({number, payload});
    return attrs;
}

StatsMessage &StatsMessage::attr(uint16_t number, const std::string &payload) {
    bytes_ += attrBytes({{number, payload}});
    return *this;
}

int StatsMessage::deliver(size_t size) const {
    // Walks round a message's length up to the netlink alignment, which a receive buffer has room for.
    const size_t aligned = MNL_ALIGN(size);
    const std::unique_ptr<char[]> copy(new char[aligned]);
    memset(copy.get(), 0xee, aligned);
    memcpy(copy.get(), bytes_.data(), size);
    nlmsghdr header{static_cast<uint32_t>(size), 200, 0, 0, 0};
    memcpy(copy.get(), &header, sizeof header);
    return stats_cb(reinterpret_cast<const nlmsghdr *>(copy.get()), nullptr);
}
