// Attributes, messages and their JSON text: what the exchanged vectors do not show.
#include <random>

#include "libubox/blobmsg_json.h"
#include "support.h"

using namespace bustest;

namespace {

std::string indented(blob_attr *message, int level) {
    char *text = blobmsg_format_json_indent(message, true, level);
    std::string copy = text;
    free(text);
    return copy;
}

bool addJson(const std::string &text) {
    Buffer buffer;
    const bool added = blobmsg_add_json_from_string(&buffer, text.c_str());
    if (!added) {
        EXPECT_EQ(blob_len(buffer->head), 0U) << text;
    }
    return added;
}

}  // namespace

TEST(BusBlob, BufferIsReusedAndFreed) {
    blob_buf buf{};
    ASSERT_EQ(blob_buf_init(&buf, 5), 0);
    EXPECT_EQ(buf.buflen, 256);
    EXPECT_EQ(blob_id(buf.head), 5U);
    EXPECT_EQ(blob_raw_len(buf.head), 4U);
    memset(blob_data(blob_put(&buf, 1, nullptr, 7)), 0xff, 7);
    blob_buf_init(&buf, 0);
    blob_put(&buf, 1, "abc", 3);  // over the old bytes
    EXPECT_EQ(toHex(bytesOf(buf.head)), "0000000c0100000761626300");
    blob_buf_free(&buf);
    EXPECT_FALSE(buf.buf || buf.head || buf.buflen);
    EXPECT_EQ(blob_put(&buf, 1, nullptr, 0), nullptr);
}

TEST(BusBlob, FailedAppendLeavesTheBufferAsItWas) {
    Buffer buffer;
    blobmsg_add_u32(&buffer, "a", 1);
    void *table = blobmsg_open_table(&buffer, "t");
    ASSERT_TRUE(blob_new(&buffer, 1, 0xfff000));
    const size_t before = blob_raw_len(buffer->head);
    EXPECT_EQ(blob_new(&buffer, 1, 0x1000), nullptr);
    EXPECT_EQ(blob_new(&buffer, 1, -1), nullptr);
    EXPECT_EQ(blobmsg_add_field(&buffer, BLOBMSG_TYPE_UNSPEC, "x", nullptr, 0xfffffff), -1);
    EXPECT_EQ(blobmsg_add_string(&buffer, std::string(70000, 'n').c_str(), ""), -1);
    EXPECT_EQ(blob_put_raw(&buffer, "abc", 3), nullptr);
    EXPECT_EQ(blob_raw_len(buffer->head), before);
    blobmsg_close_table(&buffer, table);
    EXPECT_LE(blob_raw_len(buffer->head), static_cast<size_t>(BLOB_ATTR_LEN_MASK));
    // Filled up byte by byte it stops in time, too.
    while (blob_put_u32(&buffer, 2, 0)) {
    }
    EXPECT_LE(blob_raw_len(buffer->head), static_cast<size_t>(BLOB_ATTR_LEN_MASK));
}

TEST(BusBlob, TypesAreCheckedByLength) {
    for (unsigned int len = 0; len <= 9; len++) {
        const char bytes[10] = "12345678";  // NUL at [8]
        EXPECT_EQ(blob_check_type(bytes, len, BLOB_ATTR_INT8), len == 1);
        EXPECT_EQ(blob_check_type(bytes, len, BLOB_ATTR_INT16), len == 2);
        EXPECT_EQ(blob_check_type(bytes, len, BLOB_ATTR_INT32), len == 4);
        EXPECT_EQ(blob_check_type(bytes, len, BLOB_ATTR_INT64), len == 8);
        EXPECT_EQ(blob_check_type(bytes, len, BLOB_ATTR_DOUBLE), len >= 8);
        EXPECT_EQ(blob_check_type(bytes, len, BLOB_ATTR_STRING), len == 9);
        EXPECT_TRUE(blob_check_type(bytes, len, BLOB_ATTR_BINARY));
        EXPECT_FALSE(blob_check_type(bytes, len, BLOB_ATTR_LAST));
    }
}

