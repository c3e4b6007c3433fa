/// What the tests with a misbehaving bus share: a round, in which every kind of operation is under
/// way when the bus fails, and the return to a healthy bus after it.
#pragma once

#include "support/scripted_bus.h"

#include "client/client_fixture.h"
#include "robustness/rounds.h"
#include "tarn/error.h"

#include <array>
#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <system_error>
#include <vector>

namespace tarn::test {

using code = std::error_code;

/// Every handler due of a round's operations, in the order in which the loop thread gets to them.
/// No value stands for a handler that must not be called.
struct outcomes {
    std::optional<code> first_send;
    std::optional<code> call;
    std::optional<code> limited_call;
    std::optional<code> addition;
    std::optional<code> removal;
    std::optional<code> last_send;

    static outcomes all_succeed() {
        const code ok = error::msg::success;
        return {ok, ok, ok, ok, ok, ok};
    }
};

/// What ends with a connection: the operation that the bus meets with this message type, and all
/// after it, while those before it have succeeded. The last send has nobody left to be sent to.
outcomes broken_at(wire::type moment);

/// The operations of one round, and what their handlers have said.
class operations {
public:
    /// Of the time limit that one call has. The loop's clock is the test's.
    static constexpr std::chrono::seconds time_limit{10};

    /// Starts them all. `context` belongs to a call of the object named `published`.
    operations(client& bus, const std::shared_ptr<client::exchange_ctx>& context,
               const std::string& published, const std::string& added);

    /// Whether everything that `expected` names has been reported.
    bool all_reported(const outcomes& expected) const;
    /// Each was reported once with its code, or not at all, and no link is active any more.
    void expect(const outcomes& expected) const;

    const call_outcome& call() const { return call_; }

private:
    outcome first_send_;
    call_outcome call_;
    call_outcome limited_call_;
    outcome addition_;
    outcome removal_;
    outcome last_send_;
    std::array<utils::link, 6> links_;
};

/// The client on a scripted bus, with a real daemon waiting for the end of the test.
class misbehaving_bus_test : public client_test {
protected:
    static constexpr const char* published = "tarn.published";
    static constexpr const char* added = "tarn.added";

    /// Connects, publishes an object and receives a call of it: the state in which a round begins.
    void set_up_round();

    /// A round: set_up_round(), then `react` at the first `moment` with everything under way, then
    /// `act`, until everything expected has been reported. With a reconnection, a disconnect() and
    /// a connect() are under way as well and must both succeed.
    enum class overtaken { by_nothing, by_reconnection };
    void play(wire::type moment, const scripted_bus::reaction& react, const outcomes& expected,
              overtaken how = overtaken::by_nothing, const std::function<void()>& act = {});

    /// A round that costs the connection, and the return to a healthy bus.
    void play_to_the_end(wire::type moment, const scripted_bus::reaction& react,
                         const outcomes& expected, overtaken how,
                         const std::function<void()>& act = {});

    /// The bus has ended the connection: the client gets to disconnected by itself.
    void expect_loss();

    /// Connects to the bus, which behaves, and uses it. Nothing of the round is heard again.
    void expect_recovery();

    /// The same on the daemon. The last step of a test.
    void expect_recovery_on_daemon();

    /// All that was written to the client before has been handled and reported.
    static void catch_up();
    void disconnect();
    void use_bus(const char* path, const char* method, const std::error_code& expected);

    // First, since it leads clients to itself too, and its process is forked before there are
    // threads.
    bus_daemon daemon_;
    scripted_bus scripted_;
    std::shared_ptr<client::exchange_ctx> context_;
    std::uint16_t call_seq_ = 0;
    std::optional<operations> operations_;
    client::method_map methods_{
        {"serve", {[this](const auto& context) { context_ = context; }, {}}}};
};

/// A message type at which a bus can fail.
struct moment {
    const char* name;
    wire::type type;
};

inline std::string moment_name(const ::testing::TestParamInfo<moment>& info) {
    return info.param.name;
}

inline std::ostream& operator<<(std::ostream& out, const moment& shown) {
    return out << shown.name;
}

/// A named misbehaviour.
struct script {
    const char* name;
    wire::type moment;
    scripted_bus::reaction react;
    outcomes expected;
};

/// For the names of a test's instances.
inline std::string script_name(const ::testing::TestParamInfo<script>& info) {
    return info.param.name;
}

inline std::ostream& operator<<(std::ostream& out, const script& shown) {
    return out << shown.name;
}

} // namespace tarn::test
