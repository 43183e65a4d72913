#include "wire.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace dpimod {
namespace {

template <class T>
T load(const uint8_t *from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <class T>
void store(uint8_t *to, T value) {
    std::memcpy(to, &value, sizeof value);
}

struct Attribute {
    uint16_t type;
    ByteView payload;
};

std::vector<Attribute> splitAttributes(ByteView bytes, std::vector<std::string> &problems) {
    std::vector<Attribute> found;
    while (!bytes.empty()) {
        const size_t length = bytes.size() < kAttrHeaderSize ? 0 : load<uint16_t>(bytes.data());
        if (length < kAttrHeaderSize || length > bytes.size()) {
            problems.emplace_back("attribute length " + std::to_string(length) + " with " +
                                  std::to_string(bytes.size()) + " bytes left");
            break;
        }
        found.push_back(
            {load<uint16_t>(bytes.data() + 2), bytes.subspan(kAttrHeaderSize, length - kAttrHeaderSize)});
        const size_t step = std::min(aligned(length), bytes.size());
        for (uint8_t pad : bytes.subspan(length, step - length)) {
            if (pad != 0) problems.emplace_back("padding not zero");
        }
        if (step < aligned(length)) problems.emplace_back("last attribute not padded");
        bytes = bytes.subspan(step);
    }
    return found;
}

void checkHeader(const Message &message, std::vector<std::string> &problems) {
    if (message.flags != 1) problems.emplace_back("flags " + std::to_string(message.flags));
    if (message.sequence != 0) problems.emplace_back("sequence " + std::to_string(message.sequence));
    if (message.portid != 0) problems.emplace_back("port id " + std::to_string(message.portid));
    if (message.second != 0) problems.emplace_back("second family byte not zero");
}

template <class T>
std::optional<T> number(const Attribute &attribute, std::vector<std::string> &problems) {
    if (attribute.payload.size() != sizeof(T)) {
        problems.emplace_back("attribute " + std::to_string(attribute.type) + " has " +
                              std::to_string(attribute.payload.size()) + " bytes");
        return std::nullopt;
    }
    return load<T>(attribute.payload.data());
}

std::string numberList(std::span<const uint16_t> numbers) {
    std::string text;
    for (uint16_t value : numbers) text += (text.empty() ? "" : ",") + std::to_string(value);
    return text;
}

void checkOrder(const std::vector<Attribute> &attributes, std::span<const uint16_t> expected,
                std::vector<std::string> &problems) {
    std::vector<uint16_t> order;
    order.reserve(attributes.size());
    for (const Attribute &attribute : attributes) order.push_back(attribute.type);
    if (!std::equal(order.begin(), order.end(), expected.begin(), expected.end()))
        problems.emplace_back("attributes " + numberList(order) + ", expected " + numberList(expected));
}

std::optional<std::string> text(const Attribute &attribute, size_t limit,
                                std::vector<std::string> &problems) {
    std::string value(reinterpret_cast<const char *>(attribute.payload.data()), attribute.payload.size());
    if (value.size() > limit) problems.emplace_back("text of " + std::to_string(value.size()) + " bytes");
    if (value.find('\0') != std::string::npos) problems.emplace_back("text holds a NUL");
    return value;
}

void readAddress(const Attribute &attribute, size_t size, Endpoint &endpoint, unsigned &seen, unsigned bit,
                 std::vector<std::string> &problems) {
    if (attribute.payload.size() != size) {
        problems.emplace_back("address of " + std::to_string(attribute.payload.size()) + " bytes");
        return;
    }
    std::copy(attribute.payload.begin(), attribute.payload.end(), endpoint.address.begin());
    seen |= bit;
}

}  // namespace

FiveTuple FiveTuple::undirected() const {
    FiveTuple tuple = *this;
    if (tuple.second < tuple.first) std::swap(tuple.first, tuple.second);
    return tuple;
}

std::string addressText(const Endpoint &endpoint, uint8_t version) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(version == 6 ? AF_INET6 : AF_INET, endpoint.address.data(), text.data(), text.size());
    return text.data();
}

std::vector<Message> splitDatagram(ByteView datagram, std::string &problem) {
    std::vector<Message> messages;
    while (datagram.size() >= kHeaderSize) {
        const size_t length = load<uint32_t>(datagram.data());
        if (length < kHeaderSize || length > datagram.size()) {
            problem = "netlink length " + std::to_string(length) + " with " +
                      std::to_string(datagram.size()) + " bytes left";
            return messages;
        }
        Message message;
        message.raw = datagram.first(length);
        message.type = load<uint16_t>(datagram.data() + 4);
        message.flags = load<uint16_t>(datagram.data() + 6);
        message.sequence = load<uint32_t>(datagram.data() + 8);
        message.portid = load<uint32_t>(datagram.data() + 12);
        if (length >= kHeaderSize + kFamilySize) {
            message.family = datagram[16];
            message.second = datagram[17];
            message.attributes = message.raw.subspan(kHeaderSize + kFamilySize);
        }
        messages.push_back(message);
        datagram = datagram.subspan(std::min(aligned(length), datagram.size()));
    }
    if (!datagram.empty()) problem = std::to_string(datagram.size()) + " bytes after the last message";
    return messages;
}

