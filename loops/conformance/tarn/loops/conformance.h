/// The conformance suite for event loops: checks that a loop withstands what the client does to it.
///
/// Write a driver for your loop (see tarn::loops::conformance::fixture), then, in a GoogleTest
/// program, at namespace scope:
///
///     TARN_EVENT_LOOP_CONFORMANCE(MyLoop, my_driver);
///     TARN_EVENT_LOOP_EXCEPTION_CONFORMANCE(MyLoop, my_driver); // if exceptions of tasks leave it
#pragma once

#include "tarn/loops/conformance/exceptions.h"
#include "tarn/loops/conformance/fixture.h"
#include "tarn/loops/conformance/tasks.h"
#include "tarn/loops/conformance/threads.h"
#include "tarn/loops/conformance/timers.h"

namespace tarn::loops::conformance {

/// Names the one driver of an instantiation, in place of GoogleTest's "0".
struct loop_name {
    /// Called by GoogleTest, once for each type.
    template <class>
    static const char* GetName(int) {
        return "Loop";
    }
};

} // namespace tarn::loops::conformance

/// Everything that tarn/event_loop.h demands, as the suites `prefix/EventLoopTasks`,
/// `prefix/EventLoopTimers` and `prefix/EventLoopThreads`, run on the loop of `driver`.
#define TARN_EVENT_LOOP_CONFORMANCE(prefix, driver)                                                \
    namespace prefix##_conformance {                                                               \
        using namespace ::tarn::loops::conformance;                                                \
        using types = ::testing::Types<driver>;                                                    \
        INSTANTIATE_TYPED_TEST_SUITE_P(prefix, EventLoopTasks, types, loop_name);                  \
        INSTANTIATE_TYPED_TEST_SUITE_P(prefix, EventLoopTimers, types, loop_name);                 \
        INSTANTIATE_TYPED_TEST_SUITE_P(prefix, EventLoopThreads, types, loop_name);                \
    }                                                                                              \
    static_assert(true, "a semicolon follows")

/// In addition, for loops that let the exceptions of tasks and handlers out of the driver's
/// run_until() and go on afterwards: the suite `prefix/EventLoopExceptions`. The client's own tasks
/// throw only what the application's handlers throw.
#define TARN_EVENT_LOOP_EXCEPTION_CONFORMANCE(prefix, driver)                                      \
    namespace prefix##_conformance {                                                               \
        using namespace ::tarn::loops::conformance;                                                \
        using throwing_types = ::testing::Types<driver>;                                           \
        INSTANTIATE_TYPED_TEST_SUITE_P(prefix, EventLoopExceptions, throwing_types, loop_name);    \
    }                                                                                              \
    static_assert(true, "a semicolon follows")
