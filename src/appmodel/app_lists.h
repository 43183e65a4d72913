// Application groups, and the monitoring and the enforcement list.  Groups are a means to put several
// applications on a list at once: a group on a list marks each of its members there with the group's name. An
// application may be a member of several groups; its array entry names the last one through which it was put
// on a list.
//
// Results are 1 for success and 0 for failure; failures are logged, nothing is rolled back.
// Threads: the event-loop thread only, and groups need no lock.  Entries of the active array are changed
// under amModelLock, a few hundred at a time, so that the classification callback never waits for a whole
// list.
#pragma once
#include <cstdint>

#include "appmodel/app_pool.h"
#include "appmodel/rbt.h"
#include "core/lock.h"

struct AmAppGrp {
    RbtNode node;
    char grpName[kGroupNameSize];  // zero-padded
    RbtTree members;               // of GrpElement, by name
    uint8_t isMonitoring;          // 1 while the group as a whole is on the monitoring list
    uint8_t isEnforcement;         // likewise the enforcement list
};

struct GrpElement {
    RbtNode node;
    char name[kAppNameSize];  // zero-padded
};

extern RbtTree amAppGrpTree;  // of AmAppGrp, by name

int amAppGrpNameCompare(const RbtNode *a, const RbtNode *b);  // over 40 characters
int amAppNameCompare(const RbtNode *a, const RbtNode *b);     // members: over 32 characters

// Does not look for an existing group of that name: callers look first.
int amCreateAppGrp(RbtTree *tree, const char *grpName);
AmAppGrp *amFindGrpNode(const RbtTree *tree, const char *grpName);  // null for a null name
int amAppPartOfGroup(const char *grpName, const char *appName);

// Adds an application to a group, which comes into being with its first member.  Puts nothing on a list.
int amAddAppToGrp(const char *grpName, const char *appName);

// Deletes a group; members that are marked as part of a group, whichever it is, leave both lists.
int amDeleteAppGrp(const char *grpName) EXCLUDES(amModelLock);

// Put one application, or every member of a group, on a list; a null group name records no group.  A group
// that fails halfway leaves the members done so far on the list and is itself not marked.
int amAddAppToAppList(const char *appName, const char *grpName, uint32_t listType) EXCLUDES(amModelLock);
int amAddGrpToAppList(const char *grpName, uint32_t listType) EXCLUDES(amModelLock);

int amClearAppMonList() EXCLUDES(amModelLock);  // always 1
int amClearAppEnfList() EXCLUDES(amModelLock);  // always 1

// Frees every group and member; marks of the active array stay as they are.
void amCleanAppGroup();

void amCleanAppData() EXCLUDES(amModelLock);  // amCleanAppGroup, then the pool's amCleanAppList

// The names that a record or a debug line shows for an application on a list, "-" for each that does not
// apply. Outputs are zeroed buffers of at least 33 and 41 bytes.  Event-loop thread.  Returns grpNameOut.
char *getAppAndGroupNameFromAppId(uint32_t appId, char *appNameOut, char *grpNameOut, uint32_t listType);

// To the log at INFO.
void debugPrintAppGrp();
void debugPrintMonAppList();
void debugPrintEnfAppList();
