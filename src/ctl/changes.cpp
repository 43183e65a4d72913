// What operators change: the two lists and the groups, by the methods of the object dpi.  These add to a
// list, replace it and delete groups; what takes one thing away reads what there is and replaces it by the
// rest.
#include <cstdio>
#include <cstring>

#include "core/text.h"
#include "ctl/commands.h"
#include "ctl/json.h"
#include "ctl/names.h"
#include "ctl/pages.h"
#include "ctl/screen.h"

namespace ctl {

namespace {

struct ListWords {
    const char *flag;  // of an entry: whether it is on the list
    const char *addMethod, *setMethod;
};
constexpr ListWords kEnforcement{"enforced", "CREATEavDpiAppList", "SETavDpiAppList"};
constexpr ListWords kMonitoring{"monitored", "CREATEavAppMonAppList", "SETavAppMonAppList"};

// An "appList" is an array of tables with a name each, an "appGroup" one of names.
void addApp(am::Answer &request, const char *name) {
    request.table(nullptr, [&] { request.text("appName", name); });
}

bool isAmong(const char *name, const char *const *names, size_t count) {
    for (size_t i = 0; i < count; i++)
        if (strcmp(name, names[i]) == 0) return true;
    return false;
}

// The words behind "enforce add", or behind "group add NAME".
struct Names {
    const char *const *names;
    size_t count;
    bool contain(const char *name) const { return isAmong(name, names, count); }
};
Names namesFrom(const CommandLine &line, size_t first) {
    return {line.words + first, line.wordCount > first ? line.wordCount - first : 0};
}

bool allKnown(const Names &names) {
    bool known = true;
    for (size_t i = 0; i < names.count; i++) known = isApplication(names.names[i]) && known;
    return known;
}

// A group's entry; false when there is no such group.
bool findGroup(const char *name, Reply &reply) {
    static blob_buf buffer;
    am::Answer arguments(buffer);
    arguments.text("name", name);
    return look("groups", arguments.message(), reply) == Found::yes;
}

bool allGroups(const CommandLine &line) {
    bool known = true;
    for (size_t i = 0; i < line.groupCount; i++) {
        Reply reply;
        if (findGroup(line.groups[i], reply)) continue;
        fprintf(stderr, "korvidctl: no group '%s'\n", line.groups[i]);
        known = false;
    }
    return known;
}

bool askedToSave(const CommandLine &line) {
    static blob_buf buffer;
    am::Answer nothing(buffer);
    return !line.save || change("SETappMonActivateAppList", nothing.message());
}

// What became of it: whether the configuration file has it.  Programs get the daemon's status.
int tellSaved(const CommandLine &line) {
    if (!askedToSave(line)) return kFailed;
    Reply reply;
    ask("status", nullptr, reply);
    const bool unsaved = reply.fields().table("configuration").flag("unsaved_changes");
    if (line.save && unsaved) {
        fprintf(stderr,
                "korvidctl: not saved: the configuration file cannot be written, see the daemon's log\n");
        return kFailed;
    }
    if (line.json)
        printJson(reply);
    else
        puts(unsaved ? "not saved: a restart forgets it (korvidctl save, or --save)" : "saved");
    return kDone;
}

void tell(const char *name, bool before, bool after, const char *flag) {
    if (before == after)
        printf("%s: %s%s as before\n", name, after ? "" : "not ", flag);
    else
        printf("%s%s: %s%s%s\n", begin(Colour::strong), name, after ? "" : "no longer ", flag,
               end(Colour::strong));
}

bool flagOf(const char *application, const char *flag) {
    Reply reply;
    askAbout(application, reply);
    return reply.fields().flag(flag);
}

// How each of the names stands before the change, to tell what changed.
class Before {
  public:
    Before(const Names &names, const char *flag) : names_(names), flag_(flag) {
        for (size_t i = 0; i < names.count; i++) on_[i] = flagOf(names.names[i], flag);
    }
    void tellChanges(const CommandLine &line) const {
        for (size_t i = 0; i < names_.count; i++)
            tell(names_.names[i], on_[i], flagOf(names_.names[i], flag_), flag_);
        for (size_t i = 0; i < line.groupCount; i++) {
            Reply reply;
            if (findGroup(line.groups[i], reply))
                printf("group %s: %s%s\n", line.groups[i],
                       reply.fields().table("group").flag(flag_) ? "" : "not ", flag_);
        }
    }

