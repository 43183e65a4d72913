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

}  // namespace
