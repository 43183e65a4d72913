// The ordered tree with the flow database's keys, beside boost's.
#include <array>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "boost_flows.h"
#include "flows/record_slab.h"
#include "rows.h"
#include "tree_pair.h"
#include "world.h"

namespace bench {

TreePair::TreePair(size_t count) {
    rbtInit(&ours, amEnf_key4_compare);
    for (size_t i = 0; i < count; i++) {
        const AmEnfKey4 key = freshKey();
        keys.push_back(key);
        auto *record = new (slab.take()) AmEnfFlow4{};
        record->key = key;
        rbtInsert(&ours, &record->node);
        records.push_back(record);
        auto *flow = new BoostFlow{};  // one by one, as a daemon would
        flow->key = key;
        boost.insert(*flow);
        flows.push_back(flow);
    }
}

TreePair::~TreePair() {
    boost.clear();
    for (const BoostFlow *flow : flows) delete flow;
    for (AmEnfFlow4 *record : records) slab.give(record);
}

namespace {

constexpr size_t kProbes = 512;

// Trees are made when they are first needed: not every run measures every row.
struct Search {
    explicit Search(size_t flows) : count(flows) {}
    size_t count;
    std::unique_ptr<TreePair> trees;
    std::array<AmEnfKey4, kProbes> probes;

    void refill() {
        if (!trees) trees = std::make_unique<TreePair>(count);
        for (AmEnfKey4 &probe : probes) probe = trees->keys[anyNumber() % count];
    }
};

std::string power(size_t count) {
    return "1e" + std::to_string(static_cast<int>(std::lround(std::log10(static_cast<double>(count)))));
}

Row search(const std::shared_ptr<Search> &search, const Limits &limits) {
    const auto prepare = [search] { search->refill(); };
    return {
        .what = "tree find, " + power(search->count) + " flows",
        .reference = "boost::intrusive::set",
        .limits = limits,
        .bare = {prepare,
                 [search] {
                     for (const AmEnfKey4 &key : search->probes) keep(&*search->trees->boost.find(key));
                     return kProbes;
                 }},
        .ours = {prepare,
                 [search] {
                     AmEnfFlow4 probe{};
                     for (const AmEnfKey4 &key : search->probes) {
                         probe.key = key;
                         keep(rbtFind(&search->trees->ours, &probe.node));
                     }
                     return kProbes;
                 }},
    };
}

// A batch of new flows comes into a tree of `count` and goes again; the next batch has other keys.
struct Change {
    static constexpr size_t kBatch = 256;
    explicit Change(size_t held) : count(held) {}
    size_t count;
    std::unique_ptr<TreePair> trees;
    std::array<AmEnfFlow4 *, kBatch> records;
    std::array<BoostFlow, kBatch> flows;

    void refill() {
        if (!trees) {
            trees = std::make_unique<TreePair>(count);
            for (auto *&record : records) record = new (trees->slab.take()) AmEnfFlow4{};
        }
        for (size_t i = 0; i < kBatch; i++) records[i]->key = flows[i].key = freshKey();
    }
};

Row change(size_t count, const Limits &limits) {
    const auto it = std::make_shared<Change>(count);
    const auto prepare = [it] { it->refill(); };
    return {
        .what = "tree insert and erase, " + power(count) + " flows",
        .reference = "boost::intrusive::set",
        .limits = limits,
        .bare = {prepare,
                 [it] {
                     BoostFlows &set = it->trees->boost;
                     for (BoostFlow &flow : it->flows) set.insert(flow);
                     for (BoostFlow &flow : it->flows) set.erase(set.iterator_to(flow));
                     return Change::kBatch;
                 }},
        .ours = {prepare,
                 [it] {
                     for (AmEnfFlow4 *record : it->records) rbtInsert(&it->trees->ours, &record->node);
                     for (AmEnfFlow4 *record : it->records) rbtRemove(&it->trees->ours, &record->node);
                     return Change::kBatch;
                 }},
    };
}

}  // namespace

void addTreeRows(Table &table) {
    table.add(search(std::make_shared<Search>(1'000), {.goal = 0.70}));
    table.add(search(std::make_shared<Search>(100'000), {.goal = 0.80}));
    table.add(search(std::make_shared<Search>(1'000'000), {.goal = 0.85}));
    table.add(change(1'000, {.goal = 0.85}));
    table.add(change(100'000, {.goal = 0.85}));
}

}  // namespace bench
