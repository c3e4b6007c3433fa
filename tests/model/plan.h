/// What the threads of a sequence do, and what handlers do inside them: all of it made from one
/// seed.
#pragma once

#include "tarn/client.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tarn::test {

/// The names that all threads publish and withdraw.
constexpr std::array<const char*, 3> own_names{"model.a", "model.b", "model.c"};
/// What is called: methods of the other process's object, of an object that nobody has, and of
/// one's own. The objects of a sequence have all of the latter.
constexpr std::array<const char*, 6> remote_methods{"echo",   "late",  "three",
                                                    "refuse", "never", "nothing"};
constexpr std::array<const char*, 5> own_methods{"answer", "keep", "drop", "refuse", "relay"};
constexpr const char* remote_path = "model.remote";
/// The other process's objects that come and go. The last one is published at the end only.
constexpr std::array<const char*, 3> foreign_names{"model.x", "model.y", "model.z"};
/// The events of the other process, and of this one.
constexpr std::array<const char*, 2> event_ids{"model.event.a", "model.event.b"};
constexpr const char* own_event_id = "model.own";
constexpr std::array<const char*, 4> event_patterns{"model.event.*", "model.event.a",
                                                    "model.event.b", "*"};
constexpr std::array<const char*, 4> object_patterns{"model.*", "model.x", "*", "model.a"};
/// How the other process answers a notification.
constexpr std::array<const char*, 3> notification_methods{"echo", "late", "never"};
/// How a handler answers one: at once with success, later, with a refusal, by letting its context
/// go, with the context itself.
constexpr int notification_answers = 5;
constexpr const char* unknown_path = "model.nobody";
/// A time limit that no sequence reaches.
constexpr int far_limit = 100000;

/// One thing that a thread, or a handler, does.
struct step {
    enum class act {
        connect,
        auto_connect,
        disconnect,
        cancel,
        invoke,
        invoke_each,
        add,
        del,
        subscribe,
        // Those of tarn::bus with one outcome:
        send_event,
        objects,
        await_objects,
        notify,
        ask, ///< notify, waiting for answers
        // Its standing ones:
        listen,
        on_object,
        follow, ///< subscribe() to an object's notifications
        on_subscribers,
        monitor,
        // These start nothing that is reported:
        release, ///< of the link of operation `target`
        get_state,
        answer,    ///< the call that has been kept longest
        peer_call, ///< the other process calls an own name
        drop_bus,
        refuse_bus,
        allow_bus,
        wait, ///< for the report of operation `target`, but not for long
        pause,
        stats,
        // Orders to the other process:
        peer_publish,
        peer_withdraw,
        peer_toggle, ///< publishes its objects in turns, never two at the same time
        peer_event,
        peer_notify,
        peer_ask, ///< notifies, waiting for answers
        peer_subscribe,
        peer_unsubscribe
    };

    bool is_operation() const { return what < act::release; }
    bool is_standing() const { return what >= act::listen && what <= act::monitor; }

    act what = act::pause;
    int id = 0; ///< of the operation, 0 if it is none
    int target = 0;
    int name = -1;        ///< the own name that it is about; -1: another object's
    int method = 0;       ///< an index of own_methods or remote_methods
    bool unknown = false; ///< calls an object that nobody has
    int foreign = -1;     ///< an index of foreign_names
    int pattern = 0;      ///< of object_patterns, event_patterns or event_ids
    unsigned paths = 0;   ///< that are awaited: bits of foreign_names, and one more for remote_path
    int most = 0;         ///< that may be undelivered; 0: as many as usual
    bool answers = true;  ///< the handler answers notifications
    int limit = 0;
    bool stop_serving = false;
    bool silent = false;         ///< its handler is empty
    bool throws = false;         ///< its handler throws at its end, the first time
    bool serving_throws = false; ///< so does the first method handler of the object
    client::state trigger = client::state::connected; ///< the subscriber does its steps once then
    std::vector<int> delays;   ///< what the back-off function returns, then 0
    std::vector<step> inside;  ///< what its handler does, the first time
    std::vector<step> serving; ///< what the object's method handlers do at the first call
};

/// What a sequence is mostly about.
enum class theme { connection, names, calls, mixed, bus };
constexpr std::array<const char*, 5> theme_names{"connection", "names", "calls", "mixed", "bus"};

struct plan {
    std::uint64_t seed = 0;
    theme about = theme::mixed;
    bool starts_connected = false;
    bool restarts_daemon = false; ///< while the threads are at work
    bool drives_from_here =
        false; ///< the checks at the end call from the test's thread, not the loop
    bool cancels_at_end = false;
    bool exclusive = false; ///< the other process never has both of its first objects
    bool eager = false;     ///< it asks the first subscriber at once
    unsigned handovers = 0; ///< delays, see delays.h
    unsigned locks = 0;
    /// The first is the loop's, whose steps are posted to it one by one.
    std::vector<std::vector<step>> threads;
    int operations = 0; ///< their numbers are 1 to this one
};

plan make_plan(std::uint64_t seed, bool may_restart);

/// The paths that wait_for() gets, and the one that is subscribed to.
std::vector<std::string> awaited_by(const step& s);
std::string followed_by(const step& s);
/// Whether `name` is `pattern`, or begins with it up to its final '*'.
bool matches(const std::string& pattern, const std::string& name);

/// "#7 connect", "release #7", ...
std::string name_of(const step& s);

/// All of it, a line each, handlers' steps indented.
std::string text_of(const plan& p);

} // namespace tarn::test
