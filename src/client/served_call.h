/// One incoming call, from its arrival to its answer.
#pragma once

#include "bus.h"
#include "client/identity.h"
#include "client/task.h"
#include "counted.h"
#include "tarn/client.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <system_error>
#include <vector>

namespace tarn {

class app_side;
class loop_side;
struct ubus_object_ctx;

/// A call that has arrived for an object, with everything that its answer needs, so that no
/// shortage of memory leaves the caller without one. Made on the loop thread.
///
/// The side that settles it decides its answer: the application's loop by passing it to a method
/// handler, or the loop thread by refusing it. A notification is settled by its answer.
class served_call final : public self_counted {
public:
    served_call(app_side& app, loop_side& loop, connection_id carried_by,
                const ubus_request_data& deferred, std::size_t called,
                std::shared_ptr<ubus_object_ctx> object);

    const connection_id connection;
    ubus_request_data request;                      ///< libubus's record of the deferred request
    const std::size_t method;                       ///< its place in `records`
    const std::shared_ptr<ubus_object_ctx> records; ///< null for a notification
    std::multimap<std::string, blob::attr> args;    ///< until the handler gets them
    std::atomic<bool> settled{false};

    // Set when the answer is posted.
    std::error_code status;
    /// The answer is a refusal by a side that has not settled the call: the loop thread may have
    /// done so by then.
    bool refusal = false;

private:
    void dispatch();
    void dispatch_unreported() noexcept;
    void answer();

    app_side& app_;
    loop_side& loop_;

public:
    droppable_task<served_call, &served_call::dispatch, &served_call::dispatch_unreported>
        dispatch_task{*this};
    loop_task<served_call, &served_call::answer> answer_task{*this};
};

/// The calls that have not been settled, and some that have been. The loop thread only.
class open_calls {
public:
    /// Adds one, and forgets settled ones every now and then.
    void note(const std::shared_ptr<served_call>& call);
    /// Answers them all with a status of libubus.
    void refuse(ubus_context* bus, int status);
    /// Forgets them, with the connection that they came on.
    void clear() noexcept { calls_.clear(); }

private:
    std::vector<std::weak_ptr<served_call>> calls_;
    std::size_t tidy_at_ = 64; ///< the number of entries at which settled ones are dropped
};

} // namespace tarn
