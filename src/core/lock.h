// Locks that clang's thread-safety analysis understands: a thin owner of a pthread mutex, and what
// declares them.  core/shared_mutex.h has the lock for readers and writers.
//
// Order in which locks are taken, never backwards:
//   amEngineGate -> amModelLock -> amEnfFlowLock -> amMonQueueLock -> amUploadLock -> log lock
// and, private to one file each: the flow database's turnstile right before amEnfFlowLock; a kernel side's
// closeLock after amModelLock, and the capture thread's threadLock after it; the router's verdictLock after
// amModelLock. Declarations say the order, for
// clang to check; the log lock is in no declaration, since nothing is called with it held that takes another.
// A lock is held for the data it guards, never across a transfer, a shell command or a record write.
#pragma once
#include <pthread.h>

#if defined(__clang__)
#define AM_TSA(x) __attribute__((x))
#else
#define AM_TSA(x)
#endif
#define CAPABILITY(x) AM_TSA(capability(x))
#define SCOPED_CAPABILITY AM_TSA(scoped_lockable)
#define GUARDED_BY(x) AM_TSA(guarded_by(x))
#define ACQUIRED_AFTER(...) AM_TSA(acquired_after(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) AM_TSA(acquired_before(__VA_ARGS__))
#define REQUIRES(...) AM_TSA(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) AM_TSA(requires_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) AM_TSA(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) AM_TSA(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) AM_TSA(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) AM_TSA(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) AM_TSA(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) AM_TSA(release_generic_capability(__VA_ARGS__))
#define ASSERT_SHARED_CAPABILITY(x) AM_TSA(assert_shared_capability(x))
#define TRY_ACQUIRE(...) AM_TSA(try_acquire_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS AM_TSA(no_thread_safety_analysis)

// Between two looks at something that another processor is about to change.
inline void relaxProcessor() {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

class CAPABILITY("mutex") AmMutex {
  public:
    constexpr AmMutex() = default;
    AmMutex(const AmMutex &) = delete;
    AmMutex &operator=(const AmMutex &) = delete;

    void lock() ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() RELEASE() { pthread_mutex_unlock(&mutex_); }
    // For a lock that is held for moments only: to be put to sleep and woken takes a hundred times as long as
    // to look again for a microsecond or two.
    void lockSoon() ACQUIRE() {
        for (int looks = 0; looks < 200; looks++) {
            if (tryLock()) return;
            relaxProcessor();
        }
        lock();
    }
    bool tryLock() TRY_ACQUIRE(true) { return pthread_mutex_trylock(&mutex_) == 0; }
    pthread_mutex_t *native() { return &mutex_; }  // for pthread_cond_wait only

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

template <class Lock>
class SCOPED_CAPABILITY AmGuard {
  public:
    explicit AmGuard(Lock &lock) ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
    ~AmGuard() RELEASE() { lock_.unlock(); }
    AmGuard(const AmGuard &) = delete;
    AmGuard &operator=(const AmGuard &) = delete;

  private:
    Lock &lock_;
};