Config decodeConfig(const Message &message) {
    Config config;
    auto &problems = config.problems;
    checkHeader(message, problems);
    if (message.family != kFamily4) problems.emplace_back("family " + std::to_string(message.family));
    const auto attributes = splitAttributes(message.attributes, problems);
    for (const Attribute &attribute : attributes) {
        switch (attribute.type) {
            case 1:
                config.packetPortid = number<uint32_t>(attribute, problems);
                break;
            case 2:
                config.mirror = number<uint8_t>(attribute, problems);
                break;
            case 3:
                config.param3 = number<uint16_t>(attribute, problems);
                break;
            case 4:
                config.param4 = number<uint8_t>(attribute, problems);
                break;
            case 5:
                config.param5 = number<uint8_t>(attribute, problems);
                break;
            case 6:
                config.param6 = number<uint16_t>(attribute, problems);
                break;
            default:
                problems.emplace_back("unknown attribute " + std::to_string(attribute.type));
        }
    }
    static constexpr std::array<uint16_t, 1> kRegistration{1};
    static constexpr std::array<uint16_t, 5> kMirror{2, 3, 5, 6, 4};
    if (config.packetPortid)
        checkOrder(attributes, kRegistration, problems);
    else
        checkOrder(attributes, kMirror, problems);
    return config;
}

Result decodeResult(const Message &message) {
    Result result;
    auto &problems = result.problems;
    checkHeader(message, problems);
    const auto attributes = splitAttributes(message.attributes, problems);
    enum : unsigned { kType = 1, kFirst = 2, kSecond = 4, kProto = 8, kPort1 = 16, kPort2 = 32, kMatch = 64 };
    unsigned seen = 0;
    for (const Attribute &attribute : attributes) {
        switch (attribute.type) {
            case 1:
                if (const auto type = number<uint8_t>(attribute, problems);
                    type && (*type == kIpType4 || *type == kIpType6)) {
                    result.flow.version = *type == kIpType6 ? 6 : 4;
                    seen |= kType;
                }
                break;
            case 2:
                readAddress(attribute, 4, result.flow.first, seen, kFirst, problems);
                break;
            case 3:
                readAddress(attribute, 16, result.flow.first, seen, kFirst, problems);
                break;
            case 4:
                readAddress(attribute, 4, result.flow.second, seen, kSecond, problems);
                break;
            case 5:
                readAddress(attribute, 16, result.flow.second, seen, kSecond, problems);
                break;
            case 6:
                if (const auto proto = number<uint8_t>(attribute, problems)) {
                    result.flow.proto = *proto;
                    seen |= kProto;
                }
                break;
            case 7:
            case 8:
                if (const auto port = number<uint16_t>(attribute, problems)) {
                    (attribute.type == 7 ? result.flow.first : result.flow.second).port = ntohs(*port);
                    seen |= attribute.type == 7 ? kPort1 : kPort2;
                }
                break;
            case 9:
                if (const auto match = number<uint8_t>(attribute, problems)) {
                    result.match = *match;
                    seen |= kMatch;
                }
                break;
            case 10:
                result.stateClear = number<uint8_t>(attribute, problems);
                break;
            case 11:
                result.appId = number<uint32_t>(attribute, problems);
                break;
            case 12:
                result.appName = text(attribute, 32, problems);
                break;
            case 14:
                result.groupName = text(attribute, 40, problems);
                break;
            default:
                problems.emplace_back("unknown attribute " + std::to_string(attribute.type));
        }
    }
    const bool v6 = result.flow.version == 6;
    std::vector<uint16_t> expected{
        1, static_cast<uint16_t>(v6 ? 3 : 2), static_cast<uint16_t>(v6 ? 5 : 4), 6, 7, 8, 9};
    if (result.match == 1) {
        for (int type : {11, 12, 10}) expected.push_back(static_cast<uint16_t>(type));
        if (result.groupName) expected.push_back(14);
    }
    checkOrder(attributes, expected, problems);
    if (message.family != (v6 ? kFamily6 : kFamily4))
        problems.emplace_back("family " + std::to_string(message.family));
    if (result.match > 1) problems.emplace_back("match " + std::to_string(result.match));
    result.usable = seen == (kType | kFirst | kSecond | kProto | kPort1 | kPort2 | kMatch);
    return result;
}

MessageBuilder::MessageBuilder(uint16_t type, uint8_t family) : bytes_(kHeaderSize + kFamilySize) {
    store(bytes_.data() + 4, type);
    bytes_[16] = family;
    fixLength();
}

void MessageBuilder::fixLength() {
    store(bytes_.data(), static_cast<uint32_t>(bytes_.size()));
}

MessageBuilder &MessageBuilder::put(uint16_t type, ByteView payload) {
    const size_t start = bytes_.size();
    bytes_.resize(start + aligned(kAttrHeaderSize + payload.size()));
    store(&bytes_[start], static_cast<uint16_t>(kAttrHeaderSize + payload.size()));
    store(&bytes_[start + 2], type);
    std::copy(payload.begin(), payload.end(), bytes_.begin() + static_cast<ptrdiff_t>(start + 4));
    fixLength();
    return *this;
}

