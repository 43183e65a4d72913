#include <cstring>

#include "appmodel/app_lists.h"
#include "core/log.h"
#include "core/text.h"
#include "ubus/members.h"
#include "ubus/methods.h"
#include "ubus/reply.h"
#include "ubus/request_log.h"

namespace {

using am::Member;
using am::Members;

struct ListOps {
    uint32_t listType;
    int (*clear)();
    void (*dump)();
    const char *appsFailed;
    const char *groupsFailed;
};
constexpr ListOps kMonitoringOps{AM_LIST_MONITORING, amClearAppMonList, debugPrintMonAppList,
                                 "Adding App to Monitor List Failed", "Adding grp to Monitor List Failed"};
constexpr ListOps kEnforcementOps{AM_LIST_ENFORCEMENT, amClearAppEnfList, debugPrintEnfAppList,
                                  "Adding App to Enforcement List Failed",
                                  "Adding grp to Enforcement List Failed"};

constexpr char kUnknownKey[] = "Invalid configuration received from ubus\n";

struct ListMethod {
    const ListOps &list;
    bool clearFirst;  // the request replaces the list; otherwise it adds to it
    const char *unknownKey = kUnknownKey;
};

int applist_parse_each_app(const Member &app, uint32_t listType) {
    Member member;
    for (Members members = Members::of(app); members.next(member);) {
        if (strcmp(member.name, "appName") == 0) {
            if (amAddAppToAppList(member.text(), nullptr, listType) != 1) return -1;
        } else if (strcmp(member.name, "appId") != 0) {
            amLog(AM_LOG_ERROR, "%s:%d Invalid Configuration received from ubus", __func__, __LINE__);
            return -1;
        }
    }
    return 0;
}

int applist_parse_apps(const Member &apps, uint32_t listType) {
    bool wellFormed = apps.isContainer();
    Member app;
    for (Members members = Members::of(apps); wellFormed && members.next(app);) {
        wellFormed = app.type == BLOBMSG_TYPE_TABLE;
        if (wellFormed && applist_parse_each_app(app, listType) != 0) return -1;
    }
    if (wellFormed) return 0;
    amLog(AM_LOG_ERROR, "%s:%d Invalid Configuration received from ubus", __func__, __LINE__);
    return -1;
}

int addGroups(const Member &groups, uint32_t listType) {
    if (!groups.isContainer()) return -1;
    Member group;
    for (Members members = Members::of(groups); members.next(group);) {
        if (!group.text()) continue;
        char name[100];
        am::copyText(name, group.text());
        if (name[0] != '\0' && amAddGrpToAppList(name, listType) != 1) return -1;
    }
    return 0;
}

// The text that the request fails with, null when all of it was applied.  What was applied stays.
const char *applyList(const ListMethod &method, const char *name, const blob_attr *msg) {
    const ListOps &list = method.list;
    Member member;
    for (Members members = Members::ofMessage(msg); members.next(member);) {
        if (strcmp(member.name, "appList") == 0) {
            if (applist_parse_apps(member, list.listType) != 0) return list.appsFailed;
        } else if (strcmp(member.name, "appGroup") == 0) {
            if (addGroups(member, list.listType) != 0) return list.groupsFailed;
        } else {
            amLog(AM_LOG_ERROR, "%s:%d %s", name, __LINE__, method.unknownKey);
            return "Invalid configuration received";
        }
    }
    return nullptr;
}

int serve(const ListMethod &method, const char *name, ubus_request_data *req, const blob_attr *msg) {
    log_ubus_msg(msg);
    if (method.clearFirst) (void)method.list.clear();
    const char *failure = applyList(method, name, msg);
    if (failure) {
        replyFailure(req, failure);
        return 0;
    }
    method.list.dump();
    replySuccess(req);
    return 0;
}

}  // namespace

int CREATEavAppMonAppList(ubus_context *, ubus_object *, ubus_request_data *req, const char *,
                          blob_attr *msg) {
    return serve({kMonitoringOps, false}, __func__, req, msg);
}

int SETavAppMonAppList(ubus_context *, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    return serve({kMonitoringOps, true, "Invalid Configuration received from ubus"}, __func__, req, msg);
}

int CREATEavDpiAppList(ubus_context *, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    return serve({kEnforcementOps, false}, __func__, req, msg);
}

int SETavDpiAppList(ubus_context *, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    return serve({kEnforcementOps, true}, __func__, req, msg);
}
