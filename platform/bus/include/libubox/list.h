// Doubly linked, circular, intrusive list: a head and the members of the elements' own struct.
// An initialised node that is in no list points to itself.
#pragma once

// NOLINTBEGIN(modernize-use-nullptr,bugprone-macro-parentheses): also read by C; parentheses do not go around
// what is assigned to or named

#include <stdbool.h>
#include <stddef.h>

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

#define LIST_HEAD_INIT(name) \
    { &(name), &(name) }

#ifndef container_of
#define container_of(ptr, type, member) ((type *)((char *)(ptr)-offsetof(type, member)))
#endif

static inline void INIT_LIST_HEAD(struct list_head *list) {
    list->next = list->prev = list;
}

static inline bool list_empty(const struct list_head *head) {
    return head->next == head;
}

// In front of the first element.
static inline void list_add(struct list_head *node, struct list_head *head) {
    node->prev = head;
    node->next = head->next;
    head->next->prev = node;
    head->next = node;
}

// Behind the last element; with an element instead of the head, in front of that element.
static inline void list_add_tail(struct list_head *node, struct list_head *head) {
    list_add(node, head->prev);
}

// The node's own pointers are left null: it must be initialised or added before list_empty() may see it.
static inline void list_del(struct list_head *node) {
    node->next->prev = node->prev;
    node->prev->next = node->next;
    node->next = node->prev = NULL;
}

static inline void list_del_init(struct list_head *node) {
    node->next->prev = node->prev;
    node->prev->next = node->next;
    INIT_LIST_HEAD(node);
}

#define list_entry(ptr, type, member) container_of(ptr, type, member)
#define list_first_entry(ptr, type, member) list_entry((ptr)->next, type, member)

#define list_for_each_entry(pos, head, member)                                             \
    for (pos = list_first_entry(head, __typeof__(*pos), member); &(pos)->member != (head); \
         pos = list_entry((pos)->member.next, __typeof__(*pos), member))

// The body may remove pos, and nothing else, from the list.
#define list_for_each_entry_safe(pos, n, head, member)                \
    for (pos = list_first_entry(head, __typeof__(*pos), member),      \
        n = list_entry((pos)->member.next, __typeof__(*pos), member); \
         &(pos)->member != (head); pos = n, n = list_entry((n)->member.next, __typeof__(*n), member))
// NOLINTEND(modernize-use-nullptr,bugprone-macro-parentheses)
