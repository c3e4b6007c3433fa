/// Values when memory runs out: every allocation of an operation fails once, in turn.
#include "tarn/blob.h"

#include "blob/message.h"
#include "support/allocations.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <iostream>
#include <new>
#include <stdexcept>

namespace {

using namespace tarn::blob;
using namespace tarn::test;

/// Long enough to be on the heap.
const std::string long_text(100, 'x');

attr sample() {
    return {{"numbers", {1, 2, 3}},
            {"text", long_text},
            {"raw", bytes{1, 2, 3}},
            {"deep", {{"t", {{"u", {{"l", {"a", long_text}}}}}}, {"v", 1.5}}},
            {"k", 1},
            {"k", "two"}};
}

std::string encoded(const attr& value) {
    const buf message(table{{"v", value}});
    const blob_attr* const head = message.native()->head;
    return std::string(reinterpret_cast<const char*>(head), blob_raw_len(head));
}

/// Runs `operation` with its first allocation failing, then its second, and so on until it
/// succeeds; after each failure `unchanged` must hold and nothing may be left behind. Returns how
/// many failures there were.
template <class Operation, class Check>
std::size_t fail_each_allocation(Operation&& operation, Check&& unchanged) {
    for (std::size_t nth = 1; nth < 10000; ++nth) {
        const long before = memory_held().blocks;
        bool failed = false;
        {
            failing_allocation fault(nth);
            try {
                operation();
            } catch (const std::bad_alloc&) {
                failed = true;
            } catch (const std::runtime_error&) {
                failed = true; // libubox could not make its buffer larger
            }
            if (!failed) {
                EXPECT_FALSE(fault.happened());
                std::cout << nth - 1 << " allocations failed in turn\n";
                return nth - 1;
            }
        }
        EXPECT_EQ(memory_held().blocks, before) << "allocation " << nth;
        unchanged();
    }
    ADD_FAILURE() << "never succeeds";
    return 0;
}

void nothing() {}

TEST(MemoryShortage, BuildingAValueLeaksNothing) {
    EXPECT_GT(fail_each_allocation([] { sample(); }, nothing), 20u);
}

TEST(MemoryShortage, CopyingAValueLeaksNothingAndKeepsTheSource) {
    const attr source = sample();
    const std::string bytes = encoded(source);
    EXPECT_GT(fail_each_allocation([&] { attr copy(source); },
                                   [&] { EXPECT_EQ(encoded(source), bytes); }),
              20u);
}

TEST(MemoryShortage, AssigningKeepsTheOldValue) {
    const attr source = sample();
    attr target = {{"old", {1, 2}}};
    const std::string bytes = encoded(target);
    EXPECT_GT(
        fail_each_allocation([&] { target = source; }, [&] { EXPECT_EQ(encoded(target), bytes); }),
        20u);
    EXPECT_EQ(encoded(target), encoded(source));
}

/// Sets a value by rvalue with each allocation failing; neither the old value nor the argument may
/// suffer.
template <class T>
void set_by_rvalue(T argument) {
    attr target = {1, 2};
    const auto size = argument.size();
    EXPECT_GT(fail_each_allocation([&] { target.set(std::move(argument)); },
                                   [&] {
                                       EXPECT_EQ(target.get<list>().size(), 2u);
                                       EXPECT_EQ(argument.size(), size);
                                   }),
              0u);
    EXPECT_EQ(target.get<T>().size(), size);
}

TEST(MemoryShortage, SettingKeepsTheOldValueAndTheArgument) {
    set_by_rvalue(long_text);
    set_by_rvalue(bytes(100));
    set_by_rvalue(list{1, "x"});
    set_by_rvalue(table{{"k", 1}});
}

TEST(MemoryShortage, SettingByLvalueAndByTextKeepsTheOldValue) {
    attr target = {1, 2};
    const list elements = {long_text, list{1, long_text}};
    const auto kept = [&] {
        EXPECT_EQ(target.get<list>().front().get<int>(), 1);
    };
    EXPECT_GT(fail_each_allocation([&] { target.set(long_text.c_str()); }, kept), 0u);
    target = {1, 2};
    EXPECT_GT(fail_each_allocation([&] { target.set(elements); }, kept), 0u);
}

TEST(MemoryShortage, MovingSwappingAndDestroyingNeverAllocate) {
    attr value = sample();
    const std::size_t before = allocations();
    attr moved = std::move(value);
    value = std::move(moved);
    value.swap(moved);
    moved.reset();
    EXPECT_EQ(allocations(), before);
}

TEST(MemoryShortage, EncodingLeaksNothingAndKeepsTheValue) {
    // Long and deep, so that the buffer and the stack of open nests grow several times. (Those of a
    // libubox that is a library of its own do not fail: the stack alone has to be enough.)
    attr deep = list(200, sample());
    for (int level = 0; level < 1000; ++level) {
        list around;
        around.push_back(std::move(deep));
        deep = std::move(around);
    }
    const table source = {{"v", std::move(deep)}};
    const std::string bytes = encoded(source.begin()->second);
    EXPECT_GT(fail_each_allocation([&] { buf message(source); },
                                   [&] { EXPECT_EQ(encoded(source.begin()->second), bytes); }),
              10u);
}

TEST(MemoryShortage, ABufIsUsableAgainAfterClear) {
    const table source = {{"v", sample()}};
    const std::string bytes = encoded(source.begin()->second);
    for (std::size_t nth = 1; nth < 100; ++nth) {
        buf message;
        bool failed = false;
        {
            failing_allocation fault(nth);
            try {
                message.assign(source);
            } catch (const std::bad_alloc&) {
                failed = true;
            } catch (const std::runtime_error&) {
                failed = true; // libubox could not make its buffer larger
            }
        }
        message.assign(source);
        const blob_attr* const head = message.native()->head;
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(head), blob_raw_len(head)), bytes);
        if (!failed) {
            EXPECT_GT(nth, 1u);
            return;
        }
    }
    FAIL() << "never succeeds";
}

