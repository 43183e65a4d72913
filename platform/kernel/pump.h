// Moves packets from a source to the module: at a rate, or as fast as the reader keeps up.
#pragma once
#include <memory>

#include "module.h"
#include "packet_source.h"

namespace dpimod {

class Pump {
  public:
    explicit Pump(Module &module) : module_(module) {}
    // Replaces the source at once.  rate: packets a second, 0 for no limit; drop: what does not fit is lost.
    void start(std::unique_ptr<PacketSource> source, uint64_t rate, bool drop);
    void stop();
    [[nodiscard]] bool active() const { return source_ != nullptr; }
    void setRate(uint64_t rate);
    // Delivers a burst.  Result: nanoseconds until it is worth calling again (0: at once, -1: nothing to do
    // before a descriptor is ready).
    int64_t run(uint64_t nowNs);
    // To wait on besides; -1 if there is none.
    [[nodiscard]] int fd() const { return source_ && !held_ ? source_->fd() : -1; }

    InputCounters counters;

  private:
    Module &module_;
    std::unique_ptr<PacketSource> source_;
    uint64_t rate_ = 0, startedNs_ = 0, sinceStart_ = 0;
    bool drop_ = false, running_ = false;
    ByteView packet_;
    bool held_ = false;  // packet_ was read and is not delivered yet
};

}  // namespace dpimod
