// Messages as JSON text and back (RFC 8259).
#pragma once

// NOLINTBEGIN(modernize-use-nullptr): also read by C

#include "blobmsg.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Asked for each element before its default form; a non-null text replaces the value, also a whole container.
typedef const char *(*blobmsg_json_format_t)(void *priv, struct blob_attr *attr);

// list: the members of attr in braces (the form for messages); else attr itself with its name.
// indent: starting level of the indented form, negative for compact.  Members that fail their check print
// nothing.  The result is malloc'd and the caller's; null without memory.
char *blobmsg_format_json_with_cb(struct blob_attr *attr, bool list, blobmsg_json_format_t cb, void *priv,
                                  int indent);
// The value of attr without its name.
char *blobmsg_format_json_value_with_cb(struct blob_attr *attr, blobmsg_json_format_t cb, void *priv,
                                        int indent);

static inline char *blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent) {
    return blobmsg_format_json_with_cb(attr, list, NULL, NULL, indent);
}

static inline char *blobmsg_format_json(struct blob_attr *attr, bool list) {
    return blobmsg_format_json_with_cb(attr, list, NULL, NULL, -1);
}

static inline char *blobmsg_format_json_value(struct blob_attr *attr) {
    return blobmsg_format_json_value_with_cb(attr, NULL, NULL, -1);
}

static inline char *blobmsg_format_json_value_indent(struct blob_attr *attr, int indent) {
    return blobmsg_format_json_value_with_cb(attr, NULL, NULL, indent);
}

// Appends the members of the object in str; strict JSON, at most 32 levels.  False on a syntax error or
// another top value, with nothing appended, and when the buffer cannot grow.
bool blobmsg_add_json_from_string(struct blob_buf *buf, const char *str);
bool blobmsg_add_json_from_file(struct blob_buf *buf, const char *file);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
// NOLINTEND(modernize-use-nullptr)
