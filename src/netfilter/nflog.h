// NFLOG: the packets that `log group N` of a firewall rule copies to user space
// (linux/netfilter/nfnetlink_log.h).  A group has one listener in its network namespace; while it has none,
// the kernel copies nothing.
//
// Threads: a socket belongs to one thread at a time; the rest is pure.
#pragma once
#include <libmnl/libmnl.h>

#include <cstdint>
#include <span>

namespace am {

// What the kernel gathers before it hands over: so many packets or bytes, or whatever there is a hundredth of
// a second after the first, which is the kernel's smallest step.
struct NflogBatch {
    uint32_t packets = 1;
    uint32_t bytes = 7680;  // a buffer of this size is made for each batch
};

// The daemon's settings by default.  Engines look at the beginning of a packet.
struct NflogSettings {
    uint16_t group = 26;
    uint32_t snapLength = 4072;  // bytes kept of a packet, from its IP header on
    NflogBatch batch;
};
inline constexpr size_t kNflogReceive = 131072;  // room for the largest batch that the kernel makes

enum class NflogBound : uint8_t { no, plain, withConnections };

// Binds the socket to the group.  Packets come numbered, and with their connections where the kernel can tell
// those.  On `no`, `error` is -EBUSY for a group that has a listener, -EPERM without CAP_NET_ADMIN, -EINVAL
// or -EOPNOTSUPP for a kernel without NFLOG.  Closing the socket unbinds, too.
NflogBound bindNflog(const mnl_socket *socket, const NflogSettings &settings, int &error);

// The request that lets go of the group, in a zero-filled buffer of kNflogRequestSize bytes.
inline constexpr size_t kNflogRequestSize = 128;
nlmsghdr *buildNflogUnbind(void *buffer, uint16_t group);

// The request that changes the batches of a group that is bound; the same buffer.
nlmsghdr *buildNflogBatch(void *buffer, uint16_t group, NflogBatch batch);

struct NflogPacket {
    std::span<const uint8_t> packet;  // from its IP header on, cut to the snap length; within the message
    const nlattr *connection;         // attributes of its connection, for readConnection; null if not told
    uint32_t sequence;                // counts the group's packets from 0
    bool numbered;
};

// False for a message that is no packet, or one without payload.  The message is whole, its content
// untrusted.
bool readNflogPacket(const nlmsghdr *message, NflogPacket &packet);

// Counts the packets that the kernel had no room for, by the gaps in their numbers.
class NflogLosses {
  public:
    // The packets missing before this one.
    uint32_t see(uint32_t sequence) {
        const uint32_t gap = sequence - next_;
        next_ = sequence + 1;
        return gap < kBackwards ? gap : 0;
    }

  private:
    static constexpr uint32_t kBackwards = 1U << 31;  // numbers wrap; a step back is a group bound anew
    uint32_t next_ = 0;
};

}  // namespace am
