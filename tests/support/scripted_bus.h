/// A bus for tests of the client that misbehaves on command.
#pragma once

#include "support/bus_address.h"
#include "support/wire.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tarn::test {

/// Plays the daemon on a socket of its own, from a thread of its own. Left alone it is a healthy
/// bus for one client, with one foreign object on it; a reaction makes it fail one moment's answer,
/// once.
///
/// The constructor leads clients to its socket, like bus_daemon.
/// All functions are for the test's thread.
class scripted_bus {
public:
    /// The foreign object. Its one method answers every call with one reply, {"text": "pong"}.
    static constexpr const char* remote_path = "scripted.remote";
    static constexpr std::uint32_t remote_id = 0x1001;
    static constexpr const char* remote_method = "ping";
    /// Whose calls of the client's objects call() sends.
    static constexpr std::uint32_t caller_id = 0x4242;

    /// What becomes of the connection once an answer has been sent.
    enum class afterwards {
        go_on,          ///< nothing
        hang_up,        ///< it is closed
        stop_answering, ///< requests are read and never answered
        stop_reading,   ///< nothing is read any more; the socket's buffers fill up
        shut_reading,   ///< the client can write no more, while the stream stays open
    };

    struct answer {
        wire::bytes raw;
        afterwards then = afterwards::go_on;
    };

    /// Gets what a healthy bus would send, and the request that it answers, and says what to do
    /// instead. Runs on the bus's thread.
    using reaction =
        std::function<answer(const wire::bytes& healthy, const wire::received& request)>;

    scripted_bus();
    ~scripted_bus();
    scripted_bus(const scripted_bus&) = delete;
    scripted_bus& operator=(const scripted_bus&) = delete;

    const std::string& socket_path() const { return address_.path(); }

    /// Replaces the answer to the next message of this type: a request's, or data or status from
    /// the client's answers to calls, which a healthy bus does not answer. `hello` means the
    /// greeting of the next connection. The first `skipped` of them stay healthy.
    void on_next(wire::type type, reaction react, unsigned skipped = 0);

    /// The same inside of a reaction, as the next one.
    void then_on_next(wire::type type, reaction react);

    /// Waits until that reaction has run. False if it has not within a generous limit.
    bool wait_for_reaction();

    /// Waits until there is something to read on the newest connection, which the bus does not read
    /// any more. False if that is not so within a generous limit.
    bool wait_for_unread();

    /// Sends everything byte by byte, or no longer. All but the greeting, which libubus takes with
    /// one read().
    void send_in_pieces(bool on);

    /// Closes the connections, whatever state they are in.
    void hang_up();

    /// Sends a call of a method of an object that the client has published. Returns its sequence
    /// number.
    std::uint16_t call(const std::string& path, const std::string& method);
    /// The same, of whatever object.
    std::uint16_t call(std::uint32_t object, const std::string& method);

    /// Sends the client what `make` returns, which runs on the bus's thread.
    void send(const std::function<wire::bytes()>& make);

    /// A call's sequence number and the status with which the client has completed it.
    using completion = std::pair<std::uint16_t, int>;

    /// How many messages of this type clients have sent so far.
    std::size_t received(wire::type type);

    /// Waits for the client's completion of the call with this sequence number and returns its
    /// status; -1 when it does not come within a generous limit.
    int wait_for_status(std::uint16_t seq);

    /// Waits for the next completions with numbers that `of` accepts, and returns them in the order
    /// of the stream; fewer when they do not come within a generous limit.
    std::vector<completion> wait_for_completions(std::size_t count,
                                                 const std::function<bool(std::uint16_t)>& of);

    /// The id of the object that the client has added last. For reactions.
    std::uint32_t newest_object() const { return newest_object_; }

    /// The event that the foreign object, or another one, has appeared or gone, for the object with
    /// which the client listens to it. For reactions and send().
    static constexpr const char* appeared = "ubus.object.add";
    static constexpr const char* gone = "ubus.object.remove";
    wire::bytes remote_event(const std::string& name, std::uint32_t object = remote_id,
                             const std::string& path = remote_path) const;

    /// What a healthy bus answers.
    static wire::bytes status_message(const wire::received& request, std::uint32_t status);
    /// A call of an object by its id, as a service receives it.
    static wire::bytes call_message(std::uint16_t seq, const wire::bytes& attributes);

private:
    struct connection {
        wire::peer socket;
        wire::bytes received;
        bool reading = true;
        bool answering = true;
    };

    void work();
    void run(const std::function<void()>& task);
    void run_tasks();
    bool receive(connection& client);
    bool handle(connection& client, const wire::received& message);
    bool deliver(connection& client, wire::type moment, const wire::received& message,
                 const wire::bytes& healthy);
    static void transmit(const connection& client, const wire::bytes& raw, bool in_pieces);
    wire::bytes healthy_answer(const wire::received& request);

    const wire::listening socket_;
    const bus_address address_{socket_.path()};
    int wake_up_ = -1;

    std::mutex lock_; ///< guards the six below
    std::condition_variable changed_;
    std::deque<std::function<void()>> tasks_;
    std::vector<completion> completions_;
    std::map<int, std::size_t> received_; ///< by type
    bool reacted_ = false;
    bool ending_ = false;

    // The bus's thread only.
    std::list<connection> clients_;
    std::map<std::string, std::uint32_t> objects_;   ///< the client's, by path
    std::set<std::uint32_t> listening_;              ///< the client's objects without a path
    std::map<std::string, std::uint32_t> listeners_; ///< the client's, by event
    reaction react_;
    wire::type moment_ = wire::hello;
    unsigned skipped_ = 0;
    bool in_pieces_ = false;
    std::uint32_t next_id_ = 0x10000;
    std::uint32_t newest_object_ = 0;
    std::uint16_t next_call_ = 0;

    std::thread thread_;
};

} // namespace tarn::test
