#include "kit/upload.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "core/text.h"
#include "core/thread.h"
#include "kit/transfer.h"
#include "kit_world.h"

namespace kit_test {

constexpr const char *kFiles[kUploadSlots] = {"enf.csv", "enf_old.csv", "mon.csv", "mon_old.csv"};
constexpr size_t kFileSize = 4 << 20;

thread_mgr_slot state(int slot) {
    const AmGuard guard(amUploadLock);
    return thread_mgr[slot];
}

class KitUploadSlots : public KitTest {
  protected:
    void SetUp() override {
        KitTest::SetUp();
        ASSERT_EQ(0, mkdir("/tmp/up", 0700));
        world.waitsTimeOut = world.threadsUnavailable = false;
    }
    void TearDown() override {
        world.waitsTimeOut = world.threadsUnavailable = false;
        for (int slot = 0; slot < kUploadSlots; slot++) EXPECT_EQ(0, stop_upload_thread(slot));
        while (!uploadThreadsEnded()) std::this_thread::yield();
        KitTest::TearDown();
    }

    static int start(int slot, const std::string &where = "file:///tmp/up") {
        {
            const AmGuard guard(amUploadLock);
            am::copyText(thread_mgr[slot].args.filePath, where);
            am::copyText(thread_mgr[slot].args.username, "admin");
            am::copyText(thread_mgr[slot].args.password, "secret");
        }
        return startUpload(slot, kFiles[slot]);
    }
    static void waitUntilFree(int slot) {
        while (state(slot).thread != 0) std::this_thread::yield();
    }
    static bool isZero(const thread_mgr_slot &slot) {
        const thread_mgr_slot zero{};
        return slot.thread == 0 && slot.stop == 0 && memcmp(&slot.args, &zero.args, sizeof zero.args) == 0;
    }
};

// A server that takes what it is given only when the test lets it: the upload writes to a pipe.  It is open
// for both directions, since libcurl opens its target for reading first, which would wait for a writer.
class SlowServer {
  public:
    explicit SlowServer(int slot) : slot_(slot) {
        const std::string path = std::string("/tmp/up/") + kFiles[slot];
        EXPECT_EQ(0, mkfifo(path.c_str(), 0600));
        pipe_ = open(path.c_str(), O_RDWR | O_NONBLOCK);
        EXPECT_LE(0, pipe_);
    }
    ~SlowServer() { close(pipe_); }
    SlowServer(const SlowServer &) = delete;
    SlowServer &operator=(const SlowServer &) = delete;

    // Takes the rest, until the upload has ended; all bytes that have come.
    size_t drain() {
        for (bool ended = false; !ended;) {
            ended = state(slot_).thread == 0;
            while (take(65536)) {
            }
            std::this_thread::yield();
        }
        return received_;
    }
    void waitForData() {
        while (!take(1)) std::this_thread::yield();
    }

