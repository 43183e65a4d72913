#include "appmodel/app_pool.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "core/log.h"
#include "core/text.h"

constinit AmSharedMutex amModelLock;
constinit uint32_t amModelChanges = 0;
constinit RbtTree amAppPoolTree{};
constinit int32_t amAppPoolShmSigCnt = 0;
constinit AmActiveApp *amActData = nullptr;
constinit uint32_t amMaxAppIdCount = 0;

namespace {

const AmAppNode *appOf(const RbtNode *node) {
    return reinterpret_cast<const AmAppNode *>(node);
}

AmAppNode *appOf(RbtNode *node) {
    return reinterpret_cast<AmAppNode *>(node);
}

constinit uint64_t flowsOfEarlierArrays = 0;

uint64_t flowsIn(const AmActiveApp *entries, uint32_t count) {
    uint64_t flows = 0;
    for (uint32_t id = 0; entries && id < count; id++)
        flows += entries[id].flowsSeen.load(std::memory_order_relaxed);
    return flows;
}

// No verdict reaches the array any more.
void freeArray(AmActiveApp *entries, uint32_t count) {
    flowsOfEarlierArrays += flowsIn(entries, count);
    free(entries);
}

// Swaps the array for `entries`, which may be null, and hands back the one that was there, for the caller to
// free outside the lock, with the number of its entries.
struct OldArray {
    AmActiveApp *entries;
    uint32_t count;
};
OldArray exchangeArray(AmActiveApp *entries, uint32_t count) EXCLUDES(amModelLock) {
    amModelChanges++;
    const AmGuard guard(amModelLock);
    const uint32_t oldCount = std::exchange(amMaxAppIdCount, count);
    return {std::exchange(amActData, entries), oldCount};
}

}  // namespace

int amAppPoolNameCompare(const RbtNode *a, const RbtNode *b) {
    return strncmp(appOf(a)->name, appOf(b)->name, kAppNameSize);
}

AmAppNode *getAppNode(const char *name) {
    AmAppNode probe{};
    am::copyText(probe.name, name);
    return appOf(rbtFind(&amAppPoolTree, &probe.node));
}

AmAppNode *amIsAppNameValid(const char *name) {
    return name ? getAppNode(name) : nullptr;
}

AmAppNode *amGetNextAppNode(const AmAppNode *node) {
    return appOf(node ? rbtNext(&amAppPoolTree, &node->node) : rbtFirst(&amAppPoolTree));
}

int amUpdateAppPool(const AmAppNode *record) {
    AmAppNode *app = amIsAppNameValid(record->name);
    if (record->appId > amAppPoolShmSigCnt) amAppPoolShmSigCnt = record->appId;
    if (app) {
        app->state = AM_APP_VALID;
        return 1;
    }
    app = new (std::nothrow) AmAppNode(*record);
    if (!app) {
        amLog(AM_LOG_ERROR, "%s:%d malloc error\n", __func__, __LINE__);
        return 0;
    }
    app->state = AM_APP_VALID;
    rbtInsert(&amAppPoolTree, &app->node);
    return 1;
}

void amAppPoolMarkObsolete() {
    for (AmAppNode *app = amGetNextAppNode(nullptr); app; app = amGetNextAppNode(app))
        app->state = AM_APP_OBSOLETE;
}

void amCleanAppPool() {
    for (AmAppNode *app = amGetNextAppNode(nullptr), *next; app; app = next) {
        next = amGetNextAppNode(app);
        if (app->state != AM_APP_OBSOLETE) {
            app->state = AM_APP_VALID;
            continue;
        }
        rbtRemove(&amAppPoolTree, &app->node);
        delete app;
    }
}

void amRebuildActiveAppArray(const char *op, int line) {
    const auto count = static_cast<uint32_t>(amAppPoolShmSigCnt + 1);
    // The allocator's zero pages: an index with one high id costs no memory for the ids that it leaves out.
    auto *entries = static_cast<AmActiveApp *>(calloc(count, sizeof(AmActiveApp)));
    const OldArray old = exchangeArray(entries, count);
    freeArray(old.entries, old.count);
    amLog(AM_LOG_DEBUG, "%s:%d amMaxAppIdCount %d amAppPoolShmSigCnt %d\n", op, line, static_cast<int>(count),
          amAppPoolShmSigCnt);
    if (!entries) {
        amLog(AM_LOG_ERROR, "%s:%d Malloc failed for Monitor active list!!\n", op, line);
        return;
    }
    amUpdateActiveAppListArray();
}

void amUpdateActiveAppListArray() {
    const AmGuard guard(amModelLock);
    uint32_t passed = 0;
    for (const AmAppNode *app = amGetNextAppNode(nullptr); app; app = amGetNextAppNode(app)) {
        if (++passed % kEntriesATurn == 0) amModelLock.letReadersIn();
        AmActiveApp *entry = amActiveApp(app->appId);
        if (!entry) {
            amLog(AM_LOG_INFO, "%s:%d appId %d amMaxAppIdCount %d\n", __func__, __LINE__, app->appId,
                  static_cast<int>(amMaxAppIdCount));
            continue;
        }
        am::copyField(entry->appName, am::fieldText(app->name));
    }
}

void amCleanAppList() {
    amModelChanges++;
    amModelLock.lock();
    AmActiveApp *entries = std::exchange(amActData, nullptr);
    const uint32_t count = amMaxAppIdCount;
    amModelLock.unlock();
    freeArray(entries, count);
}

uint64_t am::flowsJudged() {
    amModelLock.soleWriterReads();
    return flowsOfEarlierArrays + flowsIn(amActData, amMaxAppIdCount);
}
