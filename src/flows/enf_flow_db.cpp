#include "flows/enf_flow_db.h"

#include <bit>
#include <cinttypes>
#include <cstring>
#include <new>

#include "core/armed_timer.h"
#include "core/counts.h"
#include "core/log.h"
#include "core/text.h"
#include "flows/capture.h"
#include "flows/flow_info.h"
#include "flows/kernel_side.h"
#include "flows/mirroring.h"
#include "flows/record_slab.h"

constinit AmMutex amEnfFlowLock;
constinit RbtTree amEnfFlowDb{};
constinit RbtTree amEnfFlowDb6{};
constinit std::atomic<uint64_t> amFlowCounter{0}, amFlowCounter6{0};
uloop_timeout amEnfFlowDbTimer = {.list = {}, .pending = false, .cb = amProcessEnfFlowDbTimer, .time = {}};
constinit int amEnfFlowDbTimerActive = 0;

namespace {

constexpr int kAgingPeriod = 300'000;  // milliseconds

constinit am::RecordSlab records4 GUARDED_BY(amEnfFlowLock){sizeof(AmEnfFlow4)};
constinit am::RecordSlab records6 GUARDED_BY(amEnfFlowLock){sizeof(AmEnfFlow6)};
static_assert(sizeof(void *) != 8 || sizeof(AmEnfFlow4) == 64);  // one cache line

// Compares keys with one that is looked up, whose words are read once: bytes in the order of memory, eight at
// a time.  The last eight of either family are ports, protocol and three bytes that are not part of the
// order.
template <class Flow>
class KeyOrder {
  public:
    explicit KeyOrder(const RbtNode *probe) {
        for (size_t i = 0; i < kWords; i++) words_[i] = wordOf(probe, i);
    }
    int operator()(const RbtNode *node) const {
        for (size_t i = 0; i < kWords; i++)
            if (const uint64_t word = wordOf(node, i); words_[i] != word) return words_[i] < word ? -1 : 1;
        return 0;
    }

  private:
    static constexpr size_t kWords = sizeof(Flow::key) / sizeof(uint64_t);

    static uint64_t wordOf(const RbtNode *node, size_t i) {
        uint64_t word;
        memcpy(&word, reinterpret_cast<const char *>(node) + offsetof(Flow, key) + i * sizeof word,
               sizeof word);
        if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap64(word);
        return i == kWords - 1 ? word >> 24 : word;
    }

