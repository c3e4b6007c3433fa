/// What the bus answers once, as futures.
#include "tarn/ext/bus_future.h"

#include "fake_fixture.h"

#include <chrono>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace tarn::test {
namespace {

using error::msg;
using testing::outcome;
using namespace std::chrono_literals;

class BusFuture : public fake_fixture {
protected:
    /// Runs `ask` on a thread of its own while this one plays the loop's.
    template <class Ask>
    void on_worker(const Ask& ask) {
        std::atomic<bool> over{false};
        std::thread worker([&] {
            ask();
            over = true;
            loop->post([] {});
        });
        EXPECT_TRUE(loop->run_until([&] { return over.load(); }, 30s));
        worker.join();
    }
};

TEST_F(BusFuture, TheOutcomesArriveOnAWorkerThread) {
    connect();
    publish("porter");
    rest.add_object("a");
    rest.set_subscribers("porter", 1);
    on_worker([&] {
        EXPECT_NO_THROW(ext::async_send_event(bus, "door.open", door{"front", 1}).get());
        EXPECT_NO_THROW(ext::async_send_event(bus, "door.open").get());
        EXPECT_EQ(ext::async_objects(bus, "a").get().at(0).path, "a");
        EXPECT_NO_THROW(ext::async_wait_for(bus, {"a"}, 5s).get());
        EXPECT_EQ(ext::async_notify(bus, "porter", "may-open", door{"front", {}}, 5s).get().size(),
                  1U);
        EXPECT_EQ(ext::async_notify<void>(bus, "absent", "may-open", blob::table(), 5s)
                      .get_result()
                      .error(),
                  msg::not_found);
    });
    EXPECT_EQ(rest.sent_events().size(), 2U);
}

TEST_F(BusFuture, AFailureIsThrown) {
    on_worker([&] {
        try {
            ext::async_objects(bus, "*").get();
            ADD_FAILURE() << "not thrown";
        } catch (const std::system_error& failure) {
            EXPECT_EQ(failure.code(), msg::connection_failed);
        }
    });
}

TEST_F(BusFuture, DestroyingTheFutureEndsTheWait) {
    connect();
    {
        const auto waiting = ext::async_wait_for(bus, {"a"}, 0s);
        EXPECT_EQ(rest.pending_waits(), 1U);
    }
    EXPECT_EQ(rest.pending_waits(), 0U);
}

TEST_F(BusFuture, WaitingOnTheLoopsOwnThreadIsRefused) {
    connect();
    const auto waiting = ext::async_wait_for(bus, {"a"}, 0s);
    loop->drain();
    EXPECT_THROW(waiting.wait(), std::logic_error);
}

} // namespace
} // namespace tarn::test
