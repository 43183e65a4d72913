#include "netfilter/numbering.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "appmodel/app_pool.h"
#include "core/handle.h"
#include "core/log.h"
#include "core/text.h"
#include "core/write_fully.h"
#include "flows/enf_flow_db.h"
#include "flows/flow_report.h"
#include "flows/kernel_side.h"
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
constexpr char kFileBeside[] = "/var/run/korvid/numbering.new";
constexpr size_t kLineRoom = kAppNameSize + 16;
constexpr off_t kLargestFile = off_t{kLineRoom} << 17;
constexpr int kWalks = 3;  // one that does it, and others for what it missed
constexpr int64_t kRetryPeriod = 1000;
constexpr size_t kBuffer = 32768;
constexpr uint32_t kApplications = MarkLayout::kMaxNumber + 1;

mnl_socket *dumps = nullptr;
alignas(nlmsghdr) char buffer[kBuffer];
bool valid = true;
int64_t lastTry = 0;

// The list as it stands in the file: the mask in the first line, then a number and a name in each.
CText next;  // of the kit that is being installed

CText listOfPool() {
    size_t lines = 1;
    for (const AmAppNode *app = amGetNextAppNode(nullptr); app; app = amGetNextAppNode(app)) lines++;
    CText text(static_cast<char *>(malloc(lines * kLineRoom)));
    if (!text) return nullptr;
    char *end = text.get();
    end += snprintf(end, kLineRoom, "%#x\n", sideSettings.marks.mask);
    for (const AmAppNode *app = amGetNextAppNode(nullptr); app; app = amGetNextAppNode(app))
        end += snprintf(end, kLineRoom, "%u %s\n", app->appId, app->name);
    return text;
}

