// The arguments of a request, looked at one by one: the library's own parser takes one of a wrong type for
// absent.
#pragma once
extern "C" {
#include <libubox/blobmsg.h>
}

#include <cstddef>
#include <cstdint>

namespace am {

// An argument that a method takes, and where it goes, as a text or as a number; what the request does not
// name stays as it is.
struct Argument {
    const char *name;
    const char **text = nullptr;  // lives as long as the message
    uint32_t *number = nullptr;
    uint32_t most = UINT32_MAX;  // of a number
};

// False when one of them has another type or a value that cannot be.  Unknown ones are passed over: gateways
// to the bus add their own.
[[nodiscard]] bool takeArguments(const blob_attr *message, const Argument *arguments, size_t count);

template <size_t N>
[[nodiscard]] bool takeArguments(const blob_attr *message, const Argument (&arguments)[N]) {
    return takeArguments(message, arguments, N);
}

// Which part of a list is asked for.
struct Page {
    uint32_t limit = 50, offset = 0;
    static constexpr uint32_t kMost = 200;
};

}  // namespace am
