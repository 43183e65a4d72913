#include <cstring>

#include "appmodel/app_lists.h"
#include "core/log.h"
#include "ubus/members.h"
#include "ubus/methods.h"
#include "ubus/reply.h"
#include "ubus/request_log.h"

namespace {

using am::Member;
using am::Members;

constexpr char kCreationFailed[] = "Creation of App-Grp Failed";

bool isIds(const Member &member) {
    return strcmp(member.name, "ids") == 0 && member.type == BLOBMSG_TYPE_ARRAY;
}

bool isAppGroup(const Member &member) {
    return strcmp(member.name, "appGroup") == 0;
}

int group_parse_app(const char *grpName, const Member &app) {
    bool wellFormed = app.isContainer();
    Member member;
    for (Members members = Members::of(app); wellFormed && members.next(member);) {
        if (strcmp(member.name, "appName") == 0) {
            if (amAddAppToGrp(grpName, member.text()) != 1) return -1;
        } else {
            wellFormed = strcmp(member.name, "appId") == 0;
        }
    }
    if (wellFormed) return 0;
    amLog(AM_LOG_ERROR, "%s:%d Invalid Group Config received\n", __func__, __LINE__);
    return -1;
}

// An entry that fails does not keep the group's other applications out, but ends the walk after this group.
int group_parse_group(const Member &groups) {
    bool wellFormed = groups.isContainer();
    Member group;
    for (Members members = Members::of(groups); wellFormed && members.next(group);) {
        wellFormed = group.type == BLOBMSG_TYPE_ARRAY;
        bool failed = false;
        Member app;
        for (Members apps = Members::of(group); wellFormed && apps.next(app);)
            if (group_parse_app(group.name, app) != 0) failed = true;
        if (failed) return -1;
    }
    if (wellFormed) return 0;
    amLog(AM_LOG_ERROR, "%s:%d Invalid Group Configuration received", __func__, __LINE__);
    return -1;
}

// Deletes the groups named until `wentWrong`, called for each that cannot be, says to stop.  False when
// stopped.
template <class WentWrong>
bool deleteGroups(const Member &ids, WentWrong wentWrong) {
    Member id;
    for (Members members = Members::of(ids); members.next(id);)
        if (id.text() && amDeleteAppGrp(id.text()) != 1 && !wentWrong()) return false;
    return true;
}

void replyAboutGroups(ubus_request_data *req, bool success) {
    if (!success) {
        replyFailure(req, kCreationFailed);
        return;
    }
    replySuccess(req);
    debugPrintAppGrp();
}

}  // namespace

int CREATEavAppGroup(ubus_context *, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    log_ubus_msg(msg);
    bool parsed = false;
    bool failed = false;
    Member member;
    for (Members members = Members::ofMessage(msg); members.next(member);) {
        if (isIds(member)) continue;
        if (isAppGroup(member)) {
            parsed = true;
            if (group_parse_group(member) != 0) failed = true;
            continue;
        }
        amLog(AM_LOG_ERROR, "%s:%d Invalid Group Configuration received", __func__, __LINE__);
        failed = true;
    }
    replyAboutGroups(req, parsed && !failed);
    return 0;
}

int SETavAppGroup(ubus_context *, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    log_ubus_msg(msg);
    const char *op = __func__;
    bool failed = false;
    Member member;
    for (Members members = Members::ofMessage(msg); members.next(member);) {
        if (isIds(member)) {
            (void)deleteGroups(member, [op] {
                amLog(AM_LOG_DEBUG, "%s:%d Deletion for non-existent group\n", op, __LINE__);
                return true;
            });
        } else if (isAppGroup(member)) {
            if (group_parse_group(member) != 0) failed = true;
        } else {
            amLog(AM_LOG_ERROR, "%s:%d Invalid configuration received from ubus\n", op, __LINE__);
            failed = true;
        }
    }
    replyAboutGroups(req, !failed);
    return 0;
}

int DELETEavAppGroup(ubus_context *, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    log_ubus_msg(msg);
    Member member;
    for (Members members = Members::ofMessage(msg); members.next(member);) {
        if (!isIds(member) || deleteGroups(member, [] { return false; })) continue;
        replyFailure(req, "Deletion of App-Grp Failed");
        return 0;
    }
    debugPrintAppGrp();
    replySuccess(req);
    return 0;
}
