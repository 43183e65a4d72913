// Application and group names for the lines of one flush.  Names cannot change while the event-loop thread
// writes, and a flush names few applications many times.
#pragma once
#include <cstddef>
#include <cstdint>

namespace am {

// Appends the names of an application on a list, "-" for each that does not apply, as the two columns
// "application,group" without a comma around them.  For one flush, on the event-loop thread.
class RecordNames {
  public:
    explicit RecordNames(uint32_t listType) : listType_(listType) {}
    char *append(char *at, uint32_t appId);

  private:
    static constexpr size_t kSlots = 8;  // by the id's low bits; the last application of a slot stays

    struct Slot {
        bool filled = false;
        uint8_t length = 0;
        uint32_t appId = 0;
        char columns[80] = {};  // 32 and 40 characters and the comma
    };
    static void fill(Slot &slot, uint32_t appId, uint32_t listType);

    uint32_t listType_;
    Slot slots_[kSlots];
};

}  // namespace am
