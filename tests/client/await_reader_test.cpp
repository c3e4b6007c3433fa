/// Waiting until the other end of a socket has read.
#include "client/await_reader.h"

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace tarn::test {
namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

/// Never reached.
constexpr auto generous = 20s;
/// Waited through in a test.
constexpr auto brief = 50ms;

class AwaitReader : public ::testing::Test {
protected:
    AwaitReader() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0); }
    ~AwaitReader() override {
        ::close(ends_[0]);
        ::close(ends_[1]);
    }

    void write(std::size_t size) const {
        const std::string text(size, 'x');
        ASSERT_EQ(::send(ends_[0], text.data(), size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
    }
    void read(std::size_t size) const {
        std::string text(size, '\0');
        ASSERT_EQ(::recv(ends_[1], text.data(), size, MSG_WAITALL), static_cast<ssize_t>(size));
    }
    static clock::duration timed(const std::function<void()>& work) {
        const auto begin = clock::now();
        work();
        return clock::now() - begin;
    }

    int ends_[2] = {-1, -1};
};

TEST_F(AwaitReader, DoesNotWaitWhenNothingWasWritten) {
    EXPECT_LT(timed([this] { await_reader(ends_[0], generous); }), generous);
}

TEST_F(AwaitReader, DoesNotWaitWhenEverythingWasRead) {
    write(1000);
    read(1000);
    EXPECT_LT(timed([this] { await_reader(ends_[0], generous); }), generous);
}

TEST_F(AwaitReader, WaitsForTheLastByte) {
    write(1000);
    read(999);
    EXPECT_GE(timed([this] { await_reader(ends_[0], brief); }), brief);
    read(1);
    EXPECT_LT(timed([this] { await_reader(ends_[0], generous); }), generous);
}

TEST_F(AwaitReader, ReturnsWhenTheOtherEndReads) {
    write(1000);
    std::thread reader;
    EXPECT_LT(timed([&] {
                  reader = std::thread([this] { read(1000); });
                  await_reader(ends_[0], generous);
              }),
              generous);
    reader.join();
}

TEST_F(AwaitReader, ReturnsWhenTheOtherEndGoes) {
    write(1000);
    ::close(ends_[1]);
    EXPECT_LT(timed([this] { await_reader(ends_[0], generous); }), generous);
    ends_[1] = ::dup(ends_[0]);
}

TEST_F(AwaitReader, GivesUpAtTheLimit) {
    write(1);
    const auto waited = timed([this] { await_reader(ends_[0], brief); });
    EXPECT_GE(waited, brief);
    EXPECT_LT(waited, generous);
}

TEST_F(AwaitReader, LeavesWhatHasArrivedToBeRead) {
    const char answer = 'a';
    ASSERT_EQ(::send(ends_[1], &answer, 1, MSG_NOSIGNAL), 1);
    await_reader(ends_[0], brief);
    char seen = 0;
    EXPECT_EQ(::recv(ends_[0], &seen, 1, MSG_DONTWAIT), 1);
    EXPECT_EQ(seen, answer);
}

TEST_F(AwaitReader, IsNotCutShortBySignals) {
    struct sigaction nothing {};
    nothing.sa_handler = [](int) {
    };
    ASSERT_EQ(::sigaction(SIGUSR1, &nothing, nullptr), 0);
    write(1);
    const pthread_t waiting = ::pthread_self();
    const auto end = clock::now() + brief;
    std::thread nuisance([waiting, end] {
        while (clock::now() < end) {
            ::pthread_kill(waiting, SIGUSR1);
            std::this_thread::yield();
        }
    });
    EXPECT_GE(timed([this] { await_reader(ends_[0], brief); }), brief);
    nuisance.join();
}

TEST_F(AwaitReader, DoesNotWaitForWhatIsNoSocket) {
    int pipe_ends[2];
    ASSERT_EQ(::pipe(pipe_ends), 0);
    EXPECT_LT(timed([&] { await_reader(pipe_ends[1], generous); }), generous);
    ::close(pipe_ends[0]);
    ::close(pipe_ends[1]);
}

} // namespace
} // namespace tarn::test
