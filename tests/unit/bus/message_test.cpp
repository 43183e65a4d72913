// Attributes, messages and their JSON text: what the exchanged vectors do not show.
#include <algorithm>
#include <sstream>

#include "libubox/blobmsg_json.h"
#include "support.h"

using namespace bustest;

namespace {

bool addJson(const std::string &text) {
    Buffer buffer;
    const bool added = blobmsg_add_json_from_string(&buffer, text.c_str());
    if (!added) {
        EXPECT_EQ(blob_len(buffer->head), 0U) << text;
    }
    return added;
}

}  // namespace

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

TEST(BusMessage, BrokenMembersFailTheirCheck) {
    const struct {
        const char *what, *hex;
        bool unnamed, named;  // passes without and with the demand for a name
    } kCases[] = {
        {"int32", "8500000c0001610000000001", true, true},
        {"no name", "8500000c0000000000000001", true, false},
        {"not extended", "0500000800000001", true, false},
        {"int32 of three bytes", "8500000b0001610000000100", false, false},
        {"int32 of five bytes", "8500000d000161000000000100000000", false, false},
        {"name without NUL", "8500000c0001616200000001", false, false},
        {"name longer than the member", "8500000c00ff610000000001", false, false},
        {"no room for the name header", "8000000600000000", false, false},
        {"raw length below the word", "8500000300000000", false, false},
        {"raw length beyond the bytes", "850000ff0001610000000001", false, false},
        {"type 9", "8900000c0001610000000001", false, false},
        {"string without NUL", "8300000a0001610078790000", false, false},
        {"string of nothing", "8300000800016100", false, false},
        {"double of seven bytes", "8800000f0001610000000000000000", false, false},
        {"table of nonsense", "8200000c00016100ffffffff", true, true},
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
    // Quotes stand for double ones.
    std::istringstream broken(
        R"(1;null;[];{;};{];[};{'a'};{'a':};{'a':1,};{,};{'a':1 'b':2};{a:1};{'a':[1,]};)"
        R"({'a':[1 2]};{'a':tru};{'a':nul};{'a':01};{'a':-};{'a':1.};{'a':.5};{'a':1e};)"
        R"({'a':'x;{'a':'\x'};{'a':'\u12g4'};{'a':'\u12;{'a':'\;{'a':1}};{'a':1} x;{'a':1;)"
        R"({'a':1,;{'a':{'b':[{)");
    for (std::string text; std::getline(broken, text, ';');) {
        std::replace(text.begin(), text.end(), '\'', '"');
        EXPECT_FALSE(addJson(text)) << text;
    }
    EXPECT_FALSE(addJson("") || addJson(" "));
    const auto nested = [](size_t depth) {
        return R"({"a":)" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + '}';
    };
    EXPECT_TRUE(addJson(nested(32)));
    EXPECT_FALSE(addJson(nested(33)));
}
