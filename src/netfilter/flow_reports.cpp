#include "netfilter/flow_reports.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

extern "C" {
#include <libubox/uloop.h>
}

#include "appmodel/app_pool.h"
#include "core/handle.h"
#include "core/log.h"
#include "flows/enf_flow_db.h"
#include "flows/flow_info.h"
#include "flows/flow_report.h"
#include "flows/kernel_side.h"
#include "flows/mirroring.h"
#include "netfilter/attributes.h"
#include "netfilter/conntrack.h"
#include "netfilter/requests.h"
#include "netfilter/side.h"

namespace am {

namespace {

constexpr int kPeriod = 900'000;     // milliseconds between two dumps
constexpr int kAfterLosses = 2'000;  // a dump finds the ends that the socket had no room for
constexpr int kSocketBuffer = 4 << 20;
constexpr size_t kBuffer = 32768;
constexpr int kReceivesAtOnce = 64;  // others want the event loop, too
constexpr time_t kSettled = 2;  // seconds after which a new flow's connection is marked, or never will be

mnl_socket *dumps = nullptr;
mnl_socket *ends = nullptr;
void onEnds(uloop_fd *fd, unsigned events);
void onPeriod(uloop_timeout *);
uloop_fd endsFd{.cb = onEnds, .fd = -1, .eof = false, .error = false, .registered = false, .flags = 0};
uloop_timeout period{.list = {}, .pending = false, .cb = onPeriod, .time = {}};
alignas(nlmsghdr) char buffer[kBuffer];

// What was reported of a flow that has not ended.
template <class Key>
struct Counted {
    Key key;
    uint64_t packets, bytes;
};

// The flows of one dump, in any order until sorted.
template <class Key>
class Counts {
  public:
    // False when there is no memory.
    bool add(const Counted<Key> &flow) {
        if (count_ == room_) {
            const size_t room = room_ == 0 ? 256 : room_ * 2;
            void *larger = std::realloc(flows_.get(), room * sizeof flow);
            if (!larger) return false;
            (void)flows_.release();
            flows_.reset(static_cast<Counted<Key> *>(larger));
            room_ = room;
        }
        flows_.get()[count_++] = flow;
        return true;
    }
    void sort() { std::sort(flows_.get(), flows_.get() + count_, before); }
    const Counted<Key> *find(const Key &key) const {
        const Counted<Key> *const begin = flows_.get(), *const end = begin + count_;
        const Counted<Key> *const at = std::lower_bound(begin, end, Counted<Key>{key, 0, 0}, before);
        return at != end && memcmp(&at->key, &key, sizeof key) == 0 ? at : nullptr;
    }

  private:
    static bool before(const Counted<Key> &one, const Counted<Key> &other) {
        return memcmp(&one.key, &other.key, sizeof one.key) < 0;
    }

