#include <inttypes.h>
#include <stdarg.h>

#include "libubox/blobmsg_json.h"

namespace {

constexpr int kMaxTabs = 16;

struct Text {
    char *bytes = nullptr;
    size_t length = 0;
    size_t room = 0;
    bool failed = false;
};

// A container that is being written.
struct Level {
    blob_attr *next;
    size_t left;  // bytes at next
    bool array;
    bool any;  // a member has been written
};

struct Format {
    Text out;
    Level *levels = nullptr;  // outside data decides how deep, so not the call stack
    size_t depth = 0;
    size_t levelRoom = 0;
    blobmsg_json_format_t cb = nullptr;
    void *priv = nullptr;
    int indent = -1;  // tabs of the innermost open container's bracket; negative = compact
};

bool reserve(Text &out, size_t more) {
    if (out.failed) return false;
    if (out.room - out.length > more) return true;
    const size_t room = (out.length + more + 1) * 2 + 64;
    auto *bytes = static_cast<char *>(realloc(out.bytes, room));
    if (!bytes) {
        out.failed = true;
        return false;
    }
    out.bytes = bytes;
    out.room = room;
    return true;
}

void put(Text &out, const char *bytes, size_t length) {
    if (!reserve(out, length)) return;
    memcpy(out.bytes + out.length, bytes, length);
    out.length += length;
}

void put(Text &out, const char *text) {
    put(out, text, strlen(text));
}

void putString(Text &out, const char *text) {
    put(out, "\"", 1);
    for (const char *pos = text; *pos; pos++) {
        const auto byte = static_cast<unsigned char>(*pos);
        char escape[8] = {'\\', 0};
        switch (byte) {
            case '\b':
                escape[1] = 'b';
                break;
            case '\n':
                escape[1] = 'n';
                break;
            case '\t':
                escape[1] = 't';
                break;
            case '\r':
                escape[1] = 'r';
                break;
            case '"':
            case '\\':
                escape[1] = *pos;
                break;
            default:
                if (byte >= ' ') {
                    put(out, pos, 1);
                    continue;
                }
                snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned int>(byte));
        }
        put(out, escape);
    }
    put(out, "\"", 1);
}

// Between bracket and member, comma and member, member and bracket.
void putBreak(Format &format) {
    if (format.indent < 0) return;
    static const char kTabs[kMaxTabs + 1] = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
    put(format.out, "\n", 1);
    put(format.out, kTabs, static_cast<size_t>(format.indent < kMaxTabs ? format.indent : kMaxTabs));
}

void open(Format &format, blob_attr *first, size_t length, bool array) {
    if (format.depth == format.levelRoom) {
        const size_t room = format.levelRoom * 2 + 16;
        auto *levels = static_cast<Level *>(realloc(format.levels, room * sizeof(Level)));
        if (!levels) {
            format.out.failed = true;
            return;
        }
        format.levels = levels;
        format.levelRoom = room;
    }
    format.levels[format.depth++] = {first, length, array, false};
    put(format.out, array ? "[" : "{", 1);
    if (format.indent >= 0) format.indent++;
    putBreak(format);
}

void close(Format &format) {
    const bool array = format.levels[--format.depth].array;
    if (format.indent >= 0) format.indent--;
    putBreak(format);
    put(format.out, array ? "]" : "}", 1);
}

void putScalar(Text &out, blob_attr *attr) {
    // Room for the largest double: 309 digits, sign, point and six decimals.
    char number[336] = "null";
    switch (blobmsg_type(attr)) {
        case BLOBMSG_TYPE_STRING:
            putString(out, blobmsg_get_string(attr));
            return;
        case BLOBMSG_TYPE_BOOL:
            put(out, blobmsg_get_bool(attr) ? "true" : "false");
            return;
        case BLOBMSG_TYPE_INT16:
        case BLOBMSG_TYPE_INT32:
        case BLOBMSG_TYPE_INT64:
            snprintf(number, sizeof(number), "%" PRId64, blobmsg_cast_s64(attr));
            break;
        case BLOBMSG_TYPE_DOUBLE:
            snprintf(number, sizeof(number), "%f", blobmsg_get_double(attr));
            break;
        default:
            break;  // UNSPEC
    }
    put(out, number);
}

// left: bytes at attr.  A container is only opened here, its members follow in run().
void putElement(Format &format, blob_attr *attr, size_t left, bool withName) {
    if (!blobmsg_check_attr_len(attr, false, left)) return;
    if (withName && blob_is_extended(attr) && *blobmsg_name(attr)) {
        putString(format.out, blobmsg_name(attr));
        put(format.out, format.indent < 0 ? ":" : ": ");
    }
    const char *text = format.cb ? format.cb(format.priv, attr) : nullptr;
    const int type = blobmsg_type(attr);
    if (text)
        put(format.out, text);
    else if (type == BLOBMSG_TYPE_ARRAY || type == BLOBMSG_TYPE_TABLE)
        open(format, static_cast<blob_attr *>(blobmsg_data(attr)), blobmsg_data_len(attr),
             type == BLOBMSG_TYPE_ARRAY);
    else
        putScalar(format.out, attr);
}

// Writes what the open containers still hold, and gives the finished text.
char *run(Format &format) {
    while (format.depth && !format.out.failed) {
        Level &level = format.levels[format.depth - 1];
        if (!level.left || !blob_attr_fits(level.next, level.left)) {
            close(format);
            continue;
        }
        blob_attr *attr = level.next;
        const size_t left = level.left;
        level.next = blob_next(attr);
        level.left -= blob_pad_len(attr);
        if (level.any) {
            put(format.out, ",", 1);
            putBreak(format);
        }
        level.any = true;
        putElement(format, attr, left, !level.array);
    }
    free(format.levels);
    if (reserve(format.out, 0)) {
        format.out.bytes[format.out.length] = '\0';
        return format.out.bytes;
    }
    free(format.out.bytes);
    return nullptr;
}

}  // namespace

char *blobmsg_format_json_with_cb(blob_attr *attr, bool list, blobmsg_json_format_t cb, void *priv,
                                  int indent) {
    Format format;
    format.cb = cb;
    format.priv = priv;
    format.indent = indent;
    if (list) {
        const bool array = attr && blob_is_extended(attr) && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY;
        open(format, static_cast<blob_attr *>(blobmsg_data(attr)), blobmsg_data_len(attr), array);
    } else if (attr) {
        putElement(format, attr, blob_raw_len(attr), true);
    }
    return run(format);
}

char *blobmsg_format_json_value_with_cb(blob_attr *attr, blobmsg_json_format_t cb, void *priv, int indent) {
    Format format;
    format.cb = cb;
    format.priv = priv;
    format.indent = indent;
    if (attr) putElement(format, attr, blob_raw_len(attr), false);
    return run(format);
}
