// What the kernel sends, well-formed and cut; that it is what the kernel sends, tests/router sees to.
#include <arpa/inet.h>
#include <endian.h>
#include <gtest/gtest.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netfilter/nfnetlink_log.h>

#include <cstring>
#include <vector>

#include "netfilter/attributes.h"
#include "netfilter/conntrack.h"
#include "netfilter/nflog.h"
#include "netfilter/policy_sets.h"
#include "netfilter/requests.h"

namespace {

// A message in memory of exactly its size, so that a sanitizer sees a look beyond it.
class Message {
  public:
    Message(uint8_t subsystem, uint8_t type, uint8_t family) : bytes_(4096) {
        header_ = am::putRequest(bytes_.data(), subsystem, type, family);
    }
    nlmsghdr *header() { return header_; }
    std::vector<char> cutTo(size_t length) const {
        std::vector<char> cut(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(length));
        auto *shortened = reinterpret_cast<nlmsghdr *>(cut.data());
        shortened->nlmsg_len = static_cast<uint32_t>(length);
        return cut;
    }
    size_t size() const { return header_->nlmsg_len; }

  private:
    std::vector<char> bytes_;
    nlmsghdr *header_;
};

const nlmsghdr *headerOf(const std::vector<char> &bytes) {
    return reinterpret_cast<const nlmsghdr *>(bytes.data());
}

void putTuple(nlmsghdr *message, uint16_t direction, const char *source, const char *destination,
              uint16_t port) {
    nlattr *whole = mnl_attr_nest_start(message, direction);
    nlattr *part = mnl_attr_nest_start(message, CTA_TUPLE_IP);
    mnl_attr_put_u32(message, CTA_IP_V4_SRC, inet_addr(source));
    mnl_attr_put_u32(message, CTA_IP_V4_DST, inet_addr(destination));
    mnl_attr_nest_end(message, part);
    part = mnl_attr_nest_start(message, CTA_TUPLE_PROTO);
    mnl_attr_put_u8(message, CTA_PROTO_NUM, 6);
    mnl_attr_put_u16(message, CTA_PROTO_SRC_PORT, htons(port));
    mnl_attr_put_u16(message, CTA_PROTO_DST_PORT, htons(80));
    mnl_attr_nest_end(message, part);
    mnl_attr_nest_end(message, whole);
}

void putCounters(nlmsghdr *message, uint16_t direction, uint64_t packets, uint64_t bytes) {
    nlattr *nest = mnl_attr_nest_start(message, direction);
    mnl_attr_put_u64(message, CTA_COUNTERS_PACKETS, htobe64(packets));
    mnl_attr_put_u64(message, CTA_COUNTERS_BYTES, htobe64(bytes));
    mnl_attr_nest_end(message, nest);
}

TEST(KernelMessages, AConnectionIsReadWholeOrNotAtAll) {
    Message message(NFNL_SUBSYS_CTNETLINK, IPCTNL_MSG_CT_DELETE, AF_INET);
    mnl_attr_put_u32(message.header(), CTA_MARK, htonl(0x5a030001));
    putTuple(message.header(), CTA_TUPLE_ORIG, "192.0.2.11", "192.0.2.1", 40000);
    putTuple(message.header(), CTA_TUPLE_REPLY, "198.51.100.1", "198.51.100.254", 8080);
    const size_t tuples = message.size();
    putCounters(message.header(), CTA_COUNTERS_ORIG, 7, 0x100000001);
    putCounters(message.header(), CTA_COUNTERS_REPLY, 8, 0x200000002);
    nlattr *times = mnl_attr_nest_start(message.header(), CTA_TIMESTAMP);
    mnl_attr_put_u64(message.header(), CTA_TIMESTAMP_START, htobe64(1'000'000'000'000));
    mnl_attr_nest_end(message.header(), times);
    mnl_attr_put_u16(message.header(), CTA_ZONE, htons(9));
    mnl_attr_put_u32(message.header(), 999, 0);  // of a newer kernel

    am::Connection connection;
    for (size_t length = sizeof(nlmsghdr); length <= message.size(); length++)
        EXPECT_EQ(am::readConnection(headerOf(message.cutTo(length)), connection), length >= tuples)
            << length;
    EXPECT_TRUE(am::isConnectionEnd(message.header()));
    EXPECT_EQ(connection.mark, 0x5a030001U);
    EXPECT_EQ(connection.sent.bytes, 0x100000001U);
    EXPECT_EQ(connection.received.bytes, 0x200000002U);
    EXPECT_EQ(connection.received.packets, 8U);
    EXPECT_EQ(connection.start, 1'000'000'000'000U);
    EXPECT_EQ(connection.zone, 9);

    // Translated at both ends: in between, a packet goes from the true source to the true destination.
    const am::ConnTuple seen = am::forwardTuple(connection);
    EXPECT_EQ(seen.sourcePort, 40000);
    EXPECT_EQ(seen.destinationPort, 8080);
    EXPECT_EQ(memcmp(seen.source, "\xc0\x00\x02\x0b", 4), 0);
    EXPECT_EQ(memcmp(seen.destination, "\xc6\x33\x64\x01", 4), 0);
}

TEST(KernelMessages, APacketNeedsItsPayloadOnly) {
    Message message(NFNL_SUBSYS_ULOG, NFULNL_MSG_PACKET, AF_INET);
    am::NflogPacket packet;
    EXPECT_FALSE(am::readNflogPacket(message.header(), packet));
    mnl_attr_put(message.header(), NFULA_PAYLOAD, 3, "abc");
    ASSERT_TRUE(am::readNflogPacket(message.header(), packet));
    EXPECT_FALSE(packet.numbered);
    EXPECT_EQ(packet.packet.size(), 3U);

    mnl_attr_put_u32(message.header(), NFULA_SEQ, htonl(5));
    nlattr *nest = mnl_attr_nest_start(message.header(), NFULA_CT);
    putTuple(message.header(), CTA_TUPLE_ORIG, "192.0.2.11", "192.0.2.1", 40000);
    putTuple(message.header(), CTA_TUPLE_REPLY, "192.0.2.1", "192.0.2.11", 80);
    mnl_attr_nest_end(message.header(), nest);
    ASSERT_TRUE(am::readNflogPacket(message.header(), packet));
    EXPECT_TRUE(packet.numbered);
    EXPECT_EQ(packet.sequence, 5U);
    am::Connection connection;
    EXPECT_TRUE(am::readConnection(packet.connection, AF_INET, connection));
}

TEST(KernelMessages, EveryMissingPacketIsCountedOnce) {
    am::NflogLosses losses;
    EXPECT_EQ(losses.see(0), 0U);
    EXPECT_EQ(losses.see(1), 0U);
    EXPECT_EQ(losses.see(10), 8U);
    EXPECT_EQ(losses.see(0), 0U) << "bound anew";
    EXPECT_EQ(losses.see(0x7fffffff), 0x7ffffffeU);
    EXPECT_EQ(losses.see(0xfffffffe), 0x7ffffffeU);
    EXPECT_EQ(losses.see(1), 2U) << "the numbers wrap";
    EXPECT_EQ(am::NflogLosses().see(3), 3U) << "lost before the first";
}

TEST(KernelMessages, ABufferIsWalkedUpToItsFirstBrokenMessage) {
    alignas(nlmsghdr) char buffer[64] = {};
    const auto put = [&buffer](size_t at, uint32_t length) { memcpy(buffer + at, &length, sizeof length); };
    const auto count = [&buffer](size_t length) {
        int messages = 0;
        am::eachMessage({buffer, length}, [&messages](const nlmsghdr *) { messages++; });
        return messages;
    };
    put(0, 17);
    put(20, 20);
    put(40, 24);
    EXPECT_EQ(count(64), 3);
    EXPECT_EQ(count(63), 2);
    EXPECT_EQ(count(17), 1) << "the last one's padding may be missing";
    EXPECT_EQ(count(16), 0);
    for (const uint32_t length : {0U, 15U, 0x80000000U, 0xffffffffU}) {
        put(20, length);
        EXPECT_EQ(count(64), 1) << length;
    }
}

TEST(KernelMessages, OnlySetsOfMarksInThePolicyTableAreOurs) {
    struct {
        uint8_t type;
        const char *table, *name;
        uint32_t keyLength, flags;
        bool read, ours;
    } const rows[] = {
        {NFT_MSG_NEWSET, "korvid", "app_a", 4, 0, true, true},
        {NFT_MSG_NEWSET, "korvid", "app_a", 4, NFT_SET_TIMEOUT, true, true},
        {NFT_MSG_NEWSET, "korvid", "hosts", 4, 0, true, false},
        {NFT_MSG_NEWSET, "korvid", "app_a", 16, 0, true, false},
        {NFT_MSG_NEWSET, "korvid", "app_a", 4, NFT_SET_INTERVAL, true, false},
        {NFT_MSG_NEWSET, "korvid", "__set0", 4, NFT_SET_ANONYMOUS, false, false},
        {NFT_MSG_NEWSET, "korvid2", "app_a", 4, 0, false, false},
        {NFT_MSG_DELSET, "korvid", "app_a", 4, 0, false, false},
    };
    for (const auto &row : rows) {
        Message message(NFNL_SUBSYS_NFTABLES, row.type, NFPROTO_INET);
        mnl_attr_put_strz(message.header(), NFTA_SET_TABLE, row.table);
        mnl_attr_put_strz(message.header(), NFTA_SET_NAME, row.name);
        mnl_attr_put_u32(message.header(), NFTA_SET_FLAGS, htonl(row.flags));
        mnl_attr_put_u32(message.header(), NFTA_SET_KEY_LEN, htonl(row.keyLength));
        am::PolicySet set;
        EXPECT_EQ(am::readPolicySet(message.header(), set), row.read) << row.name << row.table;
        EXPECT_EQ(set.ours, row.ours) << row.name << row.flags;
    }
}

}  // namespace
