// Binary attributes: a 32-bit big-endian word, then the payload, then zeros up to a multiple of four.
//
//   bit 31      the payload starts with a name (blobmsg.h)
//   bits 30..24 id
//   bits 23..0  length of word and payload, without padding
//
// A container's payload is its members one after the other.  The accessors check nothing: what comes from
// outside goes through blob_parse, blob_parse_untrusted or the walking macros first.
#pragma once

// NOLINTBEGIN(modernize-use-nullptr,bugprone-macro-parentheses): also read by C; parentheses do not go around
// what is assigned to

#include <errno.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "utils.h"

#define BLOB_ATTR_ID_MASK 0x7f000000
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffff
#define BLOB_ATTR_ALIGN 4
#define BLOB_ATTR_EXTENDED 0x80000000

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// What blob_check_type looks for; never on the wire.
enum {
    BLOB_ATTR_UNSPEC = 0,
    BLOB_ATTR_NESTED = 1,
    BLOB_ATTR_BINARY = 2,
    BLOB_ATTR_STRING = 3,
    BLOB_ATTR_INT8 = 4,
    BLOB_ATTR_INT16 = 5,
    BLOB_ATTR_INT32 = 6,
    BLOB_ATTR_INT64 = 7,
    BLOB_ATTR_DOUBLE = 8,
    BLOB_ATTR_LAST = 9
};

struct blob_attr {
    uint32_t id_len;  // network byte order
    char data[];
} __packed;

struct blob_attr_info {
    unsigned int type;    // BLOB_ATTR_*
    unsigned int minlen;  // of the length with the word, 0 = any
    unsigned int maxlen;
    bool (*validate)(const struct blob_attr_info *info, struct blob_attr *attr);
};

// Zero it before its first use.  Pointers into it do not survive an append.
struct blob_buf {
    struct blob_attr *head;  // the container that is being filled
    bool (*grow)(struct blob_buf *buf, int minlen);
    int buflen;
    void *buf;
};

static inline void *blob_data(const struct blob_attr *attr) {
    return (void *)attr->data;
}

static inline unsigned int blob_id(const struct blob_attr *attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr *attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_EXTENDED) != 0;
}

static inline size_t blob_raw_len(const struct blob_attr *attr) {
    return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

// 0 where the word claims less than its own size.
static inline size_t blob_len(const struct blob_attr *attr) {
    return blob_raw_len(attr) < sizeof(struct blob_attr) ? 0 : blob_raw_len(attr) - sizeof(struct blob_attr);
}

static inline size_t blob_pad_len(const struct blob_attr *attr) {
    return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline uint8_t blob_get_u8(const struct blob_attr *attr) {
    return (uint8_t)attr->data[0];
}

static inline uint16_t blob_get_u16(const struct blob_attr *attr) {
    uint16_t value;
    memcpy(&value, attr->data, sizeof(value));
    return be16_to_cpu(value);
}

static inline uint32_t blob_get_u32(const struct blob_attr *attr) {
    uint32_t value;
    memcpy(&value, attr->data, sizeof(value));
    return be32_to_cpu(value);
}

static inline uint64_t blob_get_u64(const struct blob_attr *attr) {
    uint64_t value;
    memcpy(&value, attr->data, sizeof(value));
    return be64_to_cpu(value);
}

static inline int8_t blob_get_int8(const struct blob_attr *attr) {
    return (int8_t)blob_get_u8(attr);
}

static inline int16_t blob_get_int16(const struct blob_attr *attr) {
    return (int16_t)blob_get_u16(attr);
}

static inline int32_t blob_get_int32(const struct blob_attr *attr) {
    return (int32_t)blob_get_u32(attr);
}

static inline int64_t blob_get_int64(const struct blob_attr *attr) {
    return (int64_t)blob_get_u64(attr);
}

static inline char *blob_get_string(const struct blob_attr *attr) {
    return (char *)blob_data(attr);
}

static inline struct blob_attr *blob_next(const struct blob_attr *attr) {
    return (struct blob_attr *)((char *)attr + blob_pad_len(attr));
}

// Whether a whole attribute with its padding lies in the rem bytes at attr.
static inline bool blob_attr_fits(const struct blob_attr *attr, size_t rem) {
    return rem >= sizeof(struct blob_attr) && blob_pad_len(attr) >= sizeof(struct blob_attr) &&
           blob_pad_len(attr) <= rem;
}

// Walk over rem bytes at first.  rem is an int or size_t of the caller's; the walk ends at the first member
// that does not fit.
#define __blob_for_each_attr(pos, first, rem)                                                \
    for (pos = (struct blob_attr *)(first); (rem) > 0 && blob_attr_fits(pos, (size_t)(rem)); \
         rem -= (__typeof__(rem))blob_pad_len(pos), pos = blob_next(pos))

#define blob_for_each_attr(pos, attr, rem)                           \
    for (rem = (__typeof__(rem))((attr) ? blob_len(attr) : 0),       \
        pos = (struct blob_attr *)((attr) ? blob_data(attr) : NULL); \
         (rem) > 0 && blob_attr_fits(pos, (size_t)(rem));            \
         rem -= (__typeof__(rem))blob_pad_len(pos), pos = blob_next(pos))

// Empties the buffer, keeping its memory, and opens the outer container.  0 or -ENOMEM.
int blob_buf_init(struct blob_buf *buf, int id);
void blob_buf_free(struct blob_buf *buf);
// Makes room for more bytes; false beyond 16 MiB or without memory.
bool blob_buf_grow(struct blob_buf *buf, int required);

// Append to buf->head: null on failure, which leaves the buffer as it was.
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);
// A ready attribute with its header; null if it is shorter than one.
struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len);

