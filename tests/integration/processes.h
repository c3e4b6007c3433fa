/// What the tests of several processes share: this process's client on a bus of its own, and the
/// other processes.
#pragma once

#include "client/client_fixture.h"
#include "support/hurry.h"

#include "tarn/error.h"

#include <csignal>

namespace tarn::test {

class processes_test : public client_on_bus_test {
protected:
    using context = std::shared_ptr<client::exchange_ctx>;

    /// Runs what the loop has to do, and lets its clock run when there is nothing, until
    /// `condition` holds.
    static void run_hurried_until(const std::function<bool()>& condition) {
        ASSERT_TRUE(run_hurried(*loop(), condition, limit)) << "nothing happened within the limit";
    }

    /// Publishes an object of this process.
    static void publish(const std::string& name, const client::method_map& methods) {
        outcome added;
        bus().add_object(name, methods, added.handler());
        run_until([&] { return added.reported(); });
        ASSERT_FALSE(added.code()) << added.code().message();
    }

    /// Calls a method and waits for the outcome.
    static call_outcome call(const std::string& path, const std::string& method,
                             const blob::table& args = {}) {
        call_outcome done;
        bus().invoke(path, method, args, done.handler(), std::chrono::seconds(0));
        run_until([&] { return done.reported(); });
        return done;
    }

    /// Calls, each time with a limit of one hurried second, until the outcome is `status`: the
    /// daemon sees the end of a process when it sees it.
    static void call_until(const std::string& path, const std::string& method,
                           const std::error_code& status) {
        call_outcome last;
        do {
            last = call_outcome();
            bus().invoke(path, method, {}, last.handler(), std::chrono::seconds(1));
            run_hurried_until([&] { return last.reported(); });
        } while (!HasFatalFailure() && last.code() != status);
    }

    static std::unique_ptr<child_process> start_relay() {
        auto relay = std::make_unique<child_process>(std::vector<std::string>{TARN_TEST_RELAY});
        relay->wait_for_line("relay: ready");
        return relay;
    }

    static std::unique_ptr<child_process> start_example() {
        auto example = std::make_unique<child_process>(std::vector<std::string>{TARN_TEST_EXAMPLE});
        example->wait_for_line("service: ready");
        return example;
    }

    /// Ends a service the way it is meant to end; a sanitizer's findings show in its exit status.
    static void expect_orderly_end(child_process& service) {
        service.kill(SIGTERM);
        EXPECT_EQ(service.wait(), 0);
    }
};

} // namespace tarn::test
