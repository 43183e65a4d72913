#include "pump.h"

#include <algorithm>

namespace dpimod {
namespace {

constexpr uint64_t kBurst = 64;         // small enough to wake a sleeping reader soon
constexpr int64_t kFullNapNs = 100000;  // a reader frees some hundred frames in this time
constexpr int64_t kIdleNapNs = 50000000;
constexpr uint64_t kSecond = 1000000000;

}  // namespace

void Pump::start(std::unique_ptr<PacketSource> source, uint64_t rate, bool drop) {
    stop();
    source_ = std::move(source);
    rate_ = rate;
    drop_ = drop;
}

void Pump::stop() {
    if (source_) source_->finish(counters);
    source_.reset();
    held_ = running_ = false;
}

void Pump::setRate(uint64_t rate) {
    rate_ = rate;
    running_ = false;
}

int64_t Pump::run(uint64_t nowNs) {
    if (!source_) return -1;
    const bool live = source_->fd() >= 0;
    // A file waits for its reader; what passes on an interface meanwhile is gone.
    if (!module_.mirroring() && !live) {
        running_ = false;
        return kIdleNapNs;
    }
    if (!running_) {
        running_ = true;
        startedNs_ = nowNs;
        sinceStart_ = 0;
    }
    uint64_t allowed = kBurst;
    if (rate_ != 0) {
        const auto due = static_cast<uint64_t>(static_cast<double>(nowNs - startedNs_) * 1e-9 *
                                               static_cast<double>(rate_)) +
                         1;
        allowed = due > sinceStart_ ? std::min(due - sinceStart_, kBurst) : 0;
    }
    int64_t again = 0;
    uint64_t sent = 0;
    while (sent < allowed) {
        if (!held_) {
            const auto next = source_->next(packet_, counters);
            if (next == PacketSource::Next::end) {
                module_.endBurst();
                stop();
                return -1;
            }
            if (next == PacketSource::Next::later) {
                again = -1;
                break;
            }
            held_ = true;
        }
        const auto result = module_.deliver(packet_, drop_, nowNs / 1000000);
        if (result == Module::Delivery::full) {
            again = module_.waitForSpace() ? kFullNapNs : 0;
            break;
        }
        if (result == Module::Delivery::noReader) {
            if (!live) break;
            ++module_.counters.droppedNoReader;
        }
        held_ = false;
        ++sent;
        ++sinceStart_;
    }
    module_.endBurst();
    if (again == 0 && rate_ != 0 && sent == allowed) {
        const double next = static_cast<double>(sinceStart_) * 1e9 / static_cast<double>(rate_);
        const int64_t elapsed = static_cast<int64_t>(nowNs - startedNs_);
        again = std::clamp<int64_t>(static_cast<int64_t>(next) - elapsed, 0, static_cast<int64_t>(kSecond));
    }
    return again;
}

}  // namespace dpimod
