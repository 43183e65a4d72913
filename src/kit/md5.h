// The MD5 digest (RFC 1321), computed while data streams by.  It tells kits apart and finds damaged
// transfers; it protects against nobody.  Pure functions over their context, any thread.
#pragma once
#include <nettle/md5.h>

#include <cstddef>
#include <cstdint>

namespace am {

struct Md5 {
    md5_ctx context;
};

struct Md5Digest {
    uint8_t bytes[MD5_DIGEST_SIZE];
};

struct Md5Text {
    char text[2 * MD5_DIGEST_SIZE + 1];  // lower-case hexadecimal
};

inline void md5Begin(Md5 &md5) {
    md5_init(&md5.context);
}

inline void md5Add(Md5 &md5, const void *data, size_t length) {
    md5_update(&md5.context, length, static_cast<const uint8_t *>(data));
}

// The context is spent: begin again before adding more.
inline Md5Digest md5End(Md5 &md5) {
    Md5Digest digest;
    md5_digest(&md5.context, sizeof digest.bytes, digest.bytes);
    return digest;
}

inline Md5Text md5Text(const Md5Digest &digest) {
    Md5Text out{};
    char *end = out.text;
    for (const uint8_t byte : digest.bytes) {
        *end++ = "0123456789abcdef"[byte >> 4];
        *end++ = "0123456789abcdef"[byte & 15];
    }
    return out;
}

}  // namespace am