TEST(MemoryShortage, ABufferThatCannotBeAllocatedIsBadAlloc) {
    buf message;
    message.native()->grow = [](blob_buf*, int) {
        return false;
    };
    EXPECT_THROW(message.clear(), std::bad_alloc);
    EXPECT_THROW(message.add("a", 1), std::bad_alloc);
    message.native()->grow = nullptr;
    message.assign({{"a", 1}});
    EXPECT_EQ(blob_raw_len(message.native()->head), 16u);
}

TEST(MemoryShortage, DecodingLeaksNothing) {
    const message received(encoded(sample()));
    EXPECT_GT(fail_each_allocation([&] { utils::to_table(received.get()); }, nothing), 20u);
    const policy expected = {{"v", typeid(table)}, {"w", typeid(bool)}};
    EXPECT_GT(fail_each_allocation([&] { utils::to_table(received.get(), expected); }, nothing),
              20u);
}

/// Nothing in it is long: names and texts stay within their strings, which is 10 bytes at least.
const table small = {{"address", "10.0.0.2"},     {"interface", "lan"},    {"metric", 10},
                     {"received", 1234567890123}, {"servers", {"a", "b"}}, {"up", true}};

TEST(Allocations, ABuilderOfASmallMessageTakesTwoForItselfAndItsBuffer) {
    const std::size_t before = allocations();
    {
        const buf message(small);
        EXPECT_LE(blob_raw_len(message.native()->head), 256u) << "what libubox starts with";
    }
    EXPECT_LE(allocations() - before, 2u);
    EXPECT_GT(allocations(), before);
}

TEST(Allocations, AnotherSmallMessageInTheSameBuilderTakesOneForItsBuffer) {
    buf message;
    const std::size_t before = allocations();
    message.assign(small);
    EXPECT_LE(allocations() - before, 1u);
}

TEST(Allocations, AFieldAddedToAMessageThatHasRoomTakesNone) {
    buf message;
    const std::size_t before = allocations();
    message.add("text", small.begin()->second);
    message.add("list", small.find("servers")->second);
    EXPECT_EQ(allocations(), before);
}

TEST(Allocations, AMessageOfManyFieldsMovesItsBufferAFewTimes) {
    table many;
    for (int i = 0; i < 1000; ++i) {
        many.emplace("field_" + std::to_string(i), i);
    }
    const std::size_t before = allocations();
    const buf message(many);
    EXPECT_LE(allocations() - before, 10u) << "from 256 bytes to 24 KiB";
}

TEST(Allocations, AListThatEndsItsMessageIsDecodedWithoutAStackOfNests) {
    const buf message(table{{"l", {1, 2}}});
    const std::size_t before = allocations();
    const table read = utils::to_table(message.native()->head);
    EXPECT_LE(allocations() - before, 5u) << "the field, two for its list, and the two elements";
    EXPECT_EQ(read.begin()->second.get<list>().size(), 2u);
}

TEST(Allocations, ADecodedFieldTakesOneAndItsTextAnother) {
    table flat = small;
    flat.erase("servers");
    const buf message(flat);
    const std::size_t before = allocations();
    const table read = utils::to_table(message.native()->head);
    // Words of 32 bits leave no room for a number of 64 in the value itself.
    const std::size_t wide = sizeof(void*) < sizeof(std::uint64_t) ? 1 : 0;
    EXPECT_LE(allocations() - before, read.size() + 2 + wide) << "two of the fields are texts";
    EXPECT_GE(allocations() - before, read.size());
}

} // namespace
