// The reference for everything that looks flows up: boost's intrusive set, with the same keys in the same
// order.
#pragma once
#include <boost/intrusive/set.hpp>
#include <cstring>
#include <deque>

#include "flows/enf_flow_db.h"

namespace bench {

struct BoostFlow : boost::intrusive::set_base_hook<boost::intrusive::optimize_size<true>> {
    AmEnfKey4 key;
    uint16_t appId;
    uint16_t aged;
    time_t startTime;
};

// The order is that of the key's bytes, of which the last three are not part.
struct KeyOfBoostFlow {
    using type = AmEnfKey4;
    const type &operator()(const BoostFlow &flow) const { return flow.key; }
};
struct KeyLess {
    bool operator()(const AmEnfKey4 &a, const AmEnfKey4 &b) const {
        return memcmp(&a, &b, offsetof(AmEnfKey4, zero)) < 0;
    }
};
using BoostFlows = boost::intrusive::set<BoostFlow, boost::intrusive::key_of_value<KeyOfBoostFlow>,
                                         boost::intrusive::compare<KeyLess>>;

}  // namespace bench
