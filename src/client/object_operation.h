/// One addition or removal of an object, and one reply that is being sent.
#pragma once

#include "client/identity.h"
#include "client/object_ctx.h"
#include "client/report.h"
#include "client/served_call.h"
#include "client/task.h"
#include "counted.h"

#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

namespace tarn {

class loop_side;

/// An addition or a removal, from the application's request to its report.
class object_operation final : public report {
public:
    enum class kind { addition, removal };

    object_operation(app_side& app, loop_side& loop, kind what,
                     const client::completion_handler& handler)
        : report(app, handler)
        , what_(what)
        , loop_(loop) {}

    std::shared_ptr<ubus_object_ctx> records; ///< of the object; until the operation is over
    bool stop_serving = false;                ///< of a removal
    std::error_code status;                   ///< set by the loop thread

private:
    void begin();
    void complete();
    void complete_unreported() noexcept;

    const kind what_;
    loop_side& loop_;

public:
    loop_task<object_operation, &object_operation::begin> begin_task{*this};
    droppable_task<object_operation, &object_operation::complete,
                   &object_operation::complete_unreported>
        done_task{*this};
};

/// A reply that is being sent.
class send_operation final : public report {
public:
    send_operation(app_side& app, loop_side& loop, std::shared_ptr<served_call> answered,
                   std::multimap<std::string, blob::attr>&& reply,
                   const client::completion_handler& handler)
        : report(app, handler)
        , call(std::move(answered))
        , data(std::move(reply))
        , loop_(loop) {}

    const std::shared_ptr<served_call> call;
    std::multimap<std::string, blob::attr> data;
    std::error_code status;  ///< set by the loop thread
    bool unreported = false; ///< the connection has ended before: not reported

private:
    void begin();
    void complete();
    void complete_unreported() noexcept;

    loop_side& loop_;

public:
    loop_task<send_operation, &send_operation::begin> begin_task{*this};
    droppable_task<send_operation, &send_operation::complete, &send_operation::complete_unreported>
        done_task{*this};
};

} // namespace tarn
