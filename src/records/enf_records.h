// The enforcement records file: one line per matched statistics report, flushed every 15 minutes or when a
// queue is full, rotated above 1,200 lines.  Event-loop thread.
#pragma once
#include <cstddef>
#include <cstdint>

extern "C" {
#include <libubox/uloop.h>
}

#include "records/record_file.h"
#include "records/record_format.h"

inline constexpr char kEnfRecords[] = "/flash/appmon_enforcement_flow_records.csv";
inline constexpr char kEnfRecordsOld[] = "/flash/appmon_enforcement_flow_records_old.csv";

extern am::RecordState amEnfRecordState;

extern uint32_t linesInEnfRecordFile;       // header included; 0 = not yet known
extern int32_t amEnfLoggingThreshold;       // lines above which the file is rotated
extern int32_t amFlowDbLoggingTimerActive;  // 1 = armed

// Flushes both report queues to the file.  0 when they have been written and emptied; -1 on a failure, which
// is logged: the queues then stay as they are, and the next flush writes all of them, so that lines which had
// reached the file stand in it twice.
int amWriteEnfFlowRecordToFile();

// Format one entry into a line of kRecordLineSize bytes and note when that was in the entry.
void amLogFlowRecord(int index, char *line);
void amLogFlow6Record(int index, char *line);

void amStartFlowDbLoggingTimer();
int amRemoveFlowDbLoggingTimer(uloop_timeout *timeout);
void amProcessFlowDbLogging(uloop_timeout *timeout);
