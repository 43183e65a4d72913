#include "flows/interrupt.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "core/lock.h"
#include "core/log.h"
#include "core/thread.h"
#include "flows/capture.h"
#include "flows/kernel_side.h"

namespace {

sem_t signalled;  // posted by the handler: async-signal-safe (signal-safety(7))

constinit AmMutex installLock;
bool waiterRuns GUARDED_BY(installLock) = false;

void *actOnInterrupt(void *) {
    while (sem_wait(&signalled) != 0) {
    }  // interrupted by another signal
    amLog(AM_LOG_ERROR, "%s:%d signal SIGINT/SIGTERM\n", "my_sig_handler", __LINE__);
    am::withdrawFromKernel();
    _exit(0);  // no exit(): the other threads still use what its handlers would tear down
}

// All signals stay with the other threads: the one that is interrupted may be blocked, this one never is.
bool startWaiter() {
    if (sem_init(&signalled, 0, 0) != 0) return false;
    pthread_t thread;  // ends with the process only
    const int error = am::startThread(thread, am::allSignals(), actOnInterrupt, nullptr);
    if (error != 0) {
        amLog(AM_LOG_ERROR, "%s:%d SIGINT thread: %s\n", "installInterruptHandler", __LINE__,
              strerror(error));
        return false;
    }
    return true;
}

}  // namespace

void my_sig_handler(int sig) {
    if (sig != SIGINT && sig != SIGTERM) return;
    const int error = errno;
    am::captureHalted.store(true, std::memory_order_relaxed);
    (void)sem_post(&signalled);
    errno = error;
}

void installInterruptHandler() {
    const AmGuard guard(installLock);
    if (!waiterRuns) waiterRuns = startWaiter();
    if (!waiterRuns) return;  // the default action ends the process at least
    struct sigaction action {};
    action.sa_handler = my_sig_handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    (void)sigaction(SIGINT, &action, nullptr);
}
