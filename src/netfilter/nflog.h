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

struct NflogSettings {
    uint16_t group;
    uint32_t snapLength;       // bytes kept of a packet, from its IP header on
    uint32_t batchPackets;     // what the kernel gathers before it hands over
    uint32_t batchBytes;       // the same; what one receive must have room for.  At most 131072
    uint32_t batchHundredths;  // of a second: how long the first packet of a batch waits for others
};

enum class NflogBound : uint8_t { no, plain, withConnections };

// Binds the socket to the group.  Packets come numbered, and with their connections where the kernel can tell
// those.  On `no`, `error` is -EBUSY for a group that has a listener, -EPERM without CAP_NET_ADMIN, -EINVAL
// or -EOPNOTSUPP for a kernel without NFLOG.  Closing the socket unbinds, too.
NflogBound bindNflog(const mnl_socket *socket, const NflogSettings &settings, int &error);

// Lets go of the group; packets that wait on the socket may be thrown away.  0, or a negative error number.
int unbindNflog(const mnl_socket *socket, uint16_t group);

// The requests, in a zero-filled buffer of kNflogRequestSize bytes.
inline constexpr size_t kNflogRequestSize = 128;
nlmsghdr *buildNflogBind(void *buffer, const NflogSettings &settings, uint16_t flags);
nlmsghdr *buildNflogUnbind(void *buffer, uint16_t group);

struct NflogPacket {
    std::span<const uint8_t> packet;  // from its IP header on, cut to the snap length; within the message
    const nlattr *payload;            // the attribute that holds it
    const nlattr *connection;         // attributes of its connection, for readConnection; null if not told
    uint32_t sequence;                // counts the group's packets from 0
    uint32_t mark;                    // the packet's own
    uint8_t hook;                     // NF_INET_FORWARD and its kin
    uint8_t family;                   // protocol family of the rule that logged it
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
