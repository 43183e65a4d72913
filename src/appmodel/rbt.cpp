#include "appmodel/rbt.h"

namespace {

constexpr uint32_t kRed = 1;
constexpr uint32_t kOneLeft = 2;  // one element in the left subtree, as the word counts it

bool isRed(const RbtNode *node) {
    return (node->word & kRed) != 0;
}

void paintRed(RbtNode *node) {
    node->word |= kRed;
}

void paintBlack(RbtNode *node) {
    node->word &= ~kRed;
}

void copyColour(RbtNode *node, const RbtNode *from) {
    node->word = (node->word & ~kRed) | (from->word & kRed);
}

uint32_t leftCount(const RbtNode *node) {
    return node->word / kOneLeft;
}

// The child on the side that a comparison chose: left for a negative one.  Compiled to a conditional move:
// the direction is a coin toss that no predictor learns.
RbtNode *childFor(const RbtNode *node, int order) {
    return order < 0 ? node->left : node->right;
}

// Both children are asked for while the comparison decides between them: in a large tree each level is a
// cache miss, and this is the only work there is to hide it behind.
void prefetchChildren(const RbtNode *node) {
    __builtin_prefetch(node->left);
    __builtin_prefetch(node->right);
}

// The header's only child is its left one, so this holds for the root as well.
bool isLeftChild(const RbtNode *node) {
    return node == node->parent->left;
}

// Puts `node` where `old` hangs; old's own links stay.
void hangInPlaceOf(const RbtNode *old, RbtNode *node) {
    if (isLeftChild(old))
        old->parent->left = node;
    else
        old->parent->right = node;
}

void rotateLeft(RbtTree *tree, RbtNode *x) {
    RbtNode *y = x->right;
    x->right = y->left;
    if (y->left != &tree->sentinel) y->left->parent = x;
    y->parent = x->parent;
    hangInPlaceOf(x, y);
    y->left = x;
    x->parent = y;
    y->word += (leftCount(x) + 1) * kOneLeft;
}

void rotateRight(RbtTree *tree, RbtNode *x) {
    RbtNode *y = x->left;
    x->left = y->right;
    if (y->right != &tree->sentinel) y->right->parent = x;
    y->parent = x->parent;
    hangInPlaceOf(x, y);
    y->right = x;
    x->parent = y;
    x->word -= (leftCount(y) + 1) * kOneLeft;
}

// Lifts a red pair below a black grandparent until none is left.  A red parent is never the header, which is
// black, so the grandparent is an element.
void fixInsertion(RbtTree *tree, RbtNode *node) {
    while (isRed(node->parent)) {
        RbtNode *parent = node->parent;
        RbtNode *grandparent = parent->parent;
        const bool onLeft = parent == grandparent->left;
        RbtNode *uncle = onLeft ? grandparent->right : grandparent->left;
        if (isRed(uncle)) {
            paintBlack(parent);
            paintBlack(uncle);
            paintRed(grandparent);
            node = grandparent;
            continue;
        }
        if (onLeft) {
            if (node == parent->right) {
                rotateLeft(tree, parent);
                parent = node;
            }
            paintBlack(parent);
            paintRed(grandparent);
            rotateRight(tree, grandparent);
        } else {
            if (node == parent->left) {
                rotateRight(tree, parent);
                parent = node;
            }
            paintBlack(parent);
            paintRed(grandparent);
            rotateLeft(tree, grandparent);
        }
        break;
    }
    paintBlack(tree->header.left);
}

// `node` has taken the place of a black element, so its side is one black short.
void fixRemoval(RbtTree *tree, RbtNode *node) {
    while (node != tree->header.left && !isRed(node)) {
        RbtNode *parent = node->parent;
        if (node == parent->left) {
            RbtNode *sibling = parent->right;
            if (isRed(sibling)) {
                paintBlack(sibling);
                paintRed(parent);
                rotateLeft(tree, parent);
                sibling = parent->right;
            }
            if (!isRed(sibling->left) && !isRed(sibling->right)) {
                paintRed(sibling);
                node = parent;
                continue;
            }
            if (!isRed(sibling->right)) {
                paintBlack(sibling->left);
                paintRed(sibling);
                rotateRight(tree, sibling);
                sibling = parent->right;
            }
            copyColour(sibling, parent);
            paintBlack(parent);
            paintBlack(sibling->right);
            rotateLeft(tree, parent);
        } else {
            RbtNode *sibling = parent->left;
            if (isRed(sibling)) {
                paintBlack(sibling);
                paintRed(parent);
                rotateRight(tree, parent);
                sibling = parent->left;
            }
            if (!isRed(sibling->left) && !isRed(sibling->right)) {
                paintRed(sibling);
                node = parent;
                continue;
            }
            if (!isRed(sibling->left)) {
                paintBlack(sibling->right);
                paintRed(sibling);
                rotateLeft(tree, sibling);
                sibling = parent->left;
            }
            copyColour(sibling, parent);
            paintBlack(parent);
            paintBlack(sibling->left);
            rotateRight(tree, parent);
        }
        node = tree->header.left;
    }
    paintBlack(node);
}

RbtNode *leftmost(const RbtTree *tree, RbtNode *node) {
    while (node->left != &tree->sentinel) node = node->left;
    return node;
}

RbtNode *rightmost(const RbtTree *tree, RbtNode *node) {
    while (node->right != &tree->sentinel) node = node->right;
    return node;
}

RbtPlace placeOf(const RbtTree *tree, const RbtNode *key) {
    return rbtDescend(tree,
                      [key, compare = tree->compare](const RbtNode *node) { return compare(key, node); });
}

}  // namespace

