#include "records/enf_records.h"

#include <algorithm>
#include <ctime>

#include "appmodel/app_pool.h"
#include "core/append.h"
#include "core/armed_timer.h"
#include "core/counts.h"
#include "core/text.h"
#include "records/record_file.h"
#include "records/record_names.h"
#include "records/stats_report.h"

constinit uint32_t linesInEnfRecordFile = 0;
constinit int32_t amEnfLoggingThreshold = 1200;
constinit int32_t amFlowDbLoggingTimerActive = 0;

static_assert(am::kRecordLineRoom == kRecordLineSize);

constinit am::RecordState amEnfRecordState{};

namespace {

constexpr int kPeriod = 900'000;  // ms

constinit uloop_timeout timer{.list = {}, .pending = false, .cb = amProcessFlowDbLogging, .time = {}};

constexpr am::RecordFailure kOpen{"Failed to open AM_FLOW_RECORD file"};
constexpr am::RecordFailure kClose{"Failed to close AM_FLOW_RECORD file"};
constexpr am::RecordFileKind kFile{
    .path = kEnfRecords,
    .oldPath = kEnfRecordsOld,
    .state = &amEnfRecordState,
    .header = kEnfRecordsHeader,
    .op = "amWriteEnfFlowRecordToFile",
    .countClose = kClose,
    .open = kOpen,
    .headerWrite = {"Failed to write FLOW_RECORD header"},
    .headerClose = kClose,
    .write = {"Failed to write AM_FLOW_RECORD file"},
    .writeClose = kClose,
    .close = kClose,
    .create = {"Unable to open FLOW_RECORDS file to write", true},
    .createClose = {"Failed to close APP_FLOW_RECORD file"},
};

const char *typeColumn(const AmFt4QueueEntry &) {
    return "IPv4,";
}
const char *typeColumn(const AmFt6QueueEntry &) {
    return "IPv6,";
}

// What the lines of one flush share.
struct LineWriter {
    am::RecordNames names{AM_LIST_ENFORCEMENT};
    am::UtcAppender start, interval, end;  // one for each kind of time: they lie on different days

    template <class Address>
    char *write(char *at, AmFtQueueEntry<Address> &entry);
};

template <class Address>
char *LineWriter::write(char *at, AmFtQueueEntry<Address> &entry) {
    using am::append;
    constexpr std::string_view kNone = "-";

    at = append(at, typeColumn(entry));
    at = append(am::appendAddress(at, entry.fst_ip), ',');
    at = append(am::appendAddress(at, entry.secnd_ip), ',');
    at = append(am::appendDecimal(at, entry.fstPort), ',');
    at = append(am::appendDecimal(at, entry.scndPort), ',');
    at = append(append(at, getProtoStr(entry.proto)), ',');
    at = names.append(at, entry.appId);

    at = append(at, ",-,");  // MacA
    const std::string_view profile = am::fieldText(entry.access_profile);
    at = append(at, profile.empty() ? kNone : profile);
    at = append(at, ",-,-,");  // MacB, KolNameB

    at = append(am::appendDecimal(at, entry.pktCnt), ',');
    at = append(am::appendDecimal(at, entry.byteCnt), ',');

    const char *const startText = at;
    at = start.append(at, entry.startTime);
    const std::string_view startColumn{startText, static_cast<size_t>(at - startText)};
    const time_t now = time(nullptr);
    char nowText[am::kUtcRoom];
    const std::string_view nowColumn{nowText, static_cast<size_t>(end.append(nowText, now) - nowText)};

    at = append(append(at, ','), entry.aged != 0 ? nowColumn : kNone);
    at = append(at, ',');
    at = entry.intStartTime != 0 ? interval.append(at, entry.intStartTime) : append(at, startColumn);
    entry.intStartTime = now;
    return append(append(append(at, ','), nowColumn), '\n');
}

template <class Address>
bool addRecords(am::RecordAppend &file, LineWriter &writer, AmFtQueueEntry<Address> *queue, int32_t count) {
    for (int32_t i = 0; i < count; i++)
        if (!file.add(writer.write(file.room(), queue[i]))) return false;
    return true;
}

template <class Address>
void clear(AmFtQueueEntry<Address> *queue, int32_t &count) {
    std::fill_n(queue, count, AmFtQueueEntry<Address>{});
    count = 0;
}

}  // namespace

int amWriteEnfFlowRecordToFile() {
    am::RecordAppend file(kFile, linesInEnfRecordFile);
    LineWriter writer;
    if (!file.open()) return -1;
    if (!addRecords(file, writer, amnFt4Queue, ft4CommonIndex)) return -1;
    if (!addRecords(file, writer, amnFt6Queue, ft6CommonIndex)) return -1;
    if (!file.write() || !file.close()) return -1;
    if (!am::rotateRecordFile(kFile, linesInEnfRecordFile, amEnfLoggingThreshold)) return -1;
    am::countUp(am::counts.reportsFlushed,
                static_cast<uint64_t>(ft4CommonIndex) + static_cast<uint64_t>(ft6CommonIndex));
    clear(amnFt4Queue, ft4CommonIndex);
    clear(amnFt6Queue, ft6CommonIndex);
    return 0;
}

void amLogFlowRecord(int index, char *line) {
    *LineWriter().write(line, amnFt4Queue[index]) = '\0';
}

void amLogFlow6Record(int index, char *line) {
    *LineWriter().write(line, amnFt6Queue[index]) = '\0';
}

void amStartFlowDbLoggingTimer() {
    am::startArmedTimer(timer, amFlowDbLoggingTimerActive, kPeriod);
}

int amRemoveFlowDbLoggingTimer(uloop_timeout *timeout) {
    return am::removeArmedTimer(*timeout, amFlowDbLoggingTimerActive);
}

void amProcessFlowDbLogging(uloop_timeout *) {
    amStartFlowDbLoggingTimer();
    (void)amWriteEnfFlowRecordToFile();
}
