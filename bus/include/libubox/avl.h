/// A balanced tree whose nodes live in the caller's records; libubus keeps its objects in one. C++
/// code puts `extern "C"` around the include.
#pragma once

#include <stdbool.h>

/** Orders two keys: below, equal to or above 0. `ptr` is the tree's cmp_ptr. */
typedef int (*avl_tree_comp)(const void* k1, const void* k2, void* ptr);

struct avl_node {
    struct avl_node* left;
    struct avl_node* right;
    const void* key;     /* set by the caller; must not change while the node is in a tree */
    signed char balance; /* levels below this node, itself included */
};

struct avl_tree {
    struct avl_node* root;
    unsigned int count;
    avl_tree_comp comp;
    void* cmp_ptr;
};

/* Programs written for libubox may rely on the macro. */
#define EXPORT(symbol) symbol

/** Makes an empty tree. Keys are unique in it: `allow_dups` must be false. */
void EXPORT(avl_init)(struct avl_tree* tree, avl_tree_comp comp, bool allow_dups, void* cmp_ptr);

/** The node with this key, or null. */
struct avl_node* EXPORT(avl_find)(const struct avl_tree* tree, const void* key);

/** Adds a node under its `key`. 0, or -1 if the key is there already. */
int EXPORT(avl_insert)(struct avl_tree* tree, struct avl_node* node);

/** Takes a node out; one that is not in the tree is left alone. */
void EXPORT(avl_delete)(struct avl_tree* tree, struct avl_node* node);
