/// Calls on plain libubus that are never answered.
#include "pending_calls.h"

#include "plain_calls.h"

#include <cstdlib>
#include <iostream>

namespace tarn::bench {
namespace {

[[noreturn]] void fail(const std::string& what) {
    std::cerr << "plain_peer: " << what << '\n';
    std::exit(1);
}

} // namespace

pending_calls::~pending_calls() {
    for (ubus_request& each : calls_) {
        ubus_abort_request(context_, &each);
    }
}

void pending_calls::make(const std::string& object, unsigned long count) {
    for (unsigned long made = 0; made != count;) {
        start(object, static_cast<std::uint32_t>(made));
        ++made;
        if (made % pending_at_once == 0 || made == count) {
            // Answered after those have been handled, since the service takes one at a time.
            plain_calls(context_, {object, 1, 1, true}).make();
        }
    }
}

void pending_calls::start(const std::string& object, std::uint32_t n) {
    std::uint32_t id = 0;
    if (ubus_lookup_id(context_, object.c_str(), &id) != UBUS_STATUS_OK) {
        fail("cannot look up " + object);
    }
    blob_buf arguments{};
    blob_buf_init(&arguments, 0);
    blobmsg_add_u32(&arguments, "n", n);
    ubus_request& made = calls_.emplace_back();
    const int status = ubus_invoke_async(context_, id, "mute", arguments.head, &made);
    blob_buf_free(&arguments);
    if (status != UBUS_STATUS_OK) {
        fail("cannot call " + object);
    }
    made.complete_cb = [](ubus_request* /*ended*/, int /*status*/) {
        fail("a call has ended that was to stay pending");
    };
    ubus_complete_request_async(context_, &made);
}

} // namespace tarn::bench
