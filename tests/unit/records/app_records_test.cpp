#include <atomic>
#include <numeric>
#include <thread>

#include "unit/records/records_fixture.h"

namespace {

class AppRecords : public RecordsTest {
  protected:
    // A kit of so many applications, all of them on the monitoring list with as many flows as their id.
    void installApps(uint16_t count) {
        std::vector<std::string> names;
        std::vector<IndexLine> index;
        for (uint16_t id = 0; id < count; id++) names.push_back("app" + std::to_string(id));
        for (uint16_t id = 0; id < count; id++) index.push_back({names[id].c_str(), id});
        installKit(index);
        for (uint16_t id = 0; id < count; id++) {
            amActData[id].isMonitoring = 1;
            amActData[id].monFlowCount = id;
        }
    }

    static uint64_t countsLeft() {
        uint64_t sum = 0;
        for (uint32_t id = 0; id < amMaxAppIdCount; id++) sum += amActData[id].monFlowCount;
        return sum;
    }

    // The counts of all lines of the file, each of which has to be whole.
    static uint64_t countsWritten() {
        uint64_t sum = 0;
        for (const std::string &line : fileLines(kAppRecords)) {
            if (line == kAppHeader || line.starts_with("xxx")) continue;
            EXPECT_NE(line.find(",2024-03-05 11:00:00,0,0,0,"), std::string::npos) << line;
            sum += std::stoull(line.substr(line.rfind(',') + 1));
        }
        return sum;
    }
};

TEST_F(AppRecords, HourlyLinesTakeTheCountsOfMonitoredApplications) {
    amActData[0].monFlowCount = 5;
    amActData[1].monFlowCount = 4'000'000'000;
    amActData[2].monFlowCount = 9;  // not on the list
    appMonWriteAppRecordsToFile();
    EXPECT_EQ(fileLines(kAppRecords), (Lines{kAppHeader, "dns,-,2024-03-05 11:00:00,0,0,0,5",
                                             "mail,office,2024-03-05 11:00:00,0,0,0,4000000000"}));
    EXPECT_EQ(amActData[0].monFlowCount + amActData[1].monFlowCount, 0U);
    EXPECT_EQ(amActData[2].monFlowCount, 9U) << "kept until the application is monitored again";

    amAddAppToAppList("video", nullptr, AM_LIST_MONITORING);
    testNow = kNoon + 3600;
    appMonWriteAppRecordsToFile();
    EXPECT_EQ(fileLines(kAppRecords).at(3), "video,-,2024-03-05 12:00:00,0,0,0,9");
    EXPECT_EQ(linesInAppRecordFile, 4U);
}

TEST_F(AppRecords, FileIsRotatedAfterADay) {
    for (int hour = 0; hour < 23; hour++) appMonWriteAppRecordsToFile();
    EXPECT_FALSE(std::filesystem::exists(kAppRecordsOld));
    EXPECT_EQ(appMon24HrRecord, 23U);
    appMonWriteAppRecordsToFile();
    EXPECT_TRUE(std::filesystem::exists(kAppRecordsOld));
    EXPECT_EQ(fileText(kAppRecords), "");
    EXPECT_EQ(appMon24HrRecord, 0U);
    EXPECT_TRUE(log_.has("App-mon Create app-record old file logging threshold 1 hourly record 24\n"));
}

// A count is either in a whole line of the file or still with its application, wherever the disk is full.
TEST_F(AppRecords, CountsThatCouldNotBeWrittenStay) {
    const std::string before = filler(kAppHeader, 900);
    installApps(5);
    for (size_t room = 0; room < 5 * 45; room++) {
        clearAll();
        putFile(kAppRecords, before);
        for (uint16_t id = 0; id < 5; id++) amActData[id].monFlowCount = 10 + id;
        {
            const FullDisk full(before.size() + room);
            appMonWriteAppRecordsToFile();
        }
        ASSERT_EQ(countsWritten() + countsLeft(), 60U) << room;
        ASSERT_EQ(linesInAppRecordFile, fileLines(kAppRecords).size()) << room;
        ASSERT_EQ(appMon24HrRecord, countsLeft() ? 0U : 1U) << room;
        appMonWriteAppRecordsToFile();
        ASSERT_EQ(countsWritten(), 60U) << room;
    }
    EXPECT_TRUE(log_.has("[ERROR]: Failed to write APP_RECORD data to file\n"));
}

TEST_F(AppRecords, FlowsCountedDuringAWriteAreNotLost) {
    amMonLoggingThreshold = INT32_MAX;
    std::atomic<bool> running{true};
    std::atomic<uint32_t> flows{0};
    std::thread capture([&] {
        while (running) amActData[flows++ % 2].monFlowCount.fetch_add(1, std::memory_order_relaxed);
    });
    for (int round = 0; round < 200; round++) {
        while (countsLeft() == 0) std::this_thread::yield();
        appMonWriteAppRecordsToFile();
        appMon24HrRecord = 0;
    }
    running = false;
    capture.join();
    appMonWriteAppRecordsToFile();
    amMonLoggingThreshold = 1000;
    EXPECT_EQ(countsWritten(), flows);
}

}  // namespace
