// Text forms appended to a line under construction, several times faster than a printf of the same: a flush
// of record lines holds the event loop, and times and addresses are most of a line.
//
// Every operation writes at `at`, without a terminator, and returns the place behind the text.  The caller
// has the room: the longest forms are the constants below.  Any thread; a UtcAppender belongs to one.
#pragma once
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string_view>

namespace am {

inline constexpr size_t kDecimalRoom = 20;
inline constexpr size_t kAddressRoom = INET6_ADDRSTRLEN;
inline constexpr size_t kUtcRoom = 32;

inline char *append(char *at, std::string_view text) {
    memcpy(at, text.data(), text.size());
    return at + text.size();
}

inline char *append(char *at, char character) {
    *at = character;
    return at + 1;
}

// "%llu".
char *appendDecimal(char *at, uint64_t number);

// An address in network byte order, as inet_ntop(3) of the C library in use writes it.
char *appendAddress(char *at, uint32_t ipv4);
char *appendAddress(char *at, const in6_addr &ipv6);

// UTC times as "%i-%02i-%02i %02i:%02i:%02i".  Remembers the day it wrote last: the times of a file's lines
// lie close together.
class UtcAppender {
  public:
    char *append(char *at, time_t time);

  private:
    static constexpr size_t kDateLength = 11;  // with the blank behind it

    int64_t day_ = -1;  // days since the epoch of the date held
    char date_[kDateLength] = {};
};

}  // namespace am
