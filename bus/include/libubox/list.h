/// Doubly linked lists whose nodes live in the caller's records, for uloop, libubus and their
/// users. C++ code puts `extern "C"` around the include.
#pragma once

#include <stdbool.h>
#include <stddef.h>

/** A list's head, and a node in a list: a ring that runs through the head. */
struct list_head {
    struct list_head* next;
    struct list_head* prev;
};

/** The record of type `type` whose member `field` is the node `ptr`. */
#define list_entry(ptr, type, field) ((type*)((char*)(ptr)-offsetof(type, field)))

/** Makes an empty list, or a node that may be deleted although it is in no list. */
static inline void INIT_LIST_HEAD(struct list_head* list) {
    list->next = list;
    list->prev = list;
}

static inline bool list_empty(const struct list_head* head) {
    return head->next == head;
}

/** Adds a node at the front. */
static inline void list_add(struct list_head* node, struct list_head* head) {
    node->next = head->next;
    node->prev = head;
    head->next->prev = node;
    head->next = node;
}

/** Adds a node at the back; given another node instead of the head, right before that one. */
static inline void list_add_tail(struct list_head* node, struct list_head* head) {
    list_add(node, head->prev);
}

/** Takes a node out. It belongs to no list afterwards and must not be deleted again. */
static inline void list_del(struct list_head* node) {
    node->next->prev = node->prev;
    node->prev->next = node->next;
    node->next = NULL;
    node->prev = NULL;
}

/** Takes a node out and leaves it an empty list of its own, which may be deleted again. */
static inline void list_del_init(struct list_head* node) {
    list_del(node);
    INIT_LIST_HEAD(node);
}
