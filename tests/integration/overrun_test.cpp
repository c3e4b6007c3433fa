/// A process that reads its bus so slowly that more waits for it than the daemon keeps, 1 MiB and
/// what the socket holds: what is lost, and what the calls get to hear.
#include "integration/processes.h"

#include "tarn/uloop.h"

#include <algorithm>
#include <future>
#include <vector>

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;

/// Keeps this process from reading its bus, for the life of the object.
class unread_bus {
public:
    unread_bus() {
        const auto begun = std::make_shared<std::promise<void>>();
        uloop::get_instance().post([begun, end = end_] {
            begun->set_value();
            end->get_future().wait();
        });
        begun->get_future().wait();
    }
    ~unread_bus() { end_->set_value(); }
    unread_bus(const unread_bus&) = delete;
    unread_bus& operator=(const unread_bus&) = delete;

private:
    std::shared_ptr<std::promise<void>> end_ = std::make_shared<std::promise<void>>();
};

/// What the daemon does not keep, many times over, and what fills the rest of its queue.
constexpr std::size_t large = 100000;
constexpr std::size_t large_count = 40;
constexpr std::size_t small = 1000;
constexpr std::size_t small_count = 200;
constexpr std::size_t empty_count = 100;
constexpr seconds time_limit{10};

class Overrun : public processes_test {
protected:
    void SetUp() override {
        holder_ = std::make_unique<child_process>(std::vector<std::string>{TARN_TEST_HOLDER});
        holder_->wait_for_line("holder: ready");
        connect();
    }

    /// Has a process of its own call the holder, and waits for the end of the call.
    static void call_holder(const std::string& method) {
        child_process caller({TARN_TEST_CALLER, "holder", method, "20000"});
        caller.wait_for_line("status 0");
    }

    /// Calls whose answers leave no room in the daemon's queue, for whatever message.
    void hold_enough() {
        hold(large, large_count);
        hold(small, small_count);
        hold(0, empty_count);
        // Calls reach the holder in order: that one is answered means that the others have arrived.
        ASSERT_EQ(call("holder", "echo").code(), make_error_code(msg::success));
    }

    /// Calls whose answers are of these sizes, and which are not answered yet.
    void hold(std::size_t bytes, std::size_t count) {
        for (std::size_t n = 0; n < count; ++n) {
            calls_.emplace_back();
            bus().invoke("holder", "hold", {{"bytes", static_cast<std::uint32_t>(bytes)}},
                         calls_.back().handler(), time_limit);
        }
    }

    static bool whole(const call_outcome& call, std::size_t bytes) {
        return call.code() == make_error_code(msg::success) && call.replies().size() == 1 &&
               call.reply().find("data")->second.get<std::string>() == std::string(bytes, 'x');
    }

    static bool without_reply(const call_outcome& call) {
        return call.code() == make_error_code(msg::success) && call.replies().empty();
    }

    static bool timed_out(const call_outcome& call) {
        return call.code() == make_error_code(msg::timeout) && call.replies().empty();
    }

    std::unique_ptr<child_process> holder_;
    std::list<call_outcome> calls_;
};

TEST_F(Overrun, LosesWholeAnswersAndTheirCallsEndByTheirTimeLimits) {
    ASSERT_NO_FATAL_FAILURE(hold_enough());
    {
        const unread_bus unread;
        // Answered last: all answers have passed the daemon by then, or have not.
        call_holder("release");
    }
    run_until([this] { return calls_.front().reported(); });
    // Answers arrive in order as well, so what is due has been reported by then.
    const call_outcome next = call("holder", "echo", {{"text", "here"}});
    EXPECT_EQ(next.code(), make_error_code(msg::success)) << "the connection goes on";
    EXPECT_EQ(next.reply().find("text")->second.get<std::string>(), "here");

    std::size_t whole_replies = 0;
    std::size_t missing_replies = 0;
    std::size_t missing_answers = 0;
    std::size_t n = 0;
    for (const call_outcome& done : calls_) {
        const std::size_t bytes = n < large_count                 ? large
                                  : n < large_count + small_count ? small
                                                                  : 0;
        SCOPED_TRACE(n++);
        if (!done.reported()) {
            ++missing_answers;
        } else if (whole(done, bytes)) {
            ++whole_replies;
        } else {
            EXPECT_TRUE(without_reply(done)) << done.code().message();
            ++missing_replies;
        }
    }
    EXPECT_TRUE(calls_.front().reported() && whole(calls_.front(), large)) << "there was room";
    EXPECT_FALSE(calls_.back().reported()) << "there was none";
    EXPECT_GT(missing_replies, 0U) << "a reply did not fit where the completion after it did";
    std::cout << calls_.size() << " calls: " << whole_replies << " with their reply, "
              << missing_replies << " completed without it, " << missing_answers
              << " left to their time limit\n";

    loop()->advance(time_limit);
    for (const call_outcome& done : calls_) {
        EXPECT_EQ(done.count(), 1U);
        missing_answers -= timed_out(done) ? 1 : 0;
    }
    EXPECT_EQ(missing_answers, 0U);
    EXPECT_EQ(bus().get_state(), client::state::connected);
}

TEST_F(Overrun, DoesNotLoseTheAnswersThatTheLibraryWaitsFor) {
    outcome early;
    bus().add_object("tarn.early", {}, early.handler());
    run_until([&] { return early.reported(); });
    ASSERT_FALSE(early.code());
    ASSERT_NO_FATAL_FAILURE(hold_enough());
    outcome added;
    outcome deleted;
    {
        const unread_bus unread;
        // These go out before the loop has read anything.
        bus().add_object("tarn.late", {}, added.handler());
        bus().del_object("tarn.early", true, deleted.handler());
        call_holder("release");
    }
    run_until([&] { return added.reported() && deleted.reported(); });
    EXPECT_EQ(added.code(), make_error_code(msg::success));
    EXPECT_EQ(deleted.code(), make_error_code(msg::success));
    loop()->advance(time_limit);
}

TEST_F(Overrun, LosesWholeCallsOfAServiceThatIsHeld) {
    ASSERT_EQ(call("holder", "echo").code(), make_error_code(msg::success));
    holder_->pause();
    const blob::table data{{"data", blob::attr(std::string(large, 'x'))}};
    for (std::size_t i = 0; i < large_count; ++i) {
        calls_.emplace_back();
        bus().invoke("holder", "echo", data, calls_.back().handler(), time_limit);
    }
    // The daemon answers in order: it has seen the calls before.
    ASSERT_EQ(call("nobody", "echo").code(), make_error_code(msg::not_found));
    holder_->resume();

    run_until([this] { return calls_.front().reported(); });
    ASSERT_EQ(call("holder", "echo").code(), make_error_code(msg::success)) << "it goes on serving";
    const auto served = static_cast<std::size_t>(std::count_if(
        calls_.begin(), calls_.end(), [](const call_outcome& done) { return done.reported(); }));
    EXPECT_GT(served, 0U);
    EXPECT_LT(served, calls_.size());
    std::cout << calls_.size() << " calls: " << served << " served\n";
    loop()->advance(time_limit);
    std::size_t n = 0;
    for (const call_outcome& done : calls_) {
        EXPECT_EQ(done.count(), 1U);
        EXPECT_TRUE(n++ < served ? whole(done, large) : timed_out(done)) << n;
    }
}

} // namespace
} // namespace tarn::test
