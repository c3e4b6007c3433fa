/// Makes every allocation of an operation fail in turn, for the tests of memory that runs out.
#pragma once

#include "support/allocations.h"
#include "support/on_loop_thread.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <iostream>
#include <memory>
#include <new>

namespace tarn::test {

inline std::size_t report(std::size_t failed) {
    std::cout << failed << " allocations failed in turn\n";
    return failed;
}

/// Makes the loop thread's first, second, third ... allocation from now on fail in turn, each time
/// during one `operation`, until one comes to its end before the allocation is reached. Returns how
/// many have failed.
template <class Operation>
std::size_t fail_each_on_loop_thread(const Operation& operation) {
    for (std::size_t nth = 1;; ++nth) {
        std::unique_ptr<failing_allocation> failure;
        on_loop_thread([&] { failure = std::make_unique<failing_allocation>(nth); });
        operation();
        bool happened = false;
        on_loop_thread([&] {
            happened = failure->happened();
            failure.reset();
        });
        if (!happened || ::testing::Test::HasFailure()) {
            return report(nth - 1);
        }
    }
}

/// The same on this thread, for an operation that throws then and has no effect.
template <class Operation>
std::size_t fail_each_here(const Operation& operation) {
    for (std::size_t nth = 1;; ++nth) {
        bool thrown = false;
        bool happened = false;
        {
            const failing_allocation failure(nth);
            try {
                operation();
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
            happened = failure.happened();
        }
        EXPECT_EQ(thrown, happened) << "at allocation " << nth;
        if (!happened || ::testing::Test::HasFailure()) {
            return report(nth - 1);
        }
    }
}

} // namespace tarn::test
