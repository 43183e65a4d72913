// The lists: applications, groups, live flows.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "core/handle.h"
#include "ctl/commands.h"
#include "ctl/json.h"
#include "ctl/names.h"
#include "ctl/pages.h"
#include "ctl/table.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace ctl {

namespace {

uint32_t mostOf(const CommandLine &line) {
    return line.all ? UINT32_MAX : line.limit;
}

void addIf(am::Answer &arguments, const char *name, const char *value) {
    if (value) arguments.text(name, value);
}

void tellMore(uint64_t shown, uint64_t total) {
    if (shown < total)
        fprintf(stderr, "%s of %s shown; --all shows the rest, --limit N more\n", numberText(shown).text,
                numberText(total).text);
}

const char *listsText(const Fields &entry) {
    const bool enforced = entry.flag("enforced"), monitored = entry.flag("monitored");
    if (enforced) return monitored ? "enforced, monitored" : "enforced";
    return monitored ? "monitored" : "-";
}

Colour listsColour(const Fields &entry) {
    return entry.flag("enforced") ? Colour::bad : entry.flag("monitored") ? Colour::good : Colour::dim;
}

const char *orDash(const char *text) {
    return *text ? text : "-";
}

bool isOneOf(const char *what, const char *given, std::initializer_list<const char *> known) {
    if (!given) return true;
    for (const char *word : known)
        if (strcmp(given, word) == 0) return true;
    fprintf(stderr, "korvidctl: --%s takes", what);
    for (const char *word : known) fprintf(stderr, " %s", word);
    fprintf(stderr, "\n");
    return false;
}

}  // namespace

void printJson(const Reply &reply) {
    const am::CText text(blobmsg_format_json_indent(const_cast<blob_attr *>(reply.message()), true, 0));
    if (text) puts(text.get());
}

JsonList::JsonList(const char *name) {
    printf("{\n\t\"%s\": [", name);
}

JsonList::~JsonList() {
    printf("\n\t]\n}\n");
}

void JsonList::add(const am::Member &entry) {
    const am::CText text(blobmsg_format_json_value(const_cast<blob_attr *>(entry.attr)));
    printf("%s\n\t\t%s", first_ ? "" : ",", text ? text.get() : "null");
    first_ = false;
}

int appsCommand(const CommandLine &line) {
    if (!isOneOf("list", line.list, {"all", "enforced", "monitored", "none", "seen"}) ||
        !isOneOf("sort", line.sort, {"flows", "recent", "name"}))
        return kUsage;
    const auto fill = [&](am::Answer &arguments) {
        addIf(arguments, "list", line.list);
        addIf(arguments, "sort", line.sort);
        addIf(arguments, "name", line.name ? line.name : line.wordCount > 1 ? line.word(1) : nullptr);
    };
    if (line.json) {
        JsonList json("apps");
        (void)forEachEntry(kApps, mostOf(line), fill, [&](const am::Member &entry) { json.add(entry); });
        return kDone;
    }
    static constexpr Column kColumns[] = {{"ID", true},      {"APPLICATION"}, {"GROUP"},
                                          {"LISTS"},         {"FLOWS", true}, {"LAST SEEN", true},
                                          {"PACKETS", true}, {"BYTES", true}};
    static Table table(kColumns);
    const uint32_t shown = forEachEntry(kApps, mostOf(line), fill, [&](const am::Member &entry) {
        const Fields app(entry);
        table.add(numberText(app.number("id")).text, Colour::dim);
        table.add(app.text("name"));
        table.add(orDash(app.text("group")));
        table.add(listsText(app), listsColour(app));
        table.add(numberText(app.number("flows")).text);
        table.add(agoText(app.number("last_seen")).text);
        table.add(amountText(app.number("packets")).text);
        table.add(amountText(app.number("bytes")).text);
    });
    table.print();
    static blob_buf buffer;
    am::Answer arguments(buffer);
    fill(arguments);
    (void)blobmsg_add_u32(&buffer, "limit", 0);
    Reply reply;
    ask("apps", arguments.message(), reply);
    tellMore(shown, reply.fields().number("total"));
    return kDone;
}

int groupsCommand(const CommandLine &line) {
    const char *const name = line.name ? line.name : line.wordCount > 1 ? line.word(1) : nullptr;
    if (name) {
        static blob_buf buffer;
        am::Answer arguments(buffer);
        arguments.text("name", name);
        Reply reply;
        if (look("groups", arguments.message(), reply) != Found::yes) {
            fprintf(stderr, "korvidctl: no group '%s'\n", name);
            return kFailed;
        }
    }
    const PagedList &list = name ? kMembers : kGroups;
    const auto fill = [&](am::Answer &arguments) { addIf(arguments, "name", name); };
    if (line.json) {
        JsonList json(list.array);
        (void)forEachEntry(list, UINT32_MAX, fill, [&](const am::Member &entry) { json.add(entry); });
        return kDone;
    }
    if (name) {
        (void)forEachEntry(list, UINT32_MAX, fill, [](const am::Member &entry) {
            if (const char *const text = entry.text()) puts(shown(text).text);
        });
        return kDone;
    }
    static constexpr Column kColumns[] = {{"GROUP"}, {"MEMBERS", true}, {"LISTS"}};
    static Table table(kColumns);
    (void)forEachEntry(list, UINT32_MAX, fill, [&](const am::Member &entry) {
        const Fields group(entry);
        table.add(group.text("name"));
        table.add(numberText(group.number("members")).text);
        table.add(listsText(group), listsColour(group));
    });
    table.print();
    return kDone;
}

int flowsCommand(const CommandLine &line) {
    in6_addr address;
    if (line.address && inet_pton(AF_INET, line.address, &address) != 1 &&
        inet_pton(AF_INET6, line.address, &address) != 1) {
        fprintf(stderr, "korvidctl: '%s' is no address\n", line.address);
        return kUsage;
    }
    if (line.application && !isApplication(line.application)) return kFailed;
    const auto fill = [&](am::Answer &arguments) {
        addIf(arguments, "application", line.application);
        addIf(arguments, "address", line.address);
    };
    if (line.json) {
        JsonList json("flows");
        (void)forEachEntry(kFlows, mostOf(line), fill, [&](const am::Member &entry) { json.add(entry); });
        return kDone;
    }
    static constexpr Column kColumns[] = {{"PROTOCOL"},   {"SOURCE"},      {"PORT", true},  {"DESTINATION"},
                                          {"PORT", true}, {"APPLICATION"}, {"SINCE", true}, {"STATE"}};
    static Table table(kColumns);
    (void)forEachEntry(kFlows, mostOf(line), fill, [&](const am::Member &entry) {
        const Fields flow(entry);
        const char *const state = flow.text("state");
        table.add(flow.text("protocol"));
        table.add(flow.text("source"));
        table.add(numberText(flow.number("source_port")).text);
        table.add(flow.text("destination"));
        table.add(numberText(flow.number("destination_port")).text);
        table.add(flow.text("application"));
        table.add(agoText(flow.number("since")).text);
        table.add(state, strcmp(state, "live") == 0 ? Colour::good : Colour::bad);
    });
    table.print();
    return kDone;
}

}  // namespace ctl
