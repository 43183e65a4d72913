// Bytes exchanged with other implementations, in bus-vectors.json: each is built and taken apart.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

#include "libubox/blobmsg_json.h"
#include "libubus.h"
#include "message_attrs.h"

namespace {

struct Buffer {
    Buffer() { blob_buf_init(&buf, 0); }
    ~Buffer() { blob_buf_free(&buf); }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    blob_buf *operator&() { return &buf; }
    blob_buf *operator->() { return &buf; }
    blob_buf buf{};
};

std::string bytesOf(const blob_attr *attr) {
    return {reinterpret_cast<const char *>(attr), blob_raw_len(attr)};
}

std::string toHex(std::string_view bytes) {
    std::string hex;
    char digits[3];
    for (const char byte : bytes) {
        snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned int>(static_cast<unsigned char>(byte)));
        hex += digits;
    }
    return hex;
}

std::string fromHex(std::string_view hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
    return bytes;
}

std::string frame(uint8_t type, uint16_t seq, uint32_t peer, std::string_view outerBlob) {
    const ubus_msghdr header{0, type, cpu_to_be16(seq), cpu_to_be32(peer)};
    return std::string(reinterpret_cast<const char *>(&header), sizeof(header)) + std::string(outerBlob);
}

const std::map<std::string, enum blobmsg_type> kTypes = {
    {"unspec", BLOBMSG_TYPE_UNSPEC}, {"any", BLOBMSG_TYPE_UNSPEC},       {"array", BLOBMSG_TYPE_ARRAY},
    {"table", BLOBMSG_TYPE_TABLE},   {"string", BLOBMSG_TYPE_STRING},    {"u64", BLOBMSG_TYPE_INT64},
    {"u32", BLOBMSG_TYPE_INT32},     {"u16", BLOBMSG_TYPE_INT16},        {"u8", BLOBMSG_TYPE_INT8},
    {"double", BLOBMSG_TYPE_DOUBLE}, {"cast_int64", BLOBMSG_CAST_INT64},
};

const cJSON *vectors(const char *kind) {
    static const std::unique_ptr<cJSON, void (*)(cJSON *)> all = [] {
        std::ifstream in(BUS_VECTORS);
        std::stringstream text;
        text << in.rdbuf();
        return std::unique_ptr<cJSON, void (*)(cJSON *)>(cJSON_Parse(text.str().c_str()), cJSON_Delete);
    }();
    const cJSON *list = cJSON_GetObjectItem(all.get(), kind);
    EXPECT_GT(cJSON_GetArraySize(list), 0) << kind;
    return list;
}

std::string text(const cJSON *object, const char *key) {
    const char *value = cJSON_GetStringValue(cJSON_GetObjectItem(object, key));
    return value ? value : "(absent)";
}

// The parser keeps numbers as doubles: the largest one rounds up to what 64 bits cannot hold.
uint64_t number(const cJSON *value) {
    const double real = cJSON_GetNumberValue(value);
    return real >= 18446744073709551615.0 ? UINT64_MAX : static_cast<uint64_t>(real);
}

std::string format(char *allocated) {
    std::string copy = allocated ? allocated : "(null)";
    free(allocated);
    return copy;
}

void add(blob_buf *buf, const cJSON *members) {
    const cJSON *member;
    cJSON_ArrayForEach(member, members) {
        const enum blobmsg_type type = kTypes.at(cJSON_GetStringValue(cJSON_GetArrayItem(member, 0)));
        const char *name = cJSON_GetStringValue(cJSON_GetArrayItem(member, 1));
        const cJSON *value = cJSON_GetArrayItem(member, 2);
        switch (static_cast<int>(type)) {
            case BLOBMSG_TYPE_INT8:
                blobmsg_add_u8(buf, name, static_cast<uint8_t>(number(value)));
                break;
            case BLOBMSG_TYPE_INT16:
                blobmsg_add_u16(buf, name, static_cast<uint16_t>(number(value)));
                break;
            case BLOBMSG_TYPE_INT32:
                blobmsg_add_u32(buf, name, static_cast<uint32_t>(number(value)));
                break;
            case BLOBMSG_TYPE_INT64:
                blobmsg_add_u64(buf, name, number(value));
                break;
            case BLOBMSG_TYPE_DOUBLE:
                blobmsg_add_double(buf, name, cJSON_GetNumberValue(value));
                break;
            case BLOBMSG_TYPE_STRING:
                blobmsg_add_string(buf, name, cJSON_GetStringValue(value));
                break;
            case BLOBMSG_TYPE_UNSPEC: {
                const std::string bytes = fromHex(cJSON_GetStringValue(value));
                blobmsg_add_field(buf, type, name, bytes.data(), static_cast<unsigned int>(bytes.size()));
                break;
            }
            default: {
                void *cookie = blobmsg_open_nested(buf, name, type == BLOBMSG_TYPE_ARRAY);
                add(buf, value);
                blob_nest_end(buf, cookie);
            }
        }
    }
}

