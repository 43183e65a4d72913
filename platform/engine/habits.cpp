#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "packet.h"
#include "scripted.h"

namespace engine {
namespace {

struct HeldReport {
    Tuple tuple;
    uint32_t appId, flowState;
};

constinit HeldReport held[1024]{};
constinit size_t heldCount = 0;

constexpr int kThreads = 2;

struct Reporter {
    pthread_t thread;
    uint8_t number;
    bool running;
};

constinit Reporter reporters[kThreads]{};
constinit std::atomic<bool> stopReporters{false};

enum class Phase { kLoaded, kStarted, kStopped };
constinit std::atomic<Phase> phase{Phase::kLoaded};
constinit std::atomic<int> inside{0};
constexpr char kViolationFile[] = "/flash/engine.violation";
constexpr long kHandoverPause = 200;  // ms

void pauseFor(long milliseconds) {
    const timespec time{milliseconds / 1000, milliseconds % 1000 * 1000000};
    nanosleep(&time, nullptr);
}

void violation(const char *line) {
    const int file = open(kViolationFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const size_t length = strlen(line);
    if (file < 0 || write(file, line, length) != static_cast<ssize_t>(length))
        (void)!write(STDERR_FILENO, line, length);
    if (file >= 0) close(file);
}

void *reportForever(void *argument) {
    const auto *self = static_cast<const Reporter *>(argument);
    Tuple tuple{{198, 18, 0, self->number}, {198, 18, 1, self->number}, 0, 10001, 17, 4, {}};
    while (!stopReporters.load(std::memory_order_relaxed)) {
        tuple.srcPort++;
        reportFlow(tuple, 1, "", 0);
        pauseFor(1);
    }
    return nullptr;
}

}  // namespace

void holdReport(const Tuple &tuple, uint32_t appId, uint32_t flowState) {
    if (heldCount < sizeof(held) / sizeof(held[0])) held[heldCount++] = {tuple, appId, flowState};
}

void reportHeld() {
    for (size_t i = 0; i < heldCount; i++) reportFlow(held[i].tuple, held[i].appId, "", held[i].flowState);
    heldCount = 0;
}

void startThreads() {
    stopReporters = false;
    // Signals stay with the threads of the program that loaded the engine.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    for (int i = 0; i < kThreads; i++) {
        reporters[i].number = static_cast<uint8_t>(i + 1);
        reporters[i].running = !pthread_create(&reporters[i].thread, nullptr, reportForever, &reporters[i]);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void stopThreads() {
    stopReporters = true;
    for (Reporter &reporter : reporters) {
        if (reporter.running) pthread_join(reporter.thread, nullptr);
        reporter.running = false;
    }
}

void noteStarted() {
    pauseFor(kHandoverPause);
    phase = Phase::kStarted;
}

void noteEntered() {
    switch (phase.load()) {
        case Phase::kLoaded:
            violation("pcap_packet entered before test_capture returned\n");
            break;
        case Phase::kStarted:
            break;
        case Phase::kStopped:
            violation("pcap_packet entered during or after test_capture_exit\n");
            break;
    }
    if (inside.fetch_add(1) != 0) violation("pcap_packet entered by two threads at once\n");
}

void noteLeft() {
    inside.fetch_sub(1);
}

void noteStopping() {
    phase = Phase::kStopped;
    if (inside != 0) violation("test_capture_exit entered during pcap_packet\n");
    pauseFor(kHandoverPause);
    if (inside != 0) violation("pcap_packet running during test_capture_exit\n");
}

void noteUnloading() {
    if (inside != 0) violation("destructors run during pcap_packet\n");
}

}  // namespace engine
