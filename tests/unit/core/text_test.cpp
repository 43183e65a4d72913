#include "core/text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Text, FieldOfFullWidthHasNoTerminator) {
    struct {
        char field[4];
        char guard = '!';
    } record;
    const struct {
        const char *text, *copied, *terminated;
    } rows[] = {{"", "", ""}, {"abc", "abc", "abc"}, {"abcd", "abcd", "abc"}, {"abcdef", "abcd", "abc"}};
    for (const auto &row : rows) {
        memset(record.field, 'x', sizeof record.field);
        am::copyField(record.field, row.text);
        EXPECT_EQ(am::fieldText(record.field), row.copied);
        for (size_t i = strlen(row.copied); i < sizeof record.field; i++) EXPECT_EQ(record.field[i], '\0');

        memset(record.field, 'x', sizeof record.field);
        am::copyText(record.field, row.text);
        EXPECT_STREQ(record.field, row.terminated);
        EXPECT_EQ(record.field[3], '\0');
        EXPECT_EQ(record.guard, '!');
    }
}

TEST(Text, AddressesAreTakenInNetworkOrder) {
    EXPECT_STREQ(am::addressText(htonl(0x0a000102)).text, "10.0.1.2");
    EXPECT_STREQ(am::addressText(UINT32_MAX).text, "255.255.255.255");
    in6_addr address{};
    address.s6_addr[0] = 0x20;
    address.s6_addr[1] = 0x01;
    address.s6_addr[15] = 0x0a;
    EXPECT_STREQ(am::addressText(address).text, "2001::a");
    memset(&address, 0xff, sizeof address);
    EXPECT_STREQ(am::addressText(address).text, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
}

TEST(Text, ProtocolsWithoutANameAreADash) {
    EXPECT_STREQ(getProtoStr(6), "TCP");
    EXPECT_STREQ(getProtoStr(17), "UDP");
    for (const unsigned proto : {0U, 1U, 58U, 132U, 255U, 262U}) EXPECT_STREQ(getProtoStr(proto), " - ");
}

}  // namespace
