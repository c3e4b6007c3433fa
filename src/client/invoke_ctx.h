/// One outgoing call, from the application's request to its handler.
#pragma once

#include "client/identity.h"
#include "client/pending.h"
#include "client/request_table.h"
#include "client/task.h"
#include "counted.h"
#include "tarn/client.h"

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <system_error>

namespace tarn {

class app_side;
class loop_side;

/// A call of another process's object: everything that it needs on its way, in one block, so that
/// only its beginning can fail for lack of memory. It is its own link.
class invoke_ctx final : public pending, public bus_request {
public:
    invoke_ctx(app_side& app, loop_side& loop, const std::string& called_path,
               const std::string& called_method,
               const std::multimap<std::string, blob::attr>& call_args,
               const client::result_handler& result_handler,
               const std::shared_ptr<const client::reply_handler>& reply_handler);

    /// For the link: gives the call up.
    void release() override;
    void on_connection_end() override;

    /// For the thread that has ended it: releases what the application has put into it.
    client::result_handler take_handler() noexcept;

    // The application's side. They belong to the thread that has ended the call.
    client::result_handler handler;                  ///< may be empty
    std::shared_ptr<utils::event_loop::timer> timer; ///< empty without a time limit
    /// Gets the replies in place of `replies`; null for a call that gathers them.
    std::shared_ptr<const client::reply_handler> each;

    const bool tells_each; ///< whether there was such a handler

    // Of the loop thread, from when the call is posted until `done` is.
    std::uint32_t object = 0; ///< 0 for one that is looked up by `path`
    std::string path;
    std::string method;
    std::multimap<std::string, blob::attr> args;
    std::error_code status;        ///< the first reply that failed to decode
    std::list<blob::attr> replies; ///< one table per data reply, in order of arrival
    connection_id carried_by = connection_id::none; ///< once libubus works on it
    std::error_code outcome;                        ///< of the call; set when `done` is posted

private:
    void begin();
    void abort();
    void complete();
    void complete_unreported() noexcept;

    app_side& app_;
    loop_side& loop_;

public:
    loop_task<invoke_ctx, &invoke_ctx::begin> begin_task{*this};
    loop_task<invoke_ctx, &invoke_ctx::abort> abort_task{*this};
    droppable_task<invoke_ctx, &invoke_ctx::complete, &invoke_ctx::complete_unreported> done_task{
        *this};
};

/// One reply of a call that wants each as it comes.
class one_reply final : public self_counted {
public:
    one_reply(app_side& app, std::shared_ptr<invoke_ctx> call)
        : app_(app)
        , call_(std::move(call)) {}

    blob::attr value;

private:
    void tell();

    app_side& app_;
    const std::shared_ptr<invoke_ctx> call_;

public:
    droppable_task<one_reply, &one_reply::tell> tell_task{*this};
};

} // namespace tarn
