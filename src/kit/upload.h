// The threads that run the uploads, one a slot.
//
// A condition variable tells of a slot that became free.  A slot that is free says nothing of the thread that
// was in it: each leaving thread joins the one that left before it, and uploadThreadsEnded the last.
#pragma once
#include "kit/upload_slots.h"

// 0 when the slot is free, at once or within five seconds of asking its upload to stop; -1 when it still
// runs.
[[nodiscard]] int stop_upload_thread(int slot) EXCLUDES(amUploadLock);

// Starts the slot's thread with the arguments in it, as this file.  0, or -1 when no thread can be had: the
// arguments are then cleared.
[[nodiscard]] int startUpload(int slot, const char *fileName) EXCLUDES(amUploadLock);

// Whether no thread of an upload runs any more, not even in what its libraries do at a thread's end.
// Event-loop thread.
[[nodiscard]] bool uploadThreadsEnded() EXCLUDES(amUploadLock);

// Thread bodies: run the slot's upload and free the slot.
void *appEnfCsvUpload(void *slotArgs);
void *appEnfOldCsvUpload(void *slotArgs);
void *appMonCsvUpload(void *slotArgs);
void *appMonOldCsvUpload(void *slotArgs);
