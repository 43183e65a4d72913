// Messages as bytes: what a peer that builds its own may send.
#include "ubus/members.h"

#include <memory>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using Bytes = std::string;

Bytes word(uint32_t value) {
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16), static_cast<char>(value >> 8),
            static_cast<char>(value)};
}

Bytes padded(Bytes bytes) {
    bytes.resize((bytes.size() + 3) & ~size_t{3});
    return bytes;
}

// A member with its own claims about its length and its name's length.
Bytes member(uint32_t type, const Bytes &name, const Bytes &data, int lengthError = 0, int nameError = 0) {
    Bytes header;
    header += static_cast<char>((name.size() + static_cast<size_t>(nameError)) >> 8);
    header += static_cast<char>(name.size() + static_cast<size_t>(nameError));
    header = padded(header + name + Bytes(1, '\0'));
    const auto length =
        static_cast<uint32_t>(4 + header.size() + data.size() + static_cast<size_t>(lengthError));
    return padded(word(0x80000000 | type << 24 | length) + header + data);
}

Bytes text(const Bytes &name, const Bytes &value) {
    return member(BLOBMSG_TYPE_STRING, name, value + Bytes(1, '\0'));
}

// The request's bytes at the end of an allocation of their own, so that reading beyond them is caught.
struct Request {
    explicit Request(const Bytes &payload) : size(4 + payload.size()), bytes(new char[size]) {
        const Bytes all = word(static_cast<uint32_t>(7U << 24 | size)) + payload;
        memcpy(bytes.get(), all.data(), size);
    }
    blob_attr *get() { return reinterpret_cast<blob_attr *>(bytes.get()); }
    size_t size;
    std::unique_ptr<char[]> bytes;
};

std::string walked(const Bytes &payload) {
    Request request(payload);
    std::string all;
    am::Member one;
    for (auto members = am::Members::ofMessage(request.get()); members.next(one);)
        all += std::string(one.name) + ":" + std::to_string(one.type) + (one.text() ? one.text() : "") + " ";
    return all;
}

TEST(MembersOfMessage, WalkEndsWhereAMemberDoesNotFit) {
    const Bytes first = text("a", "x");
    EXPECT_EQ(walked(first + text("b", "y")), "a:3x b:3y ");
    EXPECT_EQ(walked(first + word(0)), "a:3x ") << "shorter than its own header";
    EXPECT_EQ(walked(first + word(0x83000010)), "a:3x ") << "longer than what is left";
    EXPECT_EQ(walked(first + "abc"), "a:3x ") << "a rest that is no header";
    EXPECT_EQ(walked(first + word(0x83ffffff) + Bytes(40, '\0')), "a:3x ");
    EXPECT_EQ(walked(""), "");
}

TEST(MembersOfMessage, BrokenMemberHasNoNameAndNoType) {
    const Bytes last = text("b", "y");
    const struct {
        const char *what;
        Bytes bytes;
    } rows[] = {
        {"name longer than the member", member(BLOBMSG_TYPE_STRING, "appList", "x", 0, 60000)},
        {"name without its end", member(BLOBMSG_TYPE_STRING, "ids", Bytes("xyz\0", 4), 0, -1)},
        {"text without its end", member(BLOBMSG_TYPE_STRING, "ids", "xyz!")},
        {"text of no bytes", member(BLOBMSG_TYPE_STRING, "ids", "")},
        {"number of the wrong size", member(BLOBMSG_TYPE_INT32, "ids", "xy")},
        {"unknown type", member(100, "ids", "")},
        {"length of less than a header", word(0x83000002)},
    };
    for (const auto &row : rows) EXPECT_EQ(walked(row.bytes + last), ":-1 b:3y ") << row.what;
    EXPECT_EQ(walked(word(0x03000008) + Bytes("abc\0", 4) + last), ":3abc b:3y ") << "no name header at all";
}

}  // namespace
