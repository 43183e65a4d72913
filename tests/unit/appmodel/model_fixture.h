// A pool, an active array and groups to try the application model with.
#pragma once
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "appmodel/app_lists.h"
#include "appmodel/app_pool.h"
#include "core/text.h"
#include "unit/log_capture.h"

struct IndexLine {
    const char *name;
    uint16_t appId;
};

struct Names {
    std::string app, group;
    bool operator==(const Names &) const = default;
};

class ModelTest : public testing::Test {
  protected:
    void SetUp() override {
        rbtInit(&amAppPoolTree, amAppPoolNameCompare);
        rbtInit(&amAppGrpTree, amAppGrpNameCompare);
    }
    void TearDown() override {
        amCleanAppData();
        amAppPoolMarkObsolete();
        amCleanAppPool();
        amAppPoolShmSigCnt = 0;
        amMaxAppIdCount = 0;
    }

    // What a kit update does with the model, in its order.
    void installKit(const std::vector<IndexLine> &index) {
        amAppPoolMarkObsolete();
        amAppPoolShmSigCnt = 0;
        for (const IndexLine &line : index) {
            AmAppNode record{};
            am::copyText(record.name, line.name);
            record.appId = line.appId;
            ASSERT_EQ(amUpdateAppPool(&record), 1);
        }
        amCleanAppPool();
        amCleanAppData();
        amRebuildActiveAppArray("installKit", 1);
    }

    static std::string appName(uint16_t id) { return std::string(am::fieldText(amActData[id].appName)); }
    static std::string grpName(uint16_t id) { return std::string(am::fieldText(amActData[id].grpName)); }

    // "m" on the monitoring list, "e" on the enforcement list, then the group through which it got there.
    static std::string marks(uint16_t id) {
        const AmActiveApp &app = amActData[id];
        std::string text;
        if (app.isMonitoring) text += "m";
        if (app.isEnforcement) text += "e";
        if (app.isPartOfGroup) text += ":" + grpName(id);
        EXPECT_EQ(app.isPartOfGroup != 0, !grpName(id).empty()) << "the mark and the name go together";
        return text;
    }

    static std::string groupMarks(const char *name) {
        const AmAppGrp *group = amFindGrpNode(&amAppGrpTree, name);
        if (!group) return "none";
        return std::string(group->isMonitoring ? "m" : "") + (group->isEnforcement ? "e" : "");
    }

    static std::vector<std::string> membersOf(const char *name) {
        std::vector<std::string> names;
        const AmAppGrp *group = amFindGrpNode(&amAppGrpTree, name);
        for (RbtNode *node = group ? rbtFirst(&group->members) : nullptr; node;
             node = rbtNext(&group->members, node))
            names.emplace_back(am::fieldText(reinterpret_cast<GrpElement *>(node)->name));
        return names;
    }

    static Names namesOf(uint32_t appId, uint32_t listType) {
        char app[kAppNameSize + 1] = {};
        char group[kGroupNameSize + 1] = {};
        EXPECT_EQ(getAppAndGroupNameFromAppId(appId, app, group, listType), group);
        return {app, group};
    }

    LogCapture log_;
};
