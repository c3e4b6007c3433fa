/// Values when memory runs out: every allocation of an operation fails once, in turn.
#include "tarn/blob.h"

#include "blob/allocations.h"
#include "blob/message.h"

#include <gtest/gtest.h>
#include <new>

namespace {

using namespace tarn::blob;
using namespace tarn::tests;

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
        const long before = live_blocks();
        bool failed = false;
        {
            failing_allocation fault(nth);
            try {
                operation();
            } catch (const std::bad_alloc&) {
                failed = true;
            }
            if (!failed) {
                EXPECT_FALSE(fault.happened());
                return nth - 1;
            }
        }
        EXPECT_EQ(live_blocks(), before) << "allocation " << nth;
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

TEST(MemoryShortage, SettingKeepsTheOldValueAndTheArgument) {
    attr target = {1, 2};
    std::string text = long_text;
    bytes raw(100);
    list elements = {1, "x"};
    table fields = {{"k", 1}};
    const auto kept = [&] {
        EXPECT_EQ(target.get<list>().size(), 2u);
        EXPECT_EQ(text, long_text);
        EXPECT_EQ(raw.size(), 100u);
        EXPECT_EQ(elements.size(), 2u);
        EXPECT_EQ(fields.size(), 1u);
    };
    EXPECT_GT(fail_each_allocation([&] { attr(target).set(std::move(text)); }, kept), 0u);
    EXPECT_GT(fail_each_allocation([&] { attr(target).set(std::move(raw)); }, kept), 0u);
    text = long_text;
    raw.resize(100);
    EXPECT_GT(fail_each_allocation([&] { target.set(std::move(fields)); }, kept), 0u);
    target = {1, 2};
    fields = {{"k", 1}};
    EXPECT_GT(fail_each_allocation([&] { target.set(std::move(elements)); }, kept), 0u);
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
    const table source = {{"v", sample()}};
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

} // namespace
