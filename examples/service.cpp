// Publishes the object "example" and serves it until interrupted.
//
//   time                         answers at once
//   sum     {"numbers": [...]}   answers from a worker thread, when the result is there
//   count   {"to": n}            answers with n replies, then completes
//   greet   {"name", "loud"}     takes its arguments through a policy: fields of another type, or
//                                that are not named, do not get through
//
// Watch for: an object lives as long as its connection, so it is added again on every
// "connected"; an exchange_ctx may be kept and answered later, from any thread, and answers
// success when it is dropped; signals are the application's own business.
//
// Try: tarn call example greet '{"name": "router", "loud": true}'
#include <tarn/loops/epoll_loop.h>
#include <tarn/tarn.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

namespace {

using tarn::blob::attr;
using tarn::error::msg;
using call = std::shared_ptr<tarn::client::exchange_ctx>;

/// The field of that name if it is there and of type T, else null.
template <class T>
const T* field(const tarn::blob::table& fields, const char* name) {
    const auto found = fields.find(name);
    return found != fields.end() && found->second.type() == typeid(T) ? &found->second.get<T>()
                                                                      : nullptr;
}

void serve_time(const call& incoming) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now).count();
    incoming->send({{"seconds", static_cast<long long>(seconds)}}, {});
    // Dropped here, which completes the call with success.
}

/// A worker thread: runs what it is given, one after the other, all of it before it ends.
class worker {
public:
    ~worker() {
        run({}); // the end
        thread_.join();
    }

    void run(std::function<void()> work) {
        const std::lock_guard<std::mutex> guard(lock_);
        waiting_.push_back(std::move(work));
        given_.notify_one();
    }

private:
    std::function<void()> next() {
        std::unique_lock<std::mutex> guard(lock_);
        given_.wait(guard, [this] { return !waiting_.empty(); });
        auto work = std::move(waiting_.front());
        waiting_.pop_front();
        return work;
    }

    std::mutex lock_;
    std::condition_variable given_;
    std::deque<std::function<void()>> waiting_;
    // Last: it uses the others.
    std::thread thread_{[this] {
        while (const auto work = next()) {
            work();
        }
    }};
};

void serve_sum(worker& calculator, const call& incoming) {
    const auto* numbers = field<tarn::blob::list>(incoming->args, "numbers");
    if (numbers == nullptr) {
        return incoming->respond(msg::invalid_argument);
    }
    calculator.run([incoming, numbers = *numbers] {
        long long sum = 0;
        for (const attr& number : numbers) {
            if (number.type() != typeid(unsigned int)) {
                return incoming->respond(msg::invalid_argument);
            }
            sum += number.get<int>();
        }
        incoming->send({{"sum", sum}}, {});
        incoming->respond(msg::success);
    });
}

void serve_count(const call& incoming) {
    const auto* to = field<unsigned int>(incoming->args, "to");
    const unsigned int last = std::min(to != nullptr ? *to : 3U, 1000U);
    for (unsigned int n = 1; n <= last; ++n) {
        incoming->send({{"n", n}}, [n](const std::error_code& failed) {
            if (failed) {
                std::cerr << "reply " << n << ": " << failed.message() << std::endl;
            }
        });
    }
    incoming->respond(msg::success);
}

void serve_greet(const call& incoming) {
    const auto* name = field<std::string>(incoming->args, "name");
    if (name == nullptr) {
        return incoming->respond(msg::invalid_argument);
    }
    const auto* loud = field<bool>(incoming->args, "loud"); // a flag, thanks to the policy
    const char* mark = loud != nullptr && *loud ? "!" : ".";
    incoming->send({{"greeting", "Hello, " + *name + mark}}, {});
}

/// The loop outlives the client made after it.
const std::shared_ptr<tarn::loops::epoll_loop>& the_loop() {
    static const auto loop = std::make_shared<tarn::loops::epoll_loop>();
    return loop;
}

} // namespace

int main() {
    // Waited for by a thread of its own; blocked everywhere else, so that they end the loop.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    std::thread end_waiter([&ends] {
        int received = 0;
        sigwait(&ends, &received);
        the_loop()->stop();
    });

    tarn::client& bus = tarn::client::get_instance(the_loop());
    {
        worker calculator;
        const tarn::client::method_map methods{
            {"time", {serve_time, {}}},
            {"sum", {[&calculator](const call& incoming) { serve_sum(calculator, incoming); }, {}}},
            {"count", {serve_count, {}}},
            {"greet", {serve_greet, {{"name", typeid(std::string)}, {"loud", typeid(bool)}}}},
        };
        const tarn::utils::scoped_link states =
            bus.notify_on_state_change([&](tarn::client::state state) {
                if (state != tarn::client::state::connected) {
                    return;
                }
                bus.add_object("example", methods, [](const std::error_code& failed) {
                    std::cout << "service: " << (failed ? failed.message() : "ready") << std::endl;
                });
            });
        const tarn::utils::scoped_link reconnection = bus.auto_connect(
            [](long long attempt) { return std::chrono::seconds(std::min(attempt, 30LL)); });
        the_loop()->run();
        bus.cancel(); // no handler refers to the worker any more
    }
    end_waiter.join();
}
