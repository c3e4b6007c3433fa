/// ending WAY [ARGUMENT]: a process whose end comes at a bad moment. It is connected, serves its
/// own object and calls it in a tight loop, has calls pending with and without time limits, keeps
/// contexts open, and then ends:
///
///   main         main() calls exit() while the loop runs on another thread
///   return       main() returns, likewise
///   handler      a result handler calls exit()
///   subscriber   a state subscriber calls exit()
///   thread       a thread calls exit() while main() runs the loop and others call the client
///   release      main() calls exit() while a thread releases the links of state subscribers
///   cancel       main() calls exit() while a thread calls cancel() over and over
///   fork         forks children that call exit() while the threads work, waits for them, and exits
///   stopped PID  stops the bus daemon PID, looks whether time limits and cancel() still work while
///                the private thread waits for it, prints "ending: exit" and calls exit()
///
///   loop         destroys the loop while a result is still to come, which ends the process by
///                SIGABRT
///
/// The exit status is 7 when all went well.
#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/loops/epoll_loop.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;
using context = std::shared_ptr<tarn::client::exchange_ctx>;

constexpr int good = 7;

// Made before the client, so destroyed after it.
const std::shared_ptr<tarn::loops::epoll_loop>& loop() {
    static const auto instance = std::make_shared<tarn::loops::epoll_loop>();
    return instance;
}

tarn::client& bus() {
    return tarn::client::get_instance(loop());
}

// Whoever runs the loop keeps it: exit handlers destroy the static pointer while it runs on.
void run_loop() {
    const auto kept = loop();
    kept->run();
}

// What the process has going on; never destroyed, since threads use it to the last moment.
struct work {
    std::mutex lock;
    std::condition_variable changed;
    long answered = 0;
    std::vector<context> open;
    std::atomic<bool> exit_in_handler{false};
};

work& state() {
    static auto& instance = *new work;
    return instance;
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "ending: %s\n", what);
    std::_Exit(1);
}

void keep_calling() {
    bus().invoke(
        "ending", "echo", {{"n", tarn::blob::attr(std::uint32_t{1})}},
        [](const std::list<tarn::blob::attr>&, const std::error_code& code) {
            if (!code && state().exit_in_handler) {
                std::exit(good);
            }
            if (!code) {
                const std::lock_guard<std::mutex> guard(state().lock);
                ++state().answered;
            }
            state().changed.notify_all();
            keep_calling();
        },
        0s);
}

void publish(const std::function<void()>& done) {
    const auto echo = [](const context& call) {
        call->send(std::move(call->args), {});
    };
    const auto hold = [](const context& call) {
        {
            const std::lock_guard<std::mutex> guard(state().lock);
            state().open.push_back(call);
        }
        state().changed.notify_all();
    };
    bus().add_object("ending", {{"echo", {echo, {}}}, {"hold", {hold, {}}}},
                     [done](const std::error_code& code) {
                         if (code) {
                             fail("cannot publish");
                         }
                         done();
                     });
}

// Connects and returns when the loop, which another thread runs, is about to be busy.
void begin() {
    loop()->post([] {
        bus().connect([](const std::error_code& code) {
            if (code) {
                fail("cannot connect");
            }
            publish([] {
                for (int i = 0; i < 8; ++i) {
                    keep_calling();
                    bus().invoke("ending", "hold", {}, {}, i % 2 == 0 ? 0s : 3600s);
                }
            });
        });
    });
}

// Waits until the bus is busy and contexts are open.
void wait_until_busy() {
    std::unique_lock<std::mutex> guard(state().lock);
    const bool busy = state().changed.wait_for(
        guard, 30s, [] { return state().answered > 50 && state().open.size() >= 8; });
    if (!busy) {
        fail("the bus does not get busy");
    }
}

// Calls the client from outside its loop until the process is gone, not faster than it answers.
void disturb() {
    for (;;) {
        auto link = bus().invoke("ending", "echo", {}, {}, 5s);
        bus().del_object("nothing", true, {});
        const auto told = std::make_shared<std::promise<void>>();
        bus().invoke(
            "ending", "echo", {},
            [told](const std::list<tarn::blob::attr>&, const std::error_code&) {
                told->set_value();
            },
            5s);
        context call;
        {
            const std::lock_guard<std::mutex> guard(state().lock);
            if (!state().open.empty()) {
                call = state().open.back();
            }
        }
        if (call) {
            call->send({}, {});
        }
        // Once the client has stopped nothing is told any more.
        told->get_future().wait_for(100ms);
        link.release();
    }
}

// Looks up the text of codes to the last moment, as a thread that logs does.
void log_codes() {
    for (;;) {
        const std::error_code msg = tarn::error::msg::timeout;
        const std::error_code generic = tarn::error::generic::aborted;
        if (msg.message().empty() || generic.message().empty()) {
            fail("a code without text");
        }
    }
}

void end_in_main(bool by_return) {
    std::thread(run_loop).detach();
    begin();
    wait_until_busy();
    if (!by_return) {
        std::exit(good);
    }
}

void end_in_handler() {
    std::thread([] {
        wait_until_busy();
        state().exit_in_handler = true;
    }).detach();
    begin();
    run_loop();
}

void end_in_subscriber() {
    static const auto link = bus().notify_on_state_change([](tarn::client::state s) {
        if (s == tarn::client::state::disconnecting) {
            std::exit(good);
        }
    });
    std::thread([] {
        wait_until_busy();
        loop()->post([] { bus().disconnect({}); });
    }).detach();
    begin();
    run_loop();
}

