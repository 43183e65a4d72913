#include <gtest/gtest.h>

#include <random>
#include <string>

#include "netfilter/mark.h"
#include "netfilter/policy_sets.h"

namespace {

TEST(PolicySets, ANameHasOneSetAndASetOneName) {
    struct {
        am::PolicyKind kind;
        const char *name, *set;
    } const rows[] = {
        {am::PolicyKind::application, "YouTube", "app_YouTube"},
        {am::PolicyKind::application, "Google Drive", "app_Google/20Drive"},
        {am::PolicyKind::group, "a-b_c.9", "group_a-b_c.9"},
        {am::PolicyKind::group, "caf\xc3\xa9/", "group_caf/c3/a9/2f"},
    };
    for (const auto &row : rows) EXPECT_STREQ(am::policySetName(row.kind, row.name).text, row.set);

    am::PolicyKind kind;
    char name[am::kMaxPolicyName + 1];
    for (const char *set :
         {"app_", "apps_x", "group", "app_a b", "app_a/2", "app_a/zz", "app_a/2F", "app_/61", "app_/00"})
        EXPECT_FALSE(am::readPolicySetName(set, kind, name)) << set;
    EXPECT_FALSE(am::readPolicySetName("app_" + std::string(am::kMaxPolicyName + 1, 'a'), kind, name));

    std::mt19937 random(1);
    for (int round = 0; round < 2000; round++) {
        std::string text(1 + random() % am::kMaxPolicyName, 0);
        for (char &byte : text) byte = static_cast<char>(1 + random() % 255);
        const am::PolicyKind given = random() % 2 ? am::PolicyKind::group : am::PolicyKind::application;
        ASSERT_TRUE(am::readPolicySetName(am::policySetName(given, text).text, kind, name)) << text;
        EXPECT_EQ(name, text);
        EXPECT_EQ(kind, given);
    }
}

TEST(Mark, AVerdictStaysWithinItsBits) {
    for (const uint32_t mask : {0x3ffffU, 0x3ffff00U, 0xffffffffU, 0xffffc000U, 0x0ff00000U, 0x7U}) {
        const am::MarkLayout layout{mask};
        ASSERT_TRUE(layout.valid()) << std::hex << mask;
        for (const uint32_t application : {0U, 1U, layout.maxApplication()}) {
            const uint32_t mark = layout.verdict(application, true);
            EXPECT_EQ(mark & ~mask, 0U);
            EXPECT_EQ(mark & (layout.classified() | layout.enforced()),
                      layout.classified() | layout.enforced());
            EXPECT_EQ(layout.application(mark | ~mask), application);
            EXPECT_EQ(layout.verdict(application, false), mark & ~layout.enforced());
        }
        EXPECT_EQ(layout.verdict(layout.maxApplication() + 1, true), layout.classified());
        EXPECT_LE(layout.maxApplication(), 0xffffU) << "kits number with 16 bits";
        for (const uint32_t mark : {mask, ~0U, 0xdeadbeefU})
            EXPECT_LE(layout.application(mark), layout.maxApplication()) << "of another's making";
    }
    for (const uint32_t mask : {0U, 0x3U, 0x5ffffU, 0xf0f0U})
        EXPECT_FALSE(am::MarkLayout{mask}.valid()) << mask;
}

}  // namespace
