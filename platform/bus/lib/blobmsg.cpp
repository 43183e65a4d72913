#include "libubox/blobmsg.h"

#include <algorithm>

namespace {

constexpr size_t kMaxName = UINT16_MAX;

// The blob type that the data of each blobmsg type is checked as.
constexpr int kDataType[__BLOBMSG_TYPE_LAST] = {
    BLOB_ATTR_UNSPEC,  // UNSPEC
    BLOB_ATTR_NESTED,  // ARRAY
    BLOB_ATTR_NESTED,  // TABLE
    BLOB_ATTR_STRING,  // STRING
    BLOB_ATTR_INT64,  BLOB_ATTR_INT32, BLOB_ATTR_INT16, BLOB_ATTR_INT8, BLOB_ATTR_DOUBLE,
};

// attr's own length is already known to lie within the bytes behind it.
bool nameIsSound(const blob_attr *attr, bool wanted) {
    if (!blob_is_extended(attr)) return !wanted;
    const size_t length = blob_len(attr);
    if (length < blobmsg_hdrlen(0)) return false;
    const size_t nameLength = blobmsg_namelen(static_cast<const blobmsg_hdr *>(blob_data(attr)));
    if (wanted && nameLength == 0) return false;
    return length >= blobmsg_hdrlen(nameLength) && blobmsg_name(attr)[nameLength] == '\0';
}

// Appends a member of that data length; null leaves the buffer as it was.
blob_attr *newMember(blob_buf *buf, int type, const char *name, size_t dataLength) {
    const size_t nameLength = name ? strlen(name) : 0;
    if (nameLength > kMaxName || dataLength > BLOB_ATTR_LEN_MASK) return nullptr;
    const size_t header = blobmsg_hdrlen(nameLength);
    blob_attr *attr = blob_new(buf, type, static_cast<int>(header + dataLength));
    if (!attr) return nullptr;
    attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
    auto *hdr = static_cast<blobmsg_hdr *>(blob_data(attr));
    hdr->namelen = cpu_to_be16(static_cast<uint16_t>(nameLength));
    if (nameLength) memcpy(hdr->name, name, nameLength);
    memset(hdr->name + nameLength, 0, header - sizeof(*hdr) - nameLength);
    return attr;
}

bool takes(const blobmsg_policy &entry, const blob_attr *attr) {
    if (entry.type == BLOBMSG_TYPE_UNSPEC) return true;
    const int type = blobmsg_type(attr);
    if (entry.type == BLOBMSG_CAST_INT64) return type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8;
    return static_cast<int>(entry.type) == type;
}

}  // namespace

bool blobmsg_check_attr_len(const blob_attr *attr, bool name, size_t len) {
    if (!attr || len < sizeof(blob_attr)) return false;
    if (blob_raw_len(attr) < sizeof(blob_attr) || blob_raw_len(attr) > len) return false;
    if (!nameIsSound(attr, name)) return false;
    const int type = blobmsg_type(attr);
    if (type > BLOBMSG_TYPE_LAST) return false;
    return blob_check_type(blobmsg_data(attr), static_cast<unsigned int>(blobmsg_data_len(attr)),
                           kDataType[type]);
}

bool blobmsg_check_attr(const blob_attr *attr, bool name) {
    return attr && blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

int blobmsg_check_array_len(const blob_attr *attr, int type, size_t len) {
    if (type > BLOBMSG_TYPE_LAST || !blobmsg_check_attr_len(attr, false, len)) return -1;
    const bool table = blobmsg_type(attr) == BLOBMSG_TYPE_TABLE;
    if (!table && blobmsg_type(attr) != BLOBMSG_TYPE_ARRAY) return -1;
    int count = 0;
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, attr, rem) {
        if (type != BLOBMSG_TYPE_UNSPEC && blobmsg_type(pos) != type) return -1;
        if (!blobmsg_check_attr_len(pos, table, rem)) return -1;
        count++;
    }
    return count;
}

int blobmsg_check_array(const blob_attr *attr, int type) {
    return attr ? blobmsg_check_array_len(attr, type, blob_raw_len(attr)) : -1;
}

int blobmsg_parse(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data,
                  unsigned int len) {
    std::fill_n(tb, policy_len, nullptr);
    if (!data || !len) return -EINVAL;
    blob_attr *attr;
    size_t rem = len;
    __blob_for_each_attr(attr, data, rem) {
        if (!blobmsg_check_attr_len(attr, false, rem)) return -1;
        if (!blob_is_extended(attr)) continue;
        const size_t nameLength = blobmsg_namelen(static_cast<const blobmsg_hdr *>(blob_data(attr)));
        if (nameLength > UINT8_MAX) continue;  // policies do not name such members
        for (int i = 0; i < policy_len; i++) {
            if (tb[i] || !policy[i].name || !takes(policy[i], attr)) continue;
            if (strlen(policy[i].name) != nameLength) continue;
            if (memcmp(policy[i].name, blobmsg_name(attr), nameLength) != 0) continue;
            tb[i] = attr;
        }
    }
    return 0;
}

int blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data, unsigned int len) {
    blob_attr *attr = newMember(buf, type, name, len);
    if (!attr) return -1;
    if (data && len) memcpy(blobmsg_data(attr), data, len);
    return 0;
}

void *blobmsg_open_nested(blob_buf *buf, const char *name, bool array) {
    if (!buf->head) return nullptr;
    const auto outer =
        static_cast<size_t>(reinterpret_cast<char *>(buf->head) - static_cast<char *>(buf->buf));
    blob_attr *attr = newMember(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0);
    if (!attr) return nullptr;
    // Until it is closed, the outer container counts only the word of the open one: blob_nest_end adds the
    // rest.
    blob_set_raw_len(buf->head, static_cast<unsigned int>(blob_pad_len(buf->head) - blob_len(attr)));
    buf->head = attr;
    return reinterpret_cast<void *>(outer + 1);
}

int blobmsg_vprintf(blob_buf *buf, const char *name, const char *format, va_list args) {
    char *text = nullptr;
    const int length = vasprintf(&text, format, args);
    if (length < 0) return -1;
    const int added = blobmsg_add_string(buf, name, text);
    free(text);
    return added == 0 ? length : -1;
}

int blobmsg_printf(blob_buf *buf, const char *name, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int length = blobmsg_vprintf(buf, name, format, args);
    va_end(args);
    return length;
}
