#include <curl/curl.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "appmodel/app_lists.h"
#include "appmodel/app_pool.h"
#include "core/log.h"
#include "kit/kit_folders.h"
#include "kit/md5.h"
#include "kit_world.h"
#include "unit/sandbox.h"

kit_test::World kit_test::world;

using kit_test::world;

namespace {

struct ThreadStart {
    void *(*body)(void *);
    void *argument;
};

struct Linger {
    ~Linger() {
        int next = 1;
        if (!world.threadLingers.compare_exchange_strong(next, 2)) return;
        while (world.threadLingers == 2) sched_yield();
    }
};

void *runAndLinger(void *start) {
    thread_local const Linger atEnd;
    const std::unique_ptr<ThreadStart> owned(static_cast<ThreadStart *>(start));
    return owned->body(owned->argument);
}

}  // namespace

extern "C" {
unsigned __wrap_sleep(unsigned seconds);
int __wrap_pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                  const timespec *deadline);
int __real_pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                  const timespec *deadline);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                          void *argument);
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                          void *argument);

unsigned __wrap_sleep(unsigned seconds) {
    world.slept += seconds;
    return 0;
}

int __wrap_pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                  const timespec *deadline) {
    return world.waitsTimeOut ? ETIMEDOUT : __real_pthread_cond_timedwait(condition, mutex, deadline);
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                          void *argument) {
    if (world.threadsUnavailable) return EAGAIN;
    return __real_pthread_create(thread, attributes, runAndLinger, new ThreadStart{body, argument});
}
}

namespace kit_test {

namespace {
constexpr char kLog[] = "/tmp/kit_test.log";

std::set<std::filesystem::path> entries(const char *folder) {
    std::set<std::filesystem::path> found;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) found.insert(entry.path());
    return found;
}
}  // namespace

void writeFile(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::string readFile(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

bool exists(const std::string &path) {
    return fileExists(path.c_str()) == 1;
}

void shell(const std::string &command) {
    ASSERT_EQ(0, system(command.c_str())) << command;
}

std::string md5Of(const std::string &content) {
    am::Md5 md5;
    am::md5Begin(md5);
    am::md5Add(md5, content.data(), content.size());
    return am::md5Text(am::md5End(md5)).text;
}

void KitTest::SetUp() {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_ALL);
    ASSERT_EQ(CURLE_OK, initialised);
    requireSandbox();
    static const auto others = entries("/tmp");  // the checkout may be among them
    emptyFolder("/tmp", others);
    emptyFolder("/flash");
    shell("rm -rf /var/flash /lib/libcapture.so");
    world.slept = 0;
    amLogOpen(kLog, AM_LOG_DEBUG);
    rbtInit(&amAppPoolTree, amAppPoolNameCompare);
    rbtInit(&amAppGrpTree, amAppGrpNameCompare);
    amAppPoolShmSigCnt = 0;
}

void KitTest::TearDown() {
    amAppPoolMarkObsolete();
    amCleanAppPool();
    amCleanAppData();
    amLogOpen(nullptr, AM_LOG_ERROR);
}

std::string KitTest::log() {
    return readFile(kLog);
}

void KitTest::expectLog(const std::string &text) {
    EXPECT_NE(std::string::npos, log().find(text)) << "missing: " << text << "\nin:\n" << log();
}

void KitTest::expectNoLog(const std::string &text) {
    EXPECT_EQ(std::string::npos, log().find(text)) << "unexpected: " << text << "\nin:\n" << log();
}

}  // namespace kit_test
