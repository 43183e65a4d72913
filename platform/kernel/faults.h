// Messages that a correct kernel module would not send, to see what the daemon makes of them.
//
// The kinds that end the daemon (a netlink error, a foreign port id, an interrupted dump, a report that fails
// its checks) do so by design.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "wire.h"

namespace dpimod {

const std::vector<std::string> &packetFaultKinds();
const std::vector<std::string> &reportFaultKinds();

// A packet message of the given kind; nothing for an unknown kind.
std::optional<Bytes> faultyPacket(const std::string &kind, ByteView packet);
// A statistics message of the given kind about the given flow.
std::optional<Bytes> faultyReport(const std::string &kind, const FlowReport &report);

}  // namespace dpimod