    uint64_t words_[kWords];
};

// All that differs between the families.
struct V4 {
    using Key = AmEnfKey4;
    using Flow = AmEnfFlow4;
    static constexpr const char *kUpdate = "amUpdateEnfFlowDb";
    static constexpr const char *kSearch = "amSearchEnfFlowDb";
    static constexpr const char *kNullKey = "%s:%d k4 null !!\n";
    static RbtTree &tree() REQUIRES(amEnfFlowLock) { return amEnfFlowDb; }
    static am::RecordSlab &records() REQUIRES(amEnfFlowLock) { return records4; }
    static std::atomic<uint64_t> &counter() { return amFlowCounter; }
    static void setAddresses(Key &key, const capture_flow_info &info) {
        key.fst_ip = info.src_ip;
        key.secnd_ip = info.dst_ip;
    }
    static void logFlow(const capture_flow_info &info, const Key &key, const char *name);
};

struct V6 {
    using Key = AmEnfKey6;
    using Flow = AmEnfFlow6;
    static constexpr const char *kUpdate = "amUpdateEnfFlowDb6";
    static constexpr const char *kSearch = "amSearchEnfFlowDb6";
    static constexpr const char *kNullKey = "%s:%d k6 null !!\n";
    static RbtTree &tree() REQUIRES(amEnfFlowLock) { return amEnfFlowDb6; }
    static am::RecordSlab &records() REQUIRES(amEnfFlowLock) { return records6; }
    static std::atomic<uint64_t> &counter() { return amFlowCounter6; }
    static void setAddresses(Key &key, const capture_flow_info &info) {
        key.fst_ip = info.src_ip6;
        key.secnd_ip = info.dst_ip6;
    }
    static void logFlow(const capture_flow_info &info, const Key &key, const char *name);
};

// The lock is not fair: a walk that lets go of it and comes straight back would keep others out all the same.
// So who finds it taken holds the turnstile while it waits, and says so; the walk lets go, and queues at the
// turnstile behind it.
constinit AmMutex turnstile ACQUIRED_AFTER(amModelLock) ACQUIRED_BEFORE(amEnfFlowLock);
constinit std::atomic<bool> lockWanted{false};

void lockBeforeWalks() ACQUIRE(amEnfFlowLock) {
    if (amEnfFlowLock.tryLock()) return;
    turnstile.lockSoon();
    lockWanted.store(true, std::memory_order_relaxed);
    amEnfFlowLock.lockSoon();
    lockWanted.store(false, std::memory_order_relaxed);
    turnstile.unlock();
}

// For the next step of a walk: behind who waits.
void lockBehindOthers() ACQUIRE(amEnfFlowLock) {
    if (lockWanted.load(std::memory_order_relaxed)) {
        turnstile.lockSoon();
        turnstile.unlock();
    }
    amEnfFlowLock.lockSoon();
}

// Between two records of a walk.
void letOthersIn() REQUIRES(amEnfFlowLock) {
    if (!lockWanted.load(std::memory_order_relaxed)) return;
    amEnfFlowLock.unlock();
    lockBehindOthers();
}

template <class Flow>
Flow *asFlow(RbtNode *node) {
    return reinterpret_cast<Flow *>(node);
}

// Not the whole struct: where a queue entry serves as the key, its own data lies in the padding.
template <class Key>
void copyFields(Key &to, const Key &from) {
    to.fst_ip = from.fst_ip;
    to.secnd_ip = from.secnd_ip;
    to.fstPort = from.fstPort;
    to.scndPort = from.scndPort;
    to.proto = from.proto;
}

void activate(auto &flow, const capture_flow_info &info) {
    flow.appId = static_cast<uint16_t>(info.app_id);
    flow.aged = 0;
    flow.untold = 0;
    flow.startTime = time(nullptr);
}

// False when there is no memory for a new record.
template <class Ip>
bool record(const typename Ip::Flow &probe, const capture_flow_info &info) REQUIRES(amEnfFlowLock) {
    using Flow = typename Ip::Flow;
    RbtTree &tree = Ip::tree();
    const RbtPlace place = rbtDescend(&tree, KeyOrder<Flow>(&probe.node));
    if (place.order == 0) {
        auto *known = asFlow<Flow>(place.node);
        am::countUp(known->aged != 0 ? am::counts.flowsRenewed : am::counts.flowsRepeated);
        if (known->aged != 0) activate(*known, info);
        known->untold = 0;
        return true;
    }
    void *slot = Ip::records().take();
    if (!slot) return false;
    auto *flow = new (slot) Flow(probe);
    activate(*flow, info);
    rbtInsertAt(&tree, place, &flow->node);
    // Written under the lock only.
    Ip::counter().store(Ip::counter().load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
}

// In place: the padding of a zero-filled key stays zero.
template <class Ip>
void setKey(typename Ip::Key &key, const capture_flow_info &info) {
    Ip::setAddresses(key, info);
    key.fstPort = static_cast<uint16_t>(info.src_port);
    key.scndPort = static_cast<uint16_t>(info.dst_port);
    key.proto = static_cast<uint8_t>(info.proto);
}

template <class Ip>
int update(const capture_flow_info *info) REQUIRES_SHARED(amModelLock) EXCLUDES(amEnfFlowLock) {
    typename Ip::Flow probe{};
    setKey<Ip>(probe.key, *info);
    lockBeforeWalks();
    const bool recorded = record<Ip>(probe, *info);
    amEnfFlowLock.unlock();
    if (!recorded) {
        amLog(AM_LOG_ERROR, "%s:%d malloc failed !!\n", Ip::kUpdate, __LINE__);
        am::countUp(am::counts.flowsNoMemory);
        return 1;
    }
    if (flow_debug.load(std::memory_order_relaxed) != 0)
        Ip::logFlow(*info, probe.key, am::appNameText(amActiveApp(info->app_id)).text);
    return 1;
}

void V4::logFlow(const capture_flow_info &info, const Key &key, const char *name) {
    const am::AddressText source = am::addressText(info.src_ip);
    const am::AddressText destination = am::addressText(info.dst_ip);
    // The addresses compare as they lie in memory, whatever the byte order of the machine.
    if (info.src_ip < info.dst_ip)
        amLog(AM_LOG_FLOW,
              "fst_ip: %s, secnd_ip: %s, fstPort: %u, scndPort: %u, l4 proto: %u App-Id %d App-Name %s Same "
              "srcIp %x dstIp %x\n",
              source.text, destination.text, key.fstPort, key.scndPort, key.proto, info.app_id, name,
              info.src_ip, info.dst_ip);
    else
        amLog(AM_LOG_FLOW,
              "fst_ip: %s, secnd_ip: %s, fstPort: %u, scndPort: %u, l4 proto: %u App-Id %d App-Name %s Diff "
              "srcIp %x dstIp %x\n",
              destination.text, source.text, key.scndPort, key.fstPort, key.proto, info.app_id, name,
              info.src_ip, info.dst_ip);
}

void V6::logFlow(const capture_flow_info &info, const Key &key, const char *name) {
    // Of each address, the last 32 bits as they lie in memory.
    uint32_t source, destination;
    memcpy(&source, &key.fst_ip.s6_addr[12], sizeof source);
    memcpy(&destination, &key.secnd_ip.s6_addr[12], sizeof destination);
    amLog(AM_LOG_FLOW,
          "amUpdateEnfFlowDb6 fst_ip: %s, secnd_ip: %s, fstPort: %u, scndPort: %u, l4 proto: %u App-Id %d "
          "App-Name %s Same srcIp %x dstIp %x\n",
          am::addressText(key.fst_ip).text, am::addressText(key.secnd_ip).text, key.fstPort, key.scndPort,
          key.proto, info.app_id, name, source, destination);
}

template <class Ip>
typename Ip::Flow *search(const typename Ip::Key *key) REQUIRES(amEnfFlowLock) {
    if (!key) {
        amLog(AM_LOG_ERROR, Ip::kNullKey, Ip::kSearch, __LINE__);
        return nullptr;
    }
    typename Ip::Flow probe{};
    copyFields(probe.key, *key);
    const RbtPlace place = rbtDescend(&Ip::tree(), KeyOrder<typename Ip::Flow>(&probe.node));
    return place.order == 0 ? asFlow<typename Ip::Flow>(place.node) : nullptr;
}

template <class Ip>
typename Ip::Key keyOf(const capture_flow_info &info) {
    typename Ip::Key key{};
    setKey<Ip>(key, info);
    return key;
}

template <class Ip>
void noteUntold(const typename Ip::Key &key) EXCLUDES(amEnfFlowLock) {
    lockBeforeWalks();
    if (auto *const flow = search<Ip>(&key)) flow->untold = 1;
    amEnfFlowLock.unlock();
}

template <class Ip>
bool copyOf(const typename Ip::Key &key, typename Ip::Flow &copy) EXCLUDES(amEnfFlowLock) {
    const AmGuard guard(amEnfFlowLock);
    const auto *const flow = search<Ip>(&key);
    if (flow) copy = *flow;
    return flow != nullptr;
}

template <class Ip>
bool copyOfNext(const typename Ip::Key *after, typename Ip::Flow &copy) EXCLUDES(amEnfFlowLock) {
    typename Ip::Flow probe{};
    if (after) copyFields(probe.key, *after);
    lockBehindOthers();
    const RbtTree &tree = Ip::tree();
    const RbtPlace place =
        after ? rbtDescend(&tree, KeyOrder<typename Ip::Flow>(&probe.node)) : RbtPlace{rbtFirst(&tree), -1};
    const bool isNext = !place.node || place.order < 0;
    RbtNode *const node = isNext ? place.node : rbtNext(&tree, place.node);
    if (node) copy = *asFlow<typename Ip::Flow>(node);
    amEnfFlowLock.unlock();
    return node != nullptr;
}

enum class Sweep { aged, all };

// Only this thread removes, so the record that the walk stands on, and its successor, outlive the moments
// without the lock.  Records that come in meanwhile are met or missed, as their place in the order has it.
template <class Ip>
void sweep(Sweep which) EXCLUDES(amEnfFlowLock) {
    const AmGuard guard(amEnfFlowLock);
    RbtTree &tree = Ip::tree();
    for (RbtNode *node = rbtFirst(&tree); node;) {
        RbtNode *next = rbtNext(&tree, node);
        auto *flow = asFlow<typename Ip::Flow>(node);
        if (which == Sweep::all || flow->aged != 0) {
            rbtRemove(&tree, node);
            Ip::records().give(flow);
        }
        node = next;
        letOthersIn();
    }
}

template <class Ip>
void forEach(void (*visit)(const typename Ip::Flow &flow)) EXCLUDES(amEnfFlowLock) {
    // What comes in meanwhile is passed over: new flows may come as fast as old ones are visited, and the
    // walk would have no end.
    const time_t begin = time(nullptr);
    RbtNode *node = nullptr;
    for (bool first = true;; first = false) {
        typename Ip::Flow copy;
        lockBehindOthers();
        node = first ? rbtFirst(&Ip::tree()) : rbtNext(&Ip::tree(), node);
        if (node) copy = *asFlow<typename Ip::Flow>(node);
        amEnfFlowLock.unlock();
        if (!node) return;
        // A record from after now is an old one: the clock has been set back since.
        const bool younger = copy.startTime > begin && copy.startTime <= time(nullptr);
        if (!younger) visit(copy);
    }
}

}  // namespace

int amEnf_key4_compare(const RbtNode *a, const RbtNode *b) {
    return KeyOrder<AmEnfFlow4>(a)(b);
}

int amEnf_key6_compare(const RbtNode *a, const RbtNode *b) {
    return KeyOrder<AmEnfFlow6>(a)(b);
}

void amInitEnfFlowDb() {
    const AmGuard guard(amEnfFlowLock);
    rbtInit(&amEnfFlowDb, amEnf_key4_compare);
    rbtInit(&amEnfFlowDb6, amEnf_key6_compare);
}

int amUpdateEnfFlowDb(const capture_flow_info *info) {
    return update<V4>(info);
}

int amUpdateEnfFlowDb6(const capture_flow_info *info) {
    return update<V6>(info);
}

AmEnfFlow4 *amSearchEnfFlowDb(const AmEnfKey4 *key) {
    return search<V4>(key);
}

AmEnfFlow6 *amSearchEnfFlowDb6(const AmEnfKey6 *key) {
    return search<V6>(key);
}

void amCleanAgedEnfFlowDb() {
    sweep<V4>(Sweep::aged);
}

void amCleanAgedEnfFlowDb6() {
    sweep<V6>(Sweep::aged);
}

void amCleanAllEnfFlowDb() {
    sweep<V4>(Sweep::all);
}

void amCleanAllEnfFlowDb6() {
    sweep<V6>(Sweep::all);
}

namespace am {

bool nextEnfFlow(const AmEnfKey4 *after, AmEnfFlow4 &flow) {
    return copyOfNext<V4>(after, flow);
}

bool nextEnfFlow(const AmEnfKey6 *after, AmEnfFlow6 &flow) {
    return copyOfNext<V6>(after, flow);
}

bool findEnfFlow(const AmEnfKey4 &key, AmEnfFlow4 &flow) {
    return copyOf<V4>(key, flow);
}

bool findEnfFlow(const AmEnfKey6 &key, AmEnfFlow6 &flow) {
    return copyOf<V6>(key, flow);
}

void noteUntold(const AmEnfKey4 &key) {
    ::noteUntold<V4>(key);
}

void noteUntold(const AmEnfKey6 &key) {
    ::noteUntold<V6>(key);
}

void noteUntold4(const capture_flow_info &info) {
    noteUntold(keyOf<V4>(info));
}

void noteUntold6(const capture_flow_info &info) {
    noteUntold(keyOf<V6>(info));
}

EnfFlowsHeld enfFlowsHeld() {
    const AmGuard guard(amEnfFlowLock);
    return {rbtCount(&amEnfFlowDb), rbtCount(&amEnfFlowDb6)};
}

}  // namespace am

void forEachEnfFlow4(void (*visit)(const AmEnfFlow4 &flow)) {
    forEach<V4>(visit);
}

void forEachEnfFlow6(void (*visit)(const AmEnfFlow6 &flow)) {
    forEach<V6>(visit);
}

void amStartEnfFlowDbTimer() {
    am::startArmedTimer(amEnfFlowDbTimer, amEnfFlowDbTimerActive, kAgingPeriod);
}

int amRemoveEnfFlowDbTimer(uloop_timeout *timer) {
    return am::removeArmedTimer(*timer, amEnfFlowDbTimerActive);
}

void amProcessEnfFlowDbTimer(uloop_timeout *) {
    amStartEnfFlowDbTimer();
    if (amAdminState.load(std::memory_order_relaxed) == 1) {
        amCleanAgedEnfFlowDb();
        amCleanAgedEnfFlowDb6();
    }
    amLog(AM_LOG_DEBUG,
          "Packet Counter [%" PRIu64 "] : Flow4 Counter [%" PRIu64 "] : Flow6 Counter [%" PRIu64
          "] : Stats Counter [%" PRIu64 "]\n",
          amPacketCounter.load(std::memory_order_relaxed), amFlowCounter.load(std::memory_order_relaxed),
          amFlowCounter6.load(std::memory_order_relaxed), amStatsCounter.load(std::memory_order_relaxed));
}
