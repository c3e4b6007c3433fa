/// A bus daemon of a test's own, on a private socket, ended with the test.
#pragma once

#include "tarn/testing/bus_address.h"

#include <memory>
#include <string>
#include <sys/types.h>

namespace tarn::testing {

class temporary_folder;

/// Starts a daemon on a socket in a temporary folder, waits until it serves, and ends it in the
/// destructor. No daemon outlives the test process, not even one that is killed.
///
/// Make it a member of a fixture (of GoogleTest, Catch2 or any other framework), ahead of what
/// connects: the constructor leads the clients of this process, and of those that it starts, to its
/// socket. Construct it before other threads run. Since the client of a process is one, a test
/// program that connects to a private bus should run each of its cases in a process of its own, as
/// gtest_discover_tests() and catch_discover_tests() make CTest do.
///
/// Thread: one at a time.
/// Errors: std::runtime_error when the daemon cannot be found or started, with the reason.
class private_bus {
public:
    /// Which daemon, and how it is started.
    struct options {
        /// The program; empty for the value of the environment variable TARN_TEST_BUSD, else the
        /// first of `tarn-busd` and `ubusd` that PATH has.
        std::string daemon = {};
        /// Access rules, JSON as ubusd reads it from a file of acl.d; empty for none. They need
        /// ubusd and root; the socket is then open to every user.
        std::string access_rules = {};
        /// The socket that the libubus in use has compiled in; empty for the bundled libubus. See
        /// bus_address.
        std::string compiled_in_socket = {};
        /// Whether the constructor starts it; otherwise start() does.
        bool start = true;
    };

    /// Starts a daemon with the default options.
    private_bus();
    /// Starts a daemon as `chosen` says.
    explicit private_bus(options chosen);
    ~private_bus();
    private_bus(const private_bus&) = delete;
    private_bus& operator=(const private_bus&) = delete;

    /// The path of the daemon's own socket, in the temporary folder.
    const std::string& socket_path() const { return address_->path(); }
    /// Leads clients here again after they have been led elsewhere.
    void lead_clients_here() const { address_->lead_clients_here(); }
    /// The process id; -1 while it is not running.
    pid_t pid() const { return pid_; }

    /// Starts it and returns once a client that connects has been greeted.
    void start();
    /// Asks it to end (SIGTERM) and waits until it has. Returns its wait status; -1 if it was not
    /// running.
    int stop();
    /// Kills it (SIGKILL) and waits until it has gone; its socket file stays behind.
    void kill9();
    /// kill9(), then start().
    void restart();
    /// Stops its execution (SIGSTOP): connections stay, requests are not answered.
    void pause();
    /// Ends a pause() (SIGCONT).
    void resume();

    /// Connects like a client would: a stream socket the caller closes, or -1.
    int connect() const;

private:
    int end(int signal);
    bool greets() const;

    const options chosen_;
    const std::unique_ptr<const temporary_folder> folder_;
    const std::unique_ptr<const bus_address> address_;
    /// Where the access rules are; empty without any.
    std::string rules_path_;
    pid_t pid_ = -1;
    bool held_ = false;
};

} // namespace tarn::testing
