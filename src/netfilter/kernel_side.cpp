// The daemon's side towards a stock kernel: life of its parts.
#include "flows/kernel_side.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/lock.h"
#include "core/log.h"
#include "flows/capture.h"
#include "flows/flow_report.h"
#include "flows/interrupt.h"
#include "flows/mirroring.h"
#include "netfilter/flow_reports.h"
#include "netfilter/mirror.h"
#include "netfilter/numbering.h"
#include "netfilter/policy.h"
#include "netfilter/side.h"
#include "netfilter/verdicts.h"

constinit std::atomic<uint64_t> amStatsCounter{0};

namespace am {

constinit SideSettings sideSettings{};
constinit SideCounts sideCounts{};
constinit const char *const commandLineOptions = "cs:g:m:";

constinit const char *const kernelSideName = "netfilter";

namespace {

const SideCounter kCounters[] = {
    {"kernel.packets_lost", &sideCounts.packetsLost,
     "the kernel had no room for mirrored packets: mirror fewer packets of each connection in the rules"},
    {"kernel.verdicts_marked", &sideCounts.marked, nullptr},
    {"kernel.verdicts_marked_later", &sideCounts.markedLater, nullptr},
    {"kernel.verdicts_marked_by_search", &sideCounts.markedBySearch, nullptr},
    {"kernel.searches", &sideCounts.searches, nullptr},
    {"kernel.verdicts_not_found", &sideCounts.notFound,
     "connections ended before their verdict or are not tracked: see that no rule says notrack for them"},
    {"kernel.verdicts_not_kept", &sideCounts.notKept,
     "too many connections began at once: mirror packets of fewer of them in the rules"},
    {"kernel.verdicts_of_errors", &sideCounts.ofErrors, nullptr},
    {"kernel.verdicts_refused", &sideCounts.refused,
     "the kernel refuses marks: see the log, and whether the daemon has the right to administer the network"},
    {"kernel.verdicts_too_large", &sideCounts.tooLarge,
     "the mark has no room for these applications: start the daemon with a wider mask (-m)"},
    {"kernel.ends", &sideCounts.ends, nullptr},
    {"kernel.end_overruns", &sideCounts.endOverruns, nullptr},
};

// Between an interrupt and what the event-loop thread does with the sockets meanwhile.
constinit AmMutex closeLock ACQUIRED_AFTER(amModelLock);
bool withdrawn GUARDED_BY(closeLock) = false;

// Told where people look first, on whichever of the two the start was made.
[[noreturn]] void failWith(const char *text, const char *reason) {
    amLog(AM_LOG_ERROR, "%s:%d %s: %s\n", "amCreateNetLinkSockets", __LINE__, text, reason);
    fprintf(stderr, "korvid-netfilter: %s: %s\n", text, reason);
    _exit(1);  // no exit(): other threads may run, and nothing is left to be flushed
}

void need(int error, const char *what) {
    if (error != 0) failWith(what, reasonOf(error));
}

// The whole text as a number within bounds.
bool readNumber(const char *text, unsigned long most, unsigned long &number) {
    char *end = nullptr;
    errno = 0;
    number = strtoul(text, &end, 0);
    return errno == 0 && end != text && *end == '\0' && *text != '-' && number <= most;
}

// What the kernel's settings cost, told once at the start; the daemon changes none.
struct KernelSetting {
    const char *name;
    char wanted;
    const char *otherwise;
};
constexpr KernelSetting kKernelSettings[] = {
    {"acct", '1', "records will have no counters"},
    {"timestamp", '1', "records will begin when a flow is classified, not when it began"},
    {"events", '1', "the end of connections older than this start will be seen late"},
};

void checkKernelSettings() {
    for (const KernelSetting &setting : kKernelSettings) {
        char path[64];
        snprintf(path, sizeof path, "/proc/sys/net/netfilter/nf_conntrack_%s", setting.name);
        const int fd = open(path, O_RDONLY | O_CLOEXEC);
        char value = 0;
        const bool known = fd >= 0 && read(fd, &value, 1) == 1;
        if (fd >= 0) (void)close(fd);
        if (!known)
            amLog(AM_LOG_NOTICE, "%s:%d %s cannot be read: %s\n", "amCreateNetLinkSockets", __LINE__, path,
                  strerror(errno));
        else if (value != setting.wanted)
            amLog(AM_LOG_ERROR, "%s:%d net.netfilter.nf_conntrack_%s is %c and should be %c: %s\n",
                  "amCreateNetLinkSockets", __LINE__, setting.name, value, setting.wanted, setting.otherwise);
    }
}

}  // namespace

const char *reasonOf(int error) {
    switch (-error) {
        case EPERM:
            return "the right to administer the network (CAP_NET_ADMIN) is missing";
        case EINVAL:
        case EOPNOTSUPP:
        case EPROTONOSUPPORT:
            return "the kernel has no such part (modules nfnetlink, nf_conntrack_netlink, nfnetlink_log)";
        case EBUSY:
            return "another program listens to it";
        default:
            return strerror(-error);
    }
}

std::span<const SideCounter> sideCounters() {
    return kCounters;
}

int64_t steadyMs() {
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

void takeOption(int option, const char *value) {
    unsigned long number;
    switch (option) {
        case 'g':
            if (!readNumber(value, UINT16_MAX, number))
                failWith(value, "no NFLOG group: it is a number from 0 to 65535");
            sideSettings.group = static_cast<uint16_t>(number);
            break;
        case 'm':
            if (!readNumber(value, UINT32_MAX, number) || !MarkLayout{static_cast<uint32_t>(number)}.valid())
                failWith(value,
                         "no mask: it is a run of at least three bits, 18 or more for every number of a kit");
            sideSettings.marks = {static_cast<uint32_t>(number)};
            break;
        default:
            break;
    }
}

// An interrupt has let go of the group: whoever enables afterwards, while an engine holds the end up, must
// not take it again.
void setMirroring(bool on) {
    {
        const AmGuard guard(closeLock);
        if (withdrawn) return;
    }
    if (on) {
        startMirror();
        return;
    }
    stopMirror();
    reportConnections();
    flushReports();
    (void)fillPolicy();
}

void withdrawFromKernel() {
    {
        const AmGuard guard(closeLock);
        withdrawn = true;
        withdrawMirror();
    }
    endCaptureAtInterrupt();
    abandonKernelSide();
}

void abandonKernelSide() {
    abandonMirror();
    abandonVerdicts();
    abandonReports();
    abandonPolicy();
    abandonNumbering();
}

}  // namespace am

void amCreateNetLinkSockets() {
    installInterruptHandler();
    am::need(am::openMirror(), "packets cannot be mirrored");
    am::need(am::openVerdicts(), "connections cannot be marked");
    am::need(am::openReports(), "ends of connections cannot be heard");
    am::need(am::openNumbering(), "connections cannot be read");
    am::need(am::openPolicy(), "policies cannot be kept");
    am::checkKernelSettings();
    if (amAdminState.load(std::memory_order_relaxed) == 1) am::startMirror();
}

void amCloseNetLinkSockets() {
    if (amAdminState.load(std::memory_order_relaxed) == 1) am::reportConnections();
    am::flushReports();
    const AmGuard model(amModelLock);  // a verdict holds it shared while it sends
    const AmGuard guard(am::closeLock);
    am::closeMirror();
    am::closeVerdicts();
    am::closeReports();
    am::closePolicy();
    am::closeNumbering();
}
