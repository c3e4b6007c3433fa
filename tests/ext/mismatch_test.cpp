/// The exception of a value that is not what was asked for.
#include "tarn/ext/mismatch.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace tarn::ext {
namespace {

TEST(Mismatch, SaysWhatWasWantedAndWhatWasFound) {
    const mismatch wrong("a table", "a string");
    EXPECT_STREQ(wrong.what(), "expected a table, found a string");
    EXPECT_EQ(wrong.path(), "");
    EXPECT_EQ(wrong.wanted(), "a table");
    EXPECT_EQ(wrong.found(), "a string");
}

TEST(Mismatch, NamesThePlaceFromTheOutsideIn) {
    const mismatch inner("a flag", "nothing");
    EXPECT_EQ(inner.within("up").path(), "up");
    EXPECT_EQ(inner.within("up").within(2).within("ports").within("lan").path(), "lan.ports[2].up");
    EXPECT_EQ(inner.within(3).within(0).path(), "[0][3]");
    EXPECT_STREQ(inner.within("up").what(), "up: expected a flag, found nothing");
}

TEST(Mismatch, QuotesNamesThatWouldReadAsSomethingElse) {
    const mismatch inner("a flag", "nothing");
    EXPECT_EQ(inner.within("a.b").within("").path(), R"(""."a.b")");
    EXPECT_EQ(inner.within("a\"\\\n\x01").path(), R"("a\"\\\n\u0001")");
    EXPECT_EQ(inner.within("eth0_1-2").path(), "eth0_1-2");
}

TEST(Mismatch, IsCopiedWithoutThrowing) {
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<mismatch>);
}

} // namespace
} // namespace tarn::ext
