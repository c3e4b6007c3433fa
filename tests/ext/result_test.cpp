/// A value, or the reason why there is none.
#include "tarn/ext/result.h"

#include "tarn/ext/fields.h"
#include "tarn/ext/reply.h"

#include <gtest/gtest.h>

#include <memory>

namespace tarn::ext {
namespace {

using error::msg;

TEST(Result, HoldsAValue) {
    result<std::string> with = "x";
    ASSERT_TRUE(with);
    EXPECT_EQ(*with, "x");
    EXPECT_EQ(with->size(), 1U);
    EXPECT_EQ(with.value(), "x");
    EXPECT_FALSE(with.error());
    EXPECT_EQ(with.value_or("y"), "x");
}

TEST(Result, HoldsAnErrorAndItsDetail) {
    const result<int> without{make_error_code(msg::timeout), "after 5 s"};
    EXPECT_FALSE(without);
    EXPECT_EQ(without.error(), msg::timeout);
    EXPECT_EQ(without.message(), "Request timed out: after 5 s");
    EXPECT_EQ(without.detail(), "after 5 s");
    EXPECT_EQ(without.value_or(7), 7);
    const result<int> bare = msg::not_found;
    EXPECT_EQ(bare.message(), "Not found");
}

template <class Use>
void expect_system_error(const Use& use) {
    try {
        use();
        ADD_FAILURE() << "nothing thrown";
    } catch (const std::system_error& failed) {
        EXPECT_EQ(failed.code(), msg::timeout);
        EXPECT_STREQ(failed.what(), "Request timed out: after 5 s");
    }
}

TEST(Result, TheValueThatIsNotThereThrowsTheErrorWithItsMessage) {
    result<std::string> without{make_error_code(msg::timeout), "after 5 s"};
    const auto& same = without;
    expect_system_error([&] { without.value(); });
    expect_system_error([&] { same.value(); });
    expect_system_error([&] { std::move(without).value(); });
    expect_system_error([&] { *without; });
    expect_system_error([&] { *same; });
    expect_system_error([&] { static_cast<void>(without->size()); });
    expect_system_error([&] { static_cast<void>(same->size()); });
}

TEST(Result, SuccessWithoutAValueIsRefused) {
    EXPECT_THROW(static_cast<void>(result<int>{std::error_code()}), std::logic_error);
    EXPECT_THROW(static_cast<void>(result<int>{msg::success}), std::logic_error);
}

TEST(Result, HoldsWhatCanOnlyBeMoved) {
    result<std::unique_ptr<int>> with = std::make_unique<int>(5);
    EXPECT_EQ(*std::move(with).value(), 5);
    const result<std::unique_ptr<int>> moved = std::move(with);
    EXPECT_TRUE(moved.has_value());
}

TEST(Result, OfNothingIsSuccessOrAnError) {
    const result<void> good;
    EXPECT_TRUE(good);
    EXPECT_NO_THROW(good.value());
    EXPECT_TRUE(result<void>(std::error_code()));
    const result<void> bad{make_error_code(msg::timeout), "after 5 s"};
    EXPECT_FALSE(bad);
    EXPECT_EQ(bad.message(), "Request timed out: after 5 s");
    expect_system_error([&] { bad.value(); });
    expect_system_error([&] { *bad; });
}

struct port {
    std::string name;
};
TARN_FIELDS(port, name)

TEST(Result, AMismatchIsAParseErrorThatNamesTheField) {
    const auto wrong = try_from_attr<port>({{"name", 5}});
    EXPECT_EQ(wrong.error(), msg::parse_error);
    EXPECT_EQ(wrong.message(),
              "Parsing message data failed: name: expected a string, found a 32-bit integer");
    EXPECT_EQ(try_from_attr<port>({{"name", "a"}})->name, "a");
    EXPECT_EQ(result<void>(mismatch("a", "b")).error(), msg::parse_error);
}

} // namespace
} // namespace tarn::ext
