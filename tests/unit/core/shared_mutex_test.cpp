#include "core/shared_mutex.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <thread>
#include <vector>

// Readers that are never all out, and a writer that comes back at once: with a lock that prefers readers the
// writer does not get in once, and a reader that is let in too early sees half a change.
TEST(SharedMutex, WriterGetsInBetweenReadersWithoutPause) {
    constexpr int kTurns = 1000, kManyReads = 200'000;
    AmSharedMutex mutex;
    int one = 0, other = 0;
    std::atomic<bool> done{false};
    std::atomic<int> reads{0}, torn{0};
    std::vector<std::thread> readers(6);
    for (std::thread &reader : readers)
        reader = std::thread([&] {
            while (!done && reads < kManyReads) {
                const AmSharedGuard guard(mutex);
                const int seen = one;
                sched_yield();
                torn += seen != other;
                reads++;
            }
        });
    while (reads == 0) sched_yield();

    int turns = 0;
    {
        const AmGuard guard(mutex);
        for (; turns < kTurns && reads < kManyReads; turns++) {
            one++;
            other++;
            mutex.letReadersIn();
        }
    }
    done = true;
    for (std::thread &reader : readers) reader.join();
    EXPECT_EQ(turns, kTurns);
    EXPECT_EQ(torn, 0);
    EXPECT_GT(reads, kTurns) << "readers had their turns, too";
}