  private:
    bool take(size_t atMost) {
        char chunk[65536];
        const ssize_t length = read(pipe_, chunk, atMost);
        if (length > 0) received_ += static_cast<size_t>(length);
        return length > 0;
    }
    int slot_, pipe_;
    size_t received_ = 0;
};

TEST_F(KitUploadSlots, FourUploadsRunAtOnceAndFreeTheirSlots) {
    for (int slot = 0; slot < kUploadSlots; slot++)
        writeFile(std::string("/flash/") + kFiles[slot],
                  std::string(kFileSize, static_cast<char>('a' + slot)));
    for (int slot = 0; slot < kUploadSlots; slot++) EXPECT_EQ(0, start(slot));
    for (int slot = 0; slot < kUploadSlots; slot++) {
        waitUntilFree(slot);
        EXPECT_TRUE(isZero(state(slot)));
        EXPECT_EQ(std::string(kFileSize, static_cast<char>('a' + slot)),
                  readFile(std::string("/tmp/up/") + kFiles[slot]));
    }
}

TEST_F(KitUploadSlots, SlotIsFreedWhateverBecomesOfTheUpload) {
    for (const std::string &where :
         {std::string("file:///no/such/folder"), std::string(255, 'p'), std::string()}) {
        for (const bool present : {false, true}) {
            if (present) writeFile("/flash/enf.csv", "x");
            ASSERT_EQ(0, start(kSlotEnf, where));
            waitUntilFree(kSlotEnf);
            EXPECT_TRUE(isZero(state(kSlotEnf)));
            unlink("/flash/enf.csv");
        }
    }
    expectLog(" File enf.csv not present\n");
}

TEST_F(KitUploadSlots, RunningUploadIsStoppedAtItsNextRead) {
    writeFile("/flash/mon.csv", std::string(kFileSize, 'm'));
    SlowServer server(kSlotMon);
    ASSERT_EQ(0, start(kSlotMon));
    server.waitForData();
    size_t received = 0;
    std::thread reader([&] {
        const auto running = [](const thread_mgr_slot &slot) { return slot.thread != 0 && slot.stop == 0; };
        while (running(state(kSlotMon))) std::this_thread::yield();
        received = server.drain();
    });
    EXPECT_EQ(0, stop_upload_thread(kSlotMon));
    reader.join();
    EXPECT_TRUE(isZero(state(kSlotMon)));
    EXPECT_LT(received, kFileSize / 2);
}

TEST_F(KitUploadSlots, UploadThatDoesNotNoticeKeepsItsSlotAndStillEnds) {
    writeFile("/flash/mon.csv", std::string(kFileSize, 'm'));
    SlowServer server(kSlotMon);
    ASSERT_EQ(0, start(kSlotMon));
    server.waitForData();
    world.waitsTimeOut = true;
    EXPECT_EQ(-1, stop_upload_thread(kSlotMon));
    EXPECT_EQ(1, state(kSlotMon).stop);
    EXPECT_EQ(-1, startUpload(kSlotMon, "other.csv"));
    EXPECT_STREQ("mon.csv", state(kSlotMon).args.fileName);
    EXPECT_EQ(0, stop_upload_thread(kSlotEnf));  // the others are not held up
    world.waitsTimeOut = false;
    EXPECT_LT(server.drain(), kFileSize / 2);
    waitUntilFree(kSlotMon);
    EXPECT_TRUE(isZero(state(kSlotMon)));
}

// A request clears the block of a rotated file that is gone, whether or not its upload still runs.
TEST_F(KitUploadSlots, ClearedArgumentsDoNotDisturbARunningUpload) {
    writeFile("/flash/mon_old.csv", std::string(kFileSize, 'm'));
    SlowServer server(kSlotMonOld);
    ASSERT_EQ(0, start(kSlotMonOld));
    server.waitForData();
    clearUploadArgs(kSlotMonOld);
    shell("echo later >> /flash/mon_old.csv");  // goes with the next upload: the size was announced
    EXPECT_EQ(kFileSize, server.drain());
    waitUntilFree(kSlotMonOld);
    expectLog("STATS CSV Upload SUCCESS");
}

TEST_F(KitUploadSlots, ThreadThatCannotBeHadLeavesACleanSlot) {
    world.threadsUnavailable = true;
    EXPECT_EQ(-1, start(kSlotEnf));
    EXPECT_TRUE(isZero(state(kSlotEnf)));
    world.threadsUnavailable = false;
    EXPECT_EQ(0, start(kSlotEnf));
}

TEST_F(KitUploadSlots, ThreadHasTheStackThatLibrariesAreUsedTo) {
    writeFile("/flash/enf.csv", std::string(kFileSize, 'e'));
    SlowServer server(kSlotEnf);
    ASSERT_EQ(0, start(kSlotEnf));
    server.waitForData();
    pthread_attr_t attributes;
    size_t size = 0;
    ASSERT_EQ(0, pthread_getattr_np(state(kSlotEnf).thread, &attributes));
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(am::kThreadStack, size);
    server.drain();
}

// What exit() tears down is used until the very end of a thread, long after it has freed its slot.
TEST_F(KitUploadSlots, ThreadHasNotEndedWhenItsSlotIsFree) {
    world.threadLingers = 1;
    for (const int slot : {kSlotEnf, kSlotMon}) {
        ASSERT_EQ(0, start(slot));
        waitUntilFree(slot);
    }
    EXPECT_FALSE(uploadThreadsEnded());
    world.threadLingers = 0;
    while (!uploadThreadsEnded()) std::this_thread::yield();
    ASSERT_EQ(0, start(kSlotEnf));
    waitUntilFree(kSlotEnf);
    while (!uploadThreadsEnded()) std::this_thread::yield();
}

TEST_F(KitUploadSlots, StartsAndStopsInAnyOrder) {
    for (const char *file : kFiles) writeFile(std::string("/flash/") + file, std::string(200000, 'x'));
    for (int round = 0; round < 300; round++) {
        const int slot = round % kUploadSlots;
        ASSERT_EQ(0, stop_upload_thread(slot));
        ASSERT_EQ(0, start(slot));
        if (round % 3 == 0) {
            ASSERT_EQ(0, stop_upload_thread(slot));
        }
    }
}

}  // namespace kit_test
