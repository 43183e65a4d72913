#include "faults.h"

#include <cerrno>
#include <cstring>

namespace dpimod {
namespace {

constexpr uint16_t kDumpInterrupted = 0x10;  // NLM_F_DUMP_INTR, netlink(7)
constexpr uint32_t kForeignPort = 0x7fff1234;

template <class T>
void patch(Bytes &message, size_t at, T value) {
    std::memcpy(message.data() + at, &value, sizeof value);
}

Bytes errorMessage(int error) {
    Bytes payload(sizeof(int) + kHeaderSize);  // the error and the header that it answers
    const int code = -error;
    std::memcpy(payload.data(), &code, sizeof code);
    patch(payload, sizeof(int), static_cast<uint32_t>(kHeaderSize));
    return MessageBuilder::control(kMsgError, payload);
}

// Faults of the netlink header, the same for both directions of use.
const std::vector<std::string> kHeaderKinds{"short-length",     "long-length", "no-family", "foreign-port",
                                            "dump-interrupted", "noop",        "done",      "overrun",
                                            "error-ack",        "error"};

std::optional<Bytes> faultyHeader(const std::string &kind, Bytes good) {
    const Bytes payload(4);
    if (kind == "noop") return MessageBuilder::control(kMsgNoop, {});
    if (kind == "done") return MessageBuilder::control(kMsgDone, payload);
    if (kind == "overrun") return MessageBuilder::control(kMsgOverrun, {});
    if (kind == "error-ack") return errorMessage(0);
    if (kind == "error") return errorMessage(EINVAL);
    if (kind == "short-length")
        patch(good, 0, uint32_t{kHeaderSize - 1});
    else if (kind == "long-length")
        patch(good, 0, static_cast<uint32_t>(good.size() + 4));
    else if (kind == "foreign-port")
        patch(good, 12, kForeignPort);
    else if (kind == "dump-interrupted")
        patch(good, 6, kDumpInterrupted);
    else if (kind == "no-family") {
        good.resize(kHeaderSize);
        patch(good, 0, static_cast<uint32_t>(kHeaderSize));
    } else {
        return std::nullopt;
    }
    return good;
}

MessageBuilder packetMessage() {
    return {kMsgPacket, kFamily4};
}

MessageBuilder reportMessage(uint16_t count) {
    MessageBuilder message(kMsgReport, kFamily4);
    message.putU16(1, count);
    return message;
}

// A report without the attribute `left`, or with it cut to one byte less than it should have.
Bytes damagedReport(const FlowReport &report, uint16_t attribute, bool cut) {
    MessageBuilder whole(kMsgReport, kFamily4);
    appendReport(whole, report);
    const Bytes bytes = whole.take();
    MessageBuilder message = reportMessage(1);
    const size_t nested = message.openNested(2);
    for (size_t at = kHeaderSize + kFamilySize + kAttrHeaderSize; at < bytes.size();) {
        uint16_t length, type;
        std::memcpy(&length, &bytes[at], sizeof length);
        std::memcpy(&type, &bytes[at + 2], sizeof type);
        const ByteView payload = ByteView(bytes).subspan(at + kAttrHeaderSize, length - kAttrHeaderSize);
        if (type != attribute)
            message.put(type, payload);
        else if (cut)
            message.put(type, payload.first(payload.size() - 1));
        at += aligned(length);
    }
    message.closeNested(nested);
    return message.take();
}

// The same about an IPv6 flow: the length of an IPv4 address is checked, that of an IPv6 address is not.
FlowReport overIp6(FlowReport report) {
    report.flow.version = 6;
    return report;
}

}  // namespace

const std::vector<std::string> &packetFaultKinds() {
    static const std::vector<std::string> kinds = [] {
        std::vector<std::string> all{"truncated",      "oversized", "unknown-attr", "unknown-attr-first",
                                     "duplicate-attr", "no-attr",   "empty-packet"};
        all.insert(all.end(), kHeaderKinds.begin(), kHeaderKinds.end());
        return all;
    }();
    return kinds;
}

const std::vector<std::string> &reportFaultKinds() {
    static const std::vector<std::string> kinds = [] {
        std::vector<std::string> all{"truncated",  "oversized",    "unknown-attr",  "duplicate-attr",
                                     "disordered", "no-count",     "wrong-count",   "bad-count",
                                     "no-type",    "incomplete",   "short-address", "short-counters",
                                     "bad-port",   "unknown-flow", "long-names",    "empty-name",
                                     "other-type"};
        all.insert(all.end(), kHeaderKinds.begin(), kHeaderKinds.end());
        return all;
    }();
    return kinds;
}

std::optional<Bytes> faultyPacket(const std::string &kind, ByteView packet) {
    const uint8_t one = 1;
    if (kind == "no-attr") return packetMessage().take();
    if (kind == "empty-packet") return packetMessage().put(1, {}).take();
    if (kind == "unknown-attr") return packetMessage().put(1, packet).put(2, {&one, 1}).take();
    if (kind == "unknown-attr-first") return packetMessage().put(2, {&one, 1}).put(1, packet).take();
    if (kind == "duplicate-attr") return packetMessage().put(1, packet).put(1, packet).take();
    if (kind == "oversized") {
        Bytes big(packet.begin(), packet.end());
        big.resize(5000);  // beyond the daemon's receive buffer
        return packetMessage().put(1, big).take();
    }
    Bytes good = packetMessage().put(1, packet).take();
    if (kind == "truncated") {
        // The attribute claims more than the message holds.
        patch(good, kHeaderSize + kFamilySize, static_cast<uint16_t>(kAttrHeaderSize + packet.size() + 64));
        return good;
    }
    return faultyHeader(kind, std::move(good));
}

std::optional<Bytes> faultyReport(const std::string &kind, const FlowReport &report) {
    const uint8_t one = 1;
    MessageBuilder message = reportMessage(1);
    FlowReport other = report;
    if (kind == "no-type") return damagedReport(report, 1, false);
    if (kind == "incomplete") return damagedReport(report, 8, false);
    if (kind == "bad-port") return damagedReport(report, 7, true);
    if (kind == "short-address") return damagedReport(overIp6(report), 3, true);
    if (kind == "short-counters") return damagedReport(report, 10, true);
    if (kind == "no-count" || kind == "other-type") {
        MessageBuilder bare(kind == "no-count" ? kMsgReport : uint16_t{200}, kFamily4);
        if (kind == "other-type") bare.putU16(1, 1);
        appendReport(bare, report);
        return bare.take();
    }
    if (kind == "wrong-count") {
        MessageBuilder wrong = reportMessage(3);
        appendReport(wrong, report);
        return wrong.take();
    }
    if (kind == "bad-count") {
        const uint8_t three[3] = {1, 0, 0};
        MessageBuilder bad(kMsgReport, kFamily4);
        bad.put(1, three);
        appendReport(bad, report);
        return bad.take();
    }
    if (kind == "disordered") {
        MessageBuilder late(kMsgReport, kFamily4);
        appendReport(late, report);
        late.putU16(1, 1);
        return late.take();
    }
    if (kind == "unknown-attr") {
        message.put(9, {&one, 1}).put(20, {&one, 1});
        const size_t nested = message.size();
        appendReport(message, report);
        message.put(40, {&one, 1});
        message.closeNested(nested);  // takes attribute 40 in
        return message.take();
    }
    if (kind == "duplicate-attr") {
        const size_t nested = message.size();
        appendReport(message, report);
        message.putU8(9, 1).putU32(10, 1);
        message.closeNested(nested);
        return message.take();
    }
    if (kind == "unknown-flow") {
        other.flow.first.port = static_cast<uint16_t>(~other.flow.first.port);
        other.flow.second.address.fill(0xcb);
    } else if (kind == "long-names") {
        other.accessProfile.assign(40, 'p');
        other.qosRule.assign(200, 'q');
    } else if (kind == "empty-name") {
        const size_t nested = message.size();
        other.accessProfile.clear();
        appendReport(message, other);
        message.putText(12, "");
        message.closeNested(nested);
        return message.take();
    } else if (kind == "oversized") {
        const std::vector<FlowReport> many(60, report);
        return encodeReports(many, 60000, 60).front();
    }
    appendReport(message, other);
    Bytes good = message.take();
    if (kind == "unknown-flow" || kind == "long-names") return good;
    if (kind == "truncated") {
        patch(good, kHeaderSize + kFamilySize + 8, static_cast<uint16_t>(good.size()));
        return good;
    }
    return faultyHeader(kind, std::move(good));
}

}  // namespace dpimod
