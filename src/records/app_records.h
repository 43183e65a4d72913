// The application records file: an hourly count of monitored flows per application, rotated after 24 hourly
// writes or above the monitoring records' line threshold.  Event-loop thread.
#pragma once
#include <cstdint>

extern "C" {
#include <libubox/uloop.h>
}

#include "records/record_file.h"

inline constexpr char kAppRecords[] = "/flash/appmon_monitoring_app_records.csv";
inline constexpr char kAppRecordsOld[] = "/flash/appmon_monitoring_app_records_old.csv";

extern am::RecordState amAppRecordState;

extern uint32_t linesInAppRecordFile;  // header included; 0 = not yet known
extern uint32_t appMon24HrRecord;      // hourly writes since the last rotation

// Arms the hourly timer to expire after so many seconds, replacing a pending expiry.
void amStartCurrHrlyMoveTimer(int seconds);

// Arms it for the next full UTC hour: once, at start-up.
void startHourlyTimerAtFullHour();

void amProcessMonCurHourTimer(uloop_timeout *timeout);

// Appends a line for every monitored application with a count, and takes the count.
void appMonWriteAppRecordsToFile();
