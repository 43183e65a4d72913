#include "core/shared_mutex.h"

namespace {

// Looks for a few microseconds before it sleeps: to be put to sleep and woken takes longer than most turns.
template <class Condition>
void await(const Condition &met, AmMutex &bed, pthread_cond_t &wakeUp) {
    for (int looks = 0; looks < 200; looks++) {
        if (met()) return;
        relaxProcessor();
    }
    const AmGuard guard(bed);
    while (!met()) pthread_cond_wait(&wakeUp, bed.native());
}

}  // namespace

void AmSharedMutex::lock() NO_THREAD_SAFETY_ANALYSIS {
    writers_.lock();
    if ((word_.fetch_or(kWriter, std::memory_order_acquire) & kAllReaders) == 0) return;
    await([this] { return readersAreOut(); }, bed_, writerGoes_);
}

void AmSharedMutex::unlock() NO_THREAD_SAFETY_ANALYSIS {
    uint32_t word = word_.load(std::memory_order_relaxed), next;
    do {  // those who wait are inside from here on, awake or not
        next = (~word & kTurn) | (word & kAllWaiting) / kWaiting;
    } while (!word_.compare_exchange_weak(word, next, std::memory_order_release, std::memory_order_relaxed));
    if (next & kAllReaders) {
        const AmGuard guard(bed_);
        pthread_cond_broadcast(&readersGo_);
    }
    writers_.unlock();
}

void AmSharedMutex::takeTurns() {
    unlock();
    lock();
}

void AmSharedMutex::lockSharedAfterWriter() {
    uint32_t word = word_.load(std::memory_order_relaxed), next;
    do {
        next = word + (word & kWriter ? kWaiting : kReader);
    } while (!word_.compare_exchange_weak(word, next, std::memory_order_acquire, std::memory_order_relaxed));
    if (!(word & kWriter)) return;
    // One bit is enough for the turn: the next one cannot end before this reader, who is inside by then, has
    // left.
    await([this, turn = word & kTurn] { return turnIsOver(turn); }, bed_, readersGo_);
}

void AmSharedMutex::wakeWriter() {
    const AmGuard guard(bed_);
    pthread_cond_signal(&writerGoes_);
}
