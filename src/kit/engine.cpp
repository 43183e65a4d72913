#include "kit/engine.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "appmodel/app_pool.h"
#include "core/log.h"
#include "kit/kit_libraries.h"

extern "C" {
constinit CaptureFlowFn capture_flow_func = nullptr;
constinit void *pcap = nullptr;
}

constinit AmMutex amEngineGate;
constinit void *amQsLibHandle = nullptr;
constinit PcapPacketFn process_pktptr GUARDED_BY(amEngineGate) = nullptr;
constinit int fail = 0;
constinit std::atomic<bool> amEngineGateWanted{false};

namespace {

constexpr char kEngineFile[] = "libcapture.so";

using EngineFn = void (*)();

constinit pthread_cond_t wishServed = PTHREAD_COND_INITIALIZER;  // with amEngineGate

EngineFn engineEntry(const char *name) {
    return reinterpret_cast<EngineFn>(dlsym(amQsLibHandle, name));
}

// Waiting releases the gate, and it comes back only once the wish has been served: the event-loop thread is
// let in for sure.
void waitForWish() REQUIRES(amEngineGate) {
    while (amEngineGateWanted.load(std::memory_order_relaxed))
        pthread_cond_wait(&wishServed, amEngineGate.native());
}

// Once it returns no call of the old entry is in progress, and none can start.
void publishEntry(PcapPacketFn entry) EXCLUDES(amEngineGate) {
    amEngineSeize();
    process_pktptr = entry;
    amEngineRelease();
}

// Starts the opened engine and lets the capture thread in.  No lock is held while engine code runs here: an
// engine may report flows from its start entry.
void startEngine() EXCLUDES(amEngineGate) {
    (void)dlerror();
    amLog(AM_LOG_DEBUG, "dl open success\n");
    fail = 1;

    const EngineFn start = engineEntry("test_capture");
    sleep(1);
    if (start) {
        fail = 2;
        amLog(AM_LOG_DEBUG, "calling test_capture\n");
        start();
    }

    const auto entry = reinterpret_cast<PcapPacketFn>(dlsym(amQsLibHandle, "pcap_packet"));
    if (entry) fail = 3;
    publishEntry(entry);
}

}  // namespace

void amEngineEnter() {
    amEngineGate.lock();
    waitForWish();
}

void amEngineLeave() {
    amEngineGate.unlock();
}

void amEngineStepAside() {
    waitForWish();
}

void amEngineSeize() {
    amEngineGateWanted.store(true, std::memory_order_relaxed);
    amEngineGate.lock();
}

void amEngineRelease() {
    amEngineGateWanted.store(false, std::memory_order_relaxed);
    pthread_cond_broadcast(&wishServed);
    amEngineGate.unlock();
}

// The event-loop thread alone writes the entry, so it may read it without the gate.
bool amEngineLoaded() NO_THREAD_SAFETY_ANALYSIS {
    return process_pktptr != nullptr;
}

int amLoadQsKit() {
    char path[512] = {};
    snprintf(path, sizeof path, "%s/%s", kLibraryDir, kEngineFile);
    struct stat status {};
    if (stat(path, &status) != 0) {
        amLog(AM_LOG_ERROR, "capture file not found\n");
        return -1;
    }

    amQsLibHandle = am::openLibrary(path, RTLD_NOW | RTLD_GLOBAL);
    fail = 0;
    if (amQsLibHandle)
        startEngine();
    else
        amLog(AM_LOG_ERROR, "dl open Failure (%s) cmdbuff %s\n", dlerror(), path);

    // A loaded engine runs on from its mapping.  The next kit's copy must get an inode of its own: written
    // into this one it would change the code under a library that the loader still holds.
    (void)remove(path);
    amLog(AM_LOG_DEBUG, "%s:%d LOAD QSKIT FAIL VALUE = %d\n", __func__, __LINE__, fail);
    return 0;
}

int amQsCleanUp() {
    publishEntry(nullptr);
    if (!amQsLibHandle) return 1;
    if (const EngineFn stop = engineEntry("test_capture_exit")) {
        amLog(AM_LOG_DEBUG, "%s:%d Calling capture_engine_exit to clear capture engine\n", __func__,
              __LINE__);
        stop();
    }
    return 1;
}

int amUnLoadQsKit() {
    publishEntry(nullptr);  // before the code goes: the caller need not have stopped the engine
    if (!amQsLibHandle) return 1;
    if (dlclose(amQsLibHandle) != 0) amLog(AM_LOG_ERROR, "%s:%d Unable to unload lib \n", __func__, __LINE__);
    amQsLibHandle = nullptr;
    return 1;
}

void dpiQsKitUpdate() {
    amQsCleanUp();
    amUnLoadQsKit();
    (void)amCopyLibsSo();
    (void)amLoadQsKit();
    amRebuildActiveAppArray(__func__, __LINE__);
}
