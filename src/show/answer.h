// A reply while it is filled.  Without memory, what is missing is remembered, and half a reply is never sent.
#pragma once
extern "C" {
#include <libubox/blobmsg.h>
}
#include <libubus.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/text.h"

namespace am {

class Answer {
  public:
    explicit Answer(blob_buf &buffer) : buffer_(buffer) { whole_ = blob_buf_init(&buffer, 0) == 0; }

    void text(const char *name, const char *value);
    template <size_t N>
    void field(const char *name, const char (&value)[N]) {  // one that may fill its width
        char terminated[N + 1];
        copyText(terminated, fieldText(value));
        text(name, terminated);
    }
    void number(const char *name, uint64_t value);
    void flag(const char *name, bool value);

    // The members of a table, the elements of an array; an element has no name.
    template <class Fill>
    void table(const char *name, Fill fill) {
        nest(name, false, fill);
    }
    template <class Fill>
    void array(const char *name, Fill fill) {
        nest(name, true, fill);
    }

    // Whether another entry would make the reply too large.
    bool full() const { return !whole_ || blob_pad_len(buffer_.head) > kMost; }
    bool whole() const { return whole_; }
    blob_attr *message() const { return buffer_.head; }

  private:
    static constexpr size_t kMost = 60'000;  // bytes; an entry is far below four thousand

    void keep(int result) { whole_ = whole_ && result == 0; }
    void *open(const char *name, bool array);
    void close(void *nested);
    template <class Fill>
    void nest(const char *name, bool array, Fill fill) {
        void *const nested = open(name, array);
        if (!nested) return;
        fill();
        close(nested);
    }

    blob_buf &buffer_;
    bool whole_;
};

}  // namespace am