    std::unique_ptr<Counted<Key>, Closer<std::free>> flows_;
    size_t count_ = 0, room_ = 0;
};

// All that differs between the families.
struct V4 {
    using Key = AmEnfKey4;
    using Flow = AmEnfFlow4;
    static constexpr auto search = amSearchEnfFlowDb;
    static constexpr auto update = amUpdateEnfFlowDb;
    static constexpr auto report = reportFlow4;
    static constexpr auto forEach = forEachEnfFlow4;
    static void setAddresses(Key &key, const ConnTuple &tuple) {
        memcpy(&key.fst_ip, tuple.source, sizeof key.fst_ip);
        memcpy(&key.secnd_ip, tuple.destination, sizeof key.secnd_ip);
    }
    static void setAddresses(capture_flow_info &info, const Key &key) {
        info.src_ip = key.fst_ip;
        info.dst_ip = key.secnd_ip;
    }
    static inline Counts<Key> last, current;
};

struct V6 {
    using Key = AmEnfKey6;
    using Flow = AmEnfFlow6;
    static constexpr auto search = amSearchEnfFlowDb6;
    static constexpr auto update = amUpdateEnfFlowDb6;
    static constexpr auto report = reportFlow6;
    static constexpr auto forEach = forEachEnfFlow6;
    static void setAddresses(Key &key, const ConnTuple &tuple) {
        memcpy(&key.fst_ip, tuple.source, sizeof key.fst_ip);
        memcpy(&key.secnd_ip, tuple.destination, sizeof key.secnd_ip);
    }
    static void setAddresses(capture_flow_info &info, const Key &key) {
        info.src_ip6 = key.fst_ip;
        info.dst_ip6 = key.secnd_ip;
    }
    static inline Counts<Key> last, current;
};

template <class Ip>
typename Ip::Key keyOf(const ConnTuple &tuple) {
    typename Ip::Key key{};
    Ip::setAddresses(key, tuple);
    key.fstPort = tuple.sourcePort;
    key.scndPort = tuple.destinationPort;
    key.proto = tuple.proto;
    return key;
}

// Zero unless the kernel keeps times.
time_t startOf(const Connection &connection) {
    return static_cast<time_t>(connection.start / 1'000'000'000);
}

// Engines tell a flow as its first packet looked to them, which may have been either direction's.  False when
// the database has neither.  The flow begins with its connection, not with its verdict, which may have come
// late: its lines before and after a restart of the daemon, which only finds the connection, are of one flow.
// A flow that has ended is an earlier connection's, between the same ports or of ICMP, unless it began with
// this one.
template <class Ip>
bool findFlow(const Connection &connection, typename Ip::Key &key, bool &aged) EXCLUDES(amEnfFlowLock) {
    const ConnTuple seen = forwardTuple(connection);
    const AmGuard guard(amEnfFlowLock);
    for (const ConnTuple &tuple : {seen, inverse(seen)}) {
        key = keyOf<Ip>(tuple);
        typename Ip::Flow *const flow = Ip::search(&key);
        if (!flow) continue;
        const time_t started = startOf(connection);
        const bool ended = flow->aged != 0;
        if (ended && started != 0 && started != flow->startTime) continue;
        aged = ended;
        if (started != 0) flow->startTime = started;
        return true;
    }
    return false;
}

// Enters a connection that was marked before the database knew it.  False for an application that is not
// enforced now.
template <class Ip>
bool adopt(const Connection &connection) {
    const uint32_t appId = sideSettings.marks.application(connection.mark);
    const typename Ip::Key key = keyOf<Ip>(forwardTuple(connection));
    capture_flow_info info{};
    Ip::setAddresses(info, key);
    info.src_port = key.fstPort;
    info.dst_port = key.scndPort;
    info.proto = key.proto;
    info.app_id = appId;
    const AmSharedGuard model(amModelLock);
    if (amAdminState.load(std::memory_order_relaxed) != 1) return false;
    const AmActiveApp *const app = amActiveApp(appId);
    if (!app || !app->isEnforcement) return false;
    return Ip::update(&info) == 1;
}

template <class Ip>
bool findOrAdopt(const Connection &connection, typename Ip::Key &key, bool &aged) {
    return findFlow<Ip>(connection, key, aged) ||
           (adopt<Ip>(connection) && findFlow<Ip>(connection, key, aged));
}

template <class Ip>
void report(const Counted<typename Ip::Key> &flow, bool aged) {
    Ip::report({.key = flow.key,
                .aged = aged,
                .byteCnt = flow.bytes,
                .pktCnt = flow.packets,
                .accessProfile = {},
                .qosPolicyRule = {}});
}

template <class Ip>
Counted<typename Ip::Key> countsOf(const Connection &connection, const typename Ip::Key &key) {
    return {key, connection.sent.packets + connection.received.packets,
            connection.sent.bytes + connection.received.bytes};
}

template <class Ip>
void takeEnd(const Connection &connection) {
    typename Ip::Key key;
    bool aged = false;
    if (!findOrAdopt<Ip>(connection, key, aged)) return;
    if (!aged) report<Ip>(countsOf<Ip>(connection, key), true);
}

enum class Dump : uint8_t { adopt, report };

struct Dumping {
    Dump purpose;
    bool complete;
    unsigned connections, reports;
};

template <class Ip>
void takeDumped(const Connection &connection, Dumping &dumping) {
    typename Ip::Key key;
    bool aged = false;
    if (!findOrAdopt<Ip>(connection, key, aged)) return;
    if (dumping.purpose == Dump::adopt) return;
    const Counted<typename Ip::Key> now = countsOf<Ip>(connection, key);
    if (!Ip::current.add(now)) dumping.complete = false;
    const Counted<typename Ip::Key> *const before = Ip::last.find(key);
    const bool changed = !before || before->packets != now.packets || before->bytes != now.bytes;
    if (!changed || aged) return;
    dumping.reports++;
    report<Ip>(now, false);
}

void visitConnection(const nlmsghdr *message, void *context) {
    auto &dumping = *static_cast<Dumping *>(context);
    Connection connection;
    if (!readConnection(message, connection)) return;
    dumping.connections++;
    if (connection.original.family == AF_INET6)
        takeDumped<V6>(connection, dumping);
    else
        takeDumped<V4>(connection, dumping);
}

time_t dumpBegan;

// A live flow without a connection has ended unseen, or never had one that was found.
template <class Ip>
void reportIfGone(const typename Ip::Flow &flow) {
    if (flow.aged != 0 || flow.startTime > dumpBegan - kSettled || Ip::current.find(flow.key)) return;
    const Counted<typename Ip::Key> *const before = Ip::last.find(flow.key);
    report<Ip>(before ? *before : Counted<typename Ip::Key>{flow.key, 0, 0}, true);
}

template <class Ip>
void takeOver() {
    Ip::last = std::exchange(Ip::current, {});
}

void readEnd(const nlmsghdr *message) {
    Connection connection;
    if (!isConnectionEnd(message) || !readConnection(message, connection)) return;
    countUp(sideCounts.ends);
    if (connection.original.family == AF_INET6)
        takeEnd<V6>(connection);
    else
        takeEnd<V4>(connection);
}

// False when there may be more.
bool readEnds(int receives) {
    while (receives-- > 0) {
        const ssize_t got = recv(mnl_socket_get_fd(ends), buffer, sizeof buffer, MSG_DONTWAIT);
        if (got < 0 && errno == ENOBUFS) {
            countUp(sideCounts.endOverruns);
            if (uloop_timeout_remaining64(&period) > kAfterLosses)
                (void)uloop_timeout_set(&period, kAfterLosses);
            continue;
        }
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return true;
        amStatsCounter.fetch_add(1, std::memory_order_relaxed);
        eachMessage({buffer, static_cast<size_t>(got)}, readEnd);
    }
    return false;
}

void dump(Dump purpose) {
    if (!dumps) return;
    Dumping dumping{purpose, true, 0, 0};
    V4::current = {};
    V6::current = {};
    dumpBegan = time(nullptr);
    alignas(nlmsghdr) char request[kConntrackRequestSize] = {};
    const uint32_t enforced = sideSettings.marks.enforced();
    const int error =
        runDump(dumps, buildMarkDump(request, {enforced, enforced}), buffer, visitConnection, &dumping);
    V4::current.sort();
    V6::current.sort();
    if (error != 0)
        amLog(AM_LOG_ERROR, "%s:%d cannot read the kernel's connections: %s\n", "reportConnections", __LINE__,
              strerror(-error));
    amLog(AM_LOG_DEBUG, "%s:%d %u enforced connections, %u reported\n", "reportConnections", __LINE__,
          dumping.connections, dumping.reports);
    if (error != 0 || !dumping.complete || purpose == Dump::adopt)
        return;  // what is missing in it may be there
    while (!readEnds(kReceivesAtOnce)) {
    }  // what has ended since the dump tells so itself
    V4::forEach(reportIfGone<V4>);
    V6::forEach(reportIfGone<V6>);
    takeOver<V4>();
    takeOver<V6>();
}

void onEnds(uloop_fd *fd, unsigned) {
    (void)readEnds(kReceivesAtOnce);
    if (fd->error) (void)uloop_fd_add(fd, ULOOP_READ | ULOOP_ERROR_CB);
}

void onPeriod(uloop_timeout *) {
    (void)uloop_timeout_set(&period, kPeriod);
    if (amAdminState.load(std::memory_order_relaxed) == 1) dump(Dump::report);
}

}  // namespace

int openReports() {
    dumps = openNetfilterSocket();
    ends = openNetfilterSocket();
    if (!dumps || !ends) return -errno;
    endsFd.fd = mnl_socket_get_fd(ends);
    if (setsockopt(endsFd.fd, SOL_SOCKET, SO_RCVBUFFORCE, &kSocketBuffer, sizeof kSocketBuffer) != 0)
        (void)setsockopt(endsFd.fd, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
    if (const int error = subscribeEnds(ends, sideSettings.marks.enforced()); error != 0) return error;
    (void)uloop_fd_add(&endsFd, ULOOP_READ | ULOOP_ERROR_CB);
    (void)uloop_timeout_set(&period, kPeriod);
    return 0;
}

void closeReports() {
    (void)uloop_timeout_cancel(&period);
    (void)uloop_fd_delete(&endsFd);
    for (mnl_socket *socket : {dumps, ends})
        if (socket) (void)mnl_socket_close(socket);
    dumps = ends = nullptr;
}

void abandonReports() {
    for (const mnl_socket *socket : {dumps, ends})
        if (socket) (void)close(mnl_socket_get_fd(socket));
}

void adoptConnections() {
    dump(Dump::adopt);
}

void reportConnections() {
    dump(Dump::report);
}

void forgetEnds() {
    while (ends) {
        const ssize_t got = recv(mnl_socket_get_fd(ends), buffer, sizeof buffer, MSG_DONTWAIT);
        if (got < 0 && errno != EINTR && errno != ENOBUFS) return;
    }
}

}  // namespace am
