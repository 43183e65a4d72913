#include "netfilter/policy_sets.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/handle.h"
#include "netfilter/attributes.h"
#include "netfilter/requests.h"

namespace am {

namespace {

constexpr size_t kListBuffer = 32768;
constexpr size_t kRequestSize = 256;  // of a message without elements
constexpr size_t kElementSize = 3 * sizeof(nlattr) + sizeof(uint32_t);
constexpr size_t kElementsPerMessage = 1000;  // a nest's length is told in 16 bits
constexpr int kTries = 5;
constexpr unsigned kOtherSetFlags = NFT_SET_CONSTANT | NFT_SET_INTERVAL | NFT_SET_MAP;
constexpr std::string_view kPrefixes[] = {"app_", "group_"};

constexpr uint16_t typeOf(uint8_t message) {
    return static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | message);
}

bool standsAsItIs(char byte) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
           byte == '-' || byte == '_' || byte == '.';
}

// A text attribute, which need not be terminated.
std::string_view textOf(const nlattr *attr) {
    if (!attr) return {};
    const auto *text = static_cast<const char *>(mnl_attr_get_payload(attr));
    return {text, strnlen(text, mnl_attr_get_payload_len(attr))};
}

// Messages of one transaction, one behind the other in memory that grows.  A failure to get it shows at
// commit.
class Batch {
  public:
    nlmsghdr *start(uint8_t subsystem, uint8_t message, uint8_t family, uint16_t resource, size_t room) {
        if (!reserve(room)) return nullptr;
        return putRequest(bytes_.get() + length_, subsystem, message, family, resource);
    }
    void finish(const nlmsghdr *message) { length_ += MNL_ALIGN(message->nlmsg_len); }

    // The errors of all messages come at once, so the first one is told.
    int commit(const mnl_socket *socket) {
        if (failed_) return -ENOMEM;
        const int fd = mnl_socket_get_fd(socket);
        const auto size = static_cast<int>(std::min(length_ * 2, size_t{1} << 30));
        if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0)
            (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        if (mnl_socket_sendto(socket, bytes_.get(), length_) < 0) return -errno;
        return readErrors(socket);
    }

  private:
    bool reserve(size_t room) {
        if (length_ + room > capacity_) {
            const size_t larger = std::max(capacity_ * 2, length_ + room);
            auto *bytes = static_cast<char *>(std::realloc(bytes_.get(), larger));
            if (!bytes) {
                failed_ = true;
                return false;
            }
            (void)bytes_.release();
            bytes_.reset(bytes);
            capacity_ = larger;
        }
        memset(bytes_.get() + length_, 0, room);
        return true;
    }

    static int readErrors(const mnl_socket *socket) {
        int error = 0;
        alignas(nlmsghdr) char buffer[4096];
        for (;;) {
            const ssize_t got = mnl_socket_recvfrom(socket, buffer, sizeof buffer);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) return error == 0 && errno != EAGAIN ? -errno : error;
            eachMessage({buffer, static_cast<size_t>(got)}, [&error](const nlmsghdr *message) {
                if (message->nlmsg_type == NLMSG_ERROR && error == 0) error = errorOf(message);
            });
        }
    }

    CText bytes_;
    size_t length_ = 0, capacity_ = 0;
    bool failed_ = false;
};

void putBoundary(Batch &batch, uint8_t message) {
    if (const nlmsghdr *boundary =
            batch.start(NFNL_SUBSYS_NONE, message, AF_UNSPEC, NFNL_SUBSYS_NFTABLES, kRequestSize))
        batch.finish(boundary);
}

nlmsghdr *startElements(Batch &batch, uint8_t message, const PolicySet &set, size_t count) {
    nlmsghdr *request =
        batch.start(NFNL_SUBSYS_NFTABLES, message, set.family, 0, kRequestSize + count * kElementSize);
    if (!request) return nullptr;
    mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_TABLE, kPolicyTable);
    mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_SET, set.set.text);
    return request;
}

