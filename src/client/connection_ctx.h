/// One connection to the bus, from the request for it to its end.
#pragma once

#include "client/bus_records.h"
#include "client/identity.h"
#include "client/object_ctx.h"
#include "client/request_table.h"
#include "client/task.h"
#include "counted.h"

#include <map>
#include <memory>

namespace tarn {

class app_side;
class loop_side;

/// What one connection passes between the sides, allocated when it is requested, so that no
/// shortage of memory keeps a lost one alive.
class connection_ctx final : public self_counted {
public:
    using object_map = std::map<ubus_object*, std::shared_ptr<ubus_object_ctx>>;

    connection_ctx(app_side& app, loop_side& loop, connection_id number, life_id requested_in)
        : id(number)
        , life(requested_in)
        , app_(app)
        , loop_(loop) {}

    const connection_id id;
    const life_id life; ///< whose subscribers and handlers are notified of the attempt's result

    bool connected = false; ///< the result of the attempt

    /// Whose subscribers and handlers are notified of the end. Set when the tear-down is posted.
    life_id ending_life = life_id::none;
    // What libubus had when the connection was closed.
    request_table requests;
    object_map objects;
    bus_records bus; ///< of the standing operations

private:
    void connect();
    void tell_result();
    void tell_loss();
    void disconnect();
    void tell_end();
    void free_lost();

    app_side& app_;
    loop_side& loop_;

public:
    loop_task<connection_ctx, &connection_ctx::connect> connect_task{*this};
    transition_task<connection_ctx, &connection_ctx::tell_result> result_task{*this};
    transition_task<connection_ctx, &connection_ctx::tell_loss> loss_task{*this};
    loop_task<connection_ctx, &connection_ctx::free_lost> free_lost_task{*this};
    loop_task<connection_ctx, &connection_ctx::disconnect> disconnect_task{*this};
    transition_task<connection_ctx, &connection_ctx::tell_end> end_task{*this};
};

} // namespace tarn
