#include "kit/upload.h"

#include <string.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "core/text.h"
#include "core/thread.h"
#include "kit/transfer.h"

namespace {

constexpr time_t kStopWaitSeconds = 5;

// Tells of a slot that became free; with amUploadLock.  It measures by the monotonic clock, so that setting
// the time does not stretch a wait.
pthread_cond_t slotFreed;
pthread_once_t slotFreedOnce = PTHREAD_ONCE_INIT;

void initSlotFreed() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&slotFreed, &attributes);
    pthread_condattr_destroy(&attributes);
}

pthread_cond_t *slotFreedCondition() {
    pthread_once(&slotFreedOnce, initSlotFreed);
    return &slotFreed;
}

// The thread works on a copy of its arguments: a request that finds the rotated file gone clears that slot's
// block although its upload may still run.
UploadArgs argumentsOf(int slot) EXCLUDES(amUploadLock) {
    const AmGuard guard(amUploadLock);
    return thread_mgr[slot].args;
}

// The thread that was the last to free its slot, until it is joined.
constinit pthread_t lastToLeave GUARDED_BY(amUploadLock) = 0;

// Frees the calling thread's slot.  It has still to run what the transfer's libraries do at a thread's end,
// so it has to be joined, as does the one that left before it: that it joins itself, so that one at most is
// left.
void leaveSlot(int slot) EXCLUDES(amUploadLock) {
    pthread_t before;
    {
        const AmGuard guard(amUploadLock);
        thread_mgr[slot] = {};
        before = std::exchange(lastToLeave, pthread_self());
        pthread_cond_broadcast(slotFreedCondition());
    }
    if (before != 0) pthread_join(before, nullptr);
}

void *runUpload(int slot) EXCLUDES(amUploadLock) {
    UploadArgs args = argumentsOf(slot);
    (void)stats_upload(args.username, args.password, args.filePath, args.fileName, args.checksum);
    explicit_bzero(&args, sizeof args);
    leaveSlot(slot);
    return nullptr;
}

using UploadBody = void *(*)(void *);
constexpr UploadBody kBodies[] = {appEnfCsvUpload, appEnfOldCsvUpload, appMonCsvUpload, appMonOldCsvUpload};
static_assert(sizeof kBodies / sizeof *kBodies == kUploadSlots);

}  // namespace

int stop_upload_thread(int slot) {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += kStopWaitSeconds;

    const AmGuard guard(amUploadLock);
    if (thread_mgr[slot].thread == 0) return 0;
    thread_mgr[slot].stop = 1;
    int error = 0;
    while (thread_mgr[slot].thread != 0 && error != ETIMEDOUT)
        error = pthread_cond_timedwait(slotFreedCondition(), amUploadLock.native(), &deadline);
    return thread_mgr[slot].thread == 0 ? 0 : -1;
}

int startUpload(int slot, const char *fileName) {
    // Held over the creation, so that the id is in the slot before the thread can look for it or clear it.
    const AmGuard guard(amUploadLock);
    thread_mgr_slot &mine = thread_mgr[slot];
    if (mine.thread != 0) return -1;
    am::copyText(mine.args.fileName, fileName);
    // No signals: they belong to the event loop, and a server that hangs up must not raise SIGPIPE from the
    // TLS library.
    if (am::startThread(mine.thread, am::allSignals(), kBodies[slot], &mine.args) == 0) return 0;
    mine.thread = 0;
    mine.args = {};
    return -1;
}

bool uploadThreadsEnded() {
    const AmGuard guard(amUploadLock);
    if (lastToLeave != 0 && am::joinEnded(lastToLeave)) lastToLeave = 0;
    return lastToLeave == 0 && std::all_of(std::begin(thread_mgr), std::end(thread_mgr),
                                           [](const thread_mgr_slot &slot) { return slot.thread == 0; });
}

void *appEnfCsvUpload(void *) {
    return runUpload(kSlotEnf);
}

void *appEnfOldCsvUpload(void *) {
    return runUpload(kSlotEnfOld);
}

void *appMonCsvUpload(void *) {
    return runUpload(kSlotMon);
}

void *appMonOldCsvUpload(void *) {
    return runUpload(kSlotMonOld);
}