void putMarks(Batch &batch, const PolicySet &set, std::span<const uint32_t> marks) {
    nlmsghdr *request = startElements(batch, NFT_MSG_NEWSETELEM, set, marks.size());
    if (!request) return;
    nlattr *list = mnl_attr_nest_start(request, NFTA_SET_ELEM_LIST_ELEMENTS);
    for (const uint32_t mark : marks) {
        nlattr *element = mnl_attr_nest_start(request, NFTA_LIST_ELEM);
        nlattr *key = mnl_attr_nest_start(request, NFTA_SET_ELEM_KEY);
        mnl_attr_put_u32(request, NFTA_DATA_VALUE, mark);  // marks lie in host order
        mnl_attr_nest_end(request, key);
        mnl_attr_nest_end(request, element);
    }
    mnl_attr_nest_end(request, list);
    batch.finish(request);
}

// One run over the table's sets.
struct Filling {
    PolicyMarks marksOf;
    void *context;
    std::unique_ptr<uint32_t, Closer<std::free>> room;
    Batch batch;
    PolicyFill result;
};

void visitSet(const nlmsghdr *message, void *context) {
    auto &filling = *static_cast<Filling *>(context);
    PolicySet found;
    if (!readPolicySet(message, found)) return;
    if (!found.ours) {
        filling.result.other++;
        return;
    }
    const std::span<uint32_t> room{filling.room.get(), kMaxPolicyMarks};
    size_t count = filling.marksOf(found.kind, found.name, room, filling.context);
    // One that is refused would keep all others from being filled.
    if (found.size != 0 && count > found.size) {
        count = found.size;
        filling.result.tooSmall = found.set;
    }
    auto marks = std::span<const uint32_t>(room).first(count);
    filling.result.sets++;
    if (marks.empty()) filling.result.empty++;
    // Without elements it names all of them.
    if (const nlmsghdr *flush = startElements(filling.batch, NFT_MSG_DELSETELEM, found, 0))
        filling.batch.finish(flush);
    while (!marks.empty()) {
        const size_t part = std::min(marks.size(), kElementsPerMessage);
        putMarks(filling.batch, found, marks.first(part));
        marks = marks.subspan(part);
    }
}

// False when the ruleset changed under it, so that it is worth another try.
bool fillOnce(const mnl_socket *socket, Filling &filling) {
    const std::unique_ptr<char, Closer<std::free>> list(static_cast<char *>(std::malloc(kListBuffer)));
    if (!list) {
        filling.result.error = -ENOMEM;
        return true;
    }
    putBoundary(filling.batch, NFNL_MSG_BATCH_BEGIN);
    int &error = filling.result.error;
    for (const uint8_t family : {NFPROTO_INET, NFPROTO_BRIDGE}) {
        alignas(nlmsghdr) char buffer[kRequestSize] = {};
        nlmsghdr *request = putRequest(buffer, NFNL_SUBSYS_NFTABLES, NFT_MSG_GETSET, family);
        mnl_attr_put_strz(request, NFTA_SET_TABLE, kPolicyTable);
        error = runDump(socket, request, {list.get(), kListBuffer}, visitSet, &filling);
        if (error == -ENOENT) error = 0;  // no table
        if (error != 0) break;
    }
    if (error == 0 && filling.result.sets != 0) {
        putBoundary(filling.batch, NFNL_MSG_BATCH_END);
        error = filling.batch.commit(socket);
    }
    return error != -EINTR && error != -ENOENT && error != -ERESTART;
}

}  // namespace

PolicySetName policySetName(PolicyKind kind, std::string_view name) {
    static constexpr char kDigits[] = "0123456789abcdef";
    PolicySetName set{};
    const std::string_view prefix = kPrefixes[static_cast<size_t>(kind)];
    memcpy(set.text, prefix.data(), prefix.size());
    char *end = set.text + prefix.size();
    for (const char byte : name.substr(0, kMaxPolicyName)) {
        if (standsAsItIs(byte)) {
            *end++ = byte;
            continue;
        }
        *end++ = '/';
        *end++ = kDigits[static_cast<uint8_t>(byte) >> 4];
        *end++ = kDigits[byte & 0xf];
    }
    return set;
}