void end_in_thread() {
    std::thread(disturb).detach();
    std::thread(disturb).detach();
    std::thread(log_codes).detach();
    std::thread([] {
        wait_until_busy();
        std::exit(good);
    }).detach();
    begin();
    run_loop();
}

void end_during_release() {
    std::thread(run_loop).detach();
    begin();
    wait_until_busy();
    static auto& links = *new std::vector<tarn::utils::link>; // not destroyed with the process
    for (int i = 0; i < 20000; ++i) {
        links.push_back(bus().notify_on_state_change([](tarn::client::state) {}));
    }
    std::thread([] {
        while (links.front().active()) {} // until the end of the client destroys them as well
        for (tarn::utils::link& link : links) {
            link.release();
        }
    }).detach();
    std::exit(good);
}

void end_during_cancel() {
    // The loop runs no more, so that it dies on time, while a thread is inside the client.
    std::thread running(run_loop);
    begin();
    wait_until_busy();
    loop()->stop();
    running.join();
    std::promise<void> begun;
    std::thread([&begun] {
        bus().cancel();
        begun.set_value();
        for (;;) {
            bus().cancel();
        }
    }).detach();
    begun.get_future().wait();
    std::exit(good);
}

void end_in_children() {
    std::thread(run_loop).detach();
    std::thread(disturb).detach();
    begin();
    wait_until_busy();
    const char* const rounds = std::getenv("TARN_TEST_FORKS");
    for (int i = rounds != nullptr ? std::atoi(rounds) : 10; i > 0; --i) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(20); // a child that hangs is killed
            std::exit(good);
        }
        int status = 0;
        if (child < 0 || ::waitpid(child, &status, 0) != child) {
            fail("cannot fork");
        }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != good) {
            fail("a child did not end as it should");
        }
    }
    // The parent's connection is none the worse for it.
    {
        const std::lock_guard<std::mutex> guard(state().lock);
        state().answered = 0;
    }
    wait_until_busy();
    std::exit(good);
}

bool held(const std::string& pid) {
    std::ifstream file("/proc/" + pid + "/stat");
    std::string name;
    char letter = ' ';
    file >> name >> name >> letter;
    return letter == 'T';
}

void end_with_stopped_daemon(const std::string& pid) {
    std::thread(run_loop).detach();
    begin();
    wait_until_busy();
    ::kill(static_cast<pid_t>(std::stol(pid)), SIGSTOP);
    while (!held(pid)) {
        ::poll(nullptr, 0, 1);
    }
    // The look-ups of these have the private thread wait for the daemon.
    const auto called = clock_type::now();
    for (int i = 0; i < 2; ++i) {
        std::promise<std::error_code> told;
        bus().invoke(
            "ending", "echo", {},
            [&told](const std::list<tarn::blob::attr>&, const std::error_code& code) {
                told.set_value(code);
            },
            1s);
        auto outcome = told.get_future();
        if (outcome.wait_for(10s) != std::future_status::ready) {
            fail("a time limit did not fire");
        }
        if (outcome.get() != tarn::error::msg::timeout) {
            fail("not timed out");
        }
    }
    const auto took = clock_type::now() - called;
    std::promise<std::error_code> aborted;
    bus().invoke(
        "ending", "echo", {},
        [&aborted](const std::list<tarn::blob::attr>&, const std::error_code& code) {
            aborted.set_value(code);
        },
        0s);
    std::promise<clock_type::duration> cancelled;
    loop()->post([&cancelled] {
        const auto before = clock_type::now();
        bus().cancel();
        cancelled.set_value(clock_type::now() - before);
    });
    auto outcome = aborted.get_future();
    if (outcome.wait_for(10s) != std::future_status::ready ||
        outcome.get() != tarn::error::generic::aborted) {
        fail("cancel did not end a call");
    }
    const auto in_ms = [](clock_type::duration time) {
        return static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
    };
    std::printf("ending: limits of 2000 ms took %ld ms\nending: cancel took %ld ms\nending: exit\n",
                in_ms(took), in_ms(cancelled.get_future().get()));
    std::fflush(stdout);
    std::exit(good);
}

[[noreturn]] void outlive_the_loop() {
    auto mortal = std::make_shared<tarn::loops::epoll_loop>();
    auto& client = tarn::client::get_instance(mortal);
    client.connect([&mortal](const std::error_code& code) {
        if (code) {
            fail("cannot connect");
        }
        mortal->stop();
    });
    mortal->run();
    mortal.reset();
    client.invoke("nobody", "answers", {}, {}, 0s);
    for (;;) {
        ::pause();
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::string way = argc > 1 ? argv[1] : "";
    if (way == "loop") {
        outlive_the_loop();
    }
    bus();
    if (way == "main" || way == "return") {
        end_in_main(way == "return");
    } else if (way == "handler") {
        end_in_handler();
    } else if (way == "subscriber") {
        end_in_subscriber();
    } else if (way == "thread") {
        end_in_thread();
    } else if (way == "release") {
        end_during_release();
    } else if (way == "cancel") {
        end_during_cancel();
    } else if (way == "fork") {
        end_in_children();
    } else if (way == "stopped" && argc == 3) {
        end_with_stopped_daemon(argv[2]);
    } else {
        return 2;
    }
    return good;
}
