/// The adapter for io_contexts, written once for standalone Asio and Boost.Asio: include
/// asio_loop.h or boost_asio_loop.h, which name the one that is meant.
#pragma once

#include "tarn/loops/nested_loop.h"

#include <memory>
#include <utility>

namespace tarn::loops {

/// Runs the client's handlers on an io_context that the application owns and runs.
///
/// While the adapter lives it counts as work: run() does not return for lack of work. End it with
/// the io_context's stop(), or by destroying the adapter.
///
/// The io_context must outlive the adapter. Several threads may run it: handlers still run one at a
/// time, in order, though not always on the same thread. An exception of a handler leaves the
/// io_context's run(); what was waiting runs when it is called again. For the thread of the
/// adapter's own construction and destruction see nested_loop.
template <class IoContext, class Descriptor>
class basic_asio_loop : public nested_loop {
public:
    /// Watches from now on; `context` may be running already, on this thread or on none.
    /// Errors: throws the system_error of the Asio in use or std::system_error when a descriptor
    /// cannot be had or watched, and std::bad_alloc.
    explicit basic_asio_loop(IoContext& context)
        : watch_(std::make_shared<watch>(context, inner())) {
        watch::await(watch_);
    }

    ~basic_asio_loop() override { watch_->close(); }

private:
    /// Shared with the turn under way only. The wait holds it weakly: its completion may be queued
    /// in the io_context already, as a success, when the adapter is destroyed.
    class watch {
    public:
        watch(IoContext& context, std::shared_ptr<epoll_loop> inner)
            : inner_(std::move(inner))
            , descriptor_(context, inner_->fd()) {}

        // The descriptor belongs to epoll_loop.
        ~watch() {
            if (descriptor_.is_open()) {
                descriptor_.release();
            }
        }

        watch(const watch&) = delete;
        watch& operator=(const watch&) = delete;

        void close() { descriptor_.release(); }

        static void await(const std::shared_ptr<watch>& self) {
            self->descriptor_.async_wait(Descriptor::wait_read,
                                         [weak = std::weak_ptr<watch>(self)](const auto& error) {
                                             const auto alive = weak.lock();
                                             if (error || !alive || !alive->descriptor_.is_open()) {
                                                 return; // destroyed
                                             }
                                             try {
                                                 alive->inner_->dispatch();
                                             } catch (...) {
                                                 await(alive);
                                                 throw;
                                             }
                                             await(alive);
                                         });
        }

    private:
        const std::shared_ptr<epoll_loop> inner_;
        Descriptor descriptor_;
    };

    const std::shared_ptr<watch> watch_;
};

} // namespace tarn::loops
