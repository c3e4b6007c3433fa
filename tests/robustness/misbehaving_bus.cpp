/// What the tests with a misbehaving bus share.
#include "robustness/misbehaving_bus.h"

#include "support/held_loop_thread.h"

namespace tarn::test {
namespace {

const code lost = error::msg::connection_failed;

template <class Outcome>
void expect_one(const char* what, const Outcome& seen, const std::optional<code>& expected) {
    EXPECT_EQ(seen.count(), expected ? 1U : 0U) << what;
    if (seen.reported() && expected) {
        EXPECT_EQ(seen.code(), *expected) << what << ": " << seen.code().message();
    }
}

} // namespace

outcomes broken_at(wire::type moment) {
    outcomes expected = outcomes::all_succeed();
    expected.last_send.reset();
    expected.removal = lost;
    if (moment == wire::remove_object) {
        return expected;
    }
    expected.addition = lost;
    if (moment == wire::add_object) {
        return expected;
    }
    expected.call = expected.limited_call = lost;
    return expected;
}

operations::operations(client& bus, const std::shared_ptr<client::exchange_ctx>& context,
                       const std::string& published, const std::string& added) {
    const blob::table text{{"text", blob::attr("hello")}};
    const char* path = scripted_bus::remote_path;
    const char* method = scripted_bus::remote_method;
    const auto no_limit = std::chrono::seconds::zero();
    links_ = {context->send(text, first_send_.handler()),
              bus.invoke(path, method, text, call_.handler(), no_limit),
              bus.invoke(path, method, text, limited_call_.handler(), time_limit),
              bus.add_object(added, {}, addition_.handler()),
              bus.del_object(published, true, removal_.handler()),
              context->send(text, last_send_.handler())};
}

bool operations::all_reported(const outcomes& expected) const {
    return first_send_.reported() >= expected.first_send.has_value() &&
           call_.reported() >= expected.call.has_value() &&
           limited_call_.reported() >= expected.limited_call.has_value() &&
           addition_.reported() >= expected.addition.has_value() &&
           removal_.reported() >= expected.removal.has_value() &&
           last_send_.reported() >= expected.last_send.has_value();
}

void operations::expect(const outcomes& expected) const {
    expect_one("first send", first_send_, expected.first_send);
    expect_one("call", call_, expected.call);
    expect_one("call with a time limit", limited_call_, expected.limited_call);
    expect_one("add_object", addition_, expected.addition);
    expect_one("del_object", removal_, expected.removal);
    expect_one("last send", last_send_, expected.last_send);
    for (std::size_t i = 0; i < links_.size(); ++i) {
        EXPECT_FALSE(links_.at(i).active()) << "the link of operation " << i;
    }
}

void misbehaving_bus_test::set_up_round() {
    outcome connected;
    bus().connect(connected.handler());
    outcome ready;
    bus().add_object(published, methods_, ready.handler());
    run_until([&] { return ready.reported(); });
    ASSERT_EQ(connected.count(), 1U);
    ASSERT_FALSE(connected.code()) << connected.code().message();
    ASSERT_FALSE(ready.code()) << ready.code().message();
    context_.reset();
    call_seq_ = scripted_.call(published, "serve");
    run_until([this] { return context_ != nullptr; });
}

void misbehaving_bus_test::play(wire::type moment, const scripted_bus::reaction& react,
                                const outcomes& expected, overtaken how,
                                const std::function<void()>& act) {
    ASSERT_NO_FATAL_FAILURE(set_up_round());
    scripted_.on_next(moment, react);
    {
        const held_loop_thread together; // the private thread finds them all at once
        operations_.emplace(bus(), context_, published, added);
    }
    outcome disconnected;
    outcome connected;
    if (how == overtaken::by_reconnection) {
        bus().disconnect(disconnected.handler());
        bus().connect(connected.handler());
        ASSERT_EQ(bus().get_state(), client::state::connecting);
    }
    if (act) {
        ASSERT_NO_FATAL_FAILURE(act());
    }
    run_until([&] { return operations_->all_reported(expected); });
    if (how == overtaken::by_reconnection) {
        run_until([&] { return connected.reported(); });
        EXPECT_EQ(disconnected.count(), 1U);
        EXPECT_FALSE(disconnected.code()) << disconnected.code().message();
        EXPECT_EQ(connected.count(), 1U);
        EXPECT_FALSE(connected.code()) << connected.code().message();
        EXPECT_EQ(bus().get_state(), client::state::connected);
    }
    EXPECT_TRUE(scripted_.wait_for_reaction());
}

void misbehaving_bus_test::play_to_the_end(wire::type moment, const scripted_bus::reaction& react,
                                           const outcomes& expected, overtaken how,
                                           const std::function<void()>& act) {
    ASSERT_NO_FATAL_FAILURE(play(moment, react, expected, how, act));
    if (how == overtaken::by_nothing) {
        ASSERT_NO_FATAL_FAILURE(expect_loss());
    } else {
        ASSERT_NO_FATAL_FAILURE(disconnect());
    }
    ASSERT_NO_FATAL_FAILURE(expect_recovery());
    operations_->expect(expected);
}

void misbehaving_bus_test::expect_loss() {
    run_until_state(client::state::disconnected);
    EXPECT_TRUE(context_->expired());
}

void misbehaving_bus_test::use_bus(const char* path, const char* method,
                                   const std::error_code& expected) {
    call_outcome called;
    outcome object_added;
    outcome object_deleted;
    bus().invoke(path, method, {}, called.handler(), std::chrono::seconds::zero());
    bus().add_object("tarn.again", {}, object_added.handler());
    bus().del_object("tarn.again", true, object_deleted.handler());
    run_until([&] { return called.reported() && object_deleted.reported(); });
    EXPECT_EQ(called.count(), 1U);
    EXPECT_EQ(called.code(), expected) << called.code().message();
    EXPECT_EQ(object_added.count(), 1U);
    EXPECT_FALSE(object_added.code()) << object_added.code().message();
    EXPECT_EQ(object_deleted.count(), 1U);
    EXPECT_FALSE(object_deleted.code()) << object_deleted.code().message();
}

void misbehaving_bus_test::catch_up() {
    call_outcome called;
    bus().invoke(scripted_bus::remote_path, scripted_bus::remote_method, {}, called.handler(),
                 std::chrono::seconds::zero());
    run_until([&] { return called.reported(); });
    settle();
}

void misbehaving_bus_test::disconnect() {
    outcome disconnected;
    bus().disconnect(disconnected.handler());
    run_until([&] { return disconnected.reported(); });
    EXPECT_EQ(disconnected.count(), 1U);
    EXPECT_FALSE(disconnected.code()) << disconnected.code().message();
    EXPECT_EQ(bus().get_state(), client::state::disconnected);
}

void misbehaving_bus_test::expect_recovery() {
    outcome connected;
    bus().connect(connected.handler());
    run_until([&] { return connected.reported(); });
    EXPECT_FALSE(connected.code()) << connected.code().message();
    ASSERT_EQ(bus().get_state(), client::state::connected);
    ASSERT_NO_FATAL_FAILURE(
        use_bus(scripted_bus::remote_path, scripted_bus::remote_method, error::msg::success));
    ASSERT_NO_FATAL_FAILURE(disconnect());
    EXPECT_EQ(connected.count(), 1U);
}

void misbehaving_bus_test::expect_recovery_on_daemon() {
    daemon_.lead_clients_here();
    outcome connected;
    bus().connect(connected.handler());
    run_until([&] { return connected.reported(); });
    ASSERT_FALSE(connected.code()) << connected.code().message();
    ASSERT_NO_FATAL_FAILURE(
        use_bus(scripted_bus::remote_path, scripted_bus::remote_method, error::msg::not_found));
    disconnect();
}

} // namespace tarn::test
