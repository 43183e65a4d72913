// Why a flow or an application is treated as it is: what the daemon knows, step by step, and what follows
// from it.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>

#include "appmodel/app_lists.h"
#include "flows/kernel_side.h"
#include "flows/mirroring.h"
#include "kit/engine.h"
#include "kit/kit_state.h"
#include "records/mon_records.h"
#include "show/flow_entry.h"
#include "show/methods.h"
#include "show/nearest.h"

namespace am {

namespace {

using Sentence = char[400];

struct Question {
    const char *application = nullptr;
    const char *protocol = nullptr, *source = nullptr, *destination = nullptr;
    uint32_t sourcePort = 0, destinationPort = 0;
    bool aboutFlow() const { return protocol || source || destination; }
};

bool readQuestion(const blob_attr *message, Question &question) {
    const Argument arguments[] = {
        {.name = "application", .text = &question.application},
        {.name = "protocol", .text = &question.protocol},
        {.name = "source", .text = &question.source},
        {.name = "destination", .text = &question.destination},
        {.name = "source_port", .number = &question.sourcePort, .most = UINT16_MAX},
        {.name = "destination_port", .number = &question.destinationPort, .most = UINT16_MAX},
    };
    return takeArguments(message, arguments);
}

struct UtcText {
    char text[40];
};
UtcText utcText(time_t at) {
    UtcText out{};
    tm parts{};
    if (gmtime_r(&at, &parts)) (void)strftime(out.text, sizeof out.text, "%F %T UTC", &parts);
    return out;
}

// What is known of the flow, of either family.
struct FlowFacts {
    bool recorded = false, monitored = false;
    uint32_t appId = 0;
    bool aged = false, untold = false;
    time_t since = 0;
};

struct V4 {
    using Key = AmEnfKey4;
    using Flow = AmEnfFlow4;
    static constexpr int kFamily = AF_INET;
    // The waiting entry of that index; false when there is none.
    static bool entry(uint32_t index, AmMonFtEntry &entry) {
        const AmGuard guard(amMonQueueLock);
        if (index >= amMonFlowCounter) return false;
        entry = amMonFtQueue[index];
        return true;
    }
    using Entry = AmMonFtEntry;
    static const void *source(const Entry &entry) { return &entry.src_ip; }
    static const void *destination(const Entry &entry) { return &entry.dst_ip; }
};

struct V6 {
    using Key = AmEnfKey6;
    using Flow = AmEnfFlow6;
    static constexpr int kFamily = AF_INET6;
    static bool entry(uint32_t index, AmMonFt6Entry &entry) {
        const AmGuard guard(amMonQueueLock);
        if (index >= amMonFlow6Counter) return false;
        entry = amMonFt6Queue[index];
        return true;
    }
    using Entry = AmMonFt6Entry;
    static const void *source(const Entry &entry) { return &entry.src_ip6; }
    static const void *destination(const Entry &entry) { return &entry.dst_ip6; }
};

template <class Ip>
typename Ip::Key reversed(const typename Ip::Key &key) {
    typename Ip::Key out = key;
    out.fst_ip = key.secnd_ip;
    out.secnd_ip = key.fst_ip;
    out.fstPort = key.scndPort;
    out.scndPort = key.fstPort;
    return out;
}

template <class Ip>
bool isEntryOf(const typename Ip::Entry &entry, const typename Ip::Key &key) {
    return entry.proto == key.proto && entry.src_port == key.fstPort && entry.dst_port == key.scndPort &&
           memcmp(Ip::source(entry), &key.fst_ip, sizeof key.fst_ip) == 0 &&
           memcmp(Ip::destination(entry), &key.secnd_ip, sizeof key.secnd_ip) == 0;
}

template <class Ip>
void lookUp(const typename Ip::Key &key, FlowFacts &facts) {
    typename Ip::Flow flow;
    if (findEnfFlow(key, flow)) {
        facts = {true, facts.monitored, flow.appId, flow.aged != 0, flow.untold != 0, flow.startTime};
        return;
    }
    typename Ip::Entry entry;
    for (uint32_t i = 0; Ip::entry(i, entry); i++)
        if (isEntryOf<Ip>(entry, key)) facts = {false, true, entry.app_id, false, false, entry.time};
}

// False when the question names no flow.
template <class Ip>
bool readFlow(const Question &question, FlowFacts &facts) {
    typename Ip::Key key{};
    const int protocol = protocolNumber(question.protocol);
    if (protocol < 0 || inet_pton(Ip::kFamily, question.source, &key.fst_ip) != 1 ||
        inet_pton(Ip::kFamily, question.destination, &key.secnd_ip) != 1)
        return false;
    key.fstPort = static_cast<uint16_t>(question.sourcePort);
    key.scndPort = static_cast<uint16_t>(question.destinationPort);
    key.proto = static_cast<uint8_t>(protocol);
    lookUp<Ip>(key, facts);
    // Who asks may have seen the answering direction.
    if (!facts.recorded && !facts.monitored) lookUp<Ip>(reversed<Ip>(key), facts);
    return true;
}

// What is known of the application.
struct AppFacts {
    const AmAppNode *node = nullptr;
    AmActiveApp *entry = nullptr;
    Sentence groups = {};             // those that it is a member of
    const AmAppGrp *other = nullptr;  // one on the enforcement list, but not the one that the entry names
};

bool isMember(const AmAppGrp &group, const char *name) {
    GrpElement probe{};
    copyField(probe.name, name);
    return rbtFind(&group.members, &probe.node) != nullptr;
}

AppFacts factsOf(const AmAppNode *node) {
    AppFacts facts;
    facts.node = node;
    if (!node) return facts;
    amModelLock.soleWriterReads();
    facts.entry = amActiveApp(node->appId);
    for (const RbtNode *at = rbtFirst(&amAppGrpTree); at; at = rbtNext(&amAppGrpTree, at)) {
        const auto &group = *reinterpret_cast<const AmAppGrp *>(at);
        if (!isMember(group, node->name)) continue;
        const size_t used = strlen(facts.groups);
        if (used + sizeof group.grpName + 8 < sizeof facts.groups)
            snprintf(facts.groups + used, sizeof facts.groups - used, "%s%.40s", used ? ", " : "",
                     group.grpName);
        const bool named = facts.entry && fieldText(facts.entry->grpName) == fieldText(group.grpName);
        if (group.isEnforcement && !named) facts.other = &group;
    }
    return facts;
}

const AmAppNode *appOfId(uint32_t appId) {
    amModelLock.soleWriterReads();
    const AppNameText name = appNameText(amActiveApp(appId));
    return *name.text ? amIsAppNameValid(name.text) : nullptr;
}

class Steps {
  public:
    explicit Steps(Answer &answer) : answer_(answer) {}
    [[gnu::format(printf, 4, 5)]] void add(const char *step, bool good, const char *format, ...) {
        Sentence text;
        va_list values;
        va_start(values, format);
        vsnprintf(text, sizeof text, format, values);
        va_end(values);
        answer_.table(nullptr, [&] {
            answer_.text("step", step);
            answer_.flag("good", good);
            answer_.text("text", text);
        });
    }

