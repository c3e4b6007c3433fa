/// A bus daemon for one test: started on a private socket in a temporary folder, gone with the
/// test.
#pragma once

#include "support/bus_address.h"
#include "support/temporary_folder.h"

#include <string>
#include <sys/types.h>

namespace tarn::test {

/// Starts the daemon, waits until it serves, and ends it in the destructor. No daemon outlives the
/// test process, not even one that is killed.
///
/// Its socket is its own, and the constructor leads clients to it (see bus_address.h); construct it
/// before other threads run.
///
/// Failures to start throw std::runtime_error.
class bus_daemon {
public:
    /// Starts at once, unless told not to: start() does it then.
    enum class launch { now, later };
    /// Access rules, JSON as the daemon reads it from a file, need a daemon that has them, and
    /// root; its socket is then open to every user.
    explicit bus_daemon(launch when = launch::now, const std::string& access_rules = {});
    ~bus_daemon();
    bus_daemon(const bus_daemon&) = delete;
    bus_daemon& operator=(const bus_daemon&) = delete;

    const std::string& socket_path() const { return address_.path(); }
    /// Leads clients here again after they have been led elsewhere.
    void lead_clients_here() const { address_.lead_clients_here(); }
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
    /// Holds it (SIGSTOP) and lets it go on (SIGCONT).
    void pause();
    void resume();

    /// Connects like a client would: a stream socket the caller closes, or -1.
    int connect() const;

private:
    int end(int signal);
    bool greets() const;

    const temporary_folder folder_;
    const bus_address address_{folder_.path() + "/ubus.sock"};
    /// Where the access rules are; empty without any.
    std::string rules_path_;
    pid_t pid_ = -1;
    bool held_ = false;
};

} // namespace tarn::test
