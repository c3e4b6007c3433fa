/// Calls made with plain libubus, as a program would that knows it well.
#pragma once

#include "bus.h"
#include "commands.h"

#include <cstdint>
#include <vector>

namespace tarn::bench {

/// One at a time are made with ubus_invoke(), which waits inside. With several in flight they are
/// asynchronous, and those that have ended are replaced when the loop has delivered all that had
/// arrived: from inside the callback, each look-up would run the callbacks of other calls, which
/// would look up in turn, one inside the other. Ends the process where libubus refuses.
class plain_calls {
public:
    /// On a context that the loop serves.
    plain_calls(ubus_context* context, const load& wanted);
    ~plain_calls();
    plain_calls(const plain_calls&) = delete;
    plain_calls& operator=(const plain_calls&) = delete;

    /// Returns how many were answered correctly.
    unsigned long make();

private:
    struct call {
        ubus_request request{};
        plain_calls* owner = nullptr;
        std::uint32_t n = 0;
        bool right = false;
    };

    std::uint32_t object_id();
    void build_arguments(std::uint32_t n);
    void make_one_at_a_time();
    void start_all_that_may();
    void start(call& made);
    void ended(call& made, int status);

    static void on_data(ubus_request* request, int type, blob_attr* message);
    static void on_end(ubus_request* request, int status);
    static void on_turn(uloop_timeout* timer);

    ubus_context* const context_;
    const load wanted_;
    /// Never moved: libubus knows their addresses.
    std::vector<call> calls_;
    std::vector<call*> free_;
    blob_buf arguments_{};
    std::uint32_t known_id_ = 0;
    unsigned long started_ = 0;
    unsigned long ended_ = 0;
    unsigned long answered_ = 0;
};

} // namespace tarn::bench
