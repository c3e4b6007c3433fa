/// Outcomes on their way to the application: those that wait for something, and those that are
/// known already.
#pragma once

#include "client/pending.h"
#include "client/task.h"

#include <atomic>
#include <memory>
#include <system_error>
#include <utility>

namespace tarn {

class app_side;

/// A handler that waits for the outcome of an operation.
class report : public pending {
public:
    report(app_side& app, const client::completion_handler& handler)
        : app_(app)
        , handler_(handler) {}

    /// For the link: drops the handler without calling it.
    void release() override;

    /// Requested by a handler or subscriber while an outcome is being reported.
    bool asked_inside = false;

    /// Whether there is a handler to notify of the outcome.
    bool wanted() const noexcept { return static_cast<bool>(handler_); }
    /// The link to it, which is empty when nobody is to be notified.
    utils::link link() { return wanted() ? handle() : utils::link(); }

    /// For the thread that has ended it: the handler.
    client::completion_handler take_handler() noexcept { return std::exchange(handler_, nullptr); }

protected:
    app_side& app_;

private:
    client::completion_handler handler_;
};

/// An outcome that is known at once, reported by the application's loop. Its link is active until
/// then.
class known_report final : public own_link {
public:
    known_report(const client::completion_handler& handler, const std::error_code& code)
        : handler_(handler)
        , code_(code) {}

    void release() override { take(); }
    bool active() const override { return !taken_; }

private:
    void tell();
    void drop() noexcept { take(); }
    client::completion_handler take() noexcept;

    client::completion_handler handler_;
    const std::error_code code_;
    std::atomic<bool> taken_{false};

public:
    droppable_task<known_report, &known_report::tell, &known_report::drop> done_task{*this};
};

} // namespace tarn