  private:
    Answer &answer_;
};

void addKitSteps(Steps &steps) {
    const unsigned known = rbtCount(&amAppPoolTree);
    if (known == 0)
        steps.add("kit", false, "no signature kit is installed");
    else
        steps.add("kit", amEngineLoaded(), "kit %s knows %u applications; its engine %s",
                  *kitState.version ? kitState.version : "without a version", known,
                  amEngineLoaded() ? "runs" : "does not run");
    const bool on = amAdminState.load(std::memory_order_relaxed) == 1;
    if (mirroringSince != 0)
        steps.add("mirroring", on, "mirroring is %s since %s", on ? "on" : "off",
                  utcText(static_cast<time_t>(mirroringSince)).text);
    else
        steps.add("mirroring", on, "mirroring has not been switched on yet");
}

void addAppSteps(Steps &steps, const AppFacts &app) {
    amModelLock.soleWriterReads();
    const AmAppNode &node = *app.node;
    steps.add("application", app.entry != nullptr, "%s is known by this name, its number is %u%s", node.name,
              node.appId, app.entry ? "" : ", but no entry of the lists has it");
    if (!app.entry) return;
    const AmActiveApp &entry = *app.entry;
    const char *const list =
        entry.isEnforcement
            ? (entry.isMonitoring ? "the enforcement and the monitoring list" : "the enforcement list")
        : entry.isMonitoring ? "the monitoring list"
                             : nullptr;
    if (!list)
        steps.add("list", false, "it is on no list");
    else if (entry.isPartOfGroup)
        steps.add("list", true, "it is on %s; the group %.40s was the last to put it on one", list,
                  entry.grpName);
    else
        steps.add("list", true, "it is on %s by itself", list);
    if (*app.groups) steps.add("groups", true, "it is a member of: %.300s", app.groups);
}

void addFlowSteps(Steps &steps, const FlowFacts &flow) {
    if (flow.recorded)
        steps.add("verdict", !flow.untold, "its verdict was %s at %s",
                  flow.untold ? "made, but not taken by the kernel," : "sent", utcText(flow.since).text);
    else if (flow.monitored)
        steps.add("verdict", true,
                  "it was classified at %s and waits to be written to the monitoring records",
                  utcText(flow.since).text);
    else
        steps.add("verdict", false, "there is no record of this flow");
    if (flow.aged)
        steps.add("end", false, "the kernel has reported its end; the record goes with the next sweep");
}

// What holds for every flow and application; false when nothing does.
bool concludeWorld(Sentence &text) {
    if (rbtCount(&amAppPoolTree) == 0)
        snprintf(text, sizeof text,
                 "No signature kit is installed, so no flow is classified and no name is known.");
    else if (!amEngineLoaded())
        snprintf(text, sizeof text, "The kit's engine does not run, so no flow is classified.");
    else if (amAdminState.load(std::memory_order_relaxed) != 1)
        snprintf(text, sizeof text,
                 "Mirroring is off, so no packet reaches the engine and nothing is enforced.");
    else
        return false;
    return true;
}

// Of an application that is not on the enforcement list.
void concludeNotEnforced(Sentence &text, const AppFacts &app) {
    amModelLock.soleWriterReads();
    const char *const name = app.node->name;
    if (app.other)
        snprintf(text, sizeof text,
                 "%s is not enforced: its group %.40s is on the enforcement list, but was put there without "
                 "it; put the "
                 "group on the list again.",
                 name, app.other->grpName);
    else if (app.entry && app.entry->isMonitoring)
        snprintf(text, sizeof text, "%s is monitored, not enforced: it is not on the enforcement list.",
                 name);
    else
        snprintf(text, sizeof text, "%s is not enforced: it is on no list%s%.200s%s.", name,
                 *app.groups ? ", and none of its groups is (" : "", app.groups, *app.groups ? ")" : "");
}

void concludeApp(Sentence &text, const AppFacts &app) {
    amModelLock.soleWriterReads();
    if (!app.entry || !app.entry->isEnforcement) {
        concludeNotEnforced(text, app);
        return;
    }
    const char *const name = app.node->name;
    if (!app.entry->isPartOfGroup)
        snprintf(text, sizeof text, "%s is enforced: it is on the enforcement list by itself.", name);
    else if (app.other)
        snprintf(text, sizeof text,
                 "%s is enforced: the group %.40s marked it last, after %.40s, which is on the enforcement "
                 "list, too; "
                 "records name the last one.",
                 name, app.entry->grpName, app.other->grpName);
    else
        snprintf(text, sizeof text, "%s is enforced: the group %.40s put it on the list.", name,
                 app.entry->grpName);
}

void concludeFlow(Sentence &text, const FlowFacts &flow, const AppFacts &app) {
    amModelLock.soleWriterReads();
    const char *const name = app.node ? app.node->name : "an application that the kit no longer names";
    if (!flow.recorded && !flow.monitored)
        snprintf(text, sizeof text,
                 "korvid has no record of this flow: it is of no application that is enforced, has not been "
                 "classified "
                 "yet, or has ended.");
    else if (!flow.recorded)
        snprintf(text, sizeof text,
                 "The flow is %s, which is monitored; it was not enforced when it was classified.", name);
    else if (flow.untold)
        snprintf(text, sizeof text,
                 "The flow is %s and was to be enforced, but the kernel did not take the verdict.", name);
    else if (flow.aged)
        snprintf(text, sizeof text, "The flow was %s and was enforced; it has ended.", name);
    else if (!app.entry || !app.entry->isEnforcement)
        snprintf(text, sizeof text,
                 "The flow is %s and was enforced when it was classified; the application has left the list "
                 "since, but "
                 "the kernel keeps the verdict that it has.",
                 name);
    else
        snprintf(text, sizeof text, "The flow is %s and is enforced: the kernel has its verdict.", name);
}

int answerUnknownName(Answer &answer, const char *given) {
    NearestNames nearest(given);
    for (const AmAppNode *app = amGetNextAppNode(nullptr); app; app = amGetNextAppNode(app))
        nearest.offer(app->name);
    answer.array("steps", [&] {
        Steps steps(answer);
        addKitSteps(steps);
        steps.add("application", false, "no application has this name");
    });
    answer.flag("known", false);
    answer.array("nearest", [&] {
        for (size_t i = 0; i < nearest.count(); i++) answer.text(nullptr, nearest[i]);
    });
    Sentence text;
    if (rbtCount(&amAppPoolTree) != 0 || !concludeWorld(text))
        snprintf(text, sizeof text, "The kit knows no application '%.60s'%s%s%s", given,
                 nearest.count() ? "; the nearest name is '" : "", nearest.count() ? nearest[0] : "",
                 nearest.count() ? "'." : ".");
    answer.text("conclusion", text);
    return UBUS_STATUS_OK;
}

}  // namespace

int answerExplain(Answer &answer, const blob_attr *message) {
    Question question;
    if (!readQuestion(message, question)) return UBUS_STATUS_INVALID_ARGUMENT;
    FlowFacts flow;
    if (question.aboutFlow()) {
        if (!question.protocol || !question.source || !question.destination)
            return UBUS_STATUS_INVALID_ARGUMENT;
        if (!readFlow<V4>(question, flow) && !readFlow<V6>(question, flow))
            return UBUS_STATUS_INVALID_ARGUMENT;
    } else if (!question.application) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const bool known = flow.recorded || flow.monitored;
    const AmAppNode *const node = question.application ? amIsAppNameValid(question.application)
                                  : known              ? appOfId(flow.appId)
                                                       : nullptr;
    if (question.application && !node) return answerUnknownName(answer, question.application);
    const AppFacts app = factsOf(node);

    answer.array("steps", [&] {
        Steps steps(answer);
        addKitSteps(steps);
        if (question.aboutFlow()) addFlowSteps(steps, flow);
        if (node) addAppSteps(steps, app);
    });
    if (node) {
        amModelLock.soleWriterReads();
        answer.flag("known", true);
        answer.text("application", node->name);
        answer.number("id", node->appId);
        answer.flag("enforced", app.entry && app.entry->isEnforcement);
        answer.flag("monitored", app.entry && app.entry->isMonitoring);
    }
    Sentence text;
    const bool aboutFlow = question.aboutFlow();
    if (aboutFlow && (known || !concludeWorld(text)))
        concludeFlow(text, flow, app);
    else if (!aboutFlow && !concludeWorld(text))
        concludeApp(text, app);
    answer.text("conclusion", text);
    return UBUS_STATUS_OK;
}

}  // namespace am
