#include "kit/upload_slots.h"

constinit AmMutex amUploadLock;
constinit thread_mgr_slot thread_mgr[kUploadSlots] GUARDED_BY(amUploadLock) = {};

void clearUploadArgs(int slot) {
    const AmGuard guard(amUploadLock);
    thread_mgr[slot].args = {};
}

bool uploadAskedToStop() {
    const AmGuard guard(amUploadLock);
    for (const thread_mgr_slot &slot : thread_mgr)
        if (slot.thread != 0 && pthread_equal(slot.thread, pthread_self())) return slot.stop == 1;
    return false;
}
