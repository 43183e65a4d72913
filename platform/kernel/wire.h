// The DPI protocol on the kernel's side: netlink protocol 26, messages in and out.
// This is the stand-in's own definition of the format, on purpose not the daemon's: a fault in either shows
// up as a disagreement.  Layouts: netlink(7); integers in host byte order unless a comment says otherwise.
//
//   netlink header (16 bytes) | family u8, 0, 0, 0 | attributes: u16 length, u16 type, payload, padding to 4
//
//   type  name        direction         socket   attributes
//   21    config      daemon -> kernel  control  1 u32 packet port id, or 2 u8 mirror, 3 u16, 5 u8, 6 u16, 4
//   u8 22    result      daemon -> kernel  control  verdict on one flow, see Result 23    packet      kernel
//   -> daemon  packet   1 bytes from the IP header on 24    statistics  kernel -> daemon  control  1 u16
//   count, then any number of 2 (nested, see FlowReport)
//
// Input is untrusted: every length is checked before it is used, and whatever a well-behaved daemon would not
// send is listed in `problems` instead of being refused silently.
#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace dpimod {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

constexpr int kProtocol = 26;
constexpr uint16_t kMsgNoop = 1, kMsgError = 2, kMsgDone = 3, kMsgOverrun = 4;
constexpr uint16_t kMsgConfig = 21, kMsgResult = 22, kMsgPacket = 23, kMsgReport = 24;
constexpr uint8_t kIpType4 = 81, kIpType6 = 82;
constexpr uint8_t kFamily4 = 2, kFamily6 = 10;
constexpr size_t kHeaderSize = 16, kFamilySize = 4, kAttrHeaderSize = 4;
constexpr size_t kMaxDatagram = 4096;  // what the daemon's buffers take
constexpr size_t kMaxPacket = 65531;   // an attribute's length is 16 bits wide and counts its header

constexpr size_t aligned(size_t length) {
    return (length + 3) & ~size_t{3};
}

// One side of a flow; IPv4 addresses stand in the first four bytes, the rest is zero.
struct Endpoint {
    std::array<uint8_t, 16> address{};  // network byte order
    uint16_t port = 0;                  // host byte order
    bool operator==(const Endpoint &) const = default;
    bool operator<(const Endpoint &other) const {
        return address != other.address ? address < other.address : port < other.port;
    }
};

struct FiveTuple {
    Endpoint first, second;
    uint8_t version = 4;  // 4 or 6
    uint8_t proto = 0;    // IP protocol number
    bool operator==(const FiveTuple &) const = default;
    // The same tuple for both directions of a flow.
    [[nodiscard]] FiveTuple undirected() const;
};
static_assert(sizeof(FiveTuple) == 38);  // no padding: hashed as bytes

std::string addressText(const Endpoint &endpoint, uint8_t version);

struct Config {
    std::optional<uint32_t> packetPortid;
    std::optional<uint8_t> mirror;
    std::optional<uint16_t> param3, param6;
    std::optional<uint8_t> param4, param5;
    std::vector<std::string> problems;
};

struct Result {
    FiveTuple flow;  // in the order of the message
    uint8_t match = 0;
    std::optional<uint32_t> appId;
    std::optional<std::string> appName, groupName;
    std::optional<uint8_t> stateClear;
    bool usable = false;  // the flow is complete, so that the verdict can be recorded
    std::vector<std::string> problems;
};

struct FlowReport {
    FiveTuple flow;
    uint8_t aged = 0;
    uint32_t bytes = 0, packets = 0;
    std::string accessProfile, qosRule;  // left out when empty
};

// One netlink message of a datagram.
struct Message {
    uint16_t type = 0, flags = 0;
    uint32_t sequence = 0, portid = 0;
    uint8_t family = 0, second = 0;
    ByteView attributes;
    ByteView raw;
};

// The messages of a datagram, in order; what follows a bad length is left out and described in `problem`.
std::vector<Message> splitDatagram(ByteView datagram, std::string &problem);

Config decodeConfig(const Message &message);
Result decodeResult(const Message &message);

// Builds one message.  Lengths are those of the finished parts at any time.
class MessageBuilder {
  public:
    MessageBuilder(uint16_t type, uint8_t family);
    MessageBuilder &put(uint16_t type, ByteView payload);
    MessageBuilder &putU8(uint16_t type, uint8_t value) { return put(type, {&value, 1}); }
    MessageBuilder &putU16(uint16_t type, uint16_t value);
    MessageBuilder &putU32(uint16_t type, uint32_t value);
    MessageBuilder &putText(uint16_t type, std::string_view text);  // without a terminator
    size_t openNested(uint16_t type);
    void closeNested(size_t start);
    [[nodiscard]] size_t size() const { return bytes_.size(); }
    Bytes take();
    // A finished control message (NOOP, ERROR, DONE, OVERRUN) with the given payload.
    static Bytes control(uint16_t type, ByteView payload);

  private:
    void fixLength();
    Bytes bytes_;
};

// Space that a packet message takes in a frame.
constexpr size_t packetMessageSize(size_t packetLength) {
    return kHeaderSize + kFamilySize + aligned(kAttrHeaderSize + packetLength);
}
// Writes a packet message to `out`, which has room for packetMessageSize().  At most kMaxPacket bytes.
void writePacketMessage(uint8_t *out, ByteView packet);

// Space of one report in a statistics message.
size_t reportSize(const FlowReport &report);
void appendReport(MessageBuilder &message, const FlowReport &report);
// As few messages of at most `limit` bytes as hold the reports, in order.
std::vector<Bytes> encodeReports(std::span<const FlowReport> reports, size_t limit, size_t perMessage);

std::string hexText(ByteView bytes);
std::optional<Bytes> parseHex(std::string_view text);  // blanks between bytes are allowed

}  // namespace dpimod
