/// What the tests of uloop share: a loop per test, and records whose handlers are lambdas.
#pragma once

#include <array>
#include <csignal>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "bus.h"

namespace ubox_test {

struct timer : uloop_timeout {
    explicit timer(std::function<void(timer&)> handler)
        : uloop_timeout()
        , handler_(std::move(handler)) {
        cb = [](uloop_timeout* self) {
            auto& timer_ = *static_cast<timer*>(self);
            // A copy, since the handler may destroy the timer.
            const auto handler_copy = timer_.handler_;
            handler_copy(timer_);
        };
    }
    timer(const timer&) = delete;
    timer& operator=(const timer&) = delete;
    ~timer() { uloop_timeout_cancel(this); }

private:
    std::function<void(timer&)> handler_;
};

/// A loop that is ready at the start of each test and gone at its end.
class uloop_test : public testing::Test {
protected:
    uloop_test() {
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
            std::signal(number, SIG_DFL);
        }
        uloop_handle_sigchld = true;
        EXPECT_EQ(uloop_init(), 0);
    }
    ~uloop_test() override { uloop_done(); }

    /// Runs until a handler ends the loop, or the signal with the number `ending`; without either
    /// it is a failure.
    static void run(int ending = 0) {
        bool ended_by_test = true;
        timer too_long([&](timer&) {
            ended_by_test = false;
            uloop_end();
        });
        uloop_timeout_set(&too_long, 20000);
        EXPECT_EQ(uloop_run(), ending);
        EXPECT_TRUE(ended_by_test) << "nothing has ended the loop";
    }

    /// Serves what there is by now: one event, and timers, a round.
    static void run_rounds(int rounds = 10) {
        for (int i = 0; i < rounds; ++i) {
            EXPECT_EQ(uloop_run_timeout(0), 0);
        }
    }
};

/// A watched descriptor, which it owns.
struct watched : uloop_fd {
    using handler = std::function<void(watched&, unsigned)>;

    watched(int descriptor, handler on_event)
        : uloop_fd()
        , handler_(std::move(on_event)) {
        fd = descriptor;
        cb = [](uloop_fd* self, unsigned events) {
            auto& record = *static_cast<watched*>(self);
            const auto handler_copy = record.handler_;
            handler_copy(record, events);
        };
    }
    watched(const watched&) = delete;
    watched& operator=(const watched&) = delete;
    ~watched() {
        uloop_fd_delete(this);
        ::close(fd);
    }

private:
    handler handler_;
};

/// A descriptor that is readable from raise() to clear().
struct event_fd : watched {
    explicit event_fd(std::function<void(event_fd&, unsigned)> on_event)
        : watched(::eventfd(0, EFD_CLOEXEC),
                  [handler = std::move(on_event)](watched& self, unsigned events) {
                      handler(static_cast<event_fd&>(self), events);
                  }) {}
    void raise() const {
        const std::uint64_t one = 1;
        EXPECT_EQ(::write(fd, &one, sizeof one), static_cast<ssize_t>(sizeof one));
    }
    void clear() const {
        std::uint64_t count;
        EXPECT_EQ(::read(fd, &count, sizeof count), static_cast<ssize_t>(sizeof count));
    }
};

/// Two connected sockets.
inline std::array<int, 2> socket_pair() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::runtime_error("socketpair");
    }
    return ends;
}

} // namespace ubox_test
