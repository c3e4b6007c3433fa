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
        // These start nothing that is reported:
        release, ///< of the link of operation `target`
        get_state,
        answer,    ///< the call that has been kept longest
        peer_call, ///< the other process calls an own name
        drop_bus,
        refuse_bus,
        allow_bus,
        wait, ///< for the report of operation `target`, but not for long
        pause
    };

    act what = act::pause;
    int id = 0; ///< of the operation, 0 if it is none
    int target = 0;
    int name = -1;        ///< the own name that it is about; -1: another object's
    int method = 0;       ///< an index of own_methods or remote_methods
    bool unknown = false; ///< calls an object that nobody has
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
enum class theme { connection, names, calls, mixed };
constexpr std::array<const char*, 4> theme_names{"connection", "names", "calls", "mixed"};

struct plan {
    std::uint64_t seed = 0;
    theme about = theme::mixed;
    bool starts_connected = false;
    bool restarts_daemon = false; ///< while the threads are at work
    bool drives_from_here =
        false; ///< the checks at the end call from the test's thread, not the loop
    bool cancels_at_end = false;
    unsigned handovers = 0; ///< delays, see delays.h
    unsigned locks = 0;
    /// The first is the loop's, whose steps are posted to it one by one.
    std::vector<std::vector<step>> threads;
    int operations = 0; ///< their numbers are 1 to this one
};

plan make_plan(std::uint64_t seed, bool may_restart);

/// "#7 connect", "release #7", ...
std::string name_of(const step& s);

/// All of it, a line each, handlers' steps indented.
std::string text_of(const plan& p);

} // namespace tarn::test
