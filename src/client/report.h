/// Outcomes on their way to the application: those that wait for something, and those that are
/// known already.
#pragma once

#include "client/pending.h"
#include "client/task.h"

#include <atomic>
#include <memory>
#include <system_error>
#include <tuple>
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

    /// For the thread that has ended it: the handler.
    client::completion_handler take_handler() noexcept { return std::exchange(handler_, nullptr); }

protected:
    app_side& app_;

private:
    client::completion_handler handler_;
};

/// An outcome that is known at once, reported by the application's loop. Its link is active until
/// then.
template <class Handler, class... Args>
class known_report final : public task, public utils::link::impl {
public:
    explicit known_report(const Handler& handler, const Args&... args)
        : handler_(handler)
        , args_(args...) {}

    void run() override {
        if (const Handler handler = take()) {
            std::apply(handler, args_);
        }
    }
    void drop() noexcept override { take(); }
    void release() override { take(); }
    bool active() const override { return !taken_; }

private:
    Handler take() noexcept {
        return taken_.exchange(true) ? Handler() : std::exchange(handler_, nullptr);
    }

    Handler handler_;
    std::atomic<bool> taken_{false};
    const std::tuple<Args...> args_;
};

} // namespace tarn
