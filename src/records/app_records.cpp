#include "records/app_records.h"

#include <ctime>

#include "appmodel/app_pool.h"
#include "core/append.h"
#include "core/log.h"
#include "records/mon_records.h"
#include "records/record_file.h"
#include "records/record_format.h"
#include "records/record_names.h"

constinit uint32_t linesInAppRecordFile = 0;
constinit uint32_t appMon24HrRecord = 0;

constinit am::RecordState amAppRecordState{};

namespace {

constexpr int kHour = 3600;           // seconds
constexpr uint32_t kWritesADay = 24;  // after which the file is rotated

constinit uloop_timeout timer{.list = {}, .pending = false, .cb = amProcessMonCurHourTimer, .time = {}};

constexpr am::RecordFileKind kFile{
    .path = kAppRecords,
    .oldPath = kAppRecordsOld,
    .state = &amAppRecordState,
    .header = kAppRecordsHeader,
    .op = "appMonWriteAppRecordsToFile",
    .countClose = {"Failed to close AM_FLOW_RECORD file"},
    .open = {"Failed to open AM_APP_RECORD file"},
    .headerWrite = {"Failed to write APP_RECORD header to file", true},
    .headerClose = {"Failed to close AM_APP_RECORD file"},
    .write = {"Failed to write APP_RECORD data to file", true},
    .writeClose = {nullptr},
    .close = {"Failed to close APP_RECORD file", true},
    .create = {"Unable to open FLOW_RECORDS file to write", true},
    .createClose = {"Failed to close APP_FLOW_RECORD file"},
};

// The counts whose lines are on their way into the file.  They are taken from the applications once the lines
// are in it, by subtraction: the capture thread goes on counting meanwhile.
class PendingCounts {
  public:
    void add(AmActiveApp &app, uint32_t count) { counts_[added_++ % am::kRecordBatch] = {&app, count}; }

    // Takes the counts of the lines that have been written so far.
    void take(uint32_t written) {
        for (; taken_ < written; taken_++) {
            const Count &count = counts_[taken_ % am::kRecordBatch];
            count.app->monFlowCount.fetch_sub(count.count, std::memory_order_relaxed);
        }
    }

  private:
    struct Count {
        AmActiveApp *app;
        uint32_t count;
    };
    Count counts_[am::kRecordBatch];
    uint32_t added_ = 0;
    uint32_t taken_ = 0;
};

struct LineWriter {
    am::RecordNames names{AM_LIST_MONITORING};
    am::UtcAppender time;

    char *write(char *at, uint32_t appId, time_t hour, uint32_t count) {
        using am::append;
        at = append(names.append(at, appId), ',');
        at = append(time.append(at, hour), ",0,0,0,");  // MaFlowMin, MaFlowMax, MaFlowAvg
        return append(am::appendDecimal(at, count), '\n');
    }
};

// False when the file could not take every line: the counts of those it did not take stay.
bool addCounts(am::RecordAppend &file) {
    const time_t now = time(nullptr);
    const time_t hour = now - now % kHour;
    LineWriter writer;
    PendingCounts pending;
    bool good = true;
    amModelLock.soleWriterReads();
    for (uint32_t appId = 0; good && appId < amMaxAppIdCount; appId++) {
        AmActiveApp *const app = amActiveApp(appId);
        if (!app || !app->isMonitoring) continue;
        const uint32_t count = app->monFlowCount.load(std::memory_order_relaxed);
        if (count == 0) continue;
        pending.add(*app, count);
        good = file.add(writer.write(file.room(), appId, hour, count));
        pending.take(file.written());
    }
    good = good && file.write();
    pending.take(file.written());
    return good;
}

void rotate() {
    if (int64_t{linesInAppRecordFile} <= amMonLoggingThreshold && appMon24HrRecord < kWritesADay) return;
    if (!am::moveRecordFile(kFile)) return;
    amLog(AM_LOG_DEBUG, "App-mon Create app-record old file logging threshold %d hourly record %d\n",
          static_cast<int>(linesInAppRecordFile), static_cast<int>(appMon24HrRecord));
    linesInAppRecordFile = 0;
    appMon24HrRecord = 0;
    (void)am::createRecordFile(kFile);
}

}  // namespace

void appMonWriteAppRecordsToFile() {
    am::RecordAppend file(kFile, linesInAppRecordFile);
    if (!file.open() || !addCounts(file)) return;
    appMon24HrRecord++;
    if (file.close()) rotate();
}

void amStartCurrHrlyMoveTimer(int seconds) {
    uloop_timeout_set(&timer, seconds * 1000);
}

void startHourlyTimerAtFullHour() {
    amStartCurrHrlyMoveTimer(kHour - static_cast<int>(time(nullptr) % kHour));
}

void amProcessMonCurHourTimer(uloop_timeout *) {
    amStartCurrHrlyMoveTimer(kHour);
    appMonWriteAppRecordsToFile();
}
