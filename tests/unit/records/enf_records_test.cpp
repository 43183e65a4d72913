#include <cinttypes>
#include <random>

#include "unit/records/records_fixture.h"

namespace {

std::string proto(unsigned number) {
    return number == 6 ? "TCP" : number == 17 ? "UDP" : " - ";
}

// A line as printf writes it.
template <class Address>
std::string modelLine(const char *type, const AmFtQueueEntry<Address> &entry, const Names &names) {
    char line[kRecordLineSize];
    snprintf(line, sizeof line, "%s,%s,%s,%d,%d,%s,%s,%s,%s,%s,%s,%s,%" PRIu64 ",%" PRIu64 ",%s,%s,%s,%s",
             type, addressText(entry.fst_ip).c_str(), addressText(entry.secnd_ip).c_str(), entry.fstPort,
             entry.scndPort, proto(entry.proto).c_str(), names.app.c_str(), names.group.c_str(), "-",
             entry.access_profile[0] ? entry.access_profile : "-", "-", "-", entry.pktCnt, entry.byteCnt,
             utc(entry.startTime).c_str(), entry.aged ? utc(testNow).c_str() : "-",
             utc(entry.intStartTime ? entry.intStartTime : entry.startTime).c_str(), utc(testNow).c_str());
    return line;
}

class EnfRecords : public RecordsTest {
  protected:
    template <class Address>
    void randomise(AmFtQueueEntry<Address> &entry) {
        for (unsigned char *byte = reinterpret_cast<unsigned char *>(&entry.fst_ip),
                           *end = reinterpret_cast<unsigned char *>(&entry.fstPort);
             byte != end; byte++)
            *byte = random_() % 3 ? static_cast<unsigned char>(random_()) : 0;
        entry.fstPort = static_cast<uint16_t>(random_());
        entry.scndPort = static_cast<uint16_t>(random_());
        entry.proto = static_cast<uint8_t>(random_() % 20);
        entry.aged = random_() % 2 ? 1 : 0;
        entry.byteCnt = random_() >> random_() % 64;
        entry.pktCnt = random_() >> random_() % 64;
        entry.appId = static_cast<uint32_t>(random_() % 6);  // some of them no application's
        entry.startTime = static_cast<time_t>(random_() % 4'000'000'000);
        entry.intStartTime = random_() % 2 ? static_cast<time_t>(random_() % 4'000'000'000) : 0;
        if (random_() % 2) am::copyText(entry.access_profile, std::string(1 + random_() % 40, 'p'));
    }

    // Queues so many reports of one flow, told apart by their packet counts.
    void queue(int reports) {
        for (int i = 0; i < reports; i++) {
            AmFt4QueueEntry &entry = amnFt4Queue[ft4CommonIndex++];
            entry.fst_ip = htonl(0x0a000001);
            entry.pktCnt = ++queued_;
            entry.startTime = kNoon;
        }
    }

    std::mt19937_64 random_{7};
    uint64_t queued_ = 0;
};

TEST_F(EnfRecords, LinesAreThoseOfPrintf) {
    for (int round = 0; round < 20; round++) {
        Lines expected{kEnfHeader};
        testNow = kNoon + round * 86400 * 100;
        for (int i = 0; i < kReportQueueSize; i++, ft4CommonIndex++) {
            randomise(amnFt4Queue[i]);
            expected.push_back(
                modelLine("IPv4", amnFt4Queue[i], namesOf(amnFt4Queue[i].appId, AM_LIST_ENFORCEMENT)));
        }
        for (int i = 0; i < kReportQueueSize; i++, ft6CommonIndex++) {
            randomise(amnFt6Queue[i]);
            expected.push_back(
                modelLine("IPv6", amnFt6Queue[i], namesOf(amnFt6Queue[i].appId, AM_LIST_ENFORCEMENT)));
        }
        ASSERT_EQ(amWriteEnfFlowRecordToFile(), 0);
        ASSERT_EQ(fileLines(kEnfRecords), expected);
        EXPECT_EQ(linesInEnfRecordFile, expected.size());
        clearAll();
    }
}

TEST_F(EnfRecords, FormattingAnEntryNotesTheTime) {
    queue(1);
    const std::string expected = modelLine("IPv4", amnFt4Queue[0], {"dns", "-"}) + "\n";
    char line[kRecordLineSize];
    amLogFlowRecord(0, line);
    EXPECT_EQ(line, expected);
    EXPECT_EQ(amnFt4Queue[0].intStartTime, kNoon);
    testNow += 900;
    amLogFlowRecord(0, line);
    EXPECT_NE(std::string(line).find(",2024-03-05 11:04:09,-,2024-03-05 11:04:09,2024-03-05 11:19:09\n"),
              std::string::npos);
    amLogFlow6Record(0, line);
    EXPECT_EQ(std::string(line).substr(0, 12), "IPv6,::,::,0");
}

TEST_F(EnfRecords, ApplicationThatLeftTheListLosesItsNames) {
    queue(2);
    amnFt4Queue[1].appId = 1;
    EXPECT_EQ(amWriteEnfFlowRecordToFile(), 0);
    queue(1);
    amClearAppEnfList();
    EXPECT_EQ(amWriteEnfFlowRecordToFile(), 0);
    const Lines lines = fileLines(kEnfRecords);
    EXPECT_NE(lines.at(1).find(", - ,dns,-,-,"), std::string::npos);
    EXPECT_NE(lines.at(2).find(", - ,mail,office,-,"), std::string::npos);
    EXPECT_NE(lines.at(3).find(", - ,-,-,-,"), std::string::npos);
}

TEST_F(EnfRecords, FlushEmptiesBothQueues) {
    queue(3);
    ft6CommonIndex = 2;
    amnFt6Queue[1].pktCnt = 1;
    EXPECT_EQ(amWriteEnfFlowRecordToFile(), 0);
    EXPECT_EQ(ft4CommonIndex, 0);
    EXPECT_EQ(ft6CommonIndex, 0);
    const AmFt4QueueEntry zero4{};
    const AmFt6QueueEntry zero6{};
    for (int i = 0; i < kReportQueueSize; i++) {
        EXPECT_EQ(memcmp(&amnFt4Queue[i].fst_ip, &zero4, offsetof(AmFt4QueueEntry, aged)), 0);
        EXPECT_EQ(amnFt6Queue[i].pktCnt + amnFt4Queue[i].pktCnt, zero6.pktCnt);
    }
}

TEST_F(EnfRecords, FileIsRotatedAboveItsThreshold) {
    putFile(kEnfRecords, filler(kEnfHeader, 1198));
    queue(2);
    EXPECT_EQ(amWriteEnfFlowRecordToFile(), 0);
    EXPECT_EQ(linesInEnfRecordFile, 1200U);
    EXPECT_FALSE(std::filesystem::exists(kEnfRecordsOld));

    putFile(kEnfRecordsOld, "the generation before\n");
    queue(1);
    EXPECT_EQ(amWriteEnfFlowRecordToFile(), 0);
    EXPECT_EQ(fileLines(kEnfRecordsOld).size(), 1201U);
    EXPECT_EQ(fileText(kEnfRecords), "");
    EXPECT_TRUE(std::filesystem::exists(kEnfRecords));
    EXPECT_EQ(linesInEnfRecordFile, 0U);

    EXPECT_EQ(amWriteEnfFlowRecordToFile(), 0);
    EXPECT_EQ(fileLines(kEnfRecords), Lines{kEnfHeader});
}

TEST_F(EnfRecords, TimerFlushesAndArmsItselfAgain) {
    amStartFlowDbLoggingTimer();
    EXPECT_EQ(amFlowDbLoggingTimerActive, 1);
    uloop_timeout fired{};
    EXPECT_EQ(amRemoveFlowDbLoggingTimer(&fired), -1);
    EXPECT_EQ(amFlowDbLoggingTimerActive, 1) << "it has just fired";
    queue(1);
    amProcessFlowDbLogging(&fired);
    EXPECT_EQ(amFlowDbLoggingTimerActive, 1);
    EXPECT_EQ(fileLines(kEnfRecords).size(), 2U);
}

}  // namespace
