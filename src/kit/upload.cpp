#include "kit/upload.h"

#include <signal.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "core/text.h"
#include "kit/transfer.h"

constinit AmMutex amUploadLock;
constinit thread_mgr_slot thread_mgr[kUploadSlots] GUARDED_BY(amUploadLock)
= {};

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
UploadArgs argumentsOf(int slot) EXCLUDES(amUploadLock)
{
    const AmGuard guard(amUploadLock);
    return thread_mgr[slot].args;
}

void freeSlot(int slot) EXCLUDES(amUploadLock)
{
    const AmGuard guard(amUploadLock);
    thread_mgr[slot] = {};
    pthread_cond_broadcast(slotFreedCondition());
}

void *runUpload(int slot) EXCLUDES(amUploadLock)
{
    pthread_detach(pthread_self());
    UploadArgs args = argumentsOf(slot);
    (void)stats_upload(args.username, args.password, args.filePath, args.fileName, args.checksum);
    explicit_bzero(&args, sizeof args);
    freeSlot(slot);
    return nullptr;
}

using UploadBody = void *(*)(void *);
constexpr UploadBody kBodies[] = {appEnfCsvUpload, appEnfOldCsvUpload, appMonCsvUpload, appMonOldCsvUpload};
static_assert(sizeof kBodies / sizeof *kBodies == kUploadSlots);

// The new thread takes no signals: they belong to the event loop, and a server that hangs up must not raise
// SIGPIPE from the TLS library.
int createUploadThread(pthread_t &thread, int slot, UploadArgs &args) {
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(&thread, nullptr, kBodies[slot], &args);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

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

void clearUploadArgs(int slot) {
    const AmGuard guard(amUploadLock);
    thread_mgr[slot].args = {};
}

int startUpload(int slot, const char *fileName) {
    // Held over the creation, so that the id is in the slot before the thread can look for it or clear it.
    const AmGuard guard(amUploadLock);
    thread_mgr_slot &mine = thread_mgr[slot];
    if (mine.thread != 0) return -1;
    am::copyText(mine.args.fileName, fileName);
    if (createUploadThread(mine.thread, slot, mine.args) == 0) return 0;
    mine.thread = 0;
    mine.args = {};
    return -1;
}

bool uploadAskedToStop() {
    const AmGuard guard(amUploadLock);
    for (const thread_mgr_slot &slot : thread_mgr)
        if (slot.thread != 0 && pthread_equal(slot.thread, pthread_self())) return slot.stop == 1;
    return false;
}

bool anyUploadRuns() {
    const AmGuard guard(amUploadLock);
    return std::any_of(std::begin(thread_mgr), std::end(thread_mgr),
                       [](const thread_mgr_slot &slot) { return slot.thread != 0; });
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