bool readPolicySetName(std::string_view set, PolicyKind &kind, char (&name)[kMaxPolicyName + 1]) {
    kind = set.starts_with(kPrefixes[0]) ? PolicyKind::application : PolicyKind::group;
    const std::string_view prefix = kPrefixes[static_cast<size_t>(kind)];
    if (!set.starts_with(prefix)) return false;
    size_t length = 0;
    for (size_t at = prefix.size(); at < set.size(); at++) {
        if (length == kMaxPolicyName) return false;
        char byte = set[at];
        if (byte == '/' && at + 2 < set.size()) {
            const char digits[3] = {set[at + 1], set[at + 2], 0};
            byte = static_cast<char>(std::strtoul(digits, nullptr, 16));
            at += 2;
        }
        if (byte == 0) return false;
        name[length++] = byte;
    }
    name[length] = 0;
    // Only the one spelling, so that no two sets are the same name's.
    return length != 0 && set == policySetName(kind, {name, length}).text;
}

PolicyFill fillPolicySets(const mnl_socket *socket, PolicyMarks marksOf, void *context) {
    for (int tries = 1;; tries++) {
        Filling filling{marksOf, context, {}, {}, {}};
        filling.room.reset(static_cast<uint32_t *>(std::malloc(kMaxPolicyMarks * sizeof(uint32_t))));
        if (!filling.room) return {-ENOMEM, 0, 0, 0, {}};
        if (fillOnce(socket, filling) || tries == kTries) return filling.result;
    }
}

int subscribePolicySets(const mnl_socket *socket, const mnl_socket *filler) {
    // Who asked for a change stands in its messages, and all that come in one buffer are of one change.
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(nlmsghdr, nlmsg_pid)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(mnl_socket_get_portid(filler)), 1, 0),
        BPF_STMT(BPF_RET | BPF_K, ~0U),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog filter{sizeof program / sizeof *program, program};
    if (setsockopt(mnl_socket_get_fd(socket), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0)
        return -errno;
    int group = NFNLGRP_NFTABLES;
    return mnl_socket_setsockopt(socket, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0 ? -errno : 0;
}

bool readPolicySet(const nlmsghdr *message, PolicySet &found) {
    found = {};
    const nfgenmsg *family = familyHeader(message);
    if (!family || message->nlmsg_type != typeOf(NFT_MSG_NEWSET)) return false;
    found.family = family->nfgen_family;
    if (found.family != NFPROTO_INET && found.family != NFPROTO_BRIDGE) return false;
    const Attributes<NFTA_SET_DESC> attributes(message);
    uint32_t keyLength = 0, flags = 0;
    (void)attributes.read(NFTA_SET_KEY_LEN, keyLength);
    (void)attributes.read(NFTA_SET_FLAGS, flags);
    const std::string_view text = textOf(attributes[NFTA_SET_NAME]);
    if (textOf(attributes[NFTA_SET_TABLE]) != kPolicyTable || text.empty()) return false;
    if (ntohl(flags) & NFT_SET_ANONYMOUS) return false;  // a list within a rule
    found.ours = ntohl(keyLength) == sizeof(uint32_t) && (ntohl(flags) & kOtherSetFlags) == 0 &&
                 readPolicySetName(text, found.kind, found.name);
    if (found.ours) memcpy(found.set.text, text.data(), text.size());
    const Attributes<NFTA_SET_DESC_SIZE> description(attributes[NFTA_SET_DESC]);
    if (uint32_t size; description.read(NFTA_SET_DESC_SIZE, size)) found.size = ntohl(size);
    return true;
}

}  // namespace am
