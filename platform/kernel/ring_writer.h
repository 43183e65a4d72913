// The kernel's end of a memory-mapped receive ring: fills frames in order, never one that the reader still
// has.
//
// The memory belongs to the client's session and is shared with the daemon, which may write anything to it:
// only a frame's status is read back, and only compared.
#pragma once
#include <cstddef>
#include <cstdint>

#include "channel.h"

namespace dpimod {

class RingWriter {
  public:
    // What the kernel checks when a ring is asked for: 0 or an errno value.
    static int check(const RingRequest &request, size_t pageSize);

    RingWriter(uint8_t *frames, const RingRequest &request, ControlPage *control)
        : frames_(frames), request_(request), control_(control) {}

    // Payload of the next frame, room() bytes; null while the reader has that frame.
    [[nodiscard]] uint8_t *nextFrame();
    [[nodiscard]] size_t room() const { return request_.frameSize - sizeof(FrameHeader); }
    // Hands the next frame to the reader.
    void publish(FrameStatus status, uint32_t length);
    // True when the reader has handed every frame back.
    [[nodiscard]] bool drained() const;
    // To be called after publishing: true if the reader sleeps and must be woken.
    [[nodiscard]] bool readerSleeps();
    // Announces that dpimod waits for free frames; false if one has just become free.
    bool waitForSpace();
    [[nodiscard]] uint32_t head() const { return head_; }

  private:
    [[nodiscard]] FrameHeader *frame(uint32_t index) const {
        return reinterpret_cast<FrameHeader *>(frames_ + size_t{index} * request_.frameSize);
    }
    uint8_t *frames_;
    RingRequest request_;
    ControlPage *control_;
    uint32_t head_ = 0;
};

}  // namespace dpimod
