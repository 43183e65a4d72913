// The four upload slots, one per record file: their state, which event loop and upload threads share.
//
//   free --start--> running --asked--> stopping --the transfer notices--> free
//                      '-------------- the transfer ends ---------------> free
//
// Threads: the event-loop thread fills a free slot and asks a running one to stop; the slot's own thread
// reads its arguments and frees it (kit/upload.h).  amUploadLock guards all of it.
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

void clearUploadArgs(int slot) EXCLUDES(amUploadLock);

// Whether the upload of the calling thread has been asked to stop; false on a thread that runs none.
bool uploadAskedToStop() EXCLUDES(amUploadLock);