MessageBuilder &MessageBuilder::putU16(uint16_t type, uint16_t value) {
    return put(type, {reinterpret_cast<const uint8_t *>(&value), sizeof value});
}

MessageBuilder &MessageBuilder::putU32(uint16_t type, uint32_t value) {
    return put(type, {reinterpret_cast<const uint8_t *>(&value), sizeof value});
}

MessageBuilder &MessageBuilder::putText(uint16_t type, std::string_view text) {
    return put(type, {reinterpret_cast<const uint8_t *>(text.data()), text.size()});
}

size_t MessageBuilder::openNested(uint16_t type) {
    const size_t start = bytes_.size();
    put(type, {});
    return start;
}

void MessageBuilder::closeNested(size_t start) {
    store(&bytes_[start], static_cast<uint16_t>(bytes_.size() - start));
}

Bytes MessageBuilder::take() {
    return std::move(bytes_);
}

Bytes MessageBuilder::control(uint16_t type, ByteView payload) {
    Bytes bytes(kHeaderSize + aligned(payload.size()));
    store(bytes.data(), static_cast<uint32_t>(kHeaderSize + payload.size()));
    store(bytes.data() + 4, type);
    std::copy(payload.begin(), payload.end(), bytes.begin() + kHeaderSize);
    return bytes;
}

void writePacketMessage(uint8_t *out, ByteView packet) {
    const size_t size = packetMessageSize(packet.size());
    std::memset(out, 0, kHeaderSize + kFamilySize);
    store(out, static_cast<uint32_t>(size));
    store(out + 4, kMsgPacket);
    out[16] = !packet.empty() && packet[0] >> 4 == 6 ? kFamily6 : kFamily4;
    uint8_t *attribute = out + kHeaderSize + kFamilySize;
    store(attribute, static_cast<uint16_t>(kAttrHeaderSize + packet.size()));
    store(attribute + 2, uint16_t{1});
    if (!packet.empty()) std::memcpy(attribute + kAttrHeaderSize, packet.data(), packet.size());
    uint8_t *end = attribute + kAttrHeaderSize + packet.size();
    std::memset(end, 0, static_cast<size_t>(out + size - end));
}

size_t reportSize(const FlowReport &report) {
    size_t size = kAttrHeaderSize + 9 * 8;  // nine numbers of one to four bytes
    if (report.flow.version == 6) size += 2 * (16 - 4);
    for (const std::string &name : {report.accessProfile, report.qosRule})
        if (!name.empty()) size += aligned(kAttrHeaderSize + name.size());
    return size;
}

void appendReport(MessageBuilder &message, const FlowReport &report) {
    const FiveTuple &flow = report.flow;
    const bool v6 = flow.version == 6;
    const size_t addressSize = v6 ? 16 : 4;
    const size_t start = message.openNested(2);
    message.putU8(1, v6 ? kIpType6 : kIpType4)
        .put(v6 ? 3 : 2, ByteView(flow.first.address).first(addressSize))
        .put(v6 ? 5 : 4, ByteView(flow.second.address).first(addressSize))
        .putU8(6, flow.proto)
        .putU16(7, htons(flow.first.port))
        .putU16(8, htons(flow.second.port))
        .putU8(9, report.aged)
        .putU32(10, report.bytes)
        .putU32(11, report.packets);
    if (!report.accessProfile.empty()) message.putText(12, report.accessProfile);
    if (!report.qosRule.empty()) message.putText(13, report.qosRule);
    message.closeNested(start);
}

std::vector<Bytes> encodeReports(std::span<const FlowReport> reports, size_t limit, size_t perMessage) {
    std::vector<Bytes> messages;
    const size_t head = kHeaderSize + kFamilySize + 8;
    while (!reports.empty()) {
        size_t count = 0, size = head;
        while (count < reports.size() && count < perMessage && count < UINT16_MAX) {
            const size_t more = reportSize(reports[count]);
            if (count > 0 && size + more > limit) break;
            size += more;
            ++count;
        }
        count = std::max<size_t>(count, 1);
        const auto part = reports.first(count);
        MessageBuilder message(kMsgReport, part[0].flow.version == 6 ? kFamily6 : kFamily4);
        message.putU16(1, static_cast<uint16_t>(count));
        for (const FlowReport &report : part) appendReport(message, report);
        messages.push_back(message.take());
        reports = reports.subspan(count);
    }
    return messages;
}

std::string hexText(ByteView bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::optional<Bytes> parseHex(std::string_view text) {
    Bytes bytes;
    int high = -1;
    for (char c : text) {
        if (c == ' ') continue;
        int digit = -1;
        if (c >= '0' && c <= '9') digit = c - '0';
        if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
        if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
        if (digit < 0) return std::nullopt;
        if (high < 0) {
            high = digit;
        } else {
            bytes.push_back(static_cast<uint8_t>(high * 16 + digit));
            high = -1;
        }
    }
    if (high >= 0) return std::nullopt;
    return bytes;
}

}  // namespace dpimod