// Null when there is none, or none that can be read.
CText listOfFile() {
    const int fd = open(kFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return nullptr;
    struct stat file;
    CText text;
    if (fstat(fd, &file) == 0 && S_ISREG(file.st_mode) && file.st_size <= kLargestFile) {
        const auto size = static_cast<size_t>(file.st_size);
        text.reset(static_cast<char *>(calloc(size + 1, 1)));
        if (text && read(fd, text.get(), size) != file.st_size) text.reset();
    }
    (void)close(fd);
    return text;
}

void writeList(const char *text) {
    (void)mkdir(kFolder, 0755);
    // Whole or not at all: a name that is cut short may be another application's.
    const int fd = open(kFileBeside, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    bool written = fd >= 0 && writeFully(fd, text) == strlen(text);
    int error = errno;
    if (fd >= 0 && close(fd) != 0) {
        error = errno;
        written = false;
    }
    if (written && rename(kFileBeside, kFile) == 0) return;
    if (written) error = errno;
    amLog(AM_LOG_ERROR, "%s:%d %s: %s; what connections are will be forgotten by a restart\n", "amUpdateKit",
          __LINE__, kFile, strerror(error));
    for (const char *left : {kFileBeside, kFile}) (void)unlink(left);
}

// New numbers by old ones, 0 for what the new kit does not know.
using Translation = std::unique_ptr<uint16_t, Closer<std::free>>;

// Of a list's names into the pool's numbers; null when the list does not tell of the marks as they lie now.
Translation translationFrom(const char *list) {
    char *rest = nullptr;
    if (strtoul(list, &rest, 0) != sideSettings.marks.mask || *rest != '\n') return nullptr;
    Translation translation(static_cast<uint16_t *>(calloc(kApplications, sizeof(uint16_t))));
    if (!translation) return nullptr;
    while (*rest == '\n' && rest[1] != '\0') {
        char *name = nullptr;
        const unsigned long number = strtoul(rest + 1, &name, 10);
        if (number >= kApplications || *name != ' ') return nullptr;
        name++;
        rest = name + strcspn(name, "\n");
        char text[kAppNameSize + 1];
        copyText(text, {name, static_cast<size_t>(rest - name)});
        if (const AmAppNode *const app = getAppNode(text)) translation.get()[number] = app->appId;
    }
    return translation;
}

struct Rewriting {
    const uint16_t *translation;
    unsigned seen, failed;
};

void rewrite(const Connection &connection, uint32_t value, Rewriting &rewriting) {
    rewriting.seen++;
    const int error = markConnection(connection, value);
    if (error != 0 && error != -ENOENT) rewriting.failed++;  // the latter has ended meanwhile
}

// Into the new number, but without the bit that says so: a connection that is met twice is translated once.
void visitOld(const nlmsghdr *message, void *context) {
    auto &rewriting = *static_cast<Rewriting *>(context);
    Connection connection;
    if (!readConnection(message, connection)) return;
    const MarkLayout &marks = sideSettings.marks;
    const uint32_t number = rewriting.translation[marks.application(connection.mark)];
    const uint32_t value = marks.verdict(number, connection.mark & marks.enforced()) & ~marks.classified();
    rewrite(connection, number == 0 ? 0 : value, rewriting);
}

void visitTranslated(const nlmsghdr *message, void *context) {
    Connection connection;
    if (!readConnection(message, connection)) return;
    const uint32_t value = connection.mark & sideSettings.marks.mask;
    if (value != 0)
        rewrite(connection, value | sideSettings.marks.classified(), *static_cast<Rewriting *>(context));
}

void visitAny(const nlmsghdr *message, void *context) {
    Connection connection;
    if (readConnection(message, connection) && connection.mark & sideSettings.marks.mask)
        rewrite(connection, 0, *static_cast<Rewriting *>(context));
}

bool walk(MarkBits bits, void (*visit)(const nlmsghdr *, void *), Rewriting &rewriting) {
    alignas(nlmsghdr) char request[kConntrackRequestSize] = {};
    rewriting.seen = rewriting.failed = 0;
    return runDump(dumps, buildMarkDump(request, bits), buffer, visit, &rewriting) == 0 &&
           rewriting.failed == 0;
}

bool translateMarks(const Translation &translation) {
    if (!translation) return false;
    const uint32_t classified = sideSettings.marks.classified();
    Rewriting rewriting{translation.get(), 0, 0};
    for (int number = 0; number < kWalks; number++) {
        if (!walk({classified, classified}, visitOld, rewriting)) return false;
        if (rewriting.seen == 0) return walk({0, classified}, visitTranslated, rewriting);
    }
    return false;
}

// False where marks may be left.
bool clearMarks() {
    Rewriting rewriting{};
    for (int number = 0; number < kWalks; number++)
        if (walk({0, 0}, visitAny, rewriting) && rewriting.seen == 0) return true;
    return false;
}

void settle(bool done) {
    lastTry = steadyMs();
    valid = done;
    if (done && next)
        writeList(next.get());
    else if (!done)
        amLog(AM_LOG_ERROR, "%s:%d marks of another kit may be left: policies rest until they are gone\n",
              "amUpdateKit", __LINE__);
}

bool unchanged() {
    const CText known = listOfFile();
    return valid && known && next && strcmp(known.get(), next.get()) == 0;
}

}  // namespace

int openNumbering() {
    dumps = openNetfilterSocket();
    return dumps ? 0 : -errno;
}

void closeNumbering() {
    if (dumps) (void)mnl_socket_close(dumps);
    dumps = nullptr;
}

void abandonNumbering() {
    if (dumps) (void)close(mnl_socket_get_fd(dumps));
}

bool marksAreValid() {
    return valid;
}

void retryClearing() {
    if (valid || steadyMs() - lastTry < kRetryPeriod) return;
    settle(clearMarks());
    if (valid) (void)fillPolicy();
}

// A number is the index's own.
constinit const bool applicationsKeepNumbers = false;

void beforeRenumbering() {
    keepLists();
    next = listOfPool();
    if (unchanged()) return;
    reportConnections();  // their last lines under the old numbers
    flushReports();
}

void whileRenumbering() {
    if (unchanged()) return;
    const CText known = valid ? listOfFile() : nullptr;
    const Translation translation = known ? translationFrom(known.get()) : nullptr;
    // First what tells of the marks, then the sets, then the marks: where the process ends between two steps,
    // the next one clears what it finds.
    (void)unlink(kFile);
    valid = false;
    const bool emptied = fillPolicy();
    dropVerdicts();
    dropReports();
    amCleanAllEnfFlowDb();
    amCleanAllEnfFlowDb6();
    // No number becomes another's while a set may hold it.
    settle((emptied && translateMarks(translation)) || clearMarks());
    forgetEnds();  // they came with marks of either numbering
}

// Rules by name are to hold on, so the lists do, as far as the new kit knows their applications.
void afterRenumbering() {
    restoreLists();
}

}  // namespace am
