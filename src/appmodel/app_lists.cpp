#include "appmodel/app_lists.h"

#include <cstring>
#include <new>

#include "core/log.h"
#include "core/text.h"

constinit RbtTree amAppGrpTree{};

namespace {

const AmAppGrp *groupOf(const RbtNode *node) {
    return reinterpret_cast<const AmAppGrp *>(node);
}

AmAppGrp *groupOf(RbtNode *node) {
    return reinterpret_cast<AmAppGrp *>(node);
}

const GrpElement *memberOf(const RbtNode *node) {
    return reinterpret_cast<const GrpElement *>(node);
}

AmAppGrp *findGroup(const RbtTree *tree, std::string_view name) {
    AmAppGrp probe{};
    am::copyField(probe.grpName, name);
    return groupOf(rbtFind(tree, &probe.node));
}

// The pool's node of a member, whose name may fill its field.
AmAppNode *appOfMember(const GrpElement &member) {
    char name[kAppNameSize + 1];
    am::copyText(name, am::fieldText(member.name));
    return getAppNode(name);
}

void freeMember(AmAppGrp *group, GrpElement *member) {
    amModelChanges++;
    rbtRemove(&group->members, &member->node);
    delete member;
}

void freeGroup(AmAppGrp *group) {
    rbtRemove(&amAppGrpTree, &group->node);
    delete group;
}

// Calls `visit` for each element in order; the visitor may unlink and free the one it is given.
template <class Element, class Visit>
void forEachElement(const RbtTree *tree, Visit visit) {
    for (RbtNode *node = rbtFirst(tree), *next; node; node = next) {
        next = rbtNext(tree, node);
        visit(reinterpret_cast<Element *>(node));
    }
}

// Of an application that came on them through a group.
void takeOffBothLists(uint16_t appId) EXCLUDES(amModelLock) {
    amModelChanges++;
    const AmGuard guard(amModelLock);
    AmActiveApp *app = amActiveApp(appId);
    if (!app || app->isPartOfGroup != 1) return;
    am::copyField(app->grpName, "");
    app->isMonitoring = app->isEnforcement = app->isPartOfGroup = 0;
}

// What differs between the two lists.
struct ListMarks {
    uint8_t AmActiveApp::*onList;
    uint8_t AmActiveApp::*onOtherList;
    uint8_t AmAppGrp::*groupOnList;
    const char *title;
};
constexpr ListMarks kMonitoringMarks{&AmActiveApp::isMonitoring, &AmActiveApp::isEnforcement,
                                     &AmAppGrp::isMonitoring, "---- Monitoring Application List ------\n"};
constexpr ListMarks kEnforcementMarks{&AmActiveApp::isEnforcement, &AmActiveApp::isMonitoring,
                                      &AmAppGrp::isEnforcement, "---- Enforcement Application List ------\n"};

const ListMarks *listOfType(uint32_t listType) {
    switch (listType) {
        case AM_LIST_MONITORING:
            return &kMonitoringMarks;
        case AM_LIST_ENFORCEMENT:
            return &kEnforcementMarks;
        default:
            return nullptr;
    }
}

// Without a list only the group is noted.  False when the application has no entry.
bool putOnList(uint16_t appId, const char *grpName, const ListMarks *list) EXCLUDES(amModelLock) {
    amModelChanges++;
    const AmGuard guard(amModelLock);
    AmActiveApp *entry = amActiveApp(appId);
    if (!entry) return false;
    if (grpName) {
        entry->isPartOfGroup = 1;
        am::copyField(entry->grpName, grpName);
    }
    if (list) entry->*list->onList = 1;
    return true;
}

void clearList(const ListMarks &list) EXCLUDES(amModelLock) {
    amModelChanges++;
    const AmGuard guard(amModelLock);
    for (uint32_t id = 0; AmActiveApp *app = amActiveApp(id); id++) {
        if (id % kEntriesATurn == kEntriesATurn - 1) amModelLock.letReadersIn();
        if (app->*list.onList != 1) continue;
        const bool wasInGroup = app->isPartOfGroup != 0;
        if (wasInGroup) {
            AmAppGrp *group = findGroup(&amAppGrpTree, am::fieldText(app->grpName));
            if (group) group->*list.groupOnList = 0;
        }
        app->*list.onList = 0;
        if (!wasInGroup || app->*list.onOtherList == 1) continue;
        am::copyField(app->grpName, "");
        app->isPartOfGroup = 0;
    }
}

bool arrayExists() {
    amModelLock.soleWriterReads();
    return amActData != nullptr;
}

void printList(const ListMarks &list) {
    if (!amLogWanted(AM_LOG_INFO)) return;
    amLog(AM_LOG_INFO, "%s", list.title);
    amModelLock.soleWriterReads();
    for (uint32_t id = 0; const AmActiveApp *app = amActiveApp(id); id++) {
        if (!(app->*list.onList)) continue;
        if (app->isPartOfGroup)
            amLog(AM_LOG_INFO, "AppId %d App-Name %.32s Grp-Name %.40s\n", static_cast<int>(id), app->appName,
                  app->grpName);
        else
            amLog(AM_LOG_INFO, "AppId %d App-Name %.32s\n", static_cast<int>(id), app->appName);
    }
}

}  // namespace

