/// epoll_loop and its timers: the public face of the loop core.
#include "tarn/loops/epoll_loop.h"

#include "loop_core.h"

#include <utility>

namespace tarn::loops {

namespace {

class epoll_timer final : public utils::event_loop::timer {
public:
    explicit epoll_timer(std::shared_ptr<detail::loop_core> core)
        : core_(std::move(core)) {
        core_->add_timer();
    }

    ~epoll_timer() override { core_->remove_timer(entry_); }

    epoll_timer(const epoll_timer&) = delete;
    epoll_timer& operator=(const epoll_timer&) = delete;

    void set_handler(std::function<void()> action) override {
        core_->set_handler(entry_, std::move(action));
    }

    void set_timeout(const std::chrono::seconds& delay) override { core_->arm(entry_, delay); }

    void stop() override { core_->disarm(entry_); }

private:
    const std::shared_ptr<detail::loop_core> core_;
    detail::timer_entry entry_;
};

} // namespace

epoll_loop::epoll_loop()
    : core_(std::make_shared<detail::loop_core>()) {}

epoll_loop::~epoll_loop() {
    core_->close();
}

void epoll_loop::run() {
    core_->run();
}

// The thread that runs the loop, once it is stopped or has run the task, may destroy the loop
// before stop() or post() has returned: so both hold a reference to the core.

void epoll_loop::stop() {
    const auto core = core_;
    core->stop();
}

int epoll_loop::fd() const noexcept {
    return core_->fd();
}

std::size_t epoll_loop::dispatch() {
    return core_->dispatch();
}

void epoll_loop::post(const std::function<void()>& task) {
    const auto core = core_;
    core->post(task);
}

std::shared_ptr<utils::event_loop::timer> epoll_loop::create_timer() {
    return std::make_shared<epoll_timer>(core_);
}

} // namespace tarn::loops