  private:
    Names names_;
    const char *flag_;
    bool on_[kMostWords];
};

void fillRequest(am::Answer &request, const Names &names, const CommandLine &line) {
    request.array("appList", [&] {
        for (size_t i = 0; i < names.count; i++) addApp(request, names.names[i]);
    });
    request.array("appGroup", [&] {
        for (size_t i = 0; i < line.groupCount; i++) request.text(nullptr, line.groups[i]);
    });
}

// What stays on a list; an application that a group on the list put there comes with the group.
void fillRest(am::Answer &request, const ListWords &list, const Names &names, const CommandLine &line) {
    const auto onList = [&](am::Answer &arguments) { arguments.text("list", list.flag); };
    request.array("appList", [&] {
        (void)forEachEntry(kApps, UINT32_MAX, onList, [&](const am::Member &entry) {
            const Fields app(entry);
            Reply group;
            const bool byGroup = *app.text("group") && findGroup(app.text("group"), group) &&
                                 group.fields().table("group").flag(list.flag);
            if (!byGroup && !names.contain(app.text("name"))) addApp(request, app.text("name"));
        });
    });
    request.array("appGroup", [&] {
        (void)forEachEntry(
            kGroups, UINT32_MAX, [](am::Answer &) {},
            [&](const am::Member &entry) {
                const Fields group(entry);
                if (group.flag(list.flag) && !isAmong(group.text("name"), line.groups, line.groupCount))
                    request.text(nullptr, group.text("name"));
            });
    });
}

// Of an application that a group put on the list the group goes, or nothing.
bool mayBeRemoved(const ListWords &list, const Names &names, const CommandLine &line) {
    for (size_t i = 0; i < names.count; i++) {
        const char *const name = names.names[i];
        bool allowed = true;
        const auto exactly = [&](am::Answer &arguments) {
            arguments.text("list", list.flag);
            arguments.text("name", name);
        };
        (void)forEachEntry(kApps, UINT32_MAX, exactly, [&](const am::Member &entry) {
            const Fields app(entry);
            const char *const group = app.text("group");
            Reply reply;
            if (strcmp(app.text("name"), name) != 0 || !*group ||
                isAmong(group, line.groups, line.groupCount) || !findGroup(group, reply) ||
                !reply.fields().table("group").flag(list.flag))
                return;
            fprintf(stderr,
                    "korvidctl: %s is %s by the group %s: remove --group %s, or take it out of the group\n",
                    name, list.flag, shown(group).text, shown(group).text);
            allowed = false;
        });
        if (!allowed) return false;
    }
    return true;
}

int changeList(const ListWords &list, const CommandLine &line) {
    const char *const action = line.word(1);
    const Names names = namesFrom(line, 2);
    const bool set = strcmp(action, "set") == 0, remove = strcmp(action, "remove") == 0;
    if ((!set && !remove && strcmp(action, "add") != 0) || (!set && names.count + line.groupCount == 0)) {
        fprintf(stderr, "usage: korvidctl %s add|remove|set [--save] [--group GROUP]... [APPLICATION]...\n",
                line.word(0));
        return kUsage;
    }
    if (!allKnown(names) || !allGroups(line)) return kFailed;
    if (remove && !mayBeRemoved(list, names, line)) return kFailed;
    const Before before(names, list.flag);
    static blob_buf buffer;
    am::Answer request(buffer);
    if (remove)
        fillRest(request, list, names, line);
    else
        fillRequest(request, names, line);
    if (!change(set || remove ? list.setMethod : list.addMethod, request.message())) return kFailed;
    if (!line.json) before.tellChanges(line);
    return tellSaved(line);
}

void fillGroup(am::Answer &request, const char *group, const Names &names) {
    request.table("appGroup", [&] {
        request.array(group, [&] {
            for (size_t i = 0; i < names.count; i++) addApp(request, names.names[i]);
        });
    });
}

// Every group on a list, put there again: deleting one takes its members off the lists, other groups' as
// well.
bool restoreGroups(const ListWords &list, const bool wasOn, const char *recreated) {
    static blob_buf buffer;
    am::Answer request(buffer);
    request.array("appGroup", [&] {
        (void)forEachEntry(
            kGroups, UINT32_MAX, [](am::Answer &) {},
            [&](const am::Member &entry) {
                const Fields group(entry);
                const bool itself = strcmp(group.text("name"), recreated) == 0;
                if (itself ? wasOn : group.flag(list.flag)) request.text(nullptr, group.text("name"));
            });
    });
    return change(list.addMethod, request.message());
}

bool removeMembers(const char *group, const Names &names, const Fields &entry) {
    static blob_buf buffer;
    am::Answer request(buffer);
    request.array("ids", [&] { request.text(nullptr, group); });
    request.table("appGroup", [&] {
        request.array(group, [&] {
            (void)forEachEntry(
                kMembers, UINT32_MAX, [&](am::Answer &arguments) { arguments.text("name", group); },
                [&](const am::Member &member) {
                    if (!names.contain(member.text())) addApp(request, member.text());
                });
        });
    });
    const bool enforced = entry.flag("enforced"), monitored = entry.flag("monitored");
    return change("SETavAppGroup", request.message()) && restoreGroups(kEnforcement, enforced, group) &&
           restoreGroups(kMonitoring, monitored, group);
}

bool addMembers(const char *group, const Names &names, const Fields &entry) {
    static blob_buf buffer;
    am::Answer request(buffer);
    fillGroup(request, group, names);
    if (!change("CREATEavAppGroup", request.message())) return false;
    // A group on a list brings what it had when it was put there; the new ones come with the next time.
    return (!entry.flag("enforced") || restoreGroups(kEnforcement, true, group)) &&
           (!entry.flag("monitored") || restoreGroups(kMonitoring, true, group));
}

bool deleteGroup(const char *group) {
    static blob_buf buffer;
    am::Answer request(buffer);
    request.array("ids", [&] { request.text(nullptr, group); });
    return change("DELETEavAppGroup", request.message()) && restoreGroups(kEnforcement, false, group) &&
           restoreGroups(kMonitoring, false, group);
}

void tellGroup(const char *group) {
    Reply reply;
    if (findGroup(group, reply))
        printf("group %s: %s members\n", group,
               numberText(reply.fields().table("group").number("members")).text);
    else
        printf("group %s: gone\n", group);
}

}  // namespace

int enforceCommand(const CommandLine &line) {
    return changeList(kEnforcement, line);
}

int monitorCommand(const CommandLine &line) {
    return changeList(kMonitoring, line);
}

int groupCommand(const CommandLine &line) {
    const char *const action = line.word(1), *const group = line.word(2);
    const Names names = namesFrom(line, 3);
    const bool add = strcmp(action, "add") == 0, remove = strcmp(action, "remove") == 0;
    const bool whole = strcmp(action, "delete") == 0;
    if (!*group || !(add || remove || whole) || (whole ? names.count != 0 : names.count == 0)) {
        fprintf(stderr,
                "usage: korvidctl group add|remove [--save] GROUP APPLICATION...\n"
                "       korvidctl group delete [--save] GROUP\n");
        return kUsage;
    }
    if (!allKnown(names)) return kFailed;
    Reply reply;
    const bool exists = findGroup(group, reply);
    if (!exists && !add) {
        fprintf(stderr, "korvidctl: no group '%s'\n", group);
        return kFailed;
    }
    const Fields entry = reply.fields().table("group");
    const bool done = add     ? addMembers(group, names, entry)
                      : whole ? deleteGroup(group)
                              : removeMembers(group, names, entry);
    if (!done) return kFailed;
    if (!line.json) tellGroup(group);
    return tellSaved(line);
}

int saveCommand(const CommandLine &line) {
    CommandLine saving = line;
    saving.save = true;
    return tellSaved(saving);
}

}  // namespace ctl