TEST(BusBlob, ParsingTakesTheLastOfSeveral) {
    Buffer buffer;
    blob_put_u32(&buffer, 1, 10);
    blob_put_u32(&buffer, 1, 20);
    blob_put_u8(&buffer, 1, 30);       // wrong type
    blob_put_string(&buffer, 2, "x");  // too short
    blob_put_u32(&buffer, 9, 0);       // beyond the table
    static constexpr blob_attr_info kInfo[3] = {
        {}, {BLOB_ATTR_INT32, 0, 0, nullptr}, {BLOB_ATTR_STRING, 8, 0, nullptr}};
    blob_attr *found[3];
    EXPECT_EQ(blob_parse(buffer->head, found, kInfo, 3), 1);
    EXPECT_EQ(blob_get_u32(found[1]), 20U);
    EXPECT_FALSE(found[2]);
    EXPECT_EQ(blob_parse_untrusted(buffer->head, blob_raw_len(buffer->head) - 1, found, kInfo, 3), 0);
    EXPECT_EQ(blob_parse_untrusted(buffer->head, blob_raw_len(buffer->head), found, kInfo, 3), 1);
}

TEST(BusMessage, BrokenMembersFailTheirCheck) {
    const struct {
        const char *what, *hex;
        bool unnamed, named;  // passes without and with the demand for a name
    } kCases[] = {
        {"int32",
         "8500000c"
         "0001610000000001",
         true, true},
        {"no name",
         "8500000c"
         "0000000000000001",
         true, false},
        {"not extended",
         "05000008"
         "00000001",
         true, false},
        {"int32 of three bytes",
         "8500000b"
         "0001610000000100",
         false, false},
        {"int32 of five bytes",
         "8500000d"
         "000161000000000100000000",
         false, false},
        {"name without NUL",
         "8500000c"
         "0001616200000001",
         false, false},
        {"name longer than the member",
         "8500000c"
         "00ff610000000001",
         false, false},
        {"no room for the name header",
         "80000006"
         "00000000",
         false, false},
        {"raw length below the word",
         "85000003"
         "00000000",
         false, false},
        {"raw length beyond the bytes",
         "850000ff"
         "0001610000000001",
         false, false},
        {"type 9",
         "8900000c"
         "0001610000000001",
         false, false},
        {"string without NUL",
         "8300000a"
         "0001610078790000",
         false, false},
        {"string of nothing",
         "83000008"
         "00016100",
         false, false},
        {"double of seven bytes",
         "8800000f"
         "0001610000000000000000",
         false, false},
        {"table of nonsense",
         "8200000c"
         "00016100ffffffff",
         true, true},
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.what);
        const std::string bytes = fromHex(c.hex);
        const auto *attr = reinterpret_cast<const blob_attr *>(bytes.data());
        EXPECT_EQ(blobmsg_check_attr_len(attr, false, bytes.size()), c.unnamed);
        EXPECT_EQ(blobmsg_check_attr_len(attr, true, bytes.size()), c.named);
    }
    EXPECT_FALSE(blobmsg_check_attr(nullptr, false));
}

TEST(BusMessage, ArraysAreCountedByType) {
    Buffer buffer;
    void *array = blobmsg_open_array(&buffer, "l");
    for (const char *text : {"a", "b"}) blobmsg_add_string(&buffer, nullptr, text);
    blobmsg_close_array(&buffer, array);
    auto *list = static_cast<blob_attr *>(blob_data(buffer->head));
    EXPECT_EQ(blobmsg_check_array(list, BLOBMSG_TYPE_STRING), 2);
    EXPECT_EQ(blobmsg_check_array(list, BLOBMSG_TYPE_UNSPEC), 2);
    EXPECT_EQ(blobmsg_check_array(list, BLOBMSG_TYPE_INT32), -1);
    EXPECT_EQ(blobmsg_check_array(nullptr, BLOBMSG_TYPE_STRING), -1);
    EXPECT_EQ(blobmsg_check_array_len(list, BLOBMSG_TYPE_STRING, blob_raw_len(list) - 1), -1);
}