void rbtInit(RbtTree *tree, RbtCompareFn compare) {
    RbtNode *none = &tree->sentinel;
    tree->compare = compare;
    tree->header = {none, none, none, 0};
    tree->sentinel = {none, none, none, 0};
}

RbtNode *rbtFirst(const RbtTree *tree) {
    return rbtIsEmpty(tree) ? nullptr : leftmost(tree, tree->header.left);
}

RbtNode *rbtLast(const RbtTree *tree) {
    return rbtIsEmpty(tree) ? nullptr : rightmost(tree, tree->header.left);
}

RbtNode *rbtNext(const RbtTree *tree, const RbtNode *node) {
    if (node->right != &tree->sentinel) return leftmost(tree, node->right);
    while (!isLeftChild(node)) node = node->parent;
    return node->parent == &tree->header ? nullptr : node->parent;
}

RbtNode *rbtPrev(const RbtTree *tree, const RbtNode *node) {
    if (node->left != &tree->sentinel) return rightmost(tree, node->left);
    while (node->parent != &tree->header && isLeftChild(node)) node = node->parent;
    return node->parent == &tree->header ? nullptr : node->parent;
}

RbtNode *rbtFindClosest(const RbtTree *tree, const RbtNode *key) {
    return placeOf(tree, key).node;
}

RbtNode *rbtFind(const RbtTree *tree, const RbtNode *key) {
    const RbtPlace place = placeOf(tree, key);
    return place.order == 0 ? place.node : nullptr;
}

void rbtInsert(RbtTree *tree, RbtNode *node) {
    const RbtCompareFn compare = tree->compare;
    RbtNode *parent = &tree->header;
    int order = -1;  // the root is the header's left child
    for (RbtNode *next = parent->left; next != &tree->sentinel; next = childFor(parent, order)) {
        parent->word += order < 0 ? kOneLeft : 0;
        parent = next;
        prefetchChildren(parent);
        order = compare(node, parent);
    }
    parent->word += order < 0 ? kOneLeft : 0;

    *node = {parent, &tree->sentinel, &tree->sentinel, kRed};
    if (order < 0)
        parent->left = node;
    else
        parent->right = node;
    fixInsertion(tree, node);
}

void rbtInsertAt(RbtTree *tree, RbtPlace place, RbtNode *node) {
    RbtNode *parent = place.node ? place.node : &tree->header;
    const int order = place.order;
    *node = {parent, &tree->sentinel, &tree->sentinel, kRed};
    if (order < 0)
        parent->left = node;
    else
        parent->right = node;
    for (const RbtNode *at = node; at != &tree->header; at = at->parent)
        at->parent->word += isLeftChild(at) ? kOneLeft : 0;
    fixInsertion(tree, node);
}

void rbtRemove(RbtTree *tree, RbtNode *node) {
    RbtNode *none = &tree->sentinel;
    RbtNode *spliced = node;
    if (node->left != none && node->right != none) spliced = leftmost(tree, node->right);

    // Written without a branch on the side, which is again a coin toss.
    for (const RbtNode *at = spliced; at != &tree->header; at = at->parent)
        at->parent->word -= isLeftChild(at) ? kOneLeft : 0;

    // The sentinel too learns its parent: the fix-up starts from it.
    RbtNode *child = spliced->left != none ? spliced->left : spliced->right;
    child->parent = spliced->parent;
    hangInPlaceOf(spliced, child);

    const bool lostBlack = !isRed(spliced);
    if (spliced != node) {
        *spliced = *node;
        hangInPlaceOf(node, spliced);
        spliced->left->parent = spliced;
        // The successor may have been the right child itself, and its own right side may be empty now.
        spliced->right->parent = spliced;
    }
    if (lostBlack) fixRemoval(tree, child);
}

unsigned rbtCount(const RbtTree *tree) {
    return leftCount(&tree->header);
}

int rbtIsEmpty(const RbtTree *tree) {
    return rbtCount(tree) == 0 ? 1 : 0;
}

RbtNode *rbtFindNth(const RbtTree *tree, uint32_t n) {
    if (n >= rbtCount(tree)) return nullptr;
    RbtNode *node = tree->header.left;
    while (n != leftCount(node)) {
        if (n < leftCount(node)) {
            node = node->left;
        } else {
            n -= leftCount(node) + 1;
            node = node->right;
        }
    }
    return node;
}

void rbtForEach(RbtTree *tree, RbtVisitFn visit, void *argument) {
    // The count is read anew: a visitor that adds elements behind itself does not keep the walk going.
    uint32_t calls = 0;
    for (RbtNode *node = rbtFirst(tree); node && calls < rbtCount(tree); node = rbtNext(tree, node), calls++)
        (void)visit(tree, node, argument);
}

void rbtForEachwDepth(RbtTree *tree, RbtDepthVisitFn visit, void *argument) {
    if (rbtIsEmpty(tree)) return;
    uint32_t depth = 0;
    const auto descendLeft = [tree, &depth](RbtNode *node) {
        for (; node->left != &tree->sentinel; depth++) node = node->left;
        return node;
    };
    RbtNode *node = descendLeft(tree->header.left);
    while (node != &tree->header) {
        (void)visit(tree, node, argument, depth);
        if (node->right != &tree->sentinel) {
            depth++;
            node = descendLeft(node->right);
            continue;
        }
        for (; !isLeftChild(node); depth--) node = node->parent;
        node = node->parent;
        depth--;
    }
}