void expectMembers(blob_attr *container, const cJSON *members);

void expectValue(blob_attr *attr, const cJSON *value) {
    switch (blobmsg_type(attr)) {
        case BLOBMSG_TYPE_DOUBLE:
            EXPECT_EQ(blobmsg_get_double(attr), cJSON_GetNumberValue(value));
            break;
        case BLOBMSG_TYPE_STRING:
            EXPECT_STREQ(blobmsg_get_string(attr), cJSON_GetStringValue(value));
            break;
        case BLOBMSG_TYPE_UNSPEC:
            EXPECT_EQ(toHex({static_cast<char *>(blobmsg_data(attr)), blobmsg_data_len(attr)}),
                      cJSON_GetStringValue(value));
            break;
        case BLOBMSG_TYPE_ARRAY:
        case BLOBMSG_TYPE_TABLE:
            expectMembers(attr, value);
            break;
        default:
            EXPECT_EQ(blobmsg_cast_u64(attr), number(value));
    }
}

void expectMembers(blob_attr *container, const cJSON *members) {
    const cJSON *member = members->child;
    blob_attr *attr;
    int rem;
    blobmsg_for_each_attr(attr, container, rem) {
        ASSERT_TRUE(member);
        EXPECT_TRUE(blobmsg_check_attr_len(attr, false, static_cast<size_t>(rem)));
        EXPECT_EQ(blobmsg_type(attr), kTypes.at(cJSON_GetStringValue(cJSON_GetArrayItem(member, 0))));
        EXPECT_STREQ(blobmsg_name(attr), cJSON_GetStringValue(cJSON_GetArrayItem(member, 1)));
        expectValue(attr, cJSON_GetArrayItem(member, 2));
        member = member->next;
    }
    EXPECT_FALSE(member);
    EXPECT_EQ(rem, 0);
}

}  // namespace

TEST(BusVectors, MessagesAreBuiltReadAndPrinted) {
    const cJSON *vector;
    cJSON_ArrayForEach(vector, vectors("blobmsg")) {
        SCOPED_TRACE(text(vector, "name"));
        const cJSON *members = cJSON_GetObjectItem(vector, "members");
        Buffer buffer;
        add(&buffer, members);
        EXPECT_EQ(toHex(bytesOf(buffer->head)), text(vector, "hex"));

        std::string bytes = fromHex(text(vector, "hex"));
        auto *message = reinterpret_cast<blob_attr *>(bytes.data());
        expectMembers(message, members);
        EXPECT_EQ(format(blobmsg_format_json(message, true)), text(vector, "compact"));
        EXPECT_EQ(format(blobmsg_format_json_indent(message, true, 0)), text(vector, "indented"));
    }
}

TEST(BusVectors, JsonTextBecomesMessages) {
    const cJSON *vector;
    cJSON_ArrayForEach(vector, vectors("json_input")) {
        SCOPED_TRACE(text(vector, "name"));
        Buffer buffer;
        const bool accepted = cJSON_IsTrue(cJSON_GetObjectItem(vector, "accepted"));
        EXPECT_EQ(blobmsg_add_json_from_string(&buffer, text(vector, "text").c_str()), accepted);
        if (!accepted) continue;
        EXPECT_EQ(toHex(bytesOf(buffer->head)), text(vector, "hex"));
        EXPECT_EQ(format(blobmsg_format_json(buffer->head, true)), text(vector, "compact"));
    }
}

