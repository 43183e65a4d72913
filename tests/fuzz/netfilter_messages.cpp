// What the kernel sends on NETLINK_NETFILTER: logged packets, connections, sets of the firewall.
#include "fuzz.h"
#include "netfilter/attributes.h"
#include "netfilter/conntrack.h"
#include "netfilter/nflog.h"
#include "netfilter/policy_sets.h"

namespace {

void checkConnection(const am::Connection &connection) {
    const am::ConnTuple seen = am::forwardTuple(connection);
    FUZZ_CHECK(am::inverse(am::inverse(seen)) == seen);
}

void look(const nlmsghdr *message) {
    am::Connection connection;
    if (am::readConnection(message, connection)) checkConnection(connection);
    am::NflogPacket packet;
    if (am::readNflogPacket(message, packet)) {
        am::ConnTuple tuple;
        if (am::readTuple(packet.packet, tuple)) {
            FUZZ_CHECK(am::inverse(am::inverse(tuple)) == tuple);
            if (am::readConnection(packet.connection, tuple.family, connection)) checkConnection(connection);
        }
    }
    am::PolicySet set;
    if (am::readPolicySet(message, set) && set.ours)
        FUZZ_CHECK(std::strcmp(am::policySetName(set.kind, set.name).text, set.set.text) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::ExactCopy copy(data, size, alignof(nlmsghdr));
    am::eachMessage({reinterpret_cast<const char *>(copy.data()), size}, look);
    return 0;
}
