// What the three record files share, tried with each of them: headers, counting, and everything that can be
// wrong with a file.
#include <fcntl.h>
#include <unistd.h>

#include <functional>

#include "unit/records/records_fixture.h"

namespace {

struct RecordFile {
    const char *name;
    const char *path, *oldPath, *header;
    uint32_t *lines;
    uint32_t most;  // lines that the file may hold
    const char *openText, *headerText, *writeText;
};

void PrintTo(const RecordFile &file, std::ostream *out) {
    *out << file.name;
}

const RecordFile kFiles[] = {
    {"enforcement", kEnfRecords, kEnfRecordsOld, kEnfHeader, &linesInEnfRecordFile, 1200,
     " - Failed to open AM_FLOW_RECORD file\n", " - Failed to write FLOW_RECORD header\n",
     " - Failed to write AM_FLOW_RECORD file\n"},
    {"monitoring", kMonRecords, kMonRecordsOld, kMonHeader, &linesInMonRecordFile, 1000,
     " - Failed to open AM_MON_FLOW_RECORD file\n", " - Failed to write MON_FLOW_RECORD header\n",
     " - Failed to write AM_MON_FLOW_RECORD file\n"},
    {"application", kAppRecords, kAppRecordsOld, kAppHeader, &linesInAppRecordFile, 1000,
     " - Failed to open AM_APP_RECORD file\n", "[ERROR]: Failed to write APP_RECORD header to file\n",
     "[ERROR]: Failed to write APP_RECORD data to file\n"},
};

class RecordFiles : public RecordsTest, public testing::WithParamInterface<RecordFile> {
  protected:
    void SetUp() override {
        RecordsTest::SetUp();
        logLevel = AM_LOG_ERROR;
    }

    // Something to write, up to three records; they stay queued until they are written.
    void queue(uint16_t records) {
        for (uint16_t i = 0; i < records; i++) {
            amnFt4Queue[ft4CommonIndex++].fstPort = ++queued_;
            const capture_flow_info info = flow(queued_, 0);
            amUpdateMonFlow(&info);
            amActData[i].isMonitoring = 1;
            amActData[i].monFlowCount = queued_;
        }
    }
    static void write() {
        if (GetParam().path == std::string(kEnfRecords))
            amWriteEnfFlowRecordToFile();
        else if (GetParam().path == std::string(kMonRecords))
            amProcessMonFlowDbLogging(nullptr);
        else
            appMonWriteAppRecordsToFile();
    }
    static Lines lines() { return fileLines(GetParam().path); }
    static uint32_t counted() { return *GetParam().lines; }

