// The same flows in a tree of the daemon's and in one of boost's.
#pragma once
#include <cstddef>
#include <vector>

#include "appmodel/rbt.h"
#include "boost_flows.h"
#include "flows/record_slab.h"

namespace bench {

struct TreePair {
    explicit TreePair(size_t count);
    ~TreePair();
    TreePair(const TreePair &) = delete;
    TreePair &operator=(const TreePair &) = delete;

    am::RecordSlab slab{sizeof(AmEnfFlow4)};
    RbtTree ours;
    BoostFlows boost;
    std::vector<AmEnfKey4> keys;  // by insertion, as the elements below start out
    std::vector<AmEnfFlow4 *> records;
    std::vector<BoostFlow *> flows;
};

}  // namespace bench
