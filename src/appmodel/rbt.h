// The one ordered container: an intrusive red-black tree whose nodes also carry the size of their left
// subtree, so that it answers rank queries beside the usual ordered ones.
//
// Every element begins with an RbtNode.  The tree never allocates or frees: the caller allocates an element,
// links it in, unlinks it and frees it.  To empty a tree: take the successor, rbtRemove the element, free it,
// go on with the successor.  Keyed and rank operations are O(log n).
//
// Threads: no locking inside; users that share a tree hold their own lock around every call.  Nothing fails;
// passing a node that is not in the tree, or one that is already linked to rbtInsert, is the caller's error.
#pragma once
#include <cstddef>
#include <cstdint>

struct RbtNode {
    RbtNode *parent;  // the root's is the tree's header
    RbtNode *left;    // an absent child is the tree's sentinel, never null
    RbtNode *right;
    uint32_t word;  // bit 0: colour, 1 = red; bits 1-31: elements in the left subtree
};
static_assert(sizeof(RbtNode) == 32);

// Negative, zero or positive as `a` orders before, equal to or after `b`; `a` is always the probe (a key
// looked up, or the node being inserted), `b` a node of the tree.
using RbtCompareFn = int (*)(const RbtNode *a, const RbtNode *b);

struct RbtTree {
    RbtCompareFn compare;
    RbtNode header;    // no element: left is the root, its count the number of elements
    RbtNode sentinel;  // stands for every absent child; black
};

using RbtVisitFn = int (*)(RbtTree *tree, RbtNode *node, void *argument);
using RbtDepthVisitFn = int (*)(RbtTree *tree, RbtNode *node, void *argument, uint32_t depth);

void rbtInit(RbtTree *tree, RbtCompareFn compare);

RbtNode *rbtFirst(const RbtTree *tree);                      // null when empty
RbtNode *rbtLast(const RbtTree *tree);                       // null when empty
RbtNode *rbtNext(const RbtTree *tree, const RbtNode *node);  // null after the last
RbtNode *rbtPrev(const RbtTree *tree, const RbtNode *node);  // null before the first

// An element equal to `key`, else the one below which the key would be inserted; null only for an empty tree.
RbtNode *rbtFindClosest(const RbtTree *tree, const RbtNode *key);

// An element equal to `key`, or null; of several equal ones the first met on the path from the root.
RbtNode *rbtFind(const RbtTree *tree, const RbtNode *key);

// Links the node in; one that is equal to elements of the tree comes after them in order.
void rbtInsert(RbtTree *tree, RbtNode *node);

// Where a key belongs.
struct RbtPlace {
    RbtNode *node;  // the element that equals it, else the one below which it hangs; null in an empty tree
    int order;      // of the key to that element: 0 when they are equal
};

// Links the node in at the place of its key, which is not in the tree.  Saves the second descent.
void rbtInsertAt(RbtTree *tree, RbtPlace place, RbtNode *node);

// Unlinks the node; every other element keeps its address.
void rbtRemove(RbtTree *tree, RbtNode *node);

unsigned rbtCount(const RbtTree *tree);
int rbtIsEmpty(const RbtTree *tree);  // 1 or 0

// The element of 0-based rank n in order; null when n is not below the count.
RbtNode *rbtFindNth(const RbtTree *tree, uint32_t n);

// Calls `visit` for every element in order; the depth is the distance from the root, whose depth is 0.  The
// visitor's result is not looked at.
void rbtForEach(RbtTree *tree, RbtVisitFn visit, void *argument);
void rbtForEachwDepth(RbtTree *tree, RbtDepthVisitFn visit, void *argument);

// The place of a key.  `order` stands for the tree's comparator with the key for its probe: an owner whose
// keys are cheap to compare hands it in here and saves a call for every level.
template <class Order>
inline RbtPlace rbtDescend(const RbtTree *tree, Order order) {
    RbtPlace place{nullptr, -1};
    for (RbtNode *next = tree->header.left; next != &tree->sentinel;) {
        place.node = next;
        // Both children are asked for while the comparison decides between them: in a large tree each level
        // is a cache miss, and this is the only work there is to hide it behind.
        __builtin_prefetch(next->left);
        __builtin_prefetch(next->right);
        place.order = order(static_cast<const RbtNode *>(next));
        if (place.order == 0) break;
        // A conditional move: the direction is a coin toss that no predictor learns.
        next = place.order < 0 ? next->left : next->right;
    }
    return place;
}
