#include "preload_real.h"

#include <dlfcn.h>

#include <atomic>

namespace nl26 {
namespace {

constinit Real functions{};
constinit std::atomic<bool> ready{false};

template <class Function>
void lookUp(Function &to, const char *name) {
    void *found = dlsym(RTLD_NEXT, name);
    if (!found) __builtin_trap();  // a C library without it: nothing could go on
    __atomic_store_n(&to, reinterpret_cast<Function>(found), __ATOMIC_RELAXED);
}

__attribute__((noinline)) void lookUpAll() {
    lookUp(functions.socket, "socket");
    lookUp(functions.bind, "bind");
    lookUp(functions.connect, "connect");
    lookUp(functions.getsockname, "getsockname");
    lookUp(functions.setsockopt, "setsockopt");
    lookUp(functions.getsockopt, "getsockopt");
    lookUp(functions.mmap, "mmap");
    lookUp(functions.poll, "poll");
    lookUp(functions.ppoll, "ppoll");
    lookUp(functions.send, "send");
    lookUp(functions.sendto, "sendto");
    lookUp(functions.sendmsg, "sendmsg");
    lookUp(functions.recv, "recv");
    lookUp(functions.recvfrom, "recvfrom");
    lookUp(functions.recvmsg, "recvmsg");
    lookUp(functions.close, "close");
    ready.store(true, std::memory_order_release);
}

}  // namespace

const Real &real() {
    if (!ready.load(std::memory_order_acquire)) lookUpAll();
    return functions;
}

}  // namespace nl26
