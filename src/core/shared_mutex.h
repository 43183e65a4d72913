// A lock for readers on several threads and one writer at a time in which neither side starves, since their
// turns alternate: a writer that waits keeps new readers out, and the readers that came meanwhile are let in
// together, before the next writer.  So a reader waits for one writer at most, and a writer for the readers
// that were there first.  pthread's lock lets readers pass a waiting writer, and with musl it knows nothing
// else: threads that read without pause keep every writer out.
//
// A thread that holds it, either way, must not take it again: a reader would wait for a writer that waits for
// it.
//
// Memory order.  All that the sides have to tell each other is in one word, whose modification order settles
// who came first; no other word has to be seen in step with it, so acquire and release are enough.
//   - Readers see what the writers before them wrote: a writer ends with a release, and an acquire lets
//   readers in.
//   - A writer changes nothing that a reader still looks at: readers leave with a release, and the writer's
//   acquire
//     that finds none inside reads from the last of them, or from a read-modify-write after it, which carries
//     all their releases on.
//   - Writers follow each other through a mutex.
// Sleepers look at the word with the bed's mutex held, and who changes it for them takes that mutex before it
// wakes them: no wake-up is lost.
#pragma once
#include <atomic>
#include <cstdint>

#include "core/lock.h"

class CAPABILITY("shared mutex") AmSharedMutex {
  public:
    constexpr AmSharedMutex() = default;
    AmSharedMutex(const AmSharedMutex &) = delete;
    AmSharedMutex &operator=(const AmSharedMutex &) = delete;

    void lock() ACQUIRE();
    void unlock() RELEASE();

    // Between two of many changes: lets in the readers that wait, if any, and goes on after them.
    void letReadersIn() REQUIRES(this) {
        if (word_.load(std::memory_order_relaxed) & kAllWaiting) takeTurns();
    }

    // Said by the one thread that ever writes, which reads without the lock: for the analysis alone.
    void soleWriterReads() const ASSERT_SHARED_CAPABILITY(this) {}

    void lockShared() ACQUIRE_SHARED() {
        uint32_t word = word_.load(std::memory_order_relaxed);
        while (!(word & kWriter))
            [[likely]] if (word_.compare_exchange_weak(word, word + kReader, std::memory_order_acquire,
                                                       std::memory_order_relaxed)) return;
        lockSharedAfterWriter();
    }
    void unlockShared() RELEASE_SHARED() {
        const uint32_t before = word_.fetch_sub(kReader, std::memory_order_release);
        if ((before & (kWriter | kAllReaders)) == (kWriter | kReader)) [[unlikely]]
            wakeWriter();
    }

  private:
    // The word: how many readers are inside; how many wait for the writer; the turn, which changes whenever a
    // writer ends; whether a writer is inside or waits for the readers to leave.
    static constexpr uint32_t kReader = 1, kAllReaders = 0x7fff;
    static constexpr uint32_t kWaiting = 1U << 15, kAllWaiting = kAllReaders * kWaiting;
    static constexpr uint32_t kTurn = 1U << 30;
    static constexpr uint32_t kWriter = 1U << 31;

    void lockSharedAfterWriter();
    void wakeWriter();
    void takeTurns() REQUIRES(this);
    bool turnIsOver(uint32_t turn) const { return (word_.load(std::memory_order_acquire) & kTurn) != turn; }
    bool readersAreOut() const { return (word_.load(std::memory_order_acquire) & kAllReaders) == 0; }

    std::atomic<uint32_t> word_{0};
    AmMutex writers_;  // held by the writer
    AmMutex bed_;      // with both conditions
    pthread_cond_t readersGo_ = PTHREAD_COND_INITIALIZER;
    pthread_cond_t writerGoes_ = PTHREAD_COND_INITIALIZER;
};

class SCOPED_CAPABILITY AmSharedGuard {
  public:
    explicit AmSharedGuard(AmSharedMutex &lock) ACQUIRE_SHARED(lock) : lock_(lock) { lock_.lockShared(); }
    ~AmSharedGuard() RELEASE_GENERIC() { lock_.unlockShared(); }
    AmSharedGuard(const AmSharedGuard &) = delete;
    AmSharedGuard &operator=(const AmSharedGuard &) = delete;

  private:
    AmSharedMutex &lock_;
};
