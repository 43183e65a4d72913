#include <pthread.h>

#include <atomic>

#include "unit/appmodel/model_fixture.h"

namespace {

class AppLists : public ModelTest {
  protected:
    void SetUp() override {
        ModelTest::SetUp();
        installKit({{"appA", 0}, {"appB", 1}, {"appC", 2}, {"appD", 3}});
        log_.forget();
    }
    static void makeGroup(const char *group, const std::vector<const char *> &apps) {
        for (const char *app : apps) ASSERT_EQ(amAddAppToGrp(group, app), 1) << app;
    }
};

using Texts = std::vector<std::string>;

TEST_F(AppLists, MissingNamesAreRefusedWithTheirText) {
    EXPECT_EQ(amAddAppToGrp(nullptr, "appA"), 0);
    EXPECT_TRUE(log_.has(" GRP-NAME Null\n"));
    EXPECT_EQ(amAddAppToGrp("G", nullptr), 0);
    EXPECT_EQ(amCreateAppGrp(&amAppGrpTree, nullptr), 0);
    EXPECT_TRUE(log_.has(" No App Groupt name \n"));
    EXPECT_EQ(amFindGrpNode(&amAppGrpTree, nullptr), nullptr);
    EXPECT_EQ(amDeleteAppGrp(nullptr), 0);
    EXPECT_TRUE(log_.has(" No App Group name \n"));
    EXPECT_EQ(amDeleteAppGrp("G"), 0);
    EXPECT_TRUE(log_.has(" No App Group G exists\n"));
    EXPECT_EQ(amAddAppToAppList(nullptr, nullptr, AM_LIST_MONITORING), 0);
    EXPECT_TRUE(log_.has(" AppName is NULL\n"));
    EXPECT_EQ(amAddAppToAppList("unknown", "G", AM_LIST_MONITORING), 0);
    EXPECT_TRUE(log_.has(" App-name doesn't exist in App-Pool\n"));
    EXPECT_EQ(amAddGrpToAppList(nullptr, AM_LIST_MONITORING), 0);
    EXPECT_EQ(amAddGrpToAppList("G", AM_LIST_MONITORING), 0);
    EXPECT_TRUE(log_.has(" No App Group name grp name:G\n"));
    EXPECT_EQ(groupMarks("G"), "none");
}

TEST_F(AppLists, GroupNamesCountToTheirFortiethCharacter) {
    const std::string k40(40, 'g');
    const std::string other = k40.substr(0, 39) + "h";
    makeGroup(k40.c_str(), {"appA"});
    makeGroup(other.c_str(), {"appB"});
    EXPECT_EQ(amAddAppToGrp((k40 + "more").c_str(), "appA"), 0) << "the same group";
    EXPECT_EQ(membersOf(k40.c_str()), (Texts{"appA"}));
    EXPECT_EQ(membersOf(other.c_str()), (Texts{"appB"}));

    ASSERT_EQ(amAddGrpToAppList((k40 + "more").c_str(), AM_LIST_ENFORCEMENT), 1);
    EXPECT_EQ(marks(0), "e:" + k40);
    EXPECT_EQ(namesOf(0, AM_LIST_ENFORCEMENT), (Names{"appA", k40}));
    EXPECT_EQ(amClearAppEnfList(), 1);
    EXPECT_EQ(groupMarks(k40.c_str()), "") << "found by a name that fills its field";
    EXPECT_EQ(marks(0), "");
}

TEST_F(AppLists, GroupNameStaysUntilTheApplicationLeftBothLists) {
    makeGroup("G", {"appA", "appB", "appC"});
    ASSERT_EQ(amAddGrpToAppList("G", AM_LIST_ENFORCEMENT), 1);
    for (const uint16_t id : std::initializer_list<uint16_t>{0, 1, 2}) EXPECT_EQ(marks(id), "e:G");
    EXPECT_EQ(amClearAppMonList(), 1);
    EXPECT_EQ(marks(1), "e:G");
    ASSERT_EQ(amAddGrpToAppList("G", AM_LIST_MONITORING), 1);
    EXPECT_EQ(groupMarks("G"), "me");

    EXPECT_EQ(amClearAppEnfList(), 1);
    EXPECT_EQ(marks(1), "m:G");
    EXPECT_EQ(groupMarks("G"), "m");
    EXPECT_EQ(amClearAppMonList(), 1);
    EXPECT_EQ(marks(1), "");
    EXPECT_EQ(groupMarks("G"), "");
    EXPECT_TRUE(log_.has("[DEBUG]: amClearAppMonList:"));
    EXPECT_TRUE(log_.has(" Clean the App-Mon Enforcement List\n"));
}

TEST_F(AppLists, GroupThatFailsHalfwayKeepsWhatWasDone) {
    installKit({{"appA", 0}, {"high", 9}, {"zapp", 1}});
    installKit({{"appA", 0}, {"high", 2}, {"zapp", 1}});  // "high" keeps an id beyond the array
    makeGroup("G", {"appA", "high", "zapp"});
    EXPECT_EQ(amAddGrpToAppList("G", AM_LIST_MONITORING), 0);
    EXPECT_TRUE(log_.has(" Adding grp name:G to App-list type 1 failed\n"));
    EXPECT_EQ(marks(0), "m:G");
    EXPECT_EQ(marks(1), "");
    EXPECT_EQ(groupMarks("G"), "");
    EXPECT_EQ(amDeleteAppGrp("G"), 1) << "a member without an entry is only freed";
}

TEST_F(AppLists, UnknownListTypeIsLoggedAndCountsAsDone) {
    EXPECT_EQ(amAddAppToAppList("appA", "G", 3), 1);
    EXPECT_TRUE(log_.has("[ERROR]: amAddAppToAppList:"));
    EXPECT_TRUE(log_.has(" Invalid list type\n"));
    EXPECT_EQ(marks(0), ":G") << "the group is recorded all the same";
    makeGroup("G", {"appB"});
    EXPECT_EQ(amAddGrpToAppList("G", 0), 1);
    EXPECT_TRUE(log_.has(" Invalid List Type\n"));
    EXPECT_EQ(groupMarks("G"), "");
}

// What the classification callback does for every flow while an administrator works on the lists.
TEST_F(AppLists, ReaderUnderTheLockNeverSeesHalfAnEntry) {
    makeGroup("aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", {"appA", "appB"});
    makeGroup("bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb", {"appA", "appB"});
    struct Reader {
        std::atomic<bool> stop{false};
        unsigned torn = 0;
        std::atomic<unsigned> rounds{0};
    } reader;
    pthread_t thread;
    const auto read = [](void *argument) -> void * {
        auto *self = static_cast<Reader *>(argument);
        while (!self->stop) {
            const AmSharedGuard guard(amModelLock);
            self->rounds++;
            for (const uint32_t id : {0U, 1U}) {
                const AmActiveApp *app = amActiveApp(id);
                if (!app) continue;
                const std::string_view name = am::fieldText(app->grpName);
                const std::string whole(name.size(), name.empty() ? '-' : name[0]);
                if (name != whole || (app->isPartOfGroup ? 40U : 0U) != name.size()) self->torn++;
            }
        }
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, read, &reader), 0);
    for (int i = 0; i < 300 || reader.rounds < 100; i++) {
        EXPECT_EQ(amAddGrpToAppList("aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", AM_LIST_MONITORING), 1);
        EXPECT_EQ(amAddGrpToAppList("bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb", AM_LIST_ENFORCEMENT), 1);
        EXPECT_EQ(amClearAppMonList(), 1);
        EXPECT_EQ(amClearAppEnfList(), 1);
        if (i % 50 == 0) amRebuildActiveAppArray("test", 0);
    }
    reader.stop = true;
    pthread_join(thread, nullptr);
    EXPECT_EQ(reader.torn, 0U);
}

TEST_F(AppLists, DeletedGroupTakesItsMembersOffBothLists) {
    makeGroup("G", {"appA", "appB", "appC"});
    makeGroup("H", {"appB"});
    ASSERT_EQ(amAddGrpToAppList("G", AM_LIST_MONITORING), 1);
    ASSERT_EQ(amAddAppToAppList("appA", nullptr, AM_LIST_ENFORCEMENT), 1);
    ASSERT_EQ(amAddAppToAppList("appD", nullptr, AM_LIST_ENFORCEMENT), 1);
    ASSERT_EQ(amAddGrpToAppList("H", AM_LIST_ENFORCEMENT), 1);
    ASSERT_EQ(amDeleteAppGrp("G"), 1);
    EXPECT_EQ(groupMarks("G"), "none");
    EXPECT_EQ(marks(0), "");
    EXPECT_EQ(marks(1), "") << "marked through a group, whichever it was";
    EXPECT_EQ(marks(3), "e") << "not a member";
    EXPECT_EQ(groupMarks("H"), "e");

    makeGroup("I", {"appD"});
    ASSERT_EQ(amDeleteAppGrp("I"), 1);
    EXPECT_EQ(marks(3), "e") << "a member that was listed on its own stays listed";
}

}  // namespace
