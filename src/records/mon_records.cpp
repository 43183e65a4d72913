#include "records/mon_records.h"

#include <algorithm>
#include <cinttypes>
#include <ctime>

#include "appmodel/app_pool.h"
#include "core/append.h"
#include "core/armed_timer.h"
#include "core/counts.h"
#include "core/log.h"
#include "core/text.h"
#include "flows/flow_info.h"
#include "records/record_file.h"
#include "records/record_format.h"
#include "records/record_names.h"

constinit AmMutex amMonQueueLock;
AmMonFtEntry amMonFtQueue[kMonQueueSize];
AmMonFt6Entry amMonFt6Queue[kMonQueueSize];
constinit uint32_t amMonFlowCounter = 0;
constinit uint32_t amMonFlow6Counter = 0;
constinit uint32_t amMonFlowMiss = 0;
constinit uint32_t amMonFlow6Miss = 0;

AmMonFtEntry amMonFtBufferQueue[kMonQueueSize];
AmMonFt6Entry amMonFt6BufferQueue[kMonQueueSize];

constinit uint32_t linesInMonRecordFile = 0;
constinit int32_t amMonLoggingThreshold = 1000;
constinit int32_t amMonFlowDbLoggingTimerActive = 0;

constinit am::RecordState amMonRecordState{};

namespace {

constexpr int kPeriod = 300'000;  // ms

constinit uloop_timeout timer{.list = {}, .pending = false, .cb = amProcessMonFlowDbLogging, .time = {}};

constexpr am::RecordFailure kOpen{"Failed to open AM_MON_FLOW_RECORD file"};
constexpr am::RecordFailure kClose{"Failed to close AM_MON_FLOW_RECORD file"};
constexpr am::RecordFileKind kFile{
    .path = kMonRecords,
    .oldPath = kMonRecordsOld,
    .state = &amMonRecordState,
    .header = kMonRecordsHeader,
    .op = "amWriteMonFlowRecordToFile",
    .countClose = kClose,
    .open = kOpen,
    .headerWrite = {"Failed to write MON_FLOW_RECORD header"},
    .headerClose = kClose,
    .write = {"Failed to write AM_MON_FLOW_RECORD file"},
    .writeClose = kClose,
    .close = kClose,
    .create = {"Unable to open MON FLOW_RECORDS file to write", true},
    .createClose = {"Failed to close APP_MON_FLOW_RECORD file"},
};

// All that differs between the families.
struct V4 {
    using Entry = AmMonFtEntry;
    static constexpr const char *kType = "IPv4,";
    static Entry *queue() REQUIRES(amMonQueueLock) { return amMonFtQueue; }
    static uint32_t &counter() REQUIRES(amMonQueueLock) { return amMonFlowCounter; }
    static uint32_t &miss() REQUIRES(amMonQueueLock) { return amMonFlowMiss; }
    static void setAddresses(Entry &entry, const capture_flow_info &flow) {
        entry.src_ip = flow.src_ip;
        entry.dst_ip = flow.dst_ip;
    }
    static const uint32_t &source(const Entry &entry) { return entry.src_ip; }
    static const uint32_t &destination(const Entry &entry) { return entry.dst_ip; }
};

struct V6 {
    using Entry = AmMonFt6Entry;
    static constexpr const char *kType = "IPv6,";
    static Entry *queue() REQUIRES(amMonQueueLock) { return amMonFt6Queue; }
    static uint32_t &counter() REQUIRES(amMonQueueLock) { return amMonFlow6Counter; }
    static uint32_t &miss() REQUIRES(amMonQueueLock) { return amMonFlow6Miss; }
    static void setAddresses(Entry &entry, const capture_flow_info &flow) {
        entry.src_ip6 = flow.src_ip6;
        entry.dst_ip6 = flow.dst_ip6;
    }
    static const in6_addr &source(const Entry &entry) { return entry.src_ip6; }
    static const in6_addr &destination(const Entry &entry) { return entry.dst_ip6; }
};

template <class Ip>
void store(const capture_flow_info &flow, time_t now) REQUIRES(amMonQueueLock) {
    uint32_t &counter = Ip::counter();
    if (counter >= kMonQueueSize) {
        Ip::miss()++;
        return;
    }
    typename Ip::Entry &entry = Ip::queue()[counter++];
    Ip::setAddresses(entry, flow);
    entry.src_port = static_cast<uint16_t>(flow.src_port);
    entry.dst_port = static_cast<uint16_t>(flow.dst_port);
    entry.proto = static_cast<uint8_t>(flow.proto);
    entry.app_id = flow.app_id;
    entry.time = now;
}

// Takes the live queue over into the buffer queue; the number of entries.
template <class Ip>
uint32_t takeOver(typename Ip::Entry *batch) REQUIRES(amMonQueueLock) {
    const uint32_t count = Ip::counter();
    Ip::counter() = 0;
    std::copy_n(Ip::queue(), count, batch);
    return count;
}

struct Batch {
    uint32_t count4, count6;
};

// Both live queues into the buffer queues.
Batch takeBatch() EXCLUDES(amMonQueueLock) {
    const AmGuard guard(amMonQueueLock);
    const Batch batch{takeOver<V4>(amMonFtBufferQueue), takeOver<V6>(amMonFt6BufferQueue)};
    am::countUp(am::counts.monitoredDrained, batch.count4 + batch.count6);
    return batch;
}

struct LineWriter {
    am::RecordNames names{AM_LIST_MONITORING};
    am::UtcAppender time;

