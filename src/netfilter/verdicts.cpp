#include "netfilter/verdicts.h"

#include <netinet/in.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstring>

extern "C" {
#include <libubox/uloop.h>
}

#include "core/lock.h"
#include "core/log.h"
#include "flows/enf_flow_db.h"
#include "flows/flow_info.h"
#include "flows/kernel_side.h"
#include "netfilter/requests.h"
#include "netfilter/side.h"

namespace am {

namespace {

constexpr size_t kWaitingRoom = 4096;  // verdicts
constexpr int64_t kPatience = 1000;    // milliseconds that a verdict waits for its connection
constexpr int kLongestPause = 128;     // between two tries, milliseconds
constexpr size_t kTriesAtOnce = 64;    // the capture thread has packets to read
constexpr int kTimerPeriod = 5;        // milliseconds
// When a verdict is searched for, by its age: a connection that is only late has come by the first.  A search
// walks over all connections without a verdict, so there are few for what has no connection any more.
constexpr int64_t kSearchAges[] = {20, 500};
constexpr int64_t kSearchPeriod = 100;
constexpr int64_t kSearchShare = 10;  // of the event loop's time, at most one part in so many
constexpr int64_t kTellPeriod = 10'000;
constexpr size_t kSearchBuffer = 32768;

struct Waiting {
    ConnTuple tuple;  // as the packet looked, or the connection's own
    uint32_t value;
    uint16_t zone;
    uint8_t pause;
    uint8_t searches;
    int64_t since, due;
};

constinit AmMutex verdictLock ACQUIRED_AFTER(amModelLock);
mnl_socket *requests GUARDED_BY(verdictLock) = nullptr;
Waiting waiting[kWaitingRoom] GUARDED_BY(verdictLock);
size_t waitingCount GUARDED_BY(verdictLock) = 0;

// Applications with verdicts that lack the bit.  Ordered by amModelLock: a verdict writes with it held, and
// the list has been changed with it held before anybody asks.
constinit std::atomic<bool> unenforced[MarkLayout::kMaxNumber + 1];

thread_local constinit const PacketInHand *packetInHand = nullptr;

// The event loop's: its timer runs while something waits, which any thread tells by the descriptor.
void onWaiting(uloop_fd *fd, unsigned events);
void onTimer(uloop_timeout *timer);
uloop_fd wake{.cb = onWaiting, .fd = -1, .eof = false, .error = false, .registered = false, .flags = 0};
uloop_timeout timer{.list = {}, .pending = false, .cb = onTimer, .time = {}};
mnl_socket *searches = nullptr;
int64_t nextSearch = 0;

MarkBits bitsOf(uint32_t value) {
    return {value, sideSettings.marks.mask};
}

// With the tuple of either direction.  0, -ENOENT or another negative error number.
int tryBoth(const ConnTuple &tuple, uint16_t zone, uint32_t value) REQUIRES(verdictLock) {
    const int error = setConnectionMark(requests, tuple, zone, bitsOf(value));
    return error == -ENOENT ? setConnectionMark(requests, inverse(tuple), zone, bitsOf(value)) : error;
}

void forgetWaiting(size_t index) REQUIRES(verdictLock) {
    waiting[index] = waiting[--waitingCount];
}

// A newer verdict for the same flow takes the place of one that waits.
void forgetTuple(const ConnTuple &tuple, uint16_t zone) REQUIRES(verdictLock) {
    for (size_t i = waitingCount; i-- > 0;)
        if (waiting[i].zone == zone && waiting[i].tuple == tuple) forgetWaiting(i);
}

void wakeEventLoop() {
    const uint64_t one = 1;
    (void)!write(wake.fd, &one, sizeof one);
}

// False without room.  With a connection's own tuple a search would find no other.
bool wait(const ConnTuple &tuple, uint16_t zone, bool own, uint32_t value) REQUIRES(verdictLock) {
    if (waitingCount == kWaitingRoom) {
        countUp(sideCounts.notKept);
        return false;
    }
    const int64_t now = steadyMs();
    const uint8_t searched = own ? std::size(kSearchAges) : 0;
    waiting[waitingCount++] = {tuple, value, zone, 1, searched, now, now + 1};
    if (waitingCount == 1) wakeEventLoop();
    return true;
}

// One line for many: a kernel that refuses one refuses all.
void tellRefused(int error) REQUIRES(verdictLock) {
    static int64_t told = -kTellPeriod;
    countUp(sideCounts.refused);
    const int64_t now = steadyMs();
    if (now - told < kTellPeriod) return;
    told = now;
    amLog(AM_LOG_ERROR, "%s:%d the kernel refuses a connection's mark: %s\n", "amSendResultMessage", __LINE__,
          strerror(-error));
}

template <class Key>
Key keyOf(const ConnTuple &tuple) {
    Key key{};
    memcpy(&key.fst_ip, tuple.source, sizeof key.fst_ip);
    memcpy(&key.secnd_ip, tuple.destination, sizeof key.secnd_ip);
    key.fstPort = tuple.sourcePort;
    key.scndPort = tuple.destinationPort;
    key.proto = tuple.proto;
    return key;
}

// For people who ask why a flow is not blocked: no connection carries its verdict.
void noteLost(const ConnTuple &flow) {
    for (const ConnTuple &tuple : {flow, inverse(flow)}) {
        if (tuple.family == AF_INET)
            noteUntold(keyOf<AmEnfKey4>(tuple));
        else
            noteUntold(keyOf<AmEnfKey6>(tuple));
    }
}

// The verdict at a later try.  False: it goes on waiting.
bool settle(Waiting &verdict, int64_t now) REQUIRES(verdictLock) {
    const int error = tryBoth(verdict.tuple, verdict.zone, verdict.value);
    if (error == 0) {
        countUp(sideCounts.marked);
        countUp(sideCounts.markedLater);
        return true;
    }
    if (error != -ENOENT) {
        tellRefused(error);
        noteLost(verdict.tuple);
        return true;
    }
    // Where a walk over all connections takes seconds, the next one may be that far away.
    if (now - verdict.since >= kPatience && verdict.searches != 0) {
        countUp(sideCounts.notFound);
        noteLost(verdict.tuple);
        return true;
    }
    verdict.due = now + verdict.pause;
    verdict.pause = static_cast<uint8_t>(std::min(verdict.pause * 2, kLongestPause));
    return false;
}

bool isIcmp(const ConnTuple &tuple) {
    return tuple.proto == IPPROTO_ICMP || tuple.proto == IPPROTO_ICMPV6;
}

// Whether the packet is one of the flow, in either direction; engines do not tell what ICMP tells flows apart
// by.
bool isOfFlow(const ConnTuple &packet, const ConnTuple &flow) {
    for (ConnTuple tuple : {packet, inverse(packet)}) {
        tuple.icmpId = tuple.icmpType = tuple.icmpCode = 0;
        if (tuple == flow) return true;
    }
    return false;
}

// Whether the verdict is on an ICMP error in hand.  That is a packet of the connection that it reports on,
// which is not to be marked with it.
bool isOnError(const ConnTuple &flow) {
    ConnTuple seen;
    return isIcmp(flow) && packetInHand && !readTuple(packetInHand->packet, seen) && isOfFlow(seen, flow);
}

// False: no connection has it, nor will have.
bool deliver(const ConnTuple &flow, uint32_t value) EXCLUDES(verdictLock) {
    ConnTuple tuple = flow;
    Connection connection;
    uint16_t zone = 0;
    bool own = false;
    if (ConnTuple seen; packetInHand && readTuple(packetInHand->packet, seen) && isOfFlow(seen, flow)) {
        tuple = seen;
        if (packetInHand->connection && readConnection(packetInHand->connection, seen.family, connection)) {
            tuple = connection.original;
            zone = connection.zone;
            own = true;
        }
    }
    const AmGuard guard(verdictLock);
    if (!requests) return false;
    if (waitingCount != 0) forgetTuple(tuple, zone);
    const int error = tryBoth(tuple, zone, value);
    if (error == -ENOENT) return wait(tuple, zone, own, value);
    if (error == 0)
        countUp(sideCounts.marked);
    else
        tellRefused(error);
    return error == 0;
}

struct V4 {
    static constexpr uint8_t kFamily = AF_INET;
    static void setAddresses(ConnTuple &tuple, const capture_flow_info &info) {
        memcpy(tuple.source, &info.src_ip, sizeof info.src_ip);
        memcpy(tuple.destination, &info.dst_ip, sizeof info.dst_ip);
    }
    static int record(const capture_flow_info *info) REQUIRES_SHARED(amModelLock) {
        return amUpdateEnfFlowDb(info);
    }
};

struct V6 {
    static constexpr uint8_t kFamily = AF_INET6;
    static void setAddresses(ConnTuple &tuple, const capture_flow_info &info) {
        memcpy(tuple.source, &info.src_ip6, sizeof info.src_ip6);
        memcpy(tuple.destination, &info.dst_ip6, sizeof info.dst_ip6);
    }
    static int record(const capture_flow_info *info) REQUIRES_SHARED(amModelLock) {
        return amUpdateEnfFlowDb6(info);
    }
};

template <class Ip>
int sendResult(const capture_flow_info *info, unsigned match) REQUIRES_SHARED(amModelLock)
    EXCLUDES(verdictLock) {
    ConnTuple flow{};
    Ip::setAddresses(flow, *info);
    flow.family = Ip::kFamily;
    flow.proto = static_cast<uint8_t>(info->proto);
    if (!isIcmp(flow)) {
        flow.sourcePort = static_cast<uint16_t>(info->src_port);
        flow.destinationPort = static_cast<uint16_t>(info->dst_port);
    }
    if (isOnError(flow)) {
        countUp(sideCounts.ofErrors);
        return 1;
    }
    const MarkLayout &marks = sideSettings.marks;
    if (info->app_id > marks.maxApplication()) countUp(sideCounts.tooLarge);
    // The record first: the end of a connection that has its mark may be reported at once.
    if (match == 1)
        (void)Ip::record(info);
    else
        unenforced[info->app_id].store(true, std::memory_order_relaxed);
    if (!deliver(flow, marks.verdict(info->app_id, match == 1)) && match == 1) noteLost(flow);
    return 1;
}

// One walk over the connections without a verdict, for all that waits.
struct Search {
    size_t count;
    ConnTuple tuples[kWaitingRoom];
};
Search search;  // of the event-loop thread

bool before(const ConnTuple &one, const ConnTuple &other) {
    return memcmp(&one, &other, sizeof one) < 0;
}

void markFound(const ConnTuple &tuple, const Connection &connection) EXCLUDES(verdictLock) {
    const AmGuard guard(verdictLock);
    for (size_t i = 0; i < waitingCount; i++) {
        if (!(waiting[i].tuple == tuple)) continue;
        if (setConnectionMark(requests, connection.original, connection.zone, bitsOf(waiting[i].value)) ==
            0) {
            countUp(sideCounts.marked);
            countUp(sideCounts.markedBySearch);
            forgetWaiting(i);
        }
        return;
    }
}

void visitUnmarked(const nlmsghdr *message, void *) {
    Connection connection;
    if (!readConnection(message, connection)) return;
    const ConnTuple seen = forwardTuple(connection);
    const ConnTuple *const begin = search.tuples, *const end = begin + search.count;
    for (const ConnTuple &tuple : {seen, inverse(seen)})
        if (std::binary_search(begin, end, tuple, before)) markFound(tuple, connection);
}

void searchConnections() EXCLUDES(verdictLock) {
    const int64_t now = steadyMs();
    if (now < nextSearch) return;
    search.count = 0;
    {
        const AmGuard guard(verdictLock);
        for (Waiting &verdict : std::span(waiting, waitingCount)) {
            if (verdict.searches == std::size(kSearchAges)) continue;
            if (now - verdict.since < kSearchAges[verdict.searches]) continue;
            verdict.searches++;
            search.tuples[search.count++] = verdict.tuple;
        }
    }
    if (search.count == 0) return;
    countUp(sideCounts.searches);
    std::sort(search.tuples, search.tuples + search.count, before);
    alignas(nlmsghdr) char request[kConntrackRequestSize] = {};
    static char buffer[kSearchBuffer];
    (void)runDump(searches, buildMarkDump(request, {0, sideSettings.marks.classified()}), buffer,
                  visitUnmarked, nullptr);
    const int64_t end = steadyMs();
    nextSearch = end + std::max(kSearchPeriod, (kSearchShare - 1) * (end - now));
}

void onTimer(uloop_timeout *) {
    retryVerdicts();
    searchConnections();
    verdictLock.lock();
    const bool more = waitingCount != 0;
    verdictLock.unlock();
    if (more) (void)uloop_timeout_set(&timer, kTimerPeriod);
}

void onWaiting(uloop_fd *fd, unsigned) {
    uint64_t count;
    (void)!read(fd->fd, &count, sizeof count);
    if (!timer.pending) (void)uloop_timeout_set(&timer, kTimerPeriod);
}

}  // namespace

int openVerdicts() {
    const AmGuard guard(verdictLock);
    requests = openNetfilterSocket();
    searches = openNetfilterSocket();
    if (!requests || !searches) return -errno;
    wake.fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake.fd < 0) return -errno;
    (void)uloop_fd_add(&wake, ULOOP_READ);
    // Of a connection that nobody can have: whether it may be asked at all.
    ConnTuple nobody{};
    nobody.family = AF_INET;
    nobody.proto = IPPROTO_TCP;
    const int error = setConnectionMark(requests, nobody, 0, bitsOf(0));
    return error == -ENOENT ? 0 : error;
}

