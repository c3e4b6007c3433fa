/// The balanced tree that libubus keeps its objects in.
#include "bus.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <numeric>
#include <random>
#include <vector>

namespace {

struct record {
    avl_node node{};
    std::uint32_t key = 0;
};

int compare(const void* left, const void* right, void*) {
    const auto a = *static_cast<const std::uint32_t*>(left);
    const auto b = *static_cast<const std::uint32_t*>(right);
    return a < b ? -1 : (a > b ? 1 : 0);
}

// The height of a tree that is balanced and whose keys stand in order; -1 otherwise.
int checked_height(const avl_node* node, std::int64_t above, std::int64_t below) {
    if (node == nullptr) {
        return 0;
    }
    const std::int64_t key = *static_cast<const std::uint32_t*>(node->key);
    const int left = checked_height(node->left, above, key);
    const int right = checked_height(node->right, key, below);
    const bool sound =
        left >= 0 && right >= 0 && std::abs(left - right) <= 1 && above < key && key < below;
    return sound ? 1 + std::max(left, right) : -1;
}

bool sound(const avl_tree& tree) {
    return checked_height(tree.root, -1, std::int64_t{1} << 32) >= 0;
}

class UbusAvl : public testing::Test {
protected:
    UbusAvl() { avl_init(&tree, compare, false, nullptr); }

    void add(record& added, std::uint32_t key) {
        added.key = key;
        added.node.key = &added.key;
        ASSERT_EQ(avl_insert(&tree, &added.node), 0);
    }

    avl_tree tree;
};

TEST_F(UbusAvl, FindsNothingInAnEmptyTree) {
    const std::uint32_t key = 1;
    EXPECT_EQ(avl_find(&tree, &key), nullptr);
}

TEST_F(UbusAvl, RefusesAKeyThatIsThere) {
    record first;
    record second;
    add(first, 7);
    second.key = 7;
    second.node.key = &second.key;
    EXPECT_EQ(avl_insert(&tree, &second.node), -1);
    EXPECT_EQ(tree.count, 1u);
    EXPECT_EQ(avl_find(&tree, &first.key), &first.node);
}

TEST_F(UbusAvl, StaysBalancedWhateverTheOrder) {
    constexpr std::size_t size = 300;
    std::mt19937 random(5);
    std::vector<std::uint32_t> keys(size);
    std::iota(keys.begin(), keys.end(), 1000);
    for (int order = 0; order < 4; ++order) {
        std::vector<record> records(size);
        for (std::size_t i = 0; i < size; ++i) {
            add(records[i], keys[i]);
            ASSERT_TRUE(sound(tree));
        }
        EXPECT_EQ(tree.count, size);
        std::vector<std::size_t> leaving(size);
        std::iota(leaving.begin(), leaving.end(), 0);
        std::shuffle(leaving.begin(), leaving.end(), random);
        for (const std::size_t i : leaving) {
            ASSERT_EQ(avl_find(&tree, &records[i].key), &records[i].node);
            avl_delete(&tree, &records[i].node);
            ASSERT_EQ(avl_find(&tree, &records[i].key), nullptr);
            ASSERT_TRUE(sound(tree));
        }
        EXPECT_EQ(tree.root, nullptr);
        std::shuffle(keys.begin(), keys.end(), random);
    }
}

} // namespace
