/// Values nested as deep as a bus message of 1 MiB allows: through the client with 128 KiB of stack
/// on every thread, and the time that they take.
#include "tarn/client.h"

#include "client/client_fixture.h"
#include "support/small_stack.h"
#include "support/stack_use.h"

#include <libubox/blob.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <limits>
#include <memory>

namespace tarn::test {
namespace {

/// 8 bytes a level; the rest of the 1 MiB is for the attributes around the arguments.
constexpr std::size_t deepest = 131000;

/// Arrays and tables in turn, `depth` of them, one in the other.
blob::attr nested(std::size_t depth) {
    blob::attr value = blob::list();
    for (std::size_t level = 1; level < depth; ++level) {
        if (level % 2 != 0) {
            blob::table around;
            around.emplace("t", std::move(value));
            value = std::move(around);
        } else {
            blob::list around;
            around.push_back(std::move(value));
            value = std::move(around);
        }
    }
    return value;
}

std::size_t depth_of(const blob::attr& value) {
    std::size_t depth = 0;
    for (const blob::attr* at = &value; at != nullptr;) {
        ++depth;
        if (at->type() == typeid(blob::list)) {
            const auto& elements = at->get<blob::list>();
            at = elements.empty() ? nullptr : &elements.front();
        } else {
            const auto& fields = at->get<blob::table>();
            at = fields.empty() ? nullptr : &fields.begin()->second;
        }
    }
    return depth;
}

class DepthThroughTheClient : public client_on_bus_test {
protected:
    /// Everything but the main thread, which only waits, has the small stack.
    void SetUp() override {
        make_small_stacks_the_default();
        on_small_stack([] { connect_here(); });
    }

    static void connect_here() {
        outcome connected;
        bus().connect(connected.handler());
        run_until([&] { return connected.reported(); });
        ASSERT_FALSE(connected.code()) << connected.code().message();

        std::size_t found = 0;
        on_loop_thread([&] { found = stack_size(); });
        // A sanitizer adds a little for itself.
        EXPECT_LT(found, 2 * small_stack) << "the library's own thread";
    }

    /// Calls echo and looks at what comes back.
    static void call(const std::string& object) {
        call_outcome echo;
        {
            const blob::table args{{"v", nested(deepest)}};
            bus().invoke(object, "echo", args, echo.handler(), std::chrono::seconds(0));
        }
        run_until([&] { return echo.reported(); });
        ASSERT_FALSE(echo.code()) << echo.code().message();
        ASSERT_EQ(echo.replies().size(), 1U);
        ASSERT_EQ(echo.reply().size(), 1U);
        EXPECT_EQ(depth_of(echo.reply().begin()->second), deepest);
    }

    /// An object whose "echo" sends back what it gets; both references are used until it has.
    static void publish_mirror(outcome& sent, std::size_t& arrived) {
        outcome added;
        const auto echo = [&](const std::shared_ptr<client::exchange_ctx>& ctx) {
            arrived = depth_of(ctx->args.begin()->second);
            ctx->send(std::move(ctx->args), sent.handler());
            ctx->respond({});
        };
        bus().add_object("mirror", {{"echo", {echo, {}}}}, added.handler());
        run_until([&] { return added.reported(); });
        ASSERT_FALSE(added.code()) << added.code().message();
    }
};

TEST_F(DepthThroughTheClient, ACallAndItsReplyNeedNoStack) {
    start_service();
    on_small_stack([] { call("demo"); });
}

TEST_F(DepthThroughTheClient, ServingACallNeedsNoStack) {
    on_small_stack([] {
        std::size_t arrived = 0;
        outcome sent;
        publish_mirror(sent, arrived);
        call("mirror");
        EXPECT_EQ(arrived, deepest);
        run_until([&] { return sent.reported(); });
        EXPECT_FALSE(sent.code()) << sent.code().message();
        bus().cancel();
    });
}

#if !defined(__SANITIZE_THREAD__) // its runtime uses most of such a stack itself

/// The whole path of a call on stacks that are watched from the first step on: connecting,
/// encoding, calling, serving, decoding, an answer, the end of the connection.
class StackOfTheClient : public DepthThroughTheClient {
protected:
    void SetUp() override { make_small_stacks_the_default(); }

