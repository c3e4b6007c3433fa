/// What the tests of events, subscriptions and introspection share: a process on plain libubus that
/// does what it is told, and recorders for what tarn::bus reports.
#pragma once

#include "integration/processes.h"

#include "tarn/bus.h"

#include <memory>
#include <string>
#include <vector>

namespace tarn::test {

/// A process on plain libubus; see bus_peer.c for its commands.
class bus_peer {
public:
    bus_peer()
        : process_({TARN_TEST_BUS_PEER}, child_process::input::pipe) {
        process_.wait_for_line("connected");
    }

    /// Sends a command and waits for the line that begins with `answer`.
    std::string tell(const std::string& command, const std::string& answer) {
        process_.write_line(command);
        return process_.wait_for_line(answer);
    }
    void write(const std::string& command) { process_.write_line(command); }
    std::string wait_for(const std::string& line) { return process_.wait_for_line(line); }

    /// Connects again after the bus was restarted.
    void reconnect() {
        process_.wait_for_line("lost");
        tell("connect", "connected");
    }
    void hold() { process_.pause(); }
    void go_on() { process_.resume(); }
    void kill() {
        process_.kill(SIGKILL);
        process_.wait();
    }

private:
    child_process process_;
};

class peers_test : public processes_test {
protected:
    static tarn::bus& events() { return bus().get_bus(); }

    /// Records what a standing operation says about its registration.
    outcome registered_;
    bus::options reporting() {
        bus::options how;
        how.on_registered = registered_.handler();
        return how;
    }
    void wait_until_registered(std::size_t times = 1) {
        run_hurried_until([&] { return registered_.count() >= times; });
    }

    /// The "n" of an event or a notification; -1 without.
    static int number(const bus::table& data) {
        const auto found = data.find("n");
        return found == data.end() ? -1 : static_cast<int>(found->second.get<unsigned int>());
    }

    /// A connection that comes back by itself.
    void stay_connected() {
        connection_ = bus().auto_connect([](long long) { return std::chrono::seconds(1); });
        run_until_state(client::state::connected);
    }
    void restart_bus() {
        daemon_.restart();
        run_hurried_until([] { return bus().get_state() != client::state::connected; });
        run_hurried_until([] { return bus().get_state() == client::state::connected; });
    }

    utils::scoped_link connection_;
};

} // namespace tarn::test
