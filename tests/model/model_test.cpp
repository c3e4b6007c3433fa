/// The short form of the model: some hundred sequences, always the same ones.
#include "model.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace tarn::test {
namespace {

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr int share = 4;
#else
constexpr int share = 1;
#endif
#elif defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int share = 4;
#else
constexpr int share = 1;
#endif

/// The first of a case's seeds. Each case plays 75 of its own, fewer under a sanitizer.
class a_model : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(a_model, AllowsWhatTheClientDoesInRandomSequencesOnSeveralThreads) {
    model played(std::chrono::seconds(20));
    for (std::uint64_t seed = GetParam(); seed < GetParam() + 75 / share; ++seed) {
        if (const auto wrong = played.play(seed)) {
            ADD_FAILURE() << *wrong;
            // The client may never let the process end by itself.
            std::fflush(stdout);
            std::_Exit(1);
        }
    }
    played.print_counts(std::cout);
}

INSTANTIATE_TEST_SUITE_P(of, a_model, ::testing::Values(1000001, 2000001, 3000001, 4000001));

} // namespace
} // namespace tarn::test
