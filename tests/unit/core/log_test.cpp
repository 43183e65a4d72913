// The log at its literal path: runs in the sandbox.
#include "core/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "core/paths.h"

namespace {

class Log : public testing::Test {
  protected:
    void SetUp() override {
        (void)mkdir("/var/log", 0755);
        (void)rmdir(kLogPath);
        (void)unlink(kLogPath);
    }
    void TearDown() override {
        amLogClose();
        logLevel = AM_LOG_ERROR;
    }

    static std::string text() {
        std::ostringstream text;
        text << std::ifstream(kLogPath).rdbuf();
        return text.str();
    }
    static void setSize(off_t bytes) { ASSERT_EQ(truncate(kLogPath, bytes), 0); }
    static off_t size() {
        struct stat file {};
        return stat(kLogPath, &file) == 0 ? file.st_size : -1;
    }

    // What goes to the two standard streams meanwhile.
    template <class Work>
    static std::pair<std::string, std::string> outputs(Work work) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        work();
        (void)fflush(stdout);
        std::string out = testing::internal::GetCapturedStdout();
        return {out, testing::internal::GetCapturedStderr()};
    }
};

TEST_F(Log, LineHasTimeLevelAndMessageAndNothingElse) {
    amLogOpen(kLogPath, 1);
    amLog(AM_LOG_ERROR, "%s:%d %s\n", "operation", 7, "text");
    amLog(AM_LOG_NONE, "no end");
    amLog(AM_LOG_ERROR, "next\n");
    const std::string time = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)";
    EXPECT_TRUE(std::regex_match(text(), std::regex(time + R"( \[ERROR\]: operation:7 text\n)" + time +
                                                    R"( \[NONE\]: no end)" + time + R"( \[ERROR\]: next\n)")))
        << text();
}

TEST_F(Log, LevelsLetThroughWhatIsNotAboveThem) {
    const char *names[] = {"NONE",  "ERROR", "WARNING", "NOTICE", "INFO",
                           "DEBUG", "FLOW",  "PACKET",  "STATS",  ""};
    for (int set = 0; set <= 9; set++) {
        amLogOpen(kLogPath, set);
        for (int level = 0; level <= 9; level++) {
            if (size() > 0) setSize(0);
            amLog(level, "x\n");
            const std::string expected = level <= set ? std::string(" [") + names[level] + "]: x\n" : "";
            EXPECT_EQ(text().substr(text().empty() ? 0 : 19), expected) << level << " at level " << set;
        }
    }
}

TEST_F(Log, FileIsRestartedAtTwoMebibytesExactly) {
    amLogOpen(kLogPath, 1);
    setSize(2'097'151);
    amLog(AM_LOG_DEBUG, "filtered: not looked at\n");
    amLog(AM_LOG_ERROR, "kept\n");
    EXPECT_GT(size(), 2'097'151) << "one byte below the limit the file stays";
    amLog(AM_LOG_ERROR, "first\n");
    EXPECT_EQ(text().substr(19), " [ERROR]: first\n") << "no other line, no older copy";

    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = descriptors();
    setSize(2'097'152);
    amLog(AM_LOG_ERROR, "again\n");
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(text().substr(19), " [ERROR]: again\n");
    struct stat file {};
    ASSERT_EQ(stat(kLogPath, &file), 0);
    EXPECT_EQ(file.st_mode & 0777U, 0600U);
}

TEST_F(Log, FailureToOpenIsToldAtOnceAlsoToAPipe) {
    ASSERT_EQ(mkdir(kLogPath, 0755), 0);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    (void)fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    (void)dup2(ends[1], STDOUT_FILENO);
    amLogOpen(kLogPath, 1);
    char text[100] = "";
    (void)!read(ends[0], text, sizeof text - 1);
    (void)dup2(before, STDOUT_FILENO);
    EXPECT_STREQ(text, "Error open log file: /var/log/dpi.log\n");
    for (const int fd : {before, ends[0], ends[1]}) (void)close(fd);
    (void)rmdir(kLogPath);
}

TEST_F(Log, StandardErrorTakesThePlaceOfAFileThatCannotBeOpened) {
    ASSERT_EQ(mkdir(kLogPath, 0755), 0);
    const auto [out, error] = outputs([] {
        amLogOpen(kLogPath, 1);
        amLog(AM_LOG_ERROR, "fallback\n");
        amLogClose();  // stays
        amLog(AM_LOG_ERROR, "still\n");
    });
    EXPECT_EQ(out, "Error open log file: /var/log/dpi.log\n");
    EXPECT_NE(error.find(" [ERROR]: fallback\n"), std::string::npos) << error;
    EXPECT_NE(error.find(" [ERROR]: still\n"), std::string::npos) << error;

    // A later open, or the restart at the limit, tries the file again.
    ASSERT_EQ(rmdir(kLogPath), 0);
    std::ofstream(kLogPath) << "";
    setSize(2'097'152);
    EXPECT_EQ(outputs([] { amLog(AM_LOG_ERROR, "back\n"); }).second, "");
    EXPECT_EQ(text().substr(19), " [ERROR]: back\n");
}

TEST_F(Log, FormatIsCutButItsArgumentsAreNot) {
    amLogOpen(kLogPath, 1);
    const std::string longText(6000, 'a');
    amLog(AM_LOG_ERROR, "%s\n", longText.c_str());
    EXPECT_EQ(text().substr(19), " [ERROR]: " + longText + "\n");

    setSize(0);
    // Kept from the compiler's format check: a format of 6,000 characters and no arguments.
    void (*const write)(int, const char *, ...) = amLogLine;
    write(AM_LOG_ERROR, longText.c_str());
    EXPECT_EQ(text().size(), 4095U);
}

TEST_F(Log, LinesOfSeveralThreadsStayWholeAcrossRestarts) {
    amLogOpen(kLogPath, 1);
    setSize(2'097'152 - 40 * 100);  // so that the file is restarted while they write
    const auto write = [](void *argument) -> void * {
        for (int i = 0; i < 200; i++)
            amLog(AM_LOG_ERROR, "%s %s\n", static_cast<const char *>(argument),
                  static_cast<const char *>(argument));
        return nullptr;
    };
    char words[4][8] = {"aaaaaa", "bbbbbb", "cccccc", "dddddd"};
    pthread_t threads[4];
    for (int i = 0; i < 4; i++) ASSERT_EQ(pthread_create(&threads[i], nullptr, write, words[i]), 0);
    for (const pthread_t thread : threads) pthread_join(thread, nullptr);

    std::istringstream lines(text());
    unsigned count = 0;
    for (std::string line; std::getline(lines, line); count++) {
        ASSERT_EQ(line.size(), 19U + 10 + 13) << line;
        EXPECT_EQ(line.substr(29, 6), line.substr(36, 6)) << line;
    }
    EXPECT_GT(count, 500U);
    EXPECT_LT(count, 800U) << "the file was restarted";
}

}  // namespace
