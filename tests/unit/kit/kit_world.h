// What the kit's tests share: files, the log as text, and a world whose waits and threads obey the test.
#pragma once
#include <gtest/gtest.h>

#include <atomic>
#include <string>

namespace kit_test {

void writeFile(const std::string &path, const std::string &content);
std::string readFile(const std::string &path);  // empty when there is none
bool exists(const std::string &path);
void shell(const std::string &command);  // a failure fails the test
std::string md5Of(const std::string &content);

// Set by a test, obeyed by the functions that the executable's link wraps; see world.cpp.
struct World {
    std::atomic<unsigned> slept;           // seconds that were asked for; none is waited
    std::atomic<bool> waitsTimeOut;        // a timed wait on a condition is over at once
    std::atomic<bool> threadsUnavailable;  // no thread can be created
    std::atomic<int> threadLingers;        // 1: the next thread to end is kept by its library until this is 0
};
extern World world;

// A fresh log at DEBUG, an empty application pool, and empty /flash, /var/flash and /lib engine for each
// test.
class KitTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    static std::string log();
    static void expectLog(const std::string &text);
    static void expectNoLog(const std::string &text);
};

}  // namespace kit_test
