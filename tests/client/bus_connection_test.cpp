/// The loop thread's side of the connection, seen from inside: this program is compiled without
/// access control.
#include "client/client_impl.h"

#include "client/client_fixture.h"
#include "tarn/error.h"
#include "tarn/uloop.h"

#include <gtest/gtest.h>

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;

class BusConnection : public client_on_bus_test {
protected:
    void SetUp() override { connect(); }

    /// Leaves the connection as some releases of libubus do after a write that has failed: marked,
    /// while its socket stays open and nothing is reported.
    static void fail_a_write() {
        uloop::get_instance().post(
            [] { client_impl::get_instance(loop()).loop_side_.bus_->sock.eof = true; });
    }
};

TEST_F(BusConnection, OneThatCannotBeWrittenToIsLostWithTheNextCall) {
    fail_a_write();
    call_outcome called;
    bus().invoke("nobody", "ping", {}, called.handler(), seconds(0));
    run_until([&] { return called.reported(); });
    EXPECT_EQ(called.code(), msg::connection_failed);
    run_until_state(client::state::disconnected);
    connect();
}

TEST_F(BusConnection, OneThatCannotBeWrittenToIsLostWithTheNextObject) {
    fail_a_write();
    outcome added;
    bus().add_object("own", {}, added.handler());
    run_until([&] { return added.reported(); });
    EXPECT_EQ(added.code(), msg::connection_failed);
    run_until_state(client::state::disconnected);
    connect();
}

TEST_F(BusConnection, ACallThatIsOverBeforeItIsSentIsNotKept) {
    outcome added;
    std::shared_ptr<client::exchange_ctx> kept;
    bus().add_object("own", {{"hold", {[&](const auto& context) { kept = context; }, {}}}},
                     added.handler());
    run_until([&] { return added.reported(); });
    bus().invoke("own", "hold", {}, {}, seconds(0)).release();
    run_until([&] { return kept != nullptr; });
    on_loop_thread([] {
        auto& self = client_impl::get_instance(loop());
        EXPECT_EQ(self.loop_side_.connection_->requests.take_oldest(), nullptr);
    });
    kept.reset();
}

} // namespace
} // namespace tarn::test
