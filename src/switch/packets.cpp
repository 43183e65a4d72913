#include "switch/packets.h"

#include <unistd.h>

#include "core/counts.h"
#include "core/log.h"
#include "flows/capture.h"
#include "switch/protocol.h"
#include "switch/side_counts.h"

namespace {

// The attribute of a message that it fills to the end, which is every packet message of a healthy kernel;
// null for any other.  Saves them the walk.
const nlattr *soleAttribute(const nlmsghdr *nlh) {
    constexpr uint32_t kAttributes = MNL_NLMSG_HDRLEN + kFamilyHeaderSize;
    if (nlh->nlmsg_len < kAttributes + MNL_ATTR_HDRLEN) return nullptr;
    const auto *attr = reinterpret_cast<const nlattr *>(reinterpret_cast<const char *>(nlh) + kAttributes);
    const bool whole = attr->nla_len >= MNL_ATTR_HDRLEN &&
                       kAttributes + MNL_ALIGN(uint32_t{attr->nla_len}) == MNL_ALIGN(nlh->nlmsg_len);
    return whole ? attr : nullptr;
}

}  // namespace

namespace am {

void failCapture() {
    amLog(AM_LOG_ERROR, "%s:%d mnl_cb_run error!!!\n", "mainpThread", __LINE__);
    _exit(1);  // no exit(): other threads still use what its handlers would tear down
}

}  // namespace am

int packet_attr_cb(const nlattr *attr, void *pkt) {
    if ((attr->nla_type & NLA_TYPE_MASK) != DPI_PKT_A_DATA) return MNL_CB_STOP;
    auto *packet = static_cast<capture_pkt *>(pkt);
    packet->data = reinterpret_cast<const uint8_t *>(attr) + MNL_ATTR_HDRLEN;
    packet->len = attr->nla_len;
    return MNL_CB_OK;
}

int packet_cb(const nlmsghdr *nlh, void *) {
    capture_pkt pkt{};
    const nlattr *sole = soleAttribute(nlh);
    const int walked =
        sole ? packet_attr_cb(sole, &pkt) : mnl_attr_parse(nlh, kFamilyHeaderSize, packet_attr_cb, &pkt);
    if (walked != MNL_CB_OK) {
        am::countUp(am::sideCounts.packetsMalformed);
        return walked;
    }
    am::handPacket(pkt);
    return MNL_CB_OK;
}