TEST(BusMessage, EmptyMessageIsAnErrorOfItsOwn) {
    static constexpr blobmsg_policy kPolicy[] = {{nullptr, BLOBMSG_TYPE_STRING}, {"a", BLOBMSG_TYPE_INT32}};
    Buffer buffer;
    blob_attr *found[2] = {buffer->head, buffer->head};
    EXPECT_EQ(blobmsg_parse(kPolicy, 2, found, nullptr, 0), -EINVAL);
    EXPECT_FALSE(found[0] || found[1]);
    blobmsg_add_u32(&buffer, "a", 1);
    // Cut anywhere, what is left over is ignored.
    for (unsigned int len = 1; len < blob_len(buffer->head); len++) {
        EXPECT_EQ(blobmsg_parse(kPolicy, 2, found, blob_data(buffer->head), len), 0) << len;
        EXPECT_FALSE(found[1]) << len;
    }
    EXPECT_EQ(blobmsg_parse_attr(kPolicy, 2, found, buffer->head), 0);
    EXPECT_TRUE(found[1]);
}

TEST(BusMessage, IntegersAreCastByTheirType) {
    Buffer buffer;
    blobmsg_add_u8(&buffer, "a", 0xff);
    blobmsg_add_u16(&buffer, "b", 0xffff);
    blobmsg_add_u32(&buffer, "c", 0xffffffff);
    blobmsg_add_u64(&buffer, "d", UINT64_MAX);
    const uint64_t unsignedValues[] = {0xff, 0xffff, 0xffffffff, UINT64_MAX};
    blob_attr *attr;
    size_t rem;
    size_t i = 0;
    blobmsg_for_each_attr(attr, buffer->head, rem) {
        EXPECT_EQ(blobmsg_cast_s64(attr), -1);
        EXPECT_EQ(blobmsg_cast_u64(attr), unsignedValues[i++]);
    }
    EXPECT_EQ(i, 4U);
    EXPECT_EQ(blobmsg_printf(&buffer, "p", "%d-%s", 12, "x"), 4);
    EXPECT_EQ(json(buffer->head), R"({"a":true,"b":-1,"c":-1,"d":-1,"p":"12-x"})");
}

TEST(BusJson, BrokenMembersLeaveTheirComma) {
    Buffer buffer;
    blobmsg_add_u8(&buffer, "b", 1);
    blobmsg_add_field(&buffer, BLOBMSG_TYPE_INT32, "broken", "xx", 2);
    blobmsg_add_string(&buffer, "a", "s");
    EXPECT_EQ(json(buffer->head), R"({"b":true,,"a":"s"})");
    EXPECT_EQ(json(nullptr), "{}");
}

TEST(BusJson, IndentationStartsWhereItIsToldAndEndsAtSixteen) {
    Buffer buffer;
    EXPECT_EQ(indented(buffer->head, 2), "{\n\t\t\t\n\t\t}");
    blobmsg_add_u32(&buffer, "a", 1);
    EXPECT_EQ(indented(buffer->head, 2), "{\n\t\t\t\"a\": 1\n\t\t}");
    EXPECT_EQ(indented(buffer->head, 20),
              "{\n" + std::string(16, '\t') + "\"a\": 1\n" + std::string(16, '\t') + "}");
}

TEST(BusJson, CallbackReplacesValues) {
    Buffer buffer;
    blobmsg_add_string(&buffer, "password", "secret");
    void *table = blobmsg_open_table(&buffer, "t");
    blobmsg_add_u32(&buffer, "n", 1);
    blobmsg_close_table(&buffer, table);
    int asked = 0;
    const auto mask = [](void *priv, blob_attr *attr) -> const char * {
        ++*static_cast<int *>(priv);
        return strcmp(blobmsg_name(attr), "password") == 0 ? "\"*\"" : nullptr;
    };
    char *text = blobmsg_format_json_with_cb(buffer->head, true, mask, &asked, -1);
    EXPECT_STREQ(text, R"({"password":"*","t":{"n":1}})");
    EXPECT_EQ(asked, 3);  // not for the message itself
    free(text);
    text = blobmsg_format_json(static_cast<blob_attr *>(blob_data(buffer->head)), false);
    EXPECT_STREQ(text, R"("password":"secret")");
    free(text);
}

