// Connection tracking by netlink (linux/netfilter/nfnetlink_conntrack.h): setting bits of a connection's
// mark, and reading what the kernel tells of connections: in dumps, when one ends, and beside a logged
// packet.
//
// Threads: a socket belongs to one thread at a time; the rest is pure.
#pragma once
#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>

#include "netfilter/tuple.h"

namespace am {

struct MarkBits {
    uint32_t value, mask;  // bits outside the mask belong to others, and keep their value
};

// Replaces bits of the mark of the connection that has this tuple in one of its directions, in that zone.  0,
// or a negative error number: -ENOENT when there is none, or not yet, since a connection's first packet is
// seen before the kernel enters the connection.  Nothing else of the connection is touched.
int setConnectionMark(const mnl_socket *socket, const ConnTuple &tuple, uint16_t zone, MarkBits bits);

struct ConnCounters {
    uint64_t packets, bytes;
};

struct Connection {
    ConnTuple original;  // as the connection's first packet looked
    ConnTuple
        reply;  // as answers look on their way in: differs from the inverse where addresses are translated
    ConnCounters sent, received;  // of the original and the reply direction; zero unless the kernel accounts
    uint64_t start;               // nanoseconds since the epoch; 0 unless the kernel keeps times
    uint32_t mark;
    uint16_t zone;
};

// False unless both directions are told.  The message is whole, its content untrusted.
bool readConnection(const nlmsghdr *message, Connection &connection);
bool readConnection(const nlattr *nest, uint8_t family, Connection &connection);  // NFULA_CT

// What a packet of the connection looks like at the FORWARD hook, in the original direction: destination
// already translated, source not yet.
ConnTuple forwardTuple(const Connection &connection);

// Request for a dump of the connections whose mark has these bits, in a zero-filled buffer of
// kConntrackRequestSize bytes.
inline constexpr size_t kConntrackRequestSize = 320;
nlmsghdr *buildMarkDump(void *buffer, MarkBits bits);

// Lets the socket receive the end of every connection whose mark has one of these bits; the kernel keeps all
// other messages from the socket, answers to requests included.  0, or a negative error number.
int subscribeEnds(const mnl_socket *socket, uint32_t anyOf);

// Whether a message is such an end.
bool isConnectionEnd(const nlmsghdr *message);

}  // namespace am
