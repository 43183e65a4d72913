// Monitored flows: queued as the engine reports them, and every 5 minutes written to the monitoring records
// file.
//
// Threads: the live queues, their counters and miss counters are under amMonQueueLock: the engine's threads
// store, the event-loop thread drains.  The buffer queues and the file belong to the event-loop thread.
#pragma once
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

extern "C" {
#include <libubox/uloop.h>
}

#include "core/lock.h"
#include "flows/enf_flow_db.h"
#include "kit/upload_slots.h"
#include "records/record_file.h"

struct capture_flow_info;

inline constexpr uint32_t kMonQueueSize = 200;
inline constexpr char kMonRecords[] = "/flash/appmon_monitor_flow_records.csv";
inline constexpr char kMonRecordsOld[] = "/flash/appmon_monitor_flow_records_old.csv";

extern am::RecordState amMonRecordState;

struct AmMonFtEntry {
    uint32_t src_ip, dst_ip;      // network order
    uint16_t src_port, dst_port;  // host order
    uint8_t proto;
    uint32_t app_id;
    time_t time;  // when the flow was queued
};

struct AmMonFt6Entry {
    in6_addr src_ip6, dst_ip6;
    uint16_t src_port, dst_port;
    uint8_t proto;
    uint32_t app_id;
    time_t time;
};

extern AmMutex amMonQueueLock ACQUIRED_AFTER(amEnfFlowLock) ACQUIRED_BEFORE(amUploadLock);
extern AmMonFtEntry amMonFtQueue[kMonQueueSize] GUARDED_BY(amMonQueueLock);
extern AmMonFt6Entry amMonFt6Queue[kMonQueueSize] GUARDED_BY(amMonQueueLock);
extern uint32_t amMonFlowCounter GUARDED_BY(amMonQueueLock);
extern uint32_t amMonFlow6Counter GUARDED_BY(amMonQueueLock);
extern uint32_t amMonFlowMiss GUARDED_BY(amMonQueueLock);  // flows that found the queue full; never reset
extern uint32_t amMonFlow6Miss GUARDED_BY(amMonQueueLock);

extern AmMonFtEntry amMonFtBufferQueue[kMonQueueSize];  // the batch being written
extern AmMonFt6Entry amMonFt6BufferQueue[kMonQueueSize];

extern uint32_t linesInMonRecordFile;  // header included; 0 = not yet known
extern int32_t amMonLoggingThreshold;  // lines above which this file and that of app_records.h are rotated
extern int32_t amMonFlowDbLoggingTimerActive;  // 1 = armed

// Queue one flow, or count it as missed when the queue is full.  Any thread; always 1.
int amUpdateMonFlow(const capture_flow_info *flow) EXCLUDES(amMonQueueLock);
int amUpdateMonFlow6(const capture_flow_info *flow) EXCLUDES(amMonQueueLock);

// Writes the first entries of the buffer queues.  0, or -1 on a failure, which is logged and loses the rest
// of the batch.
int amWriteMonFlowRecordToFile(uint32_t count4, uint32_t count6);
void amLogMonFlowRecord(int index, char *line);
void amLogMonFlowRecord6(int index, char *line);

namespace am {
// What is queued, before its time: to the file, or nowhere, counted as not written.  Event-loop thread.
void flushMonitored() EXCLUDES(amMonQueueLock);
void dropMonitored() EXCLUDES(amMonQueueLock);
}  // namespace am

void amStartMonFlowDbLoggingTimer();
int amRemoveMonFlowDbLoggingTimer(uloop_timeout *timeout);
void amProcessMonFlowDbLogging(uloop_timeout *timeout) EXCLUDES(amMonQueueLock);
