// The tree beside a model of it: a sorted vector in which equal keys stand in the order of their insertion.
#include "appmodel/rbt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

namespace {

struct Item {
    RbtNode node;
    int key;
};

const RbtNode *expectedProbe;  // the comparator's first argument, always
bool probeWasFirst = true;

int keyOf(const RbtNode *node) {
    return reinterpret_cast<const Item *>(node)->key;
}

int compareItems(const RbtNode *a, const RbtNode *b) {
    if (a != expectedProbe) probeWasFirst = false;
    return keyOf(a) - keyOf(b);
}

class Rbt : public testing::Test {
  protected:
    void SetUp() override {
        probeWasFirst = true;
        rbtInit(&tree_, compareItems);
    }
    void TearDown() override { EXPECT_TRUE(probeWasFirst) << "the probe is the comparator's first argument"; }

    Item *insert(int key) {
        items_.push_back(std::make_unique<Item>(Item{{}, key}));
        Item *item = items_.back().get();
        // Either way in, wherever both are allowed: a key that is not there yet.
        expectedProbe = &item->node;
        const RbtPlace place =
            rbtDescend(&tree_, [item](const RbtNode *node) { return compareItems(&item->node, node); });
        if (items_.size() % 2 == 0 && place.order != 0)
            rbtInsertAt(&tree_, place, &item->node);
        else
            rbtInsert(&tree_, &item->node);
        const auto after =
            std::upper_bound(model_.begin(), model_.end(), key,
                             [](int wanted, const Item *other) { return wanted < other->key; });
        model_.insert(after, item);
        return item;
    }

    void remove(size_t rank) {
        Item *item = model_[rank];
        rbtRemove(&tree_, &item->node);
        model_.erase(model_.begin() + static_cast<std::ptrdiff_t>(rank));
        // Whoever still reaches the element gets caught.
        item->node = {nullptr, nullptr, nullptr, ~0U};
    }

    Item *find(int key, RbtNode *(*how)(const RbtTree *, const RbtNode *) = rbtFind) {
        const Item probe{{}, key};
        expectedProbe = &probe.node;
        return reinterpret_cast<Item *>(how(&tree_, &probe.node));
    }

    bool isNone(const RbtNode *node) const { return node == &tree_.sentinel; }

    // Black height of the subtree, whose size goes to `size`; checks links, colours and counts on the way.
    unsigned checkSubtree(const RbtNode *node, const RbtNode *parent, unsigned &size) {
        size = 0;
        if (isNone(node)) return 0;
        EXPECT_EQ(node->parent, parent);
        const bool red = (node->word & 1) != 0;
        if (red) {
            EXPECT_EQ(node->left->word & 1, 0U) << "red below red";
            EXPECT_EQ(node->right->word & 1, 0U) << "red below red";
        }
        unsigned left = 0;
        unsigned right = 0;
        const unsigned leftHeight = checkSubtree(node->left, node, left);
        const unsigned rightHeight = checkSubtree(node->right, node, right);
        EXPECT_EQ(leftHeight, rightHeight) << "black heights";
        EXPECT_EQ(node->word >> 1, left) << "count of the left side";
        size = left + right + 1;
        return leftHeight + (red ? 0 : 1);
    }

    void checkStructure() {
        unsigned size = 0;
        (void)checkSubtree(tree_.header.left, &tree_.header, size);
        EXPECT_EQ(size, model_.size());
        EXPECT_EQ(tree_.header.word, model_.size() << 1);
        EXPECT_EQ(tree_.header.left->word & 1, 0U) << "the root is black";
        EXPECT_EQ(tree_.sentinel.word, 0U);
        EXPECT_TRUE(isNone(tree_.sentinel.left) && isNone(tree_.sentinel.right));
    }

