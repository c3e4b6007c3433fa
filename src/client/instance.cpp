/// The single instance: how it is made, how its private thread starts, and how both end.
#include "client/client_impl.h"

#include "counted.h"
#include "tarn/error.h"
#include "tarn/uloop.h"

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace tarn {

namespace {

/// How long the end of the process waits for the loop thread. It is busy for longer only when it
/// waits for a bus daemon that has stopped answering; it is then left behind, since nothing that
/// it uses is destroyed before the process is gone.
constexpr std::chrono::seconds end_limit{3};

/// Blocks every signal for the life of the object, so that a thread started meanwhile inherits the
/// mask: no handler of the application ever runs on it, and a bus that dies under a write gives an
/// error instead of SIGPIPE. The faults of the thread's own code stay deliverable.
class signals_blocked {
public:
    signals_blocked() {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT}) {
            sigdelset(&blocked, fault);
        }
        pthread_sigmask(SIG_SETMASK, &blocked, &previous_);
    }
    ~signals_blocked() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    signals_blocked(const signals_blocked&) = delete;
    signals_blocked& operator=(const signals_blocked&) = delete;

private:
    sigset_t previous_{};
};

} // namespace

client_impl& client_impl::get_instance(const std::weak_ptr<utils::event_loop>& loop) {
    // Never destroyed, because other threads of an ending process may still be inside it. The
    // object that stops it is made after the loop's instance (the constructor obtains that one),
    // so the exit handlers stop the client first.
    struct stop_at_exit {
        client_impl& instance;
        ~stop_at_exit() { instance.stop(); }
    };
    static client_impl& instance = *new client_impl(loop);
    static const stop_at_exit end{instance};

    const auto wanted = loop.lock();
    if (!wanted || wanted == instance.loop_.lock()) {
        return instance;
    }
    throw std::runtime_error(instance.prefix_ + "Instance of event loop can't be changed");
}

client_impl::client_impl(const std::weak_ptr<utils::event_loop>& loop)
    : prefix_("tarn_impl::client: ")
    , loop_(loop)
    , bridge_(loop)
    , app_side_(bridge_, loop_side_)
    , loop_side_(bridge_, app_side_)
    , owner_(::getpid()) {
    // Made first, so that they outlive the exit handler that stops the client.
    error::msg_category::get_inst();
    error::generic_category::get_inst();
    app_side_.make_timer();
    if (loop.use_count() == 0) {
        throw std::runtime_error(prefix_ + "Missing/expired event loop");
    }
    app_side_.set_timer_handler();
    start_loop_thread();
}

void client_impl::start_loop_thread() {
    uloop& loop = uloop::get_instance();
    // The application may run the loop itself; that ends, and this thread's run comes after it.
    const bool called_inside = loop.runs_here();
    loop.exit();
    loop.set_source([this] { loop_side_.run_batch(); });
    const auto started = make_counted<milestone>();
    {
        const signals_blocked inherited;
        loop_thread_ = std::thread([this, &loop, started] {
            is_loop_thread = true;
            loop.run_after_others([&started] { started->reach(); });
            loop_ended_.reach();
        });
    }
    // The loop saves, lets libubox change, and puts back the process's signal dispositions while
    // it starts. The caller may want to install its own right after get_instance(), so that must
    // be over by then. A task of the run that is to end cannot wait for that.
    if (!called_inside) {
        started->await();
    }
}

void client_impl::end_loop() {
    loop_side_.release_bus();
    uloop::get_instance().exit();
}

void client_impl::stop() noexcept {
    if (::getpid() != owner_) {
        // A forked child: the loop thread and the bus belong to the parent, and the locks may have
        // been copied while held.
        return;
    }
    bridge_.close();
    bridge_.post_last(last_task_);
    if (!loop_ended_.await_for(end_limit)) {
        loop_thread_.detach();
        return;
    }
    loop_thread_.join();
    // What the application left pending is dropped without a report; its captures are destroyed
    // here, outside every lock.
    app_side_.drop_all();
    bridge_.drop_tasks();
    loop_side_.drop_all();
}

} // namespace tarn
