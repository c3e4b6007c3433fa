/// The daemon's answers against recorded exchanges, byte for byte.
#include "support/bus_daemon.h"

#include <gtest/gtest.h>
#include <poll.h>

#include "support/wire.h"

namespace {

// One recorded client that is played again.
class player {
public:
    player(const std::string& file, const tarn::test::bus_daemon& daemon, wire::id_map& ids)
        : lines_(wire::load(file))
        , socket_(daemon.connect())
        , ids_(ids) {
        ids_.learn(lines_);
    }

    bool done() const { return next_ == lines_.size(); }
    std::size_t lines_played() const { return next_; }

    // True if the next line is a call that the other client has to make first.
    bool waits_for_call() const {
        return !done() && !lines_[next_].from_client && lines_[next_].raw.at(1) == wire::invoke;
    }

    // Plays the next line if that can be done now.
    bool step() {
        if (done() || (!lines_[next_].from_client && !socket_.readable())) {
            return false;
        }
        const wire::recorded& line = lines_[next_++];
        if (line.from_client) {
            socket_.send(ids_.to_actual(line.raw));
        } else {
            const wire::bytes wanted = wire::with_own_names(line.raw);
            const wire::received got = socket_.receive();
            EXPECT_EQ(wire::hex(ids_.to_recorded(got.raw, wanted)), wire::hex(wanted))
                << "line " << next_;
        }
        return true;
    }

    pollfd awaited() const { return {socket_.fd(), POLLIN, 0}; }

private:
    std::vector<wire::recorded> lines_;
    std::size_t next_ = 0;
    wire::peer socket_;
    wire::id_map& ids_;
};

TEST(BusdReplay, AnswersServiceAndCallerAsRecorded) {
    constexpr std::size_t service_lines = 25;
    constexpr std::size_t caller_lines = 24;
    const tarn::test::bus_daemon daemon;
    wire::id_map ids;
    player service("wire-service.txt", daemon, ids);
    player caller("wire-caller.txt", daemon, ids);
    while (!service.done() || !caller.done()) {
        // The caller starts when the object is there.
        const bool called = service.waits_for_call() || caller.lines_played() > 0;
        const bool moved = service.step();
        if (!(called && caller.step()) && !moved) {
            pollfd either[] = {service.awaited(), caller.awaited()};
            ASSERT_GT(::poll(either, 2, 20000), 0) << "an answer is missing";
        }
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_EQ(service.lines_played(), service_lines);
    EXPECT_EQ(caller.lines_played(), caller_lines);
}

} // namespace