    template <class Ip>
    char *write(char *at, const typename Ip::Entry &entry);
};

template <class Ip>
char *LineWriter::write(char *at, const typename Ip::Entry &entry) {
    using am::append;
    at = append(at, Ip::kType);
    at = append(am::appendAddress(at, Ip::source(entry)), ',');
    at = append(am::appendAddress(at, Ip::destination(entry)), ',');
    at = append(am::appendDecimal(at, entry.src_port), ',');
    at = append(am::appendDecimal(at, entry.dst_port), ',');
    at = append(append(at, getProtoStr(entry.proto)), ',');
    at = append(names.append(at, entry.app_id), ',');
    return append(time.append(at, entry.time), '\n');
}

// IPv6 lines go to the log as well, at every level.
void logLine6(const char *line) {
    amLog(AM_LOG_NONE, "flowRec %s\n", line);
}

bool addRecords4(am::RecordAppend &file, LineWriter &writer, uint32_t count) {
    for (uint32_t i = 0; i < count; i++)
        if (!file.add(writer.write<V4>(file.room(), amMonFtBufferQueue[i]))) return false;
    return true;
}

bool addRecords6(am::RecordAppend &file, LineWriter &writer, uint32_t count) {
    for (uint32_t i = 0; i < count; i++) {
        char *const line = file.room();
        char *const end = writer.write<V6>(line, amMonFt6BufferQueue[i]);
        *end = '\0';
        logLine6(line);
        if (!file.add(end)) return false;
    }
    return true;
}

// Debugging lines of a stored IPv6 flow: of copies, so that the lock is not held while the log is written.
void logStored6(const AmMonFt6Entry &last, uint32_t counter, uint32_t miss) {
    amLog(AM_LOG_DEBUG, "amUpdateMonFlow6 counter an: %d  miss: %d\n", static_cast<int>(counter),
          static_cast<int>(miss));
    amLog(AM_LOG_DEBUG, "amUpdateMonFlow6 src-ip %s dst-ip %s src_port %d dst_port %d l4_proto %d\n",
          am::addressText(last.src_ip6).text, am::addressText(last.dst_ip6).text, last.src_port,
          last.dst_port, last.proto);
}

}  // namespace

int amUpdateMonFlow(const capture_flow_info *flow) {
    const time_t now = time(nullptr);
    const AmGuard guard(amMonQueueLock);
    store<V4>(*flow, now);
    return 1;
}

int amUpdateMonFlow6(const capture_flow_info *flow) {
    const time_t now = time(nullptr);
    AmMonFt6Entry last;
    uint32_t counter = 0;
    uint32_t miss = 0;
    {
        const AmGuard guard(amMonQueueLock);
        store<V6>(*flow, now);
        counter = amMonFlow6Counter;
        miss = amMonFlow6Miss;
        last = amMonFt6Queue[counter - 1];
    }
    if (amLogWanted(AM_LOG_DEBUG)) logStored6(last, counter, miss);
    return 1;
}

void amLogMonFlowRecord(int index, char *line) {
    *LineWriter().write<V4>(line, amMonFtBufferQueue[index]) = '\0';
}

void amLogMonFlowRecord6(int index, char *line) {
    *LineWriter().write<V6>(line, amMonFt6BufferQueue[index]) = '\0';
    logLine6(line);
}

int amWriteMonFlowRecordToFile(uint32_t count4, uint32_t count6) {
    count4 = std::min(count4, kMonQueueSize);
    count6 = std::min(count6, kMonQueueSize);

    am::RecordAppend file(kFile, linesInMonRecordFile);
    LineWriter writer;
    const bool added =
        file.open() && addRecords4(file, writer, count4) && addRecords6(file, writer, count6) && file.write();
    if (!added) am::countUp(am::counts.monitoredLost, count4 + count6 - file.written());
    if (!added || !file.close()) return -1;
    if (!am::rotateRecordFile(kFile, linesInMonRecordFile, amMonLoggingThreshold)) return -1;
    std::fill_n(amMonFtBufferQueue, kMonQueueSize, AmMonFtEntry{});
    std::fill_n(amMonFt6BufferQueue, kMonQueueSize, AmMonFt6Entry{});
    return 0;
}

void amStartMonFlowDbLoggingTimer() {
    am::startArmedTimer(timer, amMonFlowDbLoggingTimerActive, kPeriod);
}

int amRemoveMonFlowDbLoggingTimer(uloop_timeout *timeout) {
    return am::removeArmedTimer(*timeout, amMonFlowDbLoggingTimerActive);
}

void amProcessMonFlowDbLogging(uloop_timeout *) {
    amStartMonFlowDbLoggingTimer();
    const Batch batch = takeBatch();
    (void)amWriteMonFlowRecordToFile(batch.count4, batch.count6);
}

namespace am {

void flushMonitored() {
    const Batch batch = takeBatch();
    if (batch.count4 + batch.count6 != 0) (void)amWriteMonFlowRecordToFile(batch.count4, batch.count6);
}

void dropMonitored() {
    const Batch batch = takeBatch();
    countUp(counts.monitoredLost, batch.count4 + batch.count6);
}

}  // namespace am