    /// The other half is for handlers of the application, which run on the same stack.
    static constexpr std::size_t share = small_stack / 2;

    static void expect_little(const char* thread, const stack_use& stack) {
        const std::size_t used = stack.used();
        std::printf("%s: %zu of %zu bytes of stack\n", thread, used, stack.size());
        EXPECT_GT(used, 0U) << "not measured";
        EXPECT_LE(used, share) << thread;
    }
};

TEST_F(StackOfTheClient, TheDeepestCallLeavesHalfOfTheSmallestFree) {
    on_small_stack([] {
        const stack_use here;
        bus();
        std::unique_ptr<stack_use> there;
        on_loop_thread([&] { there = std::make_unique<stack_use>(); });
        connect_here();

        std::size_t arrived = 0;
        outcome sent;
        publish_mirror(sent, arrived);
        call("mirror");
        run_until([&] { return sent.reported(); });
        bus().cancel();
        on_loop_thread([&] { expect_little("the library's thread", *there); });
        expect_little("the application's thread", here);
    });
}

#endif

double cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

/// Seconds spent on encoding, reading, copying and destroying.
using times = std::array<double, 4>;

times live_through(const blob::table& fields) {
    std::array<double, 5> marks{};
    marks[0] = cpu_seconds();
    const blob::buf encoded(fields);
    marks[1] = cpu_seconds();
    blob::table read = blob::utils::to_table(encoded.native()->head);
    marks[2] = cpu_seconds();
    blob::table copy = read;
    marks[3] = cpu_seconds();
    copy.clear();
    marks[4] = cpu_seconds();
    times spent{};
    for (std::size_t i = 0; i < spent.size(); ++i) {
        spent[i] = marks[i + 1] - marks[i];
    }
    return spent;
}

/// A message eight times the size must take about eight times the time, whatever is done to it; the
/// larger one no longer fits the processor's caches, and work in the square of it would take 64.
void expect_linear(const char* what, std::size_t size, blob::table (*make)(std::size_t)) {
    const blob::table small = make(size / 8);
    const blob::table large = make(size);
    times once{};
    times eightfold{};
    once.fill(std::numeric_limits<double>::infinity());
    eightfold = once;
    // The best of several rounds, in turn: what else the machine does only adds.
    for (int round = 0; round < 3; ++round) {
        const times shorter = live_through(small);
        const times longer = live_through(large);
        for (std::size_t i = 0; i < once.size(); ++i) {
            once[i] = std::min(once[i], shorter[i]);
            eightfold[i] = std::min(eightfold[i], longer[i]);
        }
    }
    const char* const names[] = {"encoding", "reading", "copying", "destroying"};
    for (std::size_t i = 0; i < once.size(); ++i) {
        const double ratio = eightfold[i] / once[i];
        std::printf("%s %zu %s: %.1f ms, ratio %.2f\n", names[i], size, what, 1e3 * eightfold[i],
                    ratio);
        EXPECT_LT(ratio, 32) << names[i];
    }
}

TEST(LinearTime, ForLevels) {
    expect_linear("levels", deepest, [](std::size_t depth) {
        return blob::table{{"v", nested(depth)}};
    });
}

TEST(LinearTime, ForFieldsOfATable) {
    expect_linear("fields", 60000, [](std::size_t count) {
        blob::table fields;
        for (std::size_t i = 0; i < count; ++i) {
            fields.emplace(std::to_string(i), blob::attr(std::uint32_t{1}));
        }
        return fields;
    });
}

TEST(LinearTime, ForFieldsOfOneName) {
    expect_linear("fields of one name", 60000, [](std::size_t count) {
        blob::table fields;
        for (std::size_t i = 0; i < count; ++i) {
            fields.emplace("name", blob::attr(std::uint32_t{1}));
        }
        return fields;
    });
}

TEST(LinearTime, ForElementsOfAList) {
    expect_linear("elements", 60000, [](std::size_t count) {
        return blob::table{{"v", blob::attr(blob::list(count, blob::attr(std::uint32_t{1})))}};
    });
}

} // namespace
} // namespace tarn::test