TEST(BusVectors, PoliciesChooseMembers) {
    const cJSON *vector;
    cJSON_ArrayForEach(vector, vectors("parse")) {
        SCOPED_TRACE(text(vector, "name"));
        std::vector<blobmsg_policy> policy;
        const cJSON *entry;
        cJSON_ArrayForEach(entry, cJSON_GetObjectItem(vector, "policy")) {
            policy.push_back({cJSON_GetStringValue(cJSON_GetArrayItem(entry, 0)),
                              kTypes.at(cJSON_GetStringValue(cJSON_GetArrayItem(entry, 1)))});
        }
        std::string bytes = fromHex(text(vector, "hex"));
        std::vector<blob_attr *> found(policy.size());
        EXPECT_EQ(blobmsg_parse(policy.data(), static_cast<int>(policy.size()), found.data(), bytes.data(),
                                static_cast<unsigned int>(bytes.size())),
                  static_cast<int>(cJSON_GetNumberValue(cJSON_GetObjectItem(vector, "return"))));
        for (size_t i = 0; i < found.size(); i++) {
            const cJSON *want =
                cJSON_GetObjectItem(cJSON_GetObjectItem(vector, "found"), std::to_string(i).c_str());
            ASSERT_EQ(found[i] != nullptr, want != nullptr) << i;
            if (!want) continue;
            EXPECT_EQ(reinterpret_cast<char *>(found[i]) - bytes.data(),
                      static_cast<ptrdiff_t>(number(cJSON_GetArrayItem(want, 0))));
            EXPECT_EQ(format(blobmsg_format_json_value(found[i])),
                      cJSON_GetStringValue(cJSON_GetArrayItem(want, 1)));
        }
    }
}

namespace {

void putAttribute(blob_buf *buf, const cJSON *attribute) {
    const int id = static_cast<int>(number(cJSON_GetObjectItem(attribute, "id")));
    const cJSON *value = cJSON_GetObjectItem(attribute, "value");
    if (cJSON_IsString(value)) {
        blob_put_string(buf, id, cJSON_GetStringValue(value));
    } else if (value) {
        blob_put_u32(buf, id, static_cast<uint32_t>(number(value)));
    } else {
        void *cookie = blob_nest_start(buf, id);
        add(buf, cJSON_GetObjectItem(attribute, "data"));
        blob_nest_end(buf, cookie);
    }
}

}  // namespace

TEST(BusVectors, WireMessagesAreBuiltAndRead) {
    const cJSON *vector;
    cJSON_ArrayForEach(vector, vectors("wire")) {
        SCOPED_TRACE(text(vector, "name"));
        const cJSON *header = cJSON_GetObjectItem(vector, "header");
        const auto type = static_cast<uint8_t>(number(cJSON_GetObjectItem(header, "type")));
        const auto seq = static_cast<uint16_t>(number(cJSON_GetObjectItem(header, "seq")));
        const auto peer = static_cast<uint32_t>(number(cJSON_GetObjectItem(header, "peer")));
        Buffer buffer;
        const cJSON *attribute;
        cJSON_ArrayForEach(attribute, cJSON_GetObjectItem(vector, "attributes"))
            putAttribute(&buffer, attribute);
        EXPECT_EQ(toHex(frame(type, seq, peer, bytesOf(buffer->head))), text(vector, "hex"));

        std::string bytes = fromHex(text(vector, "hex")).substr(sizeof(ubus_msghdr));
        bus::MessageAttrs attrs;
        bus::parseMessage(reinterpret_cast<blob_attr *>(bytes.data()), attrs);
        cJSON_ArrayForEach(attribute, cJSON_GetObjectItem(vector, "attributes")) {
            blob_attr *&found = attrs[number(cJSON_GetObjectItem(attribute, "id"))];
            ASSERT_TRUE(found) << text(attribute, "name");
            const cJSON *value = cJSON_GetObjectItem(attribute, "value");
            if (cJSON_IsString(value))
                EXPECT_STREQ(blob_get_string(found), cJSON_GetStringValue(value));
            else if (value)
                EXPECT_EQ(blob_get_u32(found), number(value));
            else
                expectMembers(found, cJSON_GetObjectItem(attribute, "data"));
            found = nullptr;
        }
        for (const blob_attr *rest : attrs) EXPECT_FALSE(rest);
    }
}
