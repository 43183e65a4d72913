#include "netfilter/policy.h"

#include <sys/socket.h>
#include <unistd.h>

#include <bitset>
#include <cerrno>
#include <cstring>

extern "C" {
#include <libubox/uloop.h>
}

#include "appmodel/app_lists.h"
#include "appmodel/app_pool.h"
#include "core/log.h"
#include "core/text.h"
#include "flows/mirroring.h"
#include "netfilter/attributes.h"
#include "netfilter/flow_reports.h"
#include "netfilter/numbering.h"
#include "netfilter/policy_sets.h"
#include "netfilter/requests.h"
#include "netfilter/side.h"
#include "netfilter/verdicts.h"

namespace am {

namespace {

constexpr int kWatchPeriod = 200;  // milliseconds between two looks at the model
constexpr int64_t kStragglers =
    2000;  // by then the last verdict has gone out that saw the lists as they were
constexpr size_t kBuffer = 32768;

mnl_socket *sets = nullptr;
mnl_socket *firewall = nullptr;
mnl_socket *dumps = nullptr;
void onFirewall(uloop_fd *fd, unsigned events);
void onWatch(uloop_timeout *);
uloop_fd firewallFd{
    .cb = onFirewall, .fd = -1, .eof = false, .error = false, .registered = false, .flags = 0};
uloop_timeout watch{.list = {}, .pending = false, .cb = onWatch, .time = {}};
alignas(nlmsghdr) char buffer[kBuffer];

// The model as it was when the sets were filled last; none before the configuration has been applied.
struct Seen {
    bool any;
    uint32_t changes;
    int mirroring;
};
Seen seen{};
bool namesTold = false;  // of the rules as they were loaded last, those that nothing has

using Applications = std::bitset<kMaxPolicyMarks>;
Applications enforced;       // as of the last look
Applications newlyEnforced;  // classified connections of these may lack the bit
int64_t remarkAgain = 0;     // when; 0 for not at all

bool isEnforced(uint32_t appId) {
    amModelLock.soleWriterReads();
    const AmActiveApp *const app = amActiveApp(appId);
    return app && app->isEnforcement && appId <= sideSettings.marks.maxApplication();
}

bool hasMeaning(PolicyKind kind, const char *name) {
    return kind == PolicyKind::application ? getAppNode(name) != nullptr
                                           : amFindGrpNode(&amAppGrpTree, name) != nullptr;
}

size_t marksOf(PolicyKind kind, const char *name, std::span<uint32_t> room, void *tellUnknown) {
    if (*static_cast<const bool *>(tellUnknown) && !hasMeaning(kind, name))
        amLog(AM_LOG_NOTICE, "%s:%d set %s of table inet %s: no %s has that name\n", "fillPolicy", __LINE__,
              policySetName(kind, name).text, kPolicyTable,
              kind == PolicyKind::application ? "application" : "group");
    if (amAdminState.load(std::memory_order_relaxed) != 1 || !marksAreValid()) return 0;
    size_t count = 0;
    const auto add = [&](const char *application) {
        const AmAppNode *const app = getAppNode(application);
        if (app && count < room.size() && isEnforced(app->appId))
            room[count++] = sideSettings.marks.verdict(app->appId, true);
    };
    if (kind == PolicyKind::application) {
        add(name);
        return count;
    }
    const AmAppGrp *const group = amFindGrpNode(&amAppGrpTree, name);
    if (!group) return 0;
    for (const RbtNode *node = rbtFirst(&group->members); node; node = rbtNext(&group->members, node)) {
        char member[kAppNameSize + 1];
        copyText(member, fieldText(reinterpret_cast<const GrpElement *>(node)->name));
        add(member);
    }
    return count;
}

// False: the sets hold what they held before.
bool fill(bool tellUnknown) {
    seen = {true, amModelChanges, amAdminState.load(std::memory_order_relaxed)};
    if (!sets) return false;
    tellUnknown = tellUnknown && !namesTold;
    namesTold = namesTold || tellUnknown;
    static int told = 0;
    const PolicyFill filled = fillPolicySets(sets, marksOf, &tellUnknown);
    if (filled.error != 0 && filled.error != told)
        amLog(AM_LOG_ERROR, "%s:%d the sets of table inet %s cannot be filled: %s\n", "fillPolicy", __LINE__,
              kPolicyTable, strerror(-filled.error));
    told = filled.error;
    if (filled.tooSmall.text[0] != 0)
        amLog(AM_LOG_ERROR,
              "%s:%d set %s of table inet %s was declared with a size that its marks do not fit in: some are "
              "missing\n",
              "fillPolicy", __LINE__, filled.tooSmall.text, kPolicyTable);
    // Tried again at the next look.
    if (filled.error != 0) seen.any = false;
    amLog(AM_LOG_DEBUG, "%s:%d %u sets filled, %u of them empty, %u of other kinds\n", "fillPolicy", __LINE__,
          filled.sets, filled.empty, filled.other);
    return filled.error == 0;
}

void visitClassified(const nlmsghdr *message, void *) {
    Connection connection;
    if (!readConnection(message, connection)) return;
    const uint32_t appId = sideSettings.marks.application(connection.mark);
    if (newlyEnforced[appId]) (void)markConnection(connection, sideSettings.marks.verdict(appId, true));
}

// Connections that were classified as an application before that came onto the list are enforced from now on.
void markNewlyEnforced() {
    const MarkLayout &marks = sideSettings.marks;
    alignas(nlmsghdr) char request[kConntrackRequestSize] = {};
    const MarkBits notEnforced{marks.classified(), marks.classified() | marks.enforced()};
    const int error = runDump(dumps, buildMarkDump(request, notEnforced), buffer, visitClassified, nullptr);
    if (error != 0)
        amLog(AM_LOG_ERROR, "%s:%d cannot read the kernel's connections: %s\n", "markNewlyEnforced", __LINE__,
              strerror(-error));
    adoptConnections();
}

void lookForNewlyEnforced() {
    amModelLock.soleWriterReads();
    for (uint32_t appId = 0; appId < enforced.size(); appId++) {
        const bool now = appId < amMaxAppIdCount && isEnforced(appId);
        // While a list is replaced by one that has the application, too, it is on none.
        if (now && (takeUnenforced(appId) || !enforced[appId])) newlyEnforced[appId] = true;
        if (!now) newlyEnforced[appId] = false;
        enforced[appId] = now;
    }
    if (newlyEnforced.none()) return;
    markNewlyEnforced();
    remarkAgain = steadyMs() + kStragglers;
}

void onWatch(uloop_timeout *) {
    (void)uloop_timeout_set(&watch, kWatchPeriod);
    retryClearing();
    const int mirroring = amAdminState.load(std::memory_order_relaxed);
    if (!seen.any || seen.changes != amModelChanges || seen.mirroring != mirroring) {
        (void)fill(true);
        if (mirroring == 1) lookForNewlyEnforced();
    }
    if (remarkAgain == 0 || steadyMs() < remarkAgain) return;
    remarkAgain = 0;
    if (mirroring == 1) markNewlyEnforced();
    newlyEnforced.reset();
}

// The rules were loaded anew: their sets are empty.
void onFirewall(uloop_fd *fd, unsigned) {
    bool declared = false;
    for (;;) {
        const ssize_t got = recv(fd->fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got < 0 && errno == ENOBUFS) declared = true;  // whatever it was
        if (got < 0 && (errno == EINTR || errno == ENOBUFS)) continue;
        if (got <= 0) break;
        eachMessage({buffer, static_cast<size_t>(got)}, [&](const nlmsghdr *message) {
            PolicySet set;
            declared |= readPolicySet(message, set) && set.ours;
        });
    }
    if (fd->error) (void)uloop_fd_add(fd, ULOOP_READ | ULOOP_ERROR_CB);
    if (!declared) return;
    namesTold = false;
    if (seen.any) (void)fill(true);
}

}  // namespace

int openPolicy() {
    sets = openNetfilterSocket();
    firewall = openNetfilterSocket();
    dumps = openNetfilterSocket();
    if (!sets || !firewall || !dumps) return -errno;
    if (const int error = subscribePolicySets(firewall, sets); error != 0) return error;
    firewallFd.fd = mnl_socket_get_fd(firewall);
    (void)uloop_fd_add(&firewallFd, ULOOP_READ | ULOOP_ERROR_CB);
    // Not before the loop runs: until the configuration has been applied, what the run before left holds.
    (void)uloop_timeout_set(&watch, kWatchPeriod);
    return 0;
}

void closePolicy() {
    (void)uloop_timeout_cancel(&watch);
    (void)uloop_fd_delete(&firewallFd);
    for (mnl_socket *socket : {sets, firewall, dumps})
        if (socket) (void)mnl_socket_close(socket);
    sets = firewall = dumps = nullptr;
}

void abandonPolicy() {
    for (const mnl_socket *socket : {sets, firewall, dumps})
        if (socket) (void)close(mnl_socket_get_fd(socket));
}

bool fillPolicy() {
    return fill(false);
}

}  // namespace am