int amAppGrpNameCompare(const RbtNode *a, const RbtNode *b) {
    return strncmp(groupOf(a)->grpName, groupOf(b)->grpName, kGroupNameSize);
}

int amAppNameCompare(const RbtNode *a, const RbtNode *b) {
    return strncmp(memberOf(a)->name, memberOf(b)->name, kAppNameSize);
}

int amCreateAppGrp(RbtTree *tree, const char *grpName) {
    if (!grpName) {
        amLog(AM_LOG_ERROR, "%s:%d No App Groupt name \n", __func__, __LINE__);
        return 0;
    }
    auto *group = new (std::nothrow) AmAppGrp{};
    if (!group) {
        amLog(AM_LOG_ERROR, "%s:%d Unable to create App group node \n", __func__, __LINE__);
        return 0;
    }
    am::copyField(group->grpName, grpName);
    rbtInit(&group->members, amAppNameCompare);
    rbtInsert(tree, &group->node);
    return 1;
}

AmAppGrp *amFindGrpNode(const RbtTree *tree, const char *grpName) {
    return grpName ? findGroup(tree, grpName) : nullptr;
}

int amAppPartOfGroup(const char *grpName, const char *appName) {
    if (!amIsAppNameValid(appName)) return 0;
    const AmAppGrp *group = amFindGrpNode(&amAppGrpTree, grpName);
    if (!group) return 0;
    GrpElement probe{};
    am::copyField(probe.name, appName);
    return rbtFind(&group->members, &probe.node) ? 1 : 0;
}

int amAddAppToGrp(const char *grpName, const char *appName) {
    const AmAppNode *app = amIsAppNameValid(appName);
    if (!app) {
        amLog(AM_LOG_ERROR, "%s:%d Invalid appname %s\n", __func__, __LINE__, appName ? appName : "(null)");
        return 0;
    }
    if (!grpName) {
        amLog(AM_LOG_ERROR, "%s:%d GRP-NAME Null\n", __func__, __LINE__);
        return 0;
    }
    if (amAppPartOfGroup(grpName, appName)) {
        amLog(AM_LOG_ERROR, "%s:%d App %s already part of group %s\n", __func__, __LINE__, app->name,
              grpName);
        return 0;
    }
    AmAppGrp *group = amFindGrpNode(&amAppGrpTree, grpName);
    if (!group && amCreateAppGrp(&amAppGrpTree, grpName)) group = amFindGrpNode(&amAppGrpTree, grpName);
    if (!group) {
        amLog(AM_LOG_ERROR, "%s:%d Unable to create App group %s\n", __func__, __LINE__, grpName);
        return 0;
    }
    auto *member = new (std::nothrow) GrpElement{};
    if (!member) {
        amLog(AM_LOG_ERROR, "%s:%d Unable to create GrpElement\n", __func__, __LINE__);
        return 1;
    }
    am::copyField(member->name, appName);
    rbtInsert(&group->members, &member->node);
    amModelChanges++;
    return 1;
}

int amDeleteAppGrp(const char *grpName) {
    if (!grpName) {
        amLog(AM_LOG_ERROR, "%s:%d No App Group name \n", __func__, __LINE__);
        return 0;
    }
    AmAppGrp *group = amFindGrpNode(&amAppGrpTree, grpName);
    if (!group) {
        amLog(AM_LOG_ERROR, "%s:%d No App Group %s exists\n", __func__, __LINE__, grpName);
        return 0;
    }
    forEachElement<GrpElement>(&group->members, [group](GrpElement *member) {
        const AmAppNode *app = appOfMember(*member);
        if (app) takeOffBothLists(app->appId);
        freeMember(group, member);
    });
    freeGroup(group);
    return 1;
}

