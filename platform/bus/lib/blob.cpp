#include "libubox/blob.h"

#include <algorithm>

namespace {

constexpr size_t kHeader = sizeof(blob_attr);
constexpr size_t kMaxLength = BLOB_ATTR_LEN_MASK;
constexpr size_t kGrowStep = 256;

size_t padded(size_t length) {
    return (length + BLOB_ATTR_ALIGN - 1) & ~static_cast<size_t>(BLOB_ATTR_ALIGN - 1);
}

size_t offsetOf(const blob_buf *buf, const blob_attr *attr) {
    return static_cast<size_t>(reinterpret_cast<const char *>(attr) - static_cast<const char *>(buf->buf));
}

blob_attr *attrAt(const blob_buf *buf, size_t offset) {
    return reinterpret_cast<blob_attr *>(static_cast<char *>(buf->buf) + offset);
}

bool growBySteps(blob_buf *buf, int required) {
    const size_t delta = (static_cast<size_t>(required) / kGrowStep + 1) * kGrowStep;
    const auto old = static_cast<size_t>(buf->buflen);
    auto *memory = static_cast<char *>(realloc(buf->buf, old + delta));
    if (!memory) return false;
    memset(memory + old, 0, delta);
    buf->buf = memory;
    buf->buflen = static_cast<int>(old + delta);
    return true;
}

// Room for an attribute of that raw length behind the head.  The limit is tested on the end of the data, not
// on the buffer's size, which is rounded up: no container may get a length that its word cannot hold.
blob_attr *appendRoom(blob_buf *buf, size_t rawLength) {
    if (!buf->head || rawLength > kMaxLength) return nullptr;
    const size_t offset = offsetOf(buf, buf->head) + blob_pad_len(buf->head);
    const size_t end = offset + padded(rawLength);
    if (end > kMaxLength) return nullptr;
    const auto have = static_cast<size_t>(buf->buflen);
    if (end > have && !blob_buf_grow(buf, static_cast<int>(end - have))) return nullptr;
    return attrAt(buf, offset);
}

void setWord(blob_attr *attr, unsigned int id, size_t rawLength) {
    const auto word = (id << BLOB_ATTR_ID_SHIFT & BLOB_ATTR_ID_MASK) | static_cast<uint32_t>(rawLength);
    attr->id_len = cpu_to_be32(word);
}

}  // namespace

int blob_buf_init(blob_buf *buf, int id) {
    if (!buf->grow) buf->grow = growBySteps;
    buf->head = static_cast<blob_attr *>(buf->buf);
    if (static_cast<size_t>(buf->buflen) < kHeader && !blob_buf_grow(buf, kHeader)) return -ENOMEM;
    buf->head = static_cast<blob_attr *>(buf->buf);
    setWord(buf->head, static_cast<unsigned int>(id), kHeader);
    return 0;
}

void blob_buf_free(blob_buf *buf) {
    free(buf->buf);
    buf->head = nullptr;
    buf->buf = nullptr;
    buf->buflen = 0;
}

bool blob_buf_grow(blob_buf *buf, int required) {
    if (required < 0 || !buf->grow) return false;
    if (static_cast<size_t>(buf->buflen) + static_cast<size_t>(required) > kMaxLength) return false;
    const size_t head = buf->head ? offsetOf(buf, buf->head) : 0;
    if (!buf->grow(buf, required)) return false;
    buf->head = attrAt(buf, head);
    return true;
}

blob_attr *blob_new(blob_buf *buf, int id, int payload) {
    if (payload < 0) return nullptr;
    const size_t rawLength = kHeader + static_cast<size_t>(payload);
    blob_attr *attr = appendRoom(buf, rawLength);
    if (!attr) return nullptr;
    setWord(attr, static_cast<unsigned int>(id), rawLength);
    blob_fill_pad(attr);
    blob_set_raw_len(buf->head, static_cast<unsigned int>(blob_pad_len(buf->head) + padded(rawLength)));
    return attr;
}

blob_attr *blob_put(blob_buf *buf, int id, const void *ptr, unsigned int len) {
    if (len > kMaxLength) return nullptr;
    blob_attr *attr = blob_new(buf, id, static_cast<int>(len));
    if (attr && ptr && len) memcpy(blob_data(attr), ptr, len);
    return attr;
}

