#include "ring_writer.h"

#include <cerrno>

namespace dpimod {

int RingWriter::check(const RingRequest &request, size_t pageSize) {
    if (request.blockCount == 0 || request.blockSize == 0 || request.blockSize % pageSize != 0) return EINVAL;
    if (request.frameSize < sizeof(FrameHeader) || request.frameSize % 4 != 0) return EINVAL;
    const uint32_t perBlock = request.blockSize / request.frameSize;
    if (perBlock == 0 || uint64_t{perBlock} * request.blockCount != request.frameCount) return EINVAL;
    // Frames are laid out one after the other here, which needs blocks without a remainder.
    if (request.blockSize % request.frameSize != 0) return EINVAL;
    return uint64_t{request.blockSize} * request.blockCount > kMaxRingBytes ? ENOMEM : 0;
}

uint8_t *RingWriter::nextFrame() {
    FrameHeader *next = frame(head_);
    if (next->status.load(std::memory_order_acquire) != kFrameUnused) return nullptr;
    return reinterpret_cast<uint8_t *>(next + 1);
}

void RingWriter::publish(FrameStatus status, uint32_t length) {
    FrameHeader *next = frame(head_);
    next->length = length;
    next->group = next->portid = next->uid = next->gid = 0;
    next->status.store(status, std::memory_order_release);
    head_ = head_ + 1 == request_.frameCount ? 0 : head_ + 1;
    control_->head.store(head_, std::memory_order_release);
}

bool RingWriter::drained() const {
    // Frames come back in order, so the one filled last tells for all.
    const uint32_t last = head_ == 0 ? request_.frameCount - 1 : head_ - 1;
    return frame(last)->status.load(std::memory_order_acquire) == kFrameUnused;
}

bool RingWriter::readerSleeps() {
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return control_->sleeping.load(std::memory_order_relaxed) != 0 && control_->sleeping.exchange(0) != 0;
}

bool RingWriter::waitForSpace() {
    control_->waitingForSpace.store(1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return nextFrame() == nullptr;
}

}  // namespace dpimod
