#include "netfilter/numbering.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "appmodel/app_pool.h"
#include "core/log.h"
#include "core/write_fully.h"
#include "flows/enf_flow_db.h"
#include "flows/flow_report.h"
#include "flows/kernel_side.h"
#include "kit/md5.h"
#include "kit/renumbering.h"
#include "netfilter/attributes.h"
#include "netfilter/conntrack.h"
#include "netfilter/flow_reports.h"
#include "netfilter/policy.h"
#include "netfilter/requests.h"
#include "netfilter/side.h"
#include "netfilter/verdicts.h"

namespace am {

namespace {

constexpr char kFolder[] = "/var/run/korvid";
constexpr char kFile[] = "/var/run/korvid/numbering";
constexpr int kWalks = 3;  // one that clears, and others for what it missed
constexpr int64_t kRetryPeriod = 1000;
constexpr size_t kBuffer = 32768;

mnl_socket *dumps = nullptr;
alignas(nlmsghdr) char buffer[kBuffer];

Md5Text marked{};       // the numbering of the marks; empty for none that is known
Md5Text next{};         // of the kit that is being installed
bool forgotten = true;  // no mark of another numbering is left
int64_t lastWalk = 0;

// Of the pool, which is in the order of names.
Md5Text numberingOfPool() {
    Md5 md5;
    md5Begin(md5);
    for (const AmAppNode *app = amGetNextAppNode(nullptr); app; app = amGetNextAppNode(app)) {
        md5Add(md5, app->name, sizeof app->name);
        md5Add(md5, &app->appId, sizeof app->appId);
    }
    const uint32_t mask = sideSettings.marks.mask;  // it says where a number lies
    md5Add(md5, &mask, sizeof mask);
    return md5Text(md5End(md5));
}

bool isSame(const Md5Text &one, const Md5Text &other) {
    return memcmp(one.text, other.text, sizeof one.text) == 0;
}

void readNumbering() {
    const int fd = open(kFile, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    if (read(fd, marked.text, sizeof marked.text) != sizeof marked.text - 1) marked = {};
    (void)close(fd);
}

void writeNumbering() {
    (void)mkdir(kFolder, 0755);
    const int fd = open(kFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    bool written = fd >= 0 && writeFully(fd, marked.text) == sizeof marked.text - 1;
    const int error = errno;
    if (fd >= 0 && close(fd) != 0) written = false;
    if (written) return;
    amLog(AM_LOG_ERROR, "%s:%d %s: %s; running connections will be classified anew after a restart\n",
          "writeNumbering", __LINE__, kFile, strerror(error));
    (void)unlink(kFile);
}

struct Clearing {
    unsigned left, failed;
};

void visitMarked(const nlmsghdr *message, void *context) {
    auto &clearing = *static_cast<Clearing *>(context);
    Connection connection;
    if (!readConnection(message, connection)) return;
    clearing.left++;
    const int error = markConnection(connection, 0);
    if (error != 0 && error != -ENOENT) clearing.failed++;  // ended meanwhile
}

// False where marks may be left.
bool clearMarks() {
    const uint32_t classified = sideSettings.marks.classified();
    for (int walk = 0; walk < kWalks; walk++) {
        Clearing clearing{};
        alignas(nlmsghdr) char request[kConntrackRequestSize] = {};
        const int error =
            runDump(dumps, buildMarkDump(request, {classified, classified}), buffer, visitMarked, &clearing);
        if (error == 0 && clearing.left == 0) return true;
    }
    return false;
}

void forget() {
    lastWalk = steadyMs();
    if (!clearMarks()) {
        amLog(AM_LOG_ERROR, "%s:%d marks of another kit may be left: policies rest until they are gone\n",
              "whileRenumbering", __LINE__);
        return;
    }
    forgotten = true;
    marked = next;
    writeNumbering();
}

}  // namespace

int openNumbering() {
    dumps = openNetfilterSocket();
    if (!dumps) return -errno;
    readNumbering();
    return 0;
}

void closeNumbering() {
    if (dumps) (void)mnl_socket_close(dumps);
    dumps = nullptr;
}

void abandonNumbering() {
    if (dumps) (void)close(mnl_socket_get_fd(dumps));
}

bool marksAreValid() {
    return forgotten;
}

void retryForgetting() {
    if (forgotten || steadyMs() - lastWalk < kRetryPeriod) return;
    forget();
    if (forgotten) fillPolicy();
}

// A number is the index's: the kernel's memory of the old ones is cleared.
constinit const bool applicationsKeepNumbers = false;

void beforeRenumbering() {
    keepLists();
    next = numberingOfPool();
    if (isSame(next, marked)) return;
    reportConnections();  // their last line under their names
    flushReports();
}

void whileRenumbering() {
    if (isSame(next, marked) && forgotten) return;
    // First what tells of the marks, then the sets, then the marks: whenever the process ends between two
    // steps, the next run does all of it.
    (void)unlink(kFile);
    marked = {};
    forgotten = false;
    fillPolicy();
    dropVerdicts();
    amCleanAllEnfFlowDb();
    amCleanAllEnfFlowDb6();
    forget();
}

// Rules by name are to hold on, so the lists do, as far as the new kit knows their applications.
void afterRenumbering() {
    restoreLists();
}

}  // namespace am
