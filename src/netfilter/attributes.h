// Walking what the kernel sends on NETLINK_NETFILTER: messages in a receive buffer, attributes in a message.
// Every length is checked against what there is; nothing is trusted to be present, whole or unique. Pure
// functions, any thread.
#pragma once
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <span>

namespace am {

// Calls visit(const nlmsghdr *) for every whole message of what one receive gave; the buffer is aligned as
// netlink headers are.
template <class Visit>
void eachMessage(std::span<const char> received, Visit visit) {
    while (received.size() >= sizeof(nlmsghdr)) {
        const auto *message = reinterpret_cast<const nlmsghdr *>(received.data());
        if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > received.size()) return;
        visit(message);
        const size_t step = MNL_ALIGN(size_t{message->nlmsg_len});
        if (step >= received.size()) return;
        received = received.subspan(step);
    }
}

// The family header of a whole message, null where there is no room for one.
inline const nfgenmsg *familyHeader(const nlmsghdr *message) {
    if (message->nlmsg_len < MNL_NLMSG_HDRLEN + sizeof(nfgenmsg)) return nullptr;
    return static_cast<const nfgenmsg *>(mnl_nlmsg_get_payload(message));
}

// Attributes by number, null for one that is missing; of two with one number the last counts, and numbers
// beyond Max, which newer kernels may send, are passed over.
template <uint16_t Max>
class Attributes {
  public:
    // Of a message that has a family header.
    explicit Attributes(const nlmsghdr *message) {
        const size_t headers = MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(nfgenmsg));
        if (message->nlmsg_len >= headers)
            enter(reinterpret_cast<const char *>(message) + headers, message->nlmsg_len - headers);
    }
    // Nested in an attribute, which may be null.
    explicit Attributes(const nlattr *nest) {
        if (nest) enter(mnl_attr_get_payload(nest), mnl_attr_get_payload_len(nest));
    }

    const nlattr *operator[](uint16_t number) const { return table_[number]; }

    // Whether the attribute holds a whole value, which is then copied as it lies there.
    template <class Value>
    bool read(uint16_t number, Value &value) const {
        const nlattr *attr = table_[number];
        if (!attr || mnl_attr_get_payload_len(attr) < sizeof value) return false;
        memcpy(&value, mnl_attr_get_payload(attr), sizeof value);
        return true;
    }

  private:
    void enter(const void *payload, size_t length) {
        const auto *attr = static_cast<const nlattr *>(payload);
        for (auto left = static_cast<int>(length); mnl_attr_ok(attr, left);) {
            const uint16_t number = mnl_attr_get_type(attr);
            if (number <= Max) table_[number] = attr;
            left -= static_cast<int>(MNL_ALIGN(attr->nla_len));
            attr = mnl_attr_next(attr);
        }
    }

    std::array<const nlattr *, Max + 1> table_{};
};

}  // namespace am
