#include "wire.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>

#include <cstring>

#include "packet.h"

using namespace dpimod;

namespace {

// The verdict of an enforced flow 10.0.0.1:1234 -> 192.0.2.9:80, application 258 "Skype" in group "Voice".
const char kResult4[] =
    "74000000 1600 0100 00000000 00000000 02000000"
    "0500 0100 51000000  0800 0200 0a000001  0800 0400 c0000209  0500 0600 06000000"
    "0600 0700 04d20000  0600 0800 00500000  0500 0900 01000000"
    "0800 0b00 02010000  0900 0c00 536b797065000000  0500 0a00 01000000  0900 0e00 566f696365000000";

Bytes hex(const char *text) {
    return *parseHex(text);
}

Message onlyMessage(const Bytes &bytes) {
    std::string problem;
    const auto messages = splitDatagram(bytes, problem);
    EXPECT_EQ(problem, "");
    return messages.size() == 1 ? messages[0] : Message{};
}

FlowReport sampleReport(bool v6) {
    FlowReport report;
    report.flow.version = v6 ? 6 : 4;
    report.flow.proto = 17;
    report.flow.first = {{10, 0, 0, 1}, 53};
    report.flow.second = {{10, 0, 0, 2}, 5353};
    report.bytes = 1000;
    report.packets = 10;
    return report;
}

// Reports in a message; the count at its head must agree.
unsigned reportsIn(const nlmsghdr *message) {
    struct {
        unsigned found = 0, claimed = 0;
    } seen;
    const auto look = [](const nlattr *attribute, void *data) {
        auto *into = static_cast<decltype(seen) *>(data);
        if (mnl_attr_get_type(attribute) == 1)
            into->claimed = mnl_attr_get_u16(attribute);
        else
            ++into->found;
        return MNL_CB_OK;
    };
    EXPECT_EQ(mnl_attr_parse(message, 4, look, &seen), MNL_CB_OK);
    EXPECT_EQ(seen.found, seen.claimed);
    return seen.found;
}

}  // namespace

TEST(KernelWire, DecodesTheVerdictOfAnEnforcedFlow) {
    const Bytes bytes = hex(kResult4);
    const Result result = decodeResult(onlyMessage(bytes));
    EXPECT_EQ(result.problems, std::vector<std::string>{});
    EXPECT_TRUE(result.usable);
    EXPECT_EQ(addressText(result.flow.first, 4), "10.0.0.1");
    EXPECT_EQ(addressText(result.flow.second, 4), "192.0.2.9");
    EXPECT_EQ(result.flow.first.port, 1234);
    EXPECT_EQ(result.flow.second.port, 80);
    EXPECT_EQ(result.flow.proto, 6);
    EXPECT_EQ(result.match, 1);
    EXPECT_EQ(result.appId, 258U);
    EXPECT_EQ(result.appName, "Skype");
    EXPECT_EQ(result.groupName, "Voice");
    EXPECT_EQ(result.stateClear, 1);
}

TEST(KernelWire, NamesWhatADaemonMustNotSend) {
    const struct {
        const char *name;
        size_t at;
        uint8_t value;
        const char *problem;
    } rows[] = {
        {"acknowledgement asked for", 6, 5, "flags"},
        {"sequence number", 8, 1, "sequence"},
        {"family of the other protocol", 16, 10, "family"},
        {"padding", 26, 1, "padding"},
        {"attribute number", 38, 3, "attribute"},
        {"swapped attributes", 22, 6, "attributes"},
        {"attribute past the end", 104, 200, "attribute length"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Bytes bytes = hex(kResult4);
        bytes[row.at] = row.value;
        const Result result = decodeResult(onlyMessage(bytes));
        std::string all;
        for (const std::string &problem : result.problems) all += problem + "; ";
        EXPECT_NE(all.find(row.problem), std::string::npos) << all;
    }
}

TEST(KernelWire, AMessageCutAnywhereIsNeverAVerdictAndNeverOverread) {
    const Bytes whole = hex(kResult4);
    const size_t matchEnds = 20 + 6 * 8 + 5;
    for (size_t length = kHeaderSize; length < whole.size(); ++length) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length));
        cut.shrink_to_fit();
        std::string problem;
        EXPECT_TRUE(splitDatagram(cut, problem).empty());
        EXPECT_NE(problem, "");
        const auto claimed = static_cast<uint32_t>(length);
        std::memcpy(cut.data(), &claimed, sizeof claimed);
        const Result result = decodeResult(onlyMessage(cut));
        EXPECT_EQ(result.usable, length >= matchEnds) << length;
    }
}

TEST(KernelWire, ReportsFillMessagesOfAtMost4096Bytes) {
    for (const bool v6 : {false, true}) {
        for (const char *name : {"", "guest"}) {
            FlowReport report = sampleReport(v6);
            report.accessProfile = name;
            report.qosRule = name;
            const std::vector<FlowReport> reports(1000, report);
            size_t total = 0;
            for (const Bytes &bytes : encodeReports(reports, kMaxDatagram, 1000)) {
                EXPECT_LE(bytes.size(), kMaxDatagram);
                const auto *message = reinterpret_cast<const nlmsghdr *>(bytes.data());
                ASSERT_EQ(message->nlmsg_len, bytes.size());
                const unsigned found = reportsIn(message);
                // One more would not have fitted, except in the last message.
                if (total + found < reports.size()) {
                    EXPECT_GT(bytes.size() + reportSize(report), kMaxDatagram);
                }
                total += found;
            }
            EXPECT_EQ(total, reports.size());
        }
    }
}
