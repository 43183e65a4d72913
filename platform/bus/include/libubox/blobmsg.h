// Typed, named attributes on top of blob.h: the extended bit is set, the id is the type, and the payload
// starts with a name header: name length (16 bits, big-endian, without NUL), name, NUL, zeros up to a
// multiple of four. A message is the payload of an outer blob that is itself not extended.
#pragma once

// NOLINTBEGIN(modernize-use-nullptr,bugprone-macro-parentheses): also read by C; parentheses do not go around
// what is assigned to

#include <stdarg.h>

#include "blob.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC = 0,  // any bytes; JSON null is empty
    BLOBMSG_TYPE_ARRAY = 1,   // members without names
    BLOBMSG_TYPE_TABLE = 2,   // members with names
    BLOBMSG_TYPE_STRING = 3,  // with NUL
    BLOBMSG_TYPE_INT64 = 4,
    BLOBMSG_TYPE_INT32 = 5,
    BLOBMSG_TYPE_INT16 = 6,
    BLOBMSG_TYPE_INT8 = 7,
    BLOBMSG_TYPE_BOOL = 7,
    BLOBMSG_TYPE_DOUBLE = 8,  // IEEE 754, big-endian
    BLOBMSG_TYPE_LAST = 8,
    __BLOBMSG_TYPE_LAST = 9,
    BLOBMSG_CAST_INT64 = 9  // policies only: any of the four integer types
};

struct blobmsg_hdr {
    uint16_t namelen;  // network byte order
    uint8_t name[];
} __packed;

struct blobmsg_policy {
    const char *name;        // null: the entry is ignored
    enum blobmsg_type type;  // UNSPEC: any
};

static inline size_t blobmsg_hdrlen(size_t namelen) {
    return (sizeof(struct blobmsg_hdr) + namelen + 1 + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline size_t blobmsg_namelen(const struct blobmsg_hdr *hdr) {
    return be16_to_cpu(hdr->namelen);
}

static inline int blobmsg_type(const struct blob_attr *attr) {
    return (int)blob_id(attr);
}

// Only of extended attributes.
static inline const char *blobmsg_name(const struct blob_attr *attr) {
    return (const char *)((const struct blobmsg_hdr *)blob_data(attr))->name;
}

static inline void *blobmsg_data(const struct blob_attr *attr) {
    if (!attr) return NULL;
    char *data = (char *)blob_data(attr);
    if (blob_is_extended(attr)) data += blobmsg_hdrlen(blobmsg_namelen((const struct blobmsg_hdr *)data));
    return data;
}

// 0 for null and where the name header is longer than the attribute.
static inline size_t blobmsg_data_len(const struct blob_attr *attr) {
    if (!attr) return 0;
    const size_t header = (size_t)((char *)blobmsg_data(attr) - (char *)blob_data(attr));
    return blob_len(attr) < header ? 0 : blob_len(attr) - header;
}

static inline size_t blobmsg_len(const struct blob_attr *attr) {
    return blobmsg_data_len(attr);
}

static inline uint8_t blobmsg_get_u8(struct blob_attr *attr) {
    return *(uint8_t *)blobmsg_data(attr);
}

static inline bool blobmsg_get_bool(struct blob_attr *attr) {
    return blobmsg_get_u8(attr) != 0;
}

static inline uint16_t blobmsg_get_u16(struct blob_attr *attr) {
    uint16_t value;
    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be16_to_cpu(value);
}

static inline uint32_t blobmsg_get_u32(struct blob_attr *attr) {
    uint32_t value;
    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be32_to_cpu(value);
}

static inline uint64_t blobmsg_get_u64(struct blob_attr *attr) {
    uint64_t value;
    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be64_to_cpu(value);
}

static inline double blobmsg_get_double(struct blob_attr *attr) {
    const uint64_t bits = blobmsg_get_u64(attr);
    double value;
    memcpy(&value, &bits, sizeof(value));
    return value;
}

static inline char *blobmsg_get_string(struct blob_attr *attr) {
    return (char *)blobmsg_data(attr);
}

// Any of the integer types, zero-extended; 0 for another type.
static inline uint64_t blobmsg_cast_u64(struct blob_attr *attr) {
    switch (blobmsg_type(attr)) {
        case BLOBMSG_TYPE_INT64:
            return blobmsg_get_u64(attr);
        case BLOBMSG_TYPE_INT32:
            return blobmsg_get_u32(attr);
        case BLOBMSG_TYPE_INT16:
            return blobmsg_get_u16(attr);
        case BLOBMSG_TYPE_INT8:
            return blobmsg_get_u8(attr);
        default:
            return 0;
    }
}

// Any of the integer types, sign-extended; 0 for another type.
static inline int64_t blobmsg_cast_s64(struct blob_attr *attr) {
    switch (blobmsg_type(attr)) {
        case BLOBMSG_TYPE_INT64:
            return (int64_t)blobmsg_get_u64(attr);
        case BLOBMSG_TYPE_INT32:
            return (int32_t)blobmsg_get_u32(attr);
        case BLOBMSG_TYPE_INT16:
            return (int16_t)blobmsg_get_u16(attr);
        case BLOBMSG_TYPE_INT8:
            return (int8_t)blobmsg_get_u8(attr);
        default:
            return 0;
    }
}

// Checks of one attribute from outside: lengths, name and data of its type, not the members of a container.
// name: an empty name or none at all fails.  The _len forms know how many bytes lie behind attr.
bool blobmsg_check_attr(const struct blob_attr *attr, bool name);
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len);
// Number of members, all of that type (UNSPEC: any) and sound; -1 otherwise or if it is no container.
int blobmsg_check_array(const struct blob_attr *attr, int type);
int blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t len);