blob_attr *blob_put_raw(blob_buf *buf, const void *ptr, unsigned int len) {
    if (len < kHeader || len > kMaxLength) return nullptr;
    blob_attr *attr = blob_new(buf, 0, static_cast<int>(len - kHeader));
    if (!attr) return nullptr;
    memcpy(attr, ptr, len);
    // The word comes with the bytes; a length that disagrees with them would derail every later walk.
    if (blob_raw_len(attr) != len) blob_set_raw_len(attr, len);
    blob_fill_pad(attr);
    return attr;
}

void *blob_nest_start(blob_buf *buf, int id) {
    if (!buf->head) return nullptr;
    const size_t outer = offsetOf(buf, buf->head);
    blob_attr *inner = blob_new(buf, id, 0);
    if (!inner) return nullptr;
    buf->head = inner;
    // An offset survives growth; plus one, so that the outermost container is no null cookie.
    return reinterpret_cast<void *>(outer + 1);
}

void blob_nest_end(blob_buf *buf, void *cookie) {
    if (!cookie) return;
    blob_attr *outer = attrAt(buf, reinterpret_cast<size_t>(cookie) - 1);
    blob_set_raw_len(outer, static_cast<unsigned int>(blob_pad_len(outer) + padded(blob_len(buf->head))));
    buf->head = outer;
}

void blob_set_raw_len(blob_attr *attr, unsigned int len) {
    const uint32_t rest = be32_to_cpu(attr->id_len) & ~static_cast<uint32_t>(BLOB_ATTR_LEN_MASK);
    attr->id_len = cpu_to_be32(rest | (len & BLOB_ATTR_LEN_MASK));
}

void blob_fill_pad(blob_attr *attr) {
    const size_t length = blob_raw_len(attr);
    memset(reinterpret_cast<char *>(attr) + length, 0, padded(length) - length);
}

bool blob_attr_equal(const blob_attr *a1, const blob_attr *a2) {
    if (!a1 || !a2) return a1 == a2;
    return blob_pad_len(a1) == blob_pad_len(a2) && memcmp(a1, a2, blob_pad_len(a1)) == 0;
}

blob_attr *blob_memdup(blob_attr *attr) {
    const size_t length = blob_pad_len(attr);
    if (length < kHeader) return nullptr;
    auto *copy = static_cast<blob_attr *>(malloc(length));
    if (copy) memcpy(copy, attr, length);
    return copy;
}

bool blob_check_type(const void *ptr, unsigned int len, int type) {
    switch (type) {
        case BLOB_ATTR_UNSPEC:
        case BLOB_ATTR_NESTED:
        case BLOB_ATTR_BINARY:
            return true;
        case BLOB_ATTR_STRING:
            return len >= 1 && static_cast<const char *>(ptr)[len - 1] == '\0';
        case BLOB_ATTR_INT8:
            return len == 1;
        case BLOB_ATTR_INT16:
            return len == 2;
        case BLOB_ATTR_INT32:
            return len == 4;
        case BLOB_ATTR_INT64:
            return len == 8;
        case BLOB_ATTR_DOUBLE:
            return len >= 8;
        default:
            return false;
    }
}

int blob_parse(blob_attr *attr, blob_attr **data, const blob_attr_info *info, int max) {
    std::fill_n(data, max, nullptr);
    int found = 0;
    blob_attr *pos;
    size_t rem;
    blob_for_each_attr(pos, attr, rem) {
        const unsigned int id = blob_id(pos);
        if (id >= static_cast<unsigned int>(max)) continue;
        if (info) {
            const blob_attr_info &want = info[id];
            const size_t length = blob_raw_len(pos);
            if (!blob_check_type(blob_data(pos), static_cast<unsigned int>(blob_len(pos)),
                                 static_cast<int>(want.type)))
                continue;
            if ((want.minlen && length < want.minlen) || (want.maxlen && length > want.maxlen)) continue;
            if (want.validate && !want.validate(&want, pos)) continue;
        }
        if (!data[id]) found++;
        data[id] = pos;
    }
    return found;
}

int blob_parse_untrusted(blob_attr *attr, size_t attr_len, blob_attr **data, const blob_attr_info *info,
                         int max) {
    std::fill_n(data, max, nullptr);
    if (!attr || attr_len < kHeader || blob_raw_len(attr) < kHeader || blob_raw_len(attr) > attr_len)
        return 0;
    return blob_parse(attr, data, info, max);
}
