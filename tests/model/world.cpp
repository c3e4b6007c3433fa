/// What lives through all sequences.
#include "world.h"

#include "delays.h"
#include "journal.h"

#include <array>
#include <utility>

namespace tarn::test {

namespace {

/// Outlives the client, which is made after it and goes with the process.
std::shared_ptr<fast_loop>& application_loop(const std::shared_ptr<verdict>& result) {
    static auto instance =
        std::make_shared<fast_loop>([result](const std::string& what) { result->fail(what); });
    return instance;
}

} // namespace

void verdict::fail(const std::string& what) {
    journal::note("WRONG: " + what);
    const std::lock_guard<std::mutex> guard(lock_);
    if (!failed_) {
        text_ = what;
        failed_ = true;
    }
}

std::string verdict::text() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return text_;
}

void verdict::reset() {
    const std::lock_guard<std::mutex> guard(lock_);
    text_.clear();
    failed_ = false;
}

crew::crew() {
    for (unsigned i = 0; i < size; ++i) {
        threads_.emplace_back([this, i] { run(i); });
    }
}

crew::~crew() {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        ending_ = true;
        changed_.notify_all();
    }
    for (auto& thread : threads_) {
        thread.join();
    }
}

void crew::start(unsigned thread, std::function<void()> work) {
    const std::lock_guard<std::mutex> guard(lock_);
    work_.at(thread) = std::move(work);
    ++busy_;
    changed_.notify_all();
}

bool crew::finished(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, limit, [this] { return busy_ == 0; });
}

void crew::run(unsigned thread) {
    constexpr std::array<const char*, size> names{"thread 1", "thread 2", "thread 3", "thread 4"};
    journal::name_thread(names.at(thread));
    number_thread(10 + thread);
    std::unique_lock<std::mutex> guard(lock_);
    for (;;) {
        changed_.wait(guard, [&] { return ending_ || work_[thread]; });
        if (ending_) {
            return;
        }
        const auto work = std::exchange(work_[thread], {});
        guard.unlock();
        work();
        guard.lock();
        --busy_;
        changed_.notify_all();
    }
}

// The processes are forked before there are threads.
world::world()
    : peer_(std::make_unique<peer_process>(daemon_->socket_path()))
    , result_(std::make_shared<verdict>())
    , loop_(application_loop(result_))
    , proxy_(std::make_unique<proxy_bus>(daemon_->socket_path()))
    , bus_(client::get_instance(loop_)) {
    journal::name_thread("main");
    number_thread(3);
}

world::~world() {
    loop_->stop();
}

void world::restart_daemon() {
    daemon_->restart();
}

int world::order_peer(const std::string& verb, const std::string& objects) {
    const std::lock_guard<std::mutex> guard(lock_);
    return peer_ ? peer_->start(verb, objects) : 0;
}

long world::last_peer_event() {
    const std::lock_guard<std::mutex> guard(lock_);
    return peer_ ? peer_->last_event() : 0;
}

void world::drop_bus() {
    const std::lock_guard<std::mutex> guard(lock_);
    if (proxy_) {
        proxy_->drop();
    }
}

void world::refuse_bus(bool on) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (proxy_) {
        proxy_->refuse(on);
    }
}

void world::renew_peer() {
    auto renewed = std::make_unique<peer_process>(daemon_->socket_path());
    const std::lock_guard<std::mutex> guard(lock_);
    peer_.swap(renewed);
}

void world::abandon() {
    const std::lock_guard<std::mutex> guard(lock_);
    proxy_.reset();
    peer_.reset();
    daemon_.reset();
}

} // namespace tarn::test
