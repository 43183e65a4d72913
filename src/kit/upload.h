// The four upload slots, one per record file, and the threads that run them.
//
//   free --start--> running --stop_upload_thread--> stopping --the transfer notices--> free
//                      '-------------------- the transfer ends ----------------------> free
//
// Threads: the event-loop thread fills and starts a free slot and asks a running one to stop; the slot's own
// thread reads its arguments and frees it.  amUploadLock guards the slots' states, a condition variable tells
// of a slot that became free.  A slot that is free says nothing of the thread that was in it: each leaving
// thread joins the one that left before it, and uploadThreadsEnded the last.
#pragma once
#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "core/lock.h"

// What an upload thread is started with.
struct UploadArgs {
    char filePath[256];  // directory on the file server
    char password[256];
    char username[256];
    char fileName[64];  // under /flash
    char checksum[33];  // MD5 of the bytes sent
};

struct thread_mgr_slot {
    pthread_t thread;  // 0 = the slot is free
    UploadArgs args;
    uint8_t stop;  // 1 = the running upload is asked to stop
};

enum UploadSlot : int { kSlotEnf, kSlotEnfOld, kSlotMon, kSlotMonOld, kUploadSlots };

extern AmMutex amUploadLock;
extern thread_mgr_slot thread_mgr[kUploadSlots] GUARDED_BY(amUploadLock);

// 0 when the slot is free, at once or within five seconds of asking its upload to stop; -1 when it still
// runs.
[[nodiscard]] int stop_upload_thread(int slot) EXCLUDES(amUploadLock);

void clearUploadArgs(int slot) EXCLUDES(amUploadLock);

// Starts the slot's thread with the arguments in it, as this file.  0, or -1 when no thread can be had: the
// arguments are then cleared.
[[nodiscard]] int startUpload(int slot, const char *fileName) EXCLUDES(amUploadLock);

// Whether the upload of the calling thread has been asked to stop; false on a thread that runs none.
bool uploadAskedToStop() EXCLUDES(amUploadLock);

// Whether no thread of an upload runs any more, not even in what its libraries do at a thread's end.
// Event-loop thread.
[[nodiscard]] bool uploadThreadsEnded() EXCLUDES(amUploadLock);

// Thread bodies: run the slot's upload and free the slot.
void *appEnfCsvUpload(void *slotArgs);
void *appEnfOldCsvUpload(void *slotArgs);
void *appMonCsvUpload(void *slotArgs);
void *appMonOldCsvUpload(void *slotArgs);
