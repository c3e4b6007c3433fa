/// The client on an sd_event of libsystemd (Debian: libsystemd-dev).
#pragma once

#include "tarn/loops/nested_loop.h"

#include <sys/epoll.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <memory>
#include <system_error>

namespace tarn::loops {

/// Runs the client's handlers on an sd_event that the application runs, by sd_event_loop() for
/// instance, which returns after sd_event_exit().
///
/// The adapter keeps a reference to the sd_event, which is not safe to use from several threads:
/// the adapter is made and destroyed on the thread that runs it; see nested_loop.
///
/// An exception of a handler ends the process (std::terminate), since libsystemd's own frames
/// cannot pass it on.
class sd_event_loop final : public nested_loop {
public:
    /// Watches from now on, with `priority` (SD_EVENT_PRIORITY_NORMAL, ...).
    /// Errors: throws std::system_error with libsystemd's negated code when the source cannot be
    /// made, or a descriptor not be had, and std::bad_alloc.
    explicit sd_event_loop(sd_event* event, std::int64_t priority = SD_EVENT_PRIORITY_NORMAL)
        : inner_(inner())
        , event_(sd_event_ref(event)) {
        sd_event_source* source = nullptr;
        int result = sd_event_add_io(event, &source, inner()->fd(), EPOLLIN, run_turn, &inner_);
        source_.reset(source);
        if (result >= 0) {
            result = sd_event_source_set_priority(source, priority);
        }
        if (result < 0) {
            throw std::system_error(-result, std::generic_category(),
                                    "tarn::loops::sd_event_loop: no event source");
        }
    }

private:
    struct unref {
        void operator()(sd_event* event) const noexcept { sd_event_unref(event); }
        void operator()(sd_event_source* source) const noexcept {
            sd_event_source_disable_unref(source);
        }
    };

    static int run_turn(sd_event_source*, int, std::uint32_t, void* inner) noexcept {
        // Held for the turn, in case a handler destroys the adapter after all.
        const std::shared_ptr<epoll_loop> alive = *static_cast<std::shared_ptr<epoll_loop>*>(inner);
        alive->dispatch();
        return 0;
    }

    std::shared_ptr<epoll_loop> inner_;
    std::unique_ptr<sd_event, unref> event_;
    std::unique_ptr<sd_event_source, unref> source_; // goes first
};

} // namespace tarn::loops