    uint16_t queued_ = 0;
};

INSTANTIATE_TEST_SUITE_P(, RecordFiles, testing::ValuesIn(kFiles),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_P(RecordFiles, LongLinesCountInPieces) {
    const struct {
        size_t length;  // of the line, its newline included
        uint32_t pieces;
    } kCases[] = {{1, 1}, {1022, 1}, {1023, 1}, {1024, 2}, {2046, 2}, {2047, 3}, {300'000, 294}};
    for (const auto &row : kCases) {
        clearAll();
        putFile(GetParam().path, std::string(row.length - 1, 'x') + "\nend\n");
        write();
        EXPECT_EQ(counted(), row.pieces + 1) << row.length;
    }
}

TEST_P(RecordFiles, FileGrownBehindTheDaemonIsNotCountedAgain) {
    write();
    putFile(GetParam().path, filler(GetParam().header, 2 * GetParam().most));
    queue(1);
    write();
    EXPECT_EQ(counted(), 2U);
    EXPECT_FALSE(std::filesystem::exists(GetParam().oldPath));
}

TEST_P(RecordFiles, HalfALineIsNotGluedToTheNextOne) {
    putFile(GetParam().path, std::string(GetParam().header) + "\nIPv4,10.0.0.1,192.1");
    queue(1);
    write();
    ASSERT_EQ(lines().size(), 3U);
    EXPECT_EQ(lines()[1], "IPv4,10.0.0.1,192.1");
    EXPECT_EQ(counted(), 3U);
}

TEST_P(RecordFiles, WhatIsNoFileIsAnErrorAndNoMore) {
    const char *const path = GetParam().path;
    const std::string elsewhere = "/tmp/records_elsewhere.csv";
    const struct {
        const char *name;
        std::function<void()> make;
        const char *text;  // of the failure
    } kCases[] = {
        {"folder", [&] { std::filesystem::create_directory(path); }, GetParam().openText},
        {"pipe", [&] { mkfifo(path, 0600); }, GetParam().openText},
        {"link to itself", [&] { std::filesystem::create_symlink(path, path); }, GetParam().openText},
        {"full device", [&] { std::filesystem::create_symlink("/dev/full", path); }, GetParam().headerText},
    };
    for (const auto &row : kCases) {
        clearAll();
        log_.forget();
        row.make();
        queue(1);
        write();
        EXPECT_EQ(logCount(row.text), 1U) << row.name;
        EXPECT_EQ(logCount("[ERROR]"), 1U) << row.name;
        std::filesystem::remove_all(path);
        write();
        EXPECT_EQ(lines().at(0), GetParam().header) << row.name;
    }

    clearAll();
    std::filesystem::create_symlink(elsewhere, path);
    queue(1);
    write();
    EXPECT_EQ(fileLines(elsewhere.c_str()).size(), 2U) << "a link is followed";
    std::filesystem::remove(elsewhere);
}

// No half line stays, and the count is that of the file, wherever the disk is full.  Enforcement records are
// all written again by the next flush, those that had reached the file as well.
TEST_P(RecordFiles, FullDiskLeavesWholeLines) {
    const std::string before = filler(GetParam().header, 900);
    putFile(GetParam().path, before);
    queue(3);
    write();
    const std::string after = fileText(GetParam().path);
    const bool enforcement = GetParam().path == std::string(kEnfRecords);

    for (size_t room = 0; before.size() + room < after.size(); room++) {
        clearAll();
        queued_ = 0;
        putFile(GetParam().path, before);
        queue(3);
        log_.forget();
        {
            const FullDisk full(before.size() + room);
            write();
        }
        const std::string text = fileText(GetParam().path);
        ASSERT_TRUE(after.starts_with(text)) << room;
        ASSERT_EQ(text.back(), '\n') << room;
        ASSERT_EQ(counted(), lines().size()) << room;
        ASSERT_EQ(logCount(GetParam().writeText), 1U) << room;
        ASSERT_EQ(logCount("[ERROR]"), 1U) << room;
        if (!enforcement) continue;
        ASSERT_EQ(ft4CommonIndex, 3) << room;
        const size_t kept = lines().size();
        write();
        ASSERT_EQ(lines().size(), kept + 3) << room;
        ASSERT_EQ(counted(), kept + 3) << room;
        for (size_t i = 0; i < 3; i++)
            ASSERT_TRUE(lines()[kept + i].starts_with("IPv4,0.0.0.0,0.0.0.0," + std::to_string(i + 1)))
                << room;
    }
}

TEST_P(RecordFiles, FullDiskLeavesNoHalfHeader) {
    for (size_t room = 0; room <= strlen(GetParam().header); room++) {
        clearAll();
        // The log is kept small, as the limit holds for it as well.
        log_.forget();
        queue(1);
        {
            const FullDisk full(room);
            write();
        }
        ASSERT_EQ(fileText(GetParam().path), "") << room;
        ASSERT_EQ(counted(), 0U) << room;
        write();
        ASSERT_EQ(lines().at(0), GetParam().header) << room;
    }
}

TEST_P(RecordFiles, FileIsRotatedAboveItsThreshold) {
    putFile(GetParam().path, filler(GetParam().header, GetParam().most - 1));
    putFile(GetParam().oldPath, "the generation before\n");
    queue(1);
    write();
    EXPECT_EQ(lines().size(), GetParam().most) << "the threshold itself is not above it";
    queue(1);
    write();
    EXPECT_EQ(fileLines(GetParam().oldPath).size(), GetParam().most + 1);
    EXPECT_EQ(fileText(GetParam().path), "");
    EXPECT_EQ(counted(), 0U);
    write();
    EXPECT_EQ(lines(), Lines{GetParam().header});
}

TEST_P(RecordFiles, FileThatCannotBeMovedIsKeptAndTriedAgain) {
    putFile(GetParam().path, filler(GetParam().header, GetParam().most));
    std::filesystem::create_directory(GetParam().oldPath);
    queue(1);
    write();
    EXPECT_EQ(lines().size(), GetParam().most + 1) << "nothing is lost";
    EXPECT_EQ(logCount("[ERROR]"), 1U);

    std::filesystem::remove(GetParam().oldPath);
    write();
    EXPECT_EQ(fileLines(GetParam().oldPath).size(), GetParam().most + 1);
    EXPECT_EQ(fileText(GetParam().path), "");
}

TEST_P(RecordFiles, OnlyTheDaemonsUserReadsThem) {
    umask(0);
    queue(1);
    write();
    struct stat file {};
    ASSERT_EQ(stat(GetParam().path, &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600U);
    umask(022);
}

}  // namespace
