#include "unit/appmodel/model_fixture.h"

namespace {

using AppPool = ModelTest;

const std::string k32 = "abcdefghijklmnopqrstuvwxyz012345";

TEST_F(AppPool, NameOfFullWidthIsKeptWholeAndDecidesAlone) {
    installKit({{k32.c_str(), 3}, {"abc", 1}});
    const AmAppNode *app = getAppNode(k32.c_str());
    ASSERT_NE(app, nullptr);
    EXPECT_EQ(std::string(app->name), k32) << "terminated in the pool";
    EXPECT_EQ(appName(3), k32) << "fills its field in the array";
    EXPECT_EQ(getAppNode((k32 + "6789").c_str()), app) << "what follows 32 characters does not count";
    EXPECT_EQ(getAppNode(k32.substr(0, 31).c_str()), nullptr);

    ASSERT_EQ(amAddAppToAppList(k32.c_str(), nullptr, AM_LIST_MONITORING), 1);
    EXPECT_EQ(namesOf(3, AM_LIST_MONITORING), (Names{k32, "-"}));
}

TEST_F(AppPool, NewKitRevivesAddsAndDrops) {
    installKit({{"gone", 1}, {"kept", 2}, {"moved", 9}});
    EXPECT_EQ(amMaxAppIdCount, 10U);
    ASSERT_EQ(amAddAppToGrp("group", "gone"), 1);
    ASSERT_EQ(amAddGrpToAppList("group", AM_LIST_ENFORCEMENT), 1);

    installKit({{"kept", 2}, {"moved", 4}, {"new", 6}});
    EXPECT_EQ(amIsAppNameValid("gone"), nullptr);
    EXPECT_EQ(groupMarks("group"), "none");
    ASSERT_EQ(amMaxAppIdCount, 7U) << "the new index's highest id counts";
    EXPECT_EQ(appName(1), "");
    EXPECT_EQ(appName(2), "kept");
    EXPECT_EQ(appName(6), "new");
    EXPECT_EQ(marks(2), "");
    ASSERT_NE(getAppNode("moved"), nullptr);
    EXPECT_EQ(getAppNode("moved")->appId, 9) << "an id never changes while the application stays";
    EXPECT_EQ(getAppNode("moved")->state, AM_APP_VALID);
    EXPECT_EQ(appName(4), "");
    EXPECT_TRUE(log_.has("amUpdateActiveAppListArray:"));
    EXPECT_TRUE(log_.has(" appId 9 amMaxAppIdCount 7\n"));
    EXPECT_TRUE(log_.has("[DEBUG]: installKit:1 amMaxAppIdCount 7 amAppPoolShmSigCnt 6\n"));

    // Known to the pool, but with no entry to mark.
    EXPECT_EQ(amAddAppToAppList("moved", nullptr, AM_LIST_MONITORING), 0);
    EXPECT_EQ(namesOf(9, AM_LIST_MONITORING), (Names{"-", "-"}));
}

TEST_F(AppPool, HighestIdAloneMakesTheLargestArray) {
    installKit({{"last", 65535}});
    ASSERT_EQ(amMaxAppIdCount, 65536U);
    EXPECT_EQ(appName(65535), "last");
    EXPECT_EQ(amActiveApp(65536), nullptr);
    EXPECT_EQ(amAddAppToAppList("last", nullptr, AM_LIST_ENFORCEMENT), 1);
    EXPECT_EQ(marks(65535), "e");
}

TEST_F(AppPool, RecordsShowNamesOnlyForTheListTheyAreAbout) {
    installKit({{"alone", 0}, {"both", 1}, {"none", 2}, {"orphan", 3}});
    ASSERT_EQ(amAddAppToAppList("alone", nullptr, AM_LIST_ENFORCEMENT), 1);
    ASSERT_EQ(amAddAppToGrp("G", "both"), 1);
    ASSERT_EQ(amAddGrpToAppList("G", AM_LIST_MONITORING), 1);
    ASSERT_EQ(amAddAppToAppList("both", nullptr, AM_LIST_ENFORCEMENT), 1);
    ASSERT_EQ(amAddAppToAppList("orphan", "no such group", AM_LIST_MONITORING), 1);
    const struct {
        uint32_t appId, listType;
        Names expected;
    } rows[] = {
        {0, AM_LIST_ENFORCEMENT, {"alone", "-"}},
        {0, AM_LIST_MONITORING, {"-", "-"}},
        {1, AM_LIST_MONITORING, {"both", "G"}},
        {1, AM_LIST_ENFORCEMENT, {"both", "-"}},  // the group itself is not on that list
        {2, AM_LIST_MONITORING, {"-", "-"}},
        {3, AM_LIST_MONITORING, {"orphan", "-"}},
        {1, 0, {"-", "-"}},
        {1, 3, {"-", "-"}},
        {4, AM_LIST_MONITORING, {"-", "-"}},  // the first id beyond the array
        {UINT32_MAX, AM_LIST_ENFORCEMENT, {"-", "-"}},
    };
    for (const auto &row : rows)
        EXPECT_EQ(namesOf(row.appId, row.listType), row.expected) << row.appId << " on " << row.listType;

    amCleanAppList();
    EXPECT_EQ(namesOf(0, AM_LIST_ENFORCEMENT), (Names{"-", "-"}));
    EXPECT_EQ(amAddAppToAppList("alone", nullptr, AM_LIST_ENFORCEMENT), 0) << "no array, nothing to mark";
    EXPECT_TRUE(log_.has("[ERROR]: amAddAppToAppList:"));
}

}  // namespace
