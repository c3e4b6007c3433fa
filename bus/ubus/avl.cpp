/// The balanced tree of libubox/avl.h: in every node the heights of the two sides differ by one at
/// most, so that paths stay short enough for plain recursion.
#include "ubox/headers.h"

namespace {

int height(const avl_node* node) {
    return node == nullptr ? 0 : node->balance;
}

void measure(avl_node* node) {
    const int left = height(node->left);
    const int right = height(node->right);
    node->balance = static_cast<signed char>(1 + (left > right ? left : right));
}

avl_node* rotate_right(avl_node* node) {
    avl_node* top = node->left;
    node->left = top->right;
    top->right = node;
    measure(node);
    measure(top);
    return top;
}

avl_node* rotate_left(avl_node* node) {
    avl_node* top = node->right;
    node->right = top->left;
    top->left = node;
    measure(node);
    measure(top);
    return top;
}

avl_node* balance(avl_node* node) {
    measure(node);
    if (height(node->left) > height(node->right) + 1) {
        if (height(node->left->left) < height(node->left->right)) {
            node->left = rotate_left(node->left);
        }
        return rotate_right(node);
    }
    if (height(node->right) > height(node->left) + 1) {
        if (height(node->right->right) < height(node->right->left)) {
            node->right = rotate_right(node->right);
        }
        return rotate_left(node);
    }
    return node;
}

// Equal keys are refused beforehand.
avl_node* insert(const avl_tree& tree, avl_node* at, avl_node* added) {
    if (at == nullptr) {
        return added;
    }
    avl_node*& side = tree.comp(added->key, at->key, tree.cmp_ptr) < 0 ? at->left : at->right;
    side = insert(tree, side, added);
    return balance(at);
}

avl_node* take_first(avl_node* at, avl_node*& first) {
    if (at->left == nullptr) {
        first = at;
        return at->right;
    }
    at->left = take_first(at->left, first);
    return balance(at);
}

avl_node* remove(const avl_tree& tree, avl_node* at, const avl_node* leaving) {
    if (at == leaving) {
        if (at->right == nullptr) {
            return at->left;
        }
        avl_node* next = nullptr;
        avl_node* right = take_first(at->right, next);
        next->left = at->left;
        next->right = right;
        return balance(next);
    }
    avl_node*& side = tree.comp(leaving->key, at->key, tree.cmp_ptr) < 0 ? at->left : at->right;
    side = remove(tree, side, leaving);
    return balance(at);
}

} // namespace

void avl_init(avl_tree* tree, avl_tree_comp comp, bool, void* cmp_ptr) {
    *tree = avl_tree{nullptr, 0, comp, cmp_ptr};
}

avl_node* avl_find(const avl_tree* tree, const void* key) {
    avl_node* at = tree->root;
    while (at != nullptr) {
        const int order = tree->comp(key, at->key, tree->cmp_ptr);
        if (order == 0) {
            break;
        }
        at = order < 0 ? at->left : at->right;
    }
    return at;
}

int avl_insert(avl_tree* tree, avl_node* node) {
    if (avl_find(tree, node->key) != nullptr) {
        return -1;
    }
    node->left = node->right = nullptr;
    node->balance = 1;
    tree->root = insert(*tree, tree->root, node);
    ++tree->count;
    return 0;
}

void avl_delete(avl_tree* tree, avl_node* node) {
    if (avl_find(tree, node->key) == node) {
        tree->root = remove(*tree, tree->root, node);
        --tree->count;
    }
}
