#include "wire.h"

#include <gtest/gtest.h>

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
