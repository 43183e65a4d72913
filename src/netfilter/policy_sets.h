// Policy by name: the administrator's rules in `table inet korvid`, and in a bridge `table bridge korvid`,
// look marks up in sets that are named for an application or a group, and this keeps the sets' elements
// right.
//
//   table inet korvid {
//       set group_social { type mark; }
//       chain policy { type filter hook forward priority 10; ct mark & $VERDICT @group_social drop; }
//   }
//
// The administrator declares the sets that the rules use, since rules do not load without them; this fills
// those and makes none.  So a firewall that is loaded anew gets its elements at the next fill, a set costs
// the kernel memory only where a rule uses it, and nothing outside of the table is touched.
//
// Raw messages (linux/netfilter/nf_tables.h), since there is so little to say: libnftables, the nft tool as a
// library, would add more than the daemon's own size, parse text, and end the process where memory is short.
//
// Threads: the event-loop thread.
#pragma once
#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace am {

inline constexpr char kPolicyTable[] = "korvid";

enum class PolicyKind : uint8_t { application, group };

// The name of a set: app_ or group_, then the name with letters, digits, '-', '_' and '.' as they stand and
// every other byte as '/' with two hexadecimal digits, as "app_Google/20Drive".  So different names never
// share a set.
inline constexpr size_t kMaxPolicyName = 40;  // bytes of an application's or group's name
struct PolicySetName {
    char text[8 + 3 * kMaxPolicyName];  // NUL-terminated
};
PolicySetName policySetName(PolicyKind kind, std::string_view name);

// Reads a set's name back into `name`, which is NUL-terminated; false when the rule above does not make that
// name.
bool readPolicySetName(std::string_view set, PolicyKind &kind, char (&name)[kMaxPolicyName + 1]);

// Gives the marks of a set, in any order and each once: the count, at most as many as there is room for. None
// for a name that means nothing at present.
using PolicyMarks = size_t (*)(PolicyKind kind, const char *name, std::span<uint32_t> room, void *context);
inline constexpr size_t kMaxPolicyMarks = 0x10000;

struct PolicyFill {
    int error;               // 0, or a negative error number: then no set has changed
    unsigned sets;           // filled, or emptied
    unsigned empty;          // of those, without a mark
    unsigned other;          // in the table but not ours to fill: another name, type or kind of set
    PolicySetName tooSmall;  // one that was declared with a size and has more marks than that; empty if none
};

// Makes every set of the table hold its marks and no others, all of them at one moment.  No table is no
// error.  The socket is of openNetfilterSocket.
PolicyFill fillPolicySets(const mnl_socket *socket, PolicyMarks marksOf, void *context);

// Lets the socket receive changes of the firewall, but for those that are made through `filler`: of these
// there is a message for every element, more than the socket may have room for.  0, or a negative error
// number.
int subscribePolicySets(const mnl_socket *socket, const mnl_socket *filler);

// A named set of the table, from the kernel's list or its report of a declaration, which wants another fill.
struct PolicySet {
    PolicySetName set;
    uint8_t family;  // of its table, NFPROTO_INET or NFPROTO_BRIDGE
    uint32_t size;   // elements that it may have, 0 for any number
    bool ours;       // of marks, and with a name that tells the next two
    PolicyKind kind;
    char name[kMaxPolicyName + 1];
};
// False for any other message.  The message is whole, its content untrusted.
bool readPolicySet(const nlmsghdr *message, PolicySet &found);

}  // namespace am