    void checkOrder() {
        ASSERT_EQ(rbtCount(&tree_), model_.size());
        EXPECT_EQ(rbtIsEmpty(&tree_), model_.empty() ? 1 : 0);
        RbtNode *forward = rbtFirst(&tree_);
        RbtNode *backward = rbtLast(&tree_);
        for (size_t i = 0; i < model_.size(); i++) {
            ASSERT_EQ(forward, &model_[i]->node) << "at " << i;
            ASSERT_EQ(backward, &model_[model_.size() - 1 - i]->node) << "from the end, at " << i;
            ASSERT_EQ(rbtFindNth(&tree_, static_cast<uint32_t>(i)), forward);
            forward = rbtNext(&tree_, forward);
            backward = rbtPrev(&tree_, backward);
        }
        EXPECT_EQ(forward, nullptr);
        EXPECT_EQ(backward, nullptr);
        EXPECT_EQ(rbtFindNth(&tree_, static_cast<uint32_t>(model_.size())), nullptr);
    }

    // What a search gives is on the way down to where the key would go: equal, or without a child there.
    void checkSearch(int key) {
        const Item *closest = find(key, rbtFindClosest);
        const Item *exact = find(key);
        if (model_.empty()) {
            EXPECT_EQ(closest, nullptr);
            EXPECT_EQ(exact, nullptr);
            return;
        }
        ASSERT_NE(closest, nullptr);
        const bool present =
            std::any_of(model_.begin(), model_.end(), [key](const Item *item) { return item->key == key; });
        EXPECT_EQ(exact, present ? closest : nullptr);
        if (!present) {
            EXPECT_TRUE(isNone(key < closest->key ? closest->node.left : closest->node.right));
            return;
        }
        EXPECT_EQ(closest->key, key);
        for (const RbtNode *above = closest->node.parent; above != &tree_.header; above = above->parent)
            EXPECT_NE(keyOf(above), key) << "an equal element nearer to the root is met first";
    }

    RbtTree tree_{};
    std::vector<std::unique_ptr<Item>> items_;
    std::vector<Item *> model_;
};

struct Mix {
    const char *name;
    int keys;              // few: many equal ones
    unsigned insertsOf10;  // of ten operations
    int operations;
};

class RbtRandom : public Rbt, public testing::WithParamInterface<Mix> {};

TEST_P(RbtRandom, AgreesWithASortedListAfterEveryOperation) {
    const Mix &mix = GetParam();
    std::mt19937 random(static_cast<unsigned>(mix.keys));
    const auto below = [&random](size_t limit) { return random() % limit; };
    for (int i = 0; i < mix.operations; i++) {
        if (model_.empty() || below(10) < mix.insertsOf10)
            insert(static_cast<int>(below(static_cast<size_t>(mix.keys))));
        else
            remove(below(model_.size()));
        checkStructure();
        checkOrder();
        checkSearch(static_cast<int>(below(static_cast<size_t>(mix.keys))));
        if (HasFailure()) FAIL() << "after operation " << i;
    }
    while (!model_.empty()) {
        remove(below(model_.size()));
        checkStructure();
        if (HasFailure()) FAIL() << "emptying, with " << model_.size() << " left";
    }
    checkOrder();
}

INSTANTIATE_TEST_SUITE_P(Mixes, RbtRandom,
                         testing::Values(Mix{"ManyEqualKeys", 5, 6, 1500}, Mix{"FewEqualKeys", 100, 6, 1500},
                                         Mix{"DistinctKeys", 1 << 30, 6, 1500},
                                         Mix{"SmallTree", 20, 5, 3000}),
                         [](const testing::TestParamInfo<Mix> &mix) { return mix.param.name; });

TEST_F(Rbt, KeysInOrderKeepTheTreeShallow) {
    for (int key = 0; key < 4096; key++) insert(key);
    checkStructure();
    uint32_t deepest = 0;
    rbtForEachwDepth(
        &tree_,
        [](RbtTree *, RbtNode *, void *argument, uint32_t depth) {
            auto *most = static_cast<uint32_t *>(argument);
            *most = std::max(*most, depth);
            return 0;
        },
        &deepest);
    EXPECT_LE(deepest, 24U) << "twice the logarithm of the size";
}

}  // namespace
