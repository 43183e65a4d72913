// The catalogue of applications that the installed kit recognises (the pool, by name), and beside it the
// active array, indexed by application id, that says which applications are on which list and through which
// group.
//
//   pool node:    index line names it --> valid --> marked obsolete before the next index is read --> revived
//                 or freed
//   active array: none before the first kit; freed and built anew by every kit update
//
// Threads: changed on the event-loop thread only.  That thread, the sole writer, reads without a lock, saying
// amModelLock.soleWriterReads(), and writes under amModelLock held exclusively; the classification callback
// reads under it, shared, for its whole run.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "appmodel/rbt.h"
#include "core/shared_mutex.h"
#include "core/text.h"

inline constexpr size_t kAppNameSize = 32;    // a name of full width has no terminator in such a field
inline constexpr size_t kGroupNameSize = 40;  // likewise

enum AmAppState : uint32_t { AM_APP_VALID = 1, AM_APP_OBSOLETE = 2 };

enum AmListType : uint32_t { AM_LIST_MONITORING = 1, AM_LIST_ENFORCEMENT = 2 };

// One application of the pool.
struct AmAppNode {
    RbtNode node;                 // first: the tree hands out RbtNode pointers
    char name[kAppNameSize + 1];  // always terminated
    uint16_t appId;               // given by the index that first named the application; never changes after
    uint32_t state;               // AmAppState
};
static_assert(offsetof(AmAppNode, node) == 0 && offsetof(AmAppNode, name) == sizeof(RbtNode));

extern AmSharedMutex amModelLock;

// Counts the changes of what is on a list or in a group, or which application a number means.  Event-loop
// thread.
extern uint32_t amModelChanges;

// Of a change that passes through the array a verdict waits for this many entries at most, some microseconds;
// if verdicts were let in after each entry, the change would wait for as many rounds of them.
inline constexpr uint32_t kEntriesATurn = 256;

// One entry of the active array.  The names are zero-padded fields.
struct AmActiveApp {
    char appName[kAppNameSize] GUARDED_BY(amModelLock);
    char grpName[kGroupNameSize] GUARDED_BY(
        amModelLock);  // the group through which the application was put on a list, else empty
    // Monitored flows since the last hourly record: added to by the callback, taken by the record's writer.
    std::atomic<uint32_t> monFlowCount;
    uint8_t isMonitoring GUARDED_BY(amModelLock);   // 0 or 1
    uint8_t isEnforcement GUARDED_BY(amModelLock);  // 0 or 1
    uint8_t isPartOfGroup GUARDED_BY(amModelLock);  // 1 while grpName is set
    // Since the array was built, for people to look at: classified flows, added to by the callback, and when
    // the last of them was, in seconds since the epoch (0: none so far).
    std::atomic<uint32_t> flowsSeen;
    std::atomic<uint32_t> lastSeen;
    // Of enforced flows that have ended, as the kernel counted them.  Event-loop thread.
    uint64_t endedPackets, endedBytes;
};
static_assert(sizeof(AmActiveApp) == 104 && std::atomic<uint32_t>::is_always_lock_free);

extern RbtTree amAppPoolTree;       // of AmAppNode, by name; event-loop thread only
extern int32_t amAppPoolShmSigCnt;  // highest id of the last index read

// amMaxAppIdCount entries, or null; the count holds the size even when the array could not be allocated.
extern AmActiveApp *amActData GUARDED_BY(amModelLock);
extern uint32_t amMaxAppIdCount GUARDED_BY(amModelLock);

namespace am {
// Classified flows since the start of the process, those of earlier arrays included.  Event-loop thread.
uint64_t flowsJudged();
}  // namespace am

int amAppPoolNameCompare(const RbtNode *a, const RbtNode *b);  // over 32 characters

// The pool's node of that name (its first 32 characters count), or null; obsolete nodes are found too.
AmAppNode *getAppNode(const char *name);

// The same; null for a null name.  Every name from outside is checked with this.
AmAppNode *amIsAppNameValid(const char *name);

// The first node in name order for null, else the next; null after the last.
AmAppNode *amGetNextAppNode(const AmAppNode *node);

// Enters the application of a zeroed record with name and id, or revives the one of that name, which keeps
// its id. 1, or 0 when there is no memory.
int amUpdateAppPool(const AmAppNode *record);

void amAppPoolMarkObsolete();  // before an index is read
void amCleanAppPool();         // after: frees what the index no longer names

// Builds the zeroed array for ids 0 to amAppPoolShmSigCnt, replacing any, and writes the pool's names into
// it. Without memory the array stays absent.  `op` and `line` head the log lines.
void amRebuildActiveAppArray(const char *op, int line) EXCLUDES(amModelLock);

// Writes the pool's names into the array.  An application kept from an earlier kit whose id lies beyond the
// new index has no entry and is logged.
void amUpdateActiveAppListArray() EXCLUDES(amModelLock);

void amCleanAppList() EXCLUDES(amModelLock);  // frees the array

// The array's entry of that id, or null when there is no array or no such entry.
inline AmActiveApp *amActiveApp(uint32_t appId) REQUIRES_SHARED(amModelLock) {
    return amActData && appId < amMaxAppIdCount ? amActData + appId : nullptr;
}

namespace am {

// The application's name as log lines show it, terminated; empty without an entry.
struct AppNameText {
    char text[kAppNameSize + 1];
};
inline AppNameText appNameText(const AmActiveApp *app) REQUIRES_SHARED(amModelLock) {
    AppNameText out{};
    if (app) copyText(out.text, fieldText(app->appName));
    return out;
}

}  // namespace am