TEST(BusJson, DeepMessagesArePrinted) {
    constexpr uint32_t kDepth = 100000;  // nested by an attacker, not by a program
    std::string nested;
    for (uint32_t inner = kDepth; inner <= kDepth; inner--) {
        const uint32_t words[] = {cpu_to_be32(0x81000000U | 8 * (inner + 1)), 0};
        nested.append(reinterpret_cast<const char *>(words), sizeof(words));
    }
    EXPECT_EQ(json(reinterpret_cast<blob_attr *>(nested.data())).size(), 2 * (kDepth + 1));
}

TEST(BusJson, OnlyJsonObjectsAreAccepted) {
    for (const char *text :
         {"{}", " { } \n", R"({"a":[]})", R"({"":{"":""}})", R"({"a":-0.5e+3,"b":0,"c":1E2})"})
        EXPECT_TRUE(addJson(text)) << text;
    for (const char *text : {"",
                             " ",
                             "1",
                             "null",
                             "[]",
                             "{",
                             "}",
                             "{]",
                             "[}",
                             R"({"a"})",
                             R"({"a":})",
                             R"({"a":1,})",
                             R"({,})",
                             R"({"a":1 "b":2})",
                             R"({a:1})",
                             R"({"a":[1,]})",
                             R"({"a":[1 2]})",
                             R"({"a":tru})",
                             R"({"a":nul})",
                             R"({"a":01})",
                             R"({"a":-})",
                             R"({"a":1.})",
                             R"({"a":.5})",
                             R"({"a":1e})",
                             R"({"a":"x)",
                             R"({"a":"\x"})",
                             R"({"a":"\u12g4"})",
                             R"({"a":"\u12)",
                             R"({"a":"\)",
                             R"({"a":1}})",
                             R"({"a":1} x)",
                             R"({"a":1)",
                             R"({"a":1,)",
                             R"({"a":{"b":[{)"})
        EXPECT_FALSE(addJson(text)) << text;
    const auto nested = [](size_t depth) {
        return R"({"a":)" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + '}';
    };
    EXPECT_TRUE(addJson(nested(32)));
    EXPECT_FALSE(addJson(nested(33)));
}

TEST(BusJson, ValuesFindTheirType) {
    const struct {
        const char *text, *compact;
        int type;
    } kCases[] = {
        {"2147483647", "2147483647", BLOBMSG_TYPE_INT32},
        {"-2147483649", "-2147483649", BLOBMSG_TYPE_INT64},
        {"18446744073709551615", "9223372036854775807", BLOBMSG_TYPE_INT64},
        {"-99999999999999999999", "-9223372036854775808", BLOBMSG_TYPE_INT64},
        {"1.0", "1.000000", BLOBMSG_TYPE_DOUBLE},
        {R"("cut\u0000here")", R"("cut")", BLOBMSG_TYPE_STRING},
        {R"("\ud800x\udc00")", "\"\xef\xbf\xbdx\xef\xbf\xbd\"", BLOBMSG_TYPE_STRING},
        {R"("\ud83d\u0041")",
         "\"\xef\xbf\xbd"
         "A\"",
         BLOBMSG_TYPE_STRING},
        {R"([null,{"b":false,"b":[]}])", R"([null,{"b":[]}])", BLOBMSG_TYPE_ARRAY},
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.text);
        Buffer buffer;
        ASSERT_TRUE(blobmsg_add_json_from_string(&buffer, (R"({"v":)" + std::string(c.text) + '}').c_str()));
        EXPECT_EQ(blobmsg_type(static_cast<blob_attr *>(blob_data(buffer->head))), c.type);
        EXPECT_EQ(json(buffer->head), R"({"v":)" + std::string(c.compact) + '}');
    }
}
