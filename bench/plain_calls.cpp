/// Calls made with plain libubus, as a program would that knows it well.
#include "plain_calls.h"

#include <iostream>

namespace tarn::bench {
namespace {

[[noreturn]] void fail(const char* what, int status) {
    std::cerr << "plain_peer: " << what << ": " << ubus_strerror(status) << '\n';
    std::exit(1);
}

/// The calls being made, for on_turn(), whose timer has no room for a pointer. One at a time.
plain_calls* current = nullptr;

} // namespace

plain_calls::plain_calls(ubus_context* context, const load& wanted)
    : context_(context)
    , wanted_(wanted)
    , calls_(wanted.window) {
    for (call& each : calls_) {
        each.owner = this;
        free_.push_back(&each);
    }
    current = this;
}

plain_calls::~plain_calls() {
    blob_buf_free(&arguments_);
    current = nullptr;
}

unsigned long plain_calls::make() {
    if (wanted_.window == 1) {
        make_one_at_a_time();
    } else {
        start_all_that_may();
        uloop_run();
    }
    return answered_;
}

std::uint32_t plain_calls::object_id() {
    if (wanted_.look_up_each || known_id_ == 0) {
        const int status = ubus_lookup_id(context_, wanted_.object.c_str(), &known_id_);
        if (status != UBUS_STATUS_OK) {
            fail("cannot look up", status);
        }
    }
    return known_id_;
}

void plain_calls::build_arguments(std::uint32_t n) {
    blob_buf_init(&arguments_, 0);
    blobmsg_add_u32(&arguments_, "n", n);
}

void plain_calls::make_one_at_a_time() {
    call& made = calls_.front();
    while (started_ != wanted_.calls) {
        made.n = static_cast<std::uint32_t>(++started_);
        made.right = false;
        const std::uint32_t id = object_id();
        build_arguments(made.n);
        const int status = ubus_invoke(context_, id, "echo", arguments_.head, on_data, &made, 0);
        answered_ += status == UBUS_STATUS_OK && made.right ? 1 : 0;
    }
}

void plain_calls::start_all_that_may() {
    while (!free_.empty() && started_ != wanted_.calls) {
        call& made = *free_.back();
        free_.pop_back();
        start(made);
    }
    if (ended_ == wanted_.calls) {
        uloop_end();
    }
}

void plain_calls::start(call& made) {
    made.n = static_cast<std::uint32_t>(++started_);
    made.right = false;
    const std::uint32_t id = object_id();
    build_arguments(made.n);
    const int status = ubus_invoke_async(context_, id, "echo", arguments_.head, &made.request);
    if (status != UBUS_STATUS_OK) {
        fail("cannot call", status);
    }
    made.request.priv = &made;
    made.request.data_cb = on_data;
    made.request.complete_cb = on_end;
    ubus_complete_request_async(context_, &made.request);
}

void plain_calls::ended(call& made, int status) {
    static uloop_timeout next_turn = [] {
        uloop_timeout timer{};
        timer.cb = on_turn;
        return timer;
    }();
    ++ended_;
    answered_ += status == UBUS_STATUS_OK && made.right ? 1 : 0;
    free_.push_back(&made);
    if (!next_turn.pending) {
        uloop_timeout_set(&next_turn, 0);
    }
}

void plain_calls::on_data(ubus_request* request, int /*type*/, blob_attr* message) {
    static const blobmsg_policy policy[] = {{"n", BLOBMSG_TYPE_INT32}};
    auto& made = *static_cast<call*>(request->priv);
    blob_attr* n = nullptr;
    blobmsg_parse(policy, 1, &n, blob_data(message), static_cast<unsigned>(blob_len(message)));
    made.right = n != nullptr && blobmsg_get_u32(n) == made.n;
}

void plain_calls::on_end(ubus_request* request, int status) {
    auto& made = *static_cast<call*>(request->priv);
    made.owner->ended(made, status);
}

void plain_calls::on_turn(uloop_timeout* /*timer*/) {
    if (current != nullptr) {
        current->start_all_that_may();
    }
}

} // namespace tarn::bench
