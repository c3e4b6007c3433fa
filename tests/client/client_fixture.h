/// What the client's tests start from: a bus of their own, a loop that the test drives (by hand, or
/// one of another library: see make_test_loop()), the process's client on it, and recorders for
/// what handlers report.
#pragma once

#include "tarn/client.h"

#include "support/bus_daemon.h"
#include "support/child_process.h"
#include "support/on_loop_thread.h"
#include "support/test_loop.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

namespace tarn::test {

/// Generous: reached only when a test fails.
constexpr std::chrono::seconds limit{30};

/// Records every call of a completion handler. Handlers may outlive it. The first few need no
/// memory.
class outcome {
public:
    outcome() { codes_->reserve(4); }
    client::completion_handler handler() {
        return [codes = codes_](const std::error_code& code) {
            codes->push_back(code);
        };
    }
    std::size_t count() const { return codes_->size(); }
    bool reported() const { return !codes_->empty(); }
    const std::error_code& code() const { return codes_->at(0); }

private:
    std::shared_ptr<std::vector<std::error_code>> codes_ =
        std::make_shared<std::vector<std::error_code>>();
};

/// Records every call of a result handler. Handlers may outlive it.
class call_outcome {
public:
    client::result_handler handler() {
        return [seen = seen_](const std::list<blob::attr>& replies, const std::error_code& code) {
            ++seen->count;
            seen->replies = replies;
            seen->code = code;
        };
    }
    std::size_t count() const { return seen_->count; }
    bool reported() const { return count() != 0; }
    const std::error_code& code() const { return seen_->code; }
    const std::list<blob::attr>& replies() const { return seen_->replies; }
    /// The only reply's table.
    const blob::table& reply() const { return replies().front().get<blob::table>(); }

private:
    struct record {
        std::size_t count = 0;
        std::error_code code;
        std::list<blob::attr> replies;
    };
    std::shared_ptr<record> seen_ = std::make_shared<record>();
};

/// A client on a loop that the test drives, without a bus. One process per test: the client is
/// bound to the first test's loop for good.
class client_test : public ::testing::Test {
protected:
    static const std::shared_ptr<test_loop>& loop() {
        // Outlives the client, which is made after it.
        static const std::shared_ptr<test_loop> instance = make_test_loop();
        return instance;
    }

    static client& bus() { return client::get_instance(loop()); }

    /// Runs what the loop has to do until `condition` holds.
    static void run_until(const std::function<bool()>& condition) {
        ASSERT_TRUE(loop()->run_until(condition, limit)) << "nothing happened within the limit";
    }

    static void run_until_state(client::state wanted) {
        run_until([wanted] { return bus().get_state() == wanted; });
    }

    void connect() {
        outcome connected;
        bus().connect(connected.handler());
        run_until([&] { return connected.reported(); });
        ASSERT_FALSE(connected.code()) << connected.code().message();
        ASSERT_EQ(bus().get_state(), client::state::connected);
    }

    /// Until nothing is under way on the loop thread and nothing waits for the application's loop.
    /// A result may be told ahead of the drain that was requested for it, which then finds nothing.
    static void settle() {
        on_loop_thread([] {});
        loop()->drain();
    }

    /// Subscribes to state changes for the rest of the test.
    std::vector<client::state>& record_states() {
        states_link_ =
            bus().notify_on_state_change([this](client::state s) { states_.push_back(s); });
        return states_;
    }

    void TearDown() override {
        // Handlers refer to the test's objects.
        bus().cancel();
    }

private:
    std::vector<client::state> states_;
    utils::scoped_link states_link_;
};

/// The same with a bus daemon of its own.
class client_on_bus_test : public client_test {
protected:
    /// Starts the service "demo", written on plain libubus, and waits until it is published.
    void start_service() {
        service_ = std::make_unique<child_process>(std::vector<std::string>{TARN_TEST_SERVICE});
        service_->wait_for_line("demo_service: ready");
    }

    bus_daemon daemon_;
    std::unique_ptr<child_process> service_;
};

} // namespace tarn::test
