/// Values nested as deep as a message of 1 MiB allows, on a thread with a stack of 128 KiB, and the
/// work that this takes.
#include "tarn/blob.h"

#include "blob/message.h"
#include "support/allocations.h"
#include "support/small_stack.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace {

using namespace tarn::blob;
using namespace tarn::test;

constexpr std::size_t deepest = 131071; // 8 bytes a level, and the message's own 4

/// A message of `depth` nested arrays or tables without names; with `alternating`, of both in turn.
std::string nested_message(std::size_t depth, unsigned type, bool alternating) {
    std::string bytes(4 + 8 * depth, '\0');
    const auto put = [&](std::size_t at, std::uint32_t word) {
        word = htobe32(word);
        std::memcpy(&bytes[at], &word, 4);
    };
    put(0, static_cast<std::uint32_t>(bytes.size()));
    for (std::size_t level = 0; level < depth; ++level) {
        const unsigned id = alternating && level % 2 ? 3 - type : type;
        put(4 + 8 * level,
            0x80000000u | id << 24 | static_cast<std::uint32_t>(8 * (depth - level)));
    }
    return bytes;
}

std::size_t depth_of(const attr& value) {
    std::size_t depth = 0;
    for (const attr* at = &value; at;) {
        ++depth;
        if (at->type() == typeid(list)) {
            at = at->get<list>().empty() ? nullptr : &at->get<list>().front();
        } else {
            at = at->get<table>().empty() ? nullptr : &at->get<table>().begin()->second;
        }
    }
    return depth;
}

struct work {
    std::size_t read, copy, encode;
};

/// Takes a message through everything that may be done to it and counts the allocations of it.
work live_through(const std::string& bytes, std::size_t depth) {
    const message received(bytes);
    const std::size_t start = allocations();
    table read = utils::to_table(received.get());
    const std::size_t after_reading = allocations();
    EXPECT_EQ(depth_of(read.begin()->second), depth);

    attr copy = read.begin()->second;
    const std::size_t after_copying = allocations();
    EXPECT_EQ(depth_of(copy), depth);

    attr moved = std::move(copy);
    attr assigned = 5;
    assigned = moved;
    moved.reset();
    attr swapped = 5;
    swapped.swap(assigned);
    EXPECT_EQ(depth_of(swapped), depth);
    swapped = 5;

    const std::size_t before_encoding = allocations();
    const buf encoded(read);
    const std::size_t after_encoding = allocations();
    const blob_attr* const head = encoded.native()->head;
    EXPECT_EQ(blob_raw_len(head), bytes.size());
    EXPECT_EQ(std::memcmp(head, bytes.data(), bytes.size()), 0);
    read.clear();
    return {after_reading - start, after_copying - after_reading, after_encoding - before_encoding};
}

TEST(Depth, ArraysAsDeepAsAMessageAllowsNeedNoStack) {
    on_small_stack([] { live_through(nested_message(deepest, 1, false), deepest); });
}

TEST(Depth, TablesAsDeepAsAMessageAllowsNeedNoStack) {
    on_small_stack([] { live_through(nested_message(deepest, 2, false), deepest); });
}

TEST(Depth, ArraysAndTablesInTurnNeedNoStack) {
    on_small_stack([] { live_through(nested_message(deepest, 2, true), deepest); });
}

TEST(Depth, ThePolicyFormNeedsNoStack) {
    on_small_stack([] {
        const message received(nested_message(deepest, 2, false));
        const table read = utils::to_table(received.get(), {{"", typeid(table)}});
        // libubox need not find a field without a name; found or not, it ends well.
        if (!read.empty()) {
            EXPECT_EQ(depth_of(read.begin()->second), deepest);
        }
        blob_attr* const only = static_cast<blob_attr*>(blob_data(received.get()));
        EXPECT_EQ(depth_of(utils::to_attr(only, false)), deepest);
    });
}

TEST(Depth, AFailureAtTheBottomNeedsNoStack) {
    on_small_stack([] {
        std::string bytes = nested_message(deepest, 1, false);
        bytes[bytes.size() - 8] = static_cast<char>(0x89);
        const message received(bytes);
        EXPECT_THROW(utils::to_table(received.get()), std::logic_error);

        attr value;
        for (std::size_t level = 0; level < deepest; ++level) {
            list around;
            around.push_back(std::move(value));
            value = std::move(around);
        }
        EXPECT_THROW(buf(table{{"v", value}}), std::logic_error);
    });
}

TEST(Depth, AllocationThatFailsAtTheBottomNeedsNoStack) {
    on_small_stack([] {
        const message received(nested_message(deepest, 1, false));
        const attr value = utils::to_table(received.get()).begin()->second;
        const long before = memory_held().blocks;
        failing_allocation fault(3 * (deepest - 10));
        EXPECT_THROW(attr{value}, std::bad_alloc);
        EXPECT_EQ(memory_held().blocks, before);
    });
}

TEST(Depth, AValueIsErasedOnTheWayThroughAnother) {
    on_small_stack([] {
        const message received(nested_message(deepest, 2, true));
        attr value = utils::to_table(received.get()).begin()->second;
        // Half-way down, the rest is cut off and dies alone; then the upper half.
        attr* at = &value;
        for (std::size_t level = 0; level < deepest / 2; ++level) {
            at = at->type() == typeid(list) ? &at->get<list>().front()
                                            : &at->get<table>().begin()->second;
        }
        *at = 5;
        value = std::move(*at);
        EXPECT_EQ(value.get<int>(), 5);
    });
}

TEST(Depth, TheWorkGrowsLinearlyWithTheDepth) {
    const std::size_t depth = 10000;
    const work once = live_through(nested_message(depth, 2, true), depth);
    const work tenfold = live_through(nested_message(10 * depth, 2, true), 10 * depth);
    EXPECT_GE(once.read, depth);
    EXPECT_LE(tenfold.read, 10 * once.read + 100);
    EXPECT_LE(tenfold.copy, 10 * once.copy + 100);
    EXPECT_LE(tenfold.encode, 10 * once.encode + 100);
}

} // namespace