void closeVerdicts() {
    const AmGuard guard(verdictLock);
    for (mnl_socket *socket : {requests, searches})
        if (socket) (void)mnl_socket_close(socket);
    requests = searches = nullptr;
    waitingCount = 0;
    (void)uloop_timeout_cancel(&timer);
    (void)uloop_fd_delete(&wake);
    if (wake.fd >= 0) (void)close(wake.fd);
    wake.fd = -1;
}

void abandonVerdicts() NO_THREAD_SAFETY_ANALYSIS {
    for (const mnl_socket *socket : {requests, searches})
        if (socket) (void)close(mnl_socket_get_fd(socket));
}

void setPacketInHand(const PacketInHand *packet) {
    packetInHand = packet;
}

void retryVerdicts() {
    const AmGuard guard(verdictLock);
    if (waitingCount == 0) return;
    const int64_t now = steadyMs();
    size_t tries = 0;
    for (size_t i = waitingCount; i-- > 0 && tries < kTriesAtOnce;) {
        if (waiting[i].due > now) continue;
        tries++;
        if (settle(waiting[i], now)) forgetWaiting(i);
    }
}

void dropVerdicts() {
    const AmGuard guard(verdictLock);
    waitingCount = 0;
}

bool takeUnenforced(uint32_t application) {
    return unenforced[application].exchange(false, std::memory_order_relaxed);
}

int markConnection(const Connection &connection, uint32_t value) {
    const AmGuard guard(verdictLock);
    if (!requests) return -EBADF;
    return setConnectionMark(requests, connection.original, connection.zone, bitsOf(value));
}

}  // namespace am

int amSendResultMessage(const capture_flow_info *info, unsigned match) {
    return am::sendResult<am::V4>(info, match);
}

int amSendResultMessage6(const capture_flow_info *info, unsigned match) {
    return am::sendResult<am::V6>(info, match);
}