// Opens a container in buf->head and makes it the head; the result goes to blob_nest_end.  Null on failure.
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);

void blob_set_raw_len(struct blob_attr *attr, unsigned int len);
void blob_fill_pad(struct blob_attr *attr);  // zeroes the padding behind the payload
bool blob_attr_equal(const struct blob_attr *a1, const struct blob_attr *a2);
struct blob_attr *blob_memdup(struct blob_attr *attr);  // malloc'd, null without memory

bool blob_check_type(const void *ptr, unsigned int len, int type);
// Fills tb[id] for ids below max; members that fail their check are skipped, of several with one id the last
// stays.  The number of entries filled.
int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info, int max);
// The same for an attribute that came in attr_len bytes.
int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
                         const struct blob_attr_info *info, int max);

#pragma GCC visibility pop

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str) {
    return blob_put(buf, id, str, (unsigned int)strlen(str) + 1);
}

static inline struct blob_attr *blob_put_u8(struct blob_buf *buf, int id, uint8_t value) {
    return blob_put(buf, id, &value, sizeof(value));
}

static inline struct blob_attr *blob_put_u16(struct blob_buf *buf, int id, uint16_t value) {
    value = cpu_to_be16(value);
    return blob_put(buf, id, &value, sizeof(value));
}

static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t value) {
    value = cpu_to_be32(value);
    return blob_put(buf, id, &value, sizeof(value));
}

static inline struct blob_attr *blob_put_u64(struct blob_buf *buf, int id, uint64_t value) {
    value = cpu_to_be64(value);
    return blob_put(buf, id, &value, sizeof(value));
}

static inline struct blob_attr *blob_put_int8(struct blob_buf *buf, int id, int8_t value) {
    return blob_put_u8(buf, id, (uint8_t)value);
}

static inline struct blob_attr *blob_put_int16(struct blob_buf *buf, int id, int16_t value) {
    return blob_put_u16(buf, id, (uint16_t)value);
}

static inline struct blob_attr *blob_put_int32(struct blob_buf *buf, int id, int32_t value) {
    return blob_put_u32(buf, id, (uint32_t)value);
}

static inline struct blob_attr *blob_put_int64(struct blob_buf *buf, int id, int64_t value) {
    return blob_put_u64(buf, id, (uint64_t)value);
}

#ifdef __cplusplus
}
#endif
// NOLINTEND(modernize-use-nullptr,bugprone-macro-parentheses)
