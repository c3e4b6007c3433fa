/// The version numbers, which programs compare with what they were built for.
#include "tarn/version.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <type_traits>

namespace {

static_assert(std::is_same_v<decltype(tarn::version::number::major), std::int32_t>);
static_assert(std::is_same_v<decltype(tarn::version::number::minor), std::int32_t>);
static_assert(std::is_same_v<decltype(tarn::version::number::patch), std::int32_t>);
static_assert(sizeof(tarn::version::number) == 3 * sizeof(std::int32_t));

TEST(Version, TheInterfaceIsOneZeroZero) {
    const auto [major, minor, patch] = tarn::version::get();
    EXPECT_EQ(major, 1);
    EXPECT_EQ(minor, 0);
    EXPECT_EQ(patch, 0);
}

TEST(Version, TheReleaseIsCountedApartFromTheInterface) {
    EXPECT_EQ(tarn::version::get_string(), "0.0.1");
}

} // namespace
