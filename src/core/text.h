// Fixed character fields, and the text forms of addresses for log lines.
// Pure functions, any thread.
#pragma once
#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace am {

// The text of a fixed field, which a text of the field's full width leaves without a terminator.
template <size_t N>
inline std::string_view fieldText(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

// Fills a fixed field, cutting the text to its width and zero-padding: a text of full width has no
// terminator.
template <size_t N>
inline void copyField(char (&field)[N], std::string_view text) {
    const size_t length = text.size() < N ? text.size() : N;
    if (length != 0) memcpy(field, text.data(), length);
    memset(field + length, 0, N - length);
}

// The same, but always terminated: at most N - 1 characters are kept.
template <size_t N>
inline void copyText(char (&field)[N], std::string_view text) {
    const size_t length = text.size() < N - 1 ? text.size() : N - 1;
    if (length != 0) memcpy(field, text.data(), length);
    memset(field + length, 0, N - length);
}

// An address in text form.  Addresses are given in network byte order; an IPv6 one as its 16 bytes.
struct AddressText {
    char text[INET6_ADDRSTRLEN];
};
AddressText addressText(uint32_t ipv4);
AddressText addressText(const in6_addr &ipv6);

}  // namespace am

// "TCP" for 6, "UDP" for 17, " - " for any other IP protocol number.
const char *getProtoStr(unsigned proto);
