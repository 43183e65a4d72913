// Statistics messages as the kernel module sends them, built byte by byte so that they can also be wrong.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "flows/flow_info.h"
#include "switch/protocol.h"

struct Attr {
    uint16_t number;
    std::string payload;
};
using Attrs = std::vector<Attr>;

template <class Value>
std::string bytesOf(const Value &value) {
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

// A complete report of a flow, without the optional names.
Attrs reportOf(const capture_flow_info &flow, uint8_t aged = 0, uint32_t byteCnt = 1500, uint32_t pktCnt = 3);

std::string attrBytes(const Attrs &attrs);
Attrs without(Attrs attrs, uint16_t number);
Attrs with(Attrs attrs, uint16_t number, const std::string &payload);  // replaced, or added

class StatsMessage {
  public:
    StatsMessage &attr(uint16_t number, const std::string &payload);
    StatsMessage &count(uint16_t reports) { return attr(DPI_STA_A_REPORT_NUM, bytesOf(reports)); }
    StatsMessage &report(const Attrs &attrs) { return attr(DPI_STA_A_REPORT, attrBytes(attrs)); }

    size_t size() const { return bytes_.size(); }

    // Hands the message to the callback, or the part of it that ends at `size`, from memory that ends there
    // too. The callback's result.
    int deliver(size_t size) const;
    int deliver() const { return deliver(size()); }

  private:
    std::string bytes_ = std::string(20, '\0');  // netlink and family header
};
