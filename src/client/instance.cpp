/// The single instance: how it is made, how its private thread starts, and how both end.
#include "client/client_impl.h"

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
    , owner_(::getpid()) {
    // Made first, so that they outlive the exit handler that stops the client.
    error::msg_category::get_inst();
    error::generic_category::get_inst();
    reconnect_timer_ = get_eloop()->create_timer();
    life_token_ = std::make_shared<char>('\0');
    if (loop.use_count() == 0) {
        throw std::runtime_error(prefix_ + "Missing/expired event loop");
    }
    reconnect_timer_->set_handler([this] { reconnect(); });
    last_task_.emplace_back([this] {
        release_bus();
        uloop::get_instance().exit();
    });
    start_loop_thread();
}

void client_impl::start_loop_thread() {
    uloop& loop = uloop::get_instance();
    loop.exit();
    // The loop saves, lets libubox change, and puts back the process's signal dispositions while
    // it starts. The caller may want to install its own right after get_instance(), so that must
    // be over by then.
    const auto started = std::make_shared<std::promise<void>>();
    loop.post([started] { started->set_value(); });
    const signals_blocked inherited;
    loop_thread_ = std::thread([this, &loop] {
        loop.run();
        loop_ended_.set_value();
    });
    started->get_future().wait();
}

void client_impl::stop() noexcept {
    if (::getpid() != owner_) {
        // A forked child: the loop thread and the bus belong to the parent, and the locks may have
        // been copied while held.
        return;
    }
    // In this order: a cancel() on another thread makes no new life token once it sees the flag.
    {
        const std::lock_guard<std::mutex> guard(delivery_lock_);
        stopped_ = true;
    }
    {
        std::shared_ptr<void> life;
        const std::lock_guard<std::mutex> guard(state_lock_);
        life.swap(life_token_);
    }
    auto ended = loop_ended_.get_future();
    uloop::get_instance().post_ready(std::move(last_task_));
    if (ended.wait_for(end_limit) != std::future_status::ready) {
        loop_thread_.detach();
        return;
    }
    loop_thread_.join();
    state_ = state::disconnected;

    // What the application left pending goes unheard; its captures are destroyed here, outside
    // every lock.
    state_signal changed;
    std::shared_ptr<void> connection;
    std::shared_ptr<utils::event_loop::timer> timer;
    std::shared_ptr<const backoff_function> backoff;
    {
        const std::lock_guard<std::mutex> guard(state_lock_);
        std::swap(changed, state_changed_);
        connection.swap(connection_token_);
        teardown_.clear();
        timer.swap(reconnect_timer_);
        if (reconnection_) {
            backoff.swap(reconnection_->backoff);
            reconnection_.reset();
        }
    }
    std::list<std::function<void()>> tasks;
    {
        const std::lock_guard<std::mutex> guard(task_lock_);
        tasks.swap(task_queue_);
    }
    while (invokes_.take_any()) {}
    objects_.take_all();
    for (auto* handlers : {&connect_handlers_, &disconnect_handlers_, &add_handlers_,
                           &del_handlers_, &send_handlers_}) {
        while (handlers->take_oldest()) {}
    }
    requests_.take_all();
    ubus_objects_.clear();
    retired_objects_.clear();
}

std::shared_ptr<utils::event_loop> client_impl::get_eloop() const {
    auto loop = loop_.lock();
    if (!loop) {
        throw std::runtime_error(prefix_ + "No event loop");
    }
    return loop;
}

} // namespace tarn