int amAddAppToAppList(const char *appName, const char *grpName, uint32_t listType) {
    if (!appName) {
        amLog(AM_LOG_ERROR, "%s:%d AppName is NULL\n", __func__, __LINE__);
        return 0;
    }
    const AmAppNode *app = amIsAppNameValid(appName);
    if (!app) {
        amLog(AM_LOG_ERROR, "%s:%d App-name doesn't exist in App-Pool\n", __func__, __LINE__);
        return 0;
    }
    const ListMarks *list = listOfType(listType);
    if (!putOnList(app->appId, grpName, list)) {
        amLog(AM_LOG_ERROR, "%s:%d No active entry for App %s appId %d\n", __func__, __LINE__, app->name,
              app->appId);
        return 0;
    }
    if (!list) amLog(AM_LOG_ERROR, "%s:%d Invalid list type\n", __func__, __LINE__);
    return 1;
}

int amAddGrpToAppList(const char *grpName, uint32_t listType) {
    if (!grpName) {
        amLog(AM_LOG_ERROR, "%s:%d No App Group name \n", __func__, __LINE__);
        return 0;
    }
    AmAppGrp *group = amFindGrpNode(&amAppGrpTree, grpName);
    if (!group) {
        amLog(AM_LOG_ERROR, "%s:%d No App Group name grp name:%s\n", __func__, __LINE__, grpName);
        return 0;
    }
    for (const RbtNode *node = rbtFirst(&group->members); node; node = rbtNext(&group->members, node)) {
        char name[kAppNameSize + 1];
        am::copyText(name, am::fieldText(memberOf(node)->name));
        if (amAddAppToAppList(name, grpName, listType) == 1) continue;
        amLog(AM_LOG_ERROR, "%s:%d Adding grp name:%s to App-list type %d failed\n", __func__, __LINE__,
              grpName, static_cast<int>(listType));
        return 0;
    }
    const ListMarks *list = listOfType(listType);
    if (list)
        group->*list->groupOnList = 1;
    else
        amLog(AM_LOG_ERROR, "%s:%d Invalid List Type\n", __func__, __LINE__);
    return 1;
}

int amClearAppMonList() {
    if (!arrayExists()) return 1;
    amLog(AM_LOG_DEBUG, "%s:%d Clean the App-Mon Monitor List\n", __func__, __LINE__);
    clearList(kMonitoringMarks);
    return 1;
}

int amClearAppEnfList() {
    if (!arrayExists()) return 1;
    amLog(AM_LOG_DEBUG, "%s:%d Clean the App-Mon Enforcement List\n", __func__, __LINE__);
    clearList(kEnforcementMarks);
    return 1;
}

void amCleanAppGroup() {
    amLog(AM_LOG_DEBUG, "%s:%d Clean App-Grp Database\n", __func__, __LINE__);
    forEachElement<AmAppGrp>(&amAppGrpTree, [](AmAppGrp *group) {
        forEachElement<GrpElement>(&group->members,
                                   [group](GrpElement *member) { freeMember(group, member); });
        freeGroup(group);
    });
}

void amCleanAppData() {
    amCleanAppGroup();
    amCleanAppList();
}

char *getAppAndGroupNameFromAppId(uint32_t appId, char *appNameOut, char *grpNameOut, uint32_t listType) {
    strcpy(appNameOut, "-");
    strcpy(grpNameOut, "-");
    amModelLock.soleWriterReads();
    const AmActiveApp *app = amActiveApp(appId);
    const ListMarks *list = listOfType(listType);
    if (!app || !list || !(app->*list->onList)) return grpNameOut;
    strncpy(appNameOut, app->appName, kAppNameSize);
    if (!app->isPartOfGroup) return grpNameOut;
    const AmAppGrp *group = findGroup(&amAppGrpTree, am::fieldText(app->grpName));
    if (group && group->*list->groupOnList == 1) strncpy(grpNameOut, app->grpName, kGroupNameSize);
    return grpNameOut;
}

void debugPrintAppGrp() {
    if (!amLogWanted(AM_LOG_INFO)) return;
    forEachElement<AmAppGrp>(&amAppGrpTree, [](const AmAppGrp *group) {
        forEachElement<GrpElement>(&group->members, [group](const GrpElement *member) {
            amLog(AM_LOG_INFO, "Grp-Name %.40s App-name %.32s\n", group->grpName, member->name);
        });
    });
}

void debugPrintMonAppList() {
    printList(kMonitoringMarks);
}

void debugPrintEnfAppList() {
    printList(kEnforcementMarks);
}
