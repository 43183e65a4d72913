#include "core/thread.h"

namespace am {

int startThread(pthread_t &thread, const sigset_t &blocked, void *(*body)(void *), void *argument) {
    pthread_attr_t attributes;
    if (const int error = pthread_attr_init(&attributes)) return error;
    pthread_attr_setstacksize(&attributes, kThreadStack);
    // A new thread begins with its creator's mask: not even its first instructions take a signal.
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const int error = pthread_create(&thread, &attributes, body, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return error;
}

sigset_t allSignals() {
    sigset_t all;
    sigfillset(&all);
    return all;
}

bool joinEnded(pthread_t thread) {
    return pthread_tryjoin_np(thread, nullptr) == 0;  // in both C libraries, glibc and musl
}

}  // namespace am
