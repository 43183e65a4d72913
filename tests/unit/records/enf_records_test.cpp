#include <cinttypes>
#include <random>

#include "records/record_line.h"
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

// A line as its reader has it, against the entry that it was written of.
template <class Address>
void expectReadBack(const std::string &line, const AmFtQueueEntry<Address> &entry, const Names &names) {
    am::RecordLine read;
    ASSERT_EQ(am::readRecordLine(am::RecordKind::Enforcement, line, read), nullptr) << line;
    constexpr size_t kSkipped = sizeof read.ipA.bytes - sizeof entry.fst_ip;
    EXPECT_EQ(memcmp(read.ipA.bytes + kSkipped, &entry.fst_ip, sizeof entry.fst_ip), 0) << line;
    EXPECT_EQ(memcmp(read.ipB.bytes + kSkipped, &entry.secnd_ip, sizeof entry.secnd_ip), 0) << line;
    EXPECT_TRUE(read.portA == entry.fstPort && read.portB == entry.scndPort) << line;
    EXPECT_EQ(read.proto, entry.proto == 6 || entry.proto == 17 ? entry.proto : 0);
    EXPECT_TRUE(read.application == names.app && read.group == names.group) << line;
    EXPECT_EQ(read.profile, entry.access_profile[0] ? entry.access_profile : "-");
    EXPECT_TRUE(read.packets == entry.pktCnt && read.bytes == entry.byteCnt) << line;
    EXPECT_EQ(read.ended, entry.aged != 0);
    EXPECT_EQ(read.start, entry.startTime);
    EXPECT_EQ(read.intStart, entry.intStartTime ? entry.intStartTime : entry.startTime);
    EXPECT_EQ(read.time, testNow);
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
        entry.appId = static_cast<uint32_t>(random_() % 12);  // most of them no application's
        entry.startTime = static_cast<time_t>(random_() % 4'000'000'000);
        entry.intStartTime = random_() % 2 ? static_cast<time_t>(random_() % 4'000'000'000) : 0;
        if (random_() % 2) am::copyText(entry.access_profile, std::string(1 + random_() % 40, 'p'));
    }

    std::mt19937_64 random_{7};
};

TEST_F(EnfRecords, LinesAreThoseOfPrintf) {
    for (int round = 0; round < 20; round++) {
        Lines expected{kEnfHeader};
        testNow = kNoon + round * 86400 * 100;
        for (int i = 0; i < kReportQueueSize; i++, ft4CommonIndex++) {
            randomise(amnFt4Queue[i]);
            const Names names = namesOf(amnFt4Queue[i].appId, AM_LIST_ENFORCEMENT);
            expected.push_back(modelLine("IPv4", amnFt4Queue[i], names));
            expectReadBack(expected.back(), amnFt4Queue[i], names);
        }
        for (int i = 0; i < kReportQueueSize; i++, ft6CommonIndex++) {
            randomise(amnFt6Queue[i]);
            const Names names = namesOf(amnFt6Queue[i].appId, AM_LIST_ENFORCEMENT);
            expected.push_back(modelLine("IPv6", amnFt6Queue[i], names));
            expectReadBack(expected.back(), amnFt6Queue[i], names);
        }
        char line[kRecordLineSize];
        amLogFlowRecord(0, line);  // as by a flush that fails: its successor's interval begins here
        EXPECT_EQ(line, expected[1] + "\n");
        EXPECT_EQ(amnFt4Queue[0].intStartTime, testNow);
        expected[1] = modelLine("IPv4", amnFt4Queue[0], namesOf(amnFt4Queue[0].appId, AM_LIST_ENFORCEMENT));
        ASSERT_EQ(amWriteEnfFlowRecordToFile(), 0);
        ASSERT_EQ(fileLines(kEnfRecords), expected);
        EXPECT_EQ(linesInEnfRecordFile, expected.size());
        clearAll();
    }
}

}  // namespace