static inline bool blobmsg_check_attr_list(const struct blob_attr *attr, int type) {
    return blobmsg_check_array(attr, type) >= 0;
}

static inline bool blobmsg_check_attr_list_len(const struct blob_attr *attr, int type, size_t len) {
    return blobmsg_check_array_len(attr, type, len) >= 0;
}

// Fills tb[i] with the first member that fits policy[i].  -EINVAL for an empty message, -1 at the first
// broken member (what was found before stays), else 0.
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
                  unsigned int len);

static inline int blobmsg_parse_attr(const struct blobmsg_policy *policy, int policy_len,
                                     struct blob_attr **tb, struct blob_attr *attr) {
    return blobmsg_parse(policy, policy_len, tb, blobmsg_data(attr), (unsigned int)blobmsg_data_len(attr));
}

// Append one member: 0, or -1 and the buffer as it was.  A null name is the empty name.
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data, unsigned int len);
// Open a container in buf->head: the cookie for blob_nest_end, null on failure.
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);
// The length of the text, or -1.
int blobmsg_vprintf(struct blob_buf *buf, const char *name, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));
int blobmsg_printf(struct blob_buf *buf, const char *name, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

#pragma GCC visibility pop

static inline int blobmsg_add_double(struct blob_buf *buf, const char *name, double value) {
    uint64_t bits;
    memcpy(&bits, &value, sizeof(bits));
    bits = cpu_to_be64(bits);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, sizeof(bits));
}

static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t value) {
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &value, sizeof(value));
}

static inline int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t value) {
    value = cpu_to_be16(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &value, sizeof(value));
}

static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t value) {
    value = cpu_to_be32(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &value, sizeof(value));
}

static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t value) {
    value = cpu_to_be64(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &value, sizeof(value));
}

static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string) {
    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string, (unsigned int)strlen(string) + 1);
}

// A copy under the same name.
static inline int blobmsg_add_blob(struct blob_buf *buf, struct blob_attr *attr) {
    return blobmsg_add_field(buf, blobmsg_type(attr), blob_is_extended(attr) ? blobmsg_name(attr) : NULL,
                             blobmsg_data(attr), (unsigned int)blobmsg_data_len(attr));
}

static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name) {
    return blobmsg_open_nested(buf, name, true);
}

static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name) {
    return blobmsg_open_nested(buf, name, false);
}

static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie) {
    blob_nest_end(buf, cookie);
}

static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie) {
    blob_nest_end(buf, cookie);
}

static inline int blobmsg_buf_init(struct blob_buf *buf) {
    return blob_buf_init(buf, BLOBMSG_TYPE_TABLE);
}

#ifdef __cplusplus
}
#endif

// Walk the members of an array, a table or an outer message; rem is an int or size_t of the caller's.
#define blobmsg_for_each_attr(pos, attr, rem)                                                         \
    for (rem = (__typeof__(rem))blobmsg_data_len(attr), pos = (struct blob_attr *)blobmsg_data(attr); \
         (rem) > 0 && blob_attr_fits(pos, (size_t)(rem));                                             \
         rem -= (__typeof__(rem))blob_pad_len(pos), pos = blob_next(pos))

#define __blobmsg_for_each_attr(pos, attr, rem)                                                         \
    for (pos = (struct blob_attr *)blobmsg_data(attr); (rem) > 0 && blob_attr_fits(pos, (size_t)(rem)); \
         rem -= (__typeof__(rem))blob_pad_len(pos), pos = blob_next(pos))
// NOLINTEND(modernize-use-nullptr,bugprone-macro-parentheses)
