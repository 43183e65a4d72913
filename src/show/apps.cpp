#include <algorithm>
#include <cstring>
#include <memory>

#include "appmodel/app_pool.h"
#include "core/handle.h"
#include "show/methods.h"

namespace am {

namespace {

enum class Sort { flows, recent, name };
enum class List { all, enforced, monitored, none, seen };

struct Question {
    List list = List::all;
    Sort sort = Sort::flows;
    const char *name = "";
    Page page;
};

// The order of the answer: what is counted must not change while it is sorted, and packets go on being
// counted.
struct Rank {
    uint32_t key;
    const AmAppNode *app;
};

bool isOneOf(const char *text, const char *const *texts, size_t count, size_t &which) {
    for (which = 0; which < count; which++)
        if (strcmp(text, texts[which]) == 0) return true;
    return false;
}

bool readQuestion(const blob_attr *message, Question &question) {
    const char *list = "all", *sort = "flows";
    const Argument arguments[] = {
        {.name = "list", .text = &list},
        {.name = "name", .text = &question.name},
        {.name = "sort", .text = &sort},
        {.name = "limit", .number = &question.page.limit, .most = Page::kMost},
        {.name = "offset", .number = &question.page.offset},
    };
    static constexpr const char *kSorts[] = {"flows", "recent", "name"};
    static constexpr const char *kLists[] = {"all", "enforced", "monitored", "none", "seen"};
    size_t sortIndex, listIndex;
    if (!takeArguments(message, arguments) || !isOneOf(sort, kSorts, std::size(kSorts), sortIndex) ||
        !isOneOf(list, kLists, std::size(kLists), listIndex))
        return false;
    question.sort = static_cast<Sort>(sortIndex);
    question.list = static_cast<List>(listIndex);
    return true;
}

constexpr AmActiveApp kNoEntry{};

const AmActiveApp &entryOf(const AmAppNode &app) {
    amModelLock.soleWriterReads();
    const AmActiveApp *const entry = amActiveApp(app.appId);
    return entry ? *entry : kNoEntry;
}

bool isAskedFor(const AmAppNode &app, const Question &question) {
    if (*question.name && !strcasestr(app.name, question.name)) return false;
    amModelLock.soleWriterReads();
    const AmActiveApp &entry = entryOf(app);
    switch (question.list) {
        case List::all:
            return true;
        case List::enforced:
            return entry.isEnforcement;
        case List::monitored:
            return entry.isMonitoring;
        case List::none:
            return !entry.isEnforcement && !entry.isMonitoring;
        case List::seen:
            return entry.flowsSeen.load(std::memory_order_relaxed) != 0;
    }
    return false;
}

uint32_t keyOf(const AmAppNode &app, Sort sort) {
    const AmActiveApp &entry = entryOf(app);
    switch (sort) {
        case Sort::flows:
            return entry.flowsSeen.load(std::memory_order_relaxed);
        case Sort::recent:
            return entry.lastSeen.load(std::memory_order_relaxed);
        case Sort::name:
            return 0;
    }
    return 0;
}

void addApp(Answer &answer, const AmAppNode &app) {
    amModelLock.soleWriterReads();
    const AmActiveApp &entry = entryOf(app);
    answer.table(nullptr, [&] {
        amModelLock.soleWriterReads();
        answer.number("id", app.appId);
        answer.text("name", app.name);
        answer.field("group", entry.grpName);
        answer.flag("enforced", entry.isEnforcement != 0);
        answer.flag("monitored", entry.isMonitoring != 0);
        answer.number("flows", entry.flowsSeen.load(std::memory_order_relaxed));
        answer.number("last_seen", entry.lastSeen.load(std::memory_order_relaxed));
        answer.number("packets", entry.endedPackets);
        answer.number("bytes", entry.endedBytes);
    });
}

}  // namespace

int answerApps(Answer &answer, const blob_attr *message) {
    Question question;
    if (!readQuestion(message, question)) return UBUS_STATUS_INVALID_ARGUMENT;
    using Ranks = std::unique_ptr<Rank[], Closer<free>>;
    const Ranks ranks(static_cast<Rank *>(malloc(sizeof(Rank) * (rbtCount(&amAppPoolTree) + 1))));
    if (!ranks) return UBUS_STATUS_UNKNOWN_ERROR;
    uint32_t total = 0;
    for (const AmAppNode *app = amGetNextAppNode(nullptr); app; app = amGetNextAppNode(app))
        if (isAskedFor(*app, question)) ranks[total++] = {keyOf(*app, question.sort), app};

    const uint32_t first = std::min(question.page.offset, total);
    const uint32_t end = first + std::min(question.page.limit, total - first);
    // The pool is in the order of names, which also decides among equals.
    if (question.sort != Sort::name)
        std::partial_sort(
            ranks.get(), ranks.get() + end, ranks.get() + total, [](const Rank &a, const Rank &b) {
                return a.key != b.key ? a.key > b.key : strncmp(a.app->name, b.app->name, kAppNameSize) < 0;
            });
    answer.number("total", total);
    uint32_t next = first;
    answer.array("apps", [&] {
        for (; next < end && !answer.full(); next++) addApp(answer, *ranks[next].app);
    });
    if (next < total) answer.number("next", next);
    return UBUS_STATUS_OK;
}

}  // namespace am
