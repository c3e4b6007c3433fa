/// The daemon's long look-ups: an answer goes out in pieces, as its reader takes them.
#include "busd_fixture.h"

namespace {

using namespace busd_tests;

// What waits for a client before its answer is continued, and one description.
constexpr std::size_t piece = 64 * 1024;
constexpr std::size_t long_path = 1000;

class BusdLookup : public broker_test {
protected:
    // Objects whose descriptions fill several pieces.
    void SetUp() override {
        broker_test::SetUp();
        for (int i = 0; i < count; ++i) {
            publish(path(i));
        }
    }

    static std::string path(int number) {
        std::string made = std::to_string(1000 + number);
        made.resize(long_path, '.');
        return made;
    }

    bool look_up(std::uint16_t seq, const wire::bytes& attributes = {}) {
        return send(caller, wire::message(wire::lookup, seq, 0, attributes));
    }

    // The messages that wait now, and no others.
    std::vector<wire::received> take_piece() {
        std::vector<wire::received> found;
        const wire::bytes waiting(caller.out().data(), caller.out().data() + caller.out().size());
        caller.out().consume(waiting.size());
        for (std::size_t at = 0; at < waiting.size();) {
            const auto first = waiting.begin() + static_cast<std::ptrdiff_t>(at);
            wire::received next{{first, first + 12}};
            next.raw.assign(first, first + 8 + (next.word(8) & 0xffffff));
            at += next.raw.size();
            found.push_back(next);
        }
        return found;
    }

    static std::string path_in(const wire::received& message) {
        const auto text = message.attribute(2);
        return {text.begin(), text.end() - 1};
    }

    static constexpr int count = 500;
};

TEST_F(BusdLookup, NoMoreThanAPieceWaitsForTheReader) {
    ASSERT_TRUE(look_up(1));
    int described = 0;
    int pieces = 0;
    bool ended = false;
    while (!ended) {
        EXPECT_LT(caller.out().size(), piece + 2 * long_path);
        const auto messages = take_piece();
        ASSERT_FALSE(messages.empty());
        ++pieces;
        for (const auto& message : messages) {
            ASSERT_FALSE(ended);
            EXPECT_EQ(message.seq(), 1);
            ended = message.type() == wire::status;
            if (!ended) {
                EXPECT_EQ(path_in(message), path(described));
                ++described;
            }
        }
        EXPECT_EQ(caller.has_more(), !ended);
        broker.resume(caller);
    }
    EXPECT_EQ(described, count);
    EXPECT_GT(pieces, 5);
    EXPECT_TRUE(caller.out().empty());
}

TEST_F(BusdLookup, OtherMessagesForItsReaderNeedNotWait) {
    ASSERT_TRUE(look_up(1));
    ASSERT_TRUE(send(caller, wire::message(wire::ping, 2, 0, {})));
    const auto first = take_piece();
    ASSERT_GT(first.size(), 2u);
    EXPECT_EQ(first.back().raw, wire::message(wire::status, 2, 0, wire::status_is(0)));
    EXPECT_TRUE(caller.has_more());
}

TEST_F(BusdLookup, AnswersKeepTheOrderOfTheirRequests) {
    ASSERT_TRUE(look_up(1));
    ASSERT_TRUE(look_up(2, wire::objpath(path(7))));
    ASSERT_TRUE(look_up(3, wire::objpath("nothing")));
    std::vector<std::uint16_t> ends;
    int described = 0;
    for (const auto& message : caller.take()) {
        if (message.type() == wire::status) {
            ends.push_back(message.seq());
            EXPECT_EQ(message.number(1), message.seq() == 3 ? 4u : 0u);
        } else {
            ++described;
        }
    }
    EXPECT_EQ(ends, (std::vector<std::uint16_t>{1, 2, 3}));
    EXPECT_EQ(described, count + 1);
}

TEST_F(BusdLookup, ObjectsMayComeAndGoMeanwhile) {
    ASSERT_TRUE(look_up(1));
    const auto first = take_piece();
    const std::string last = path_in(first.back());
    // The last that was described, the next one and the last of all go; one comes on either side.
    std::vector<std::uint32_t> ids;
    for (const std::string& going : {last, path(static_cast<int>(first.size())), path(count - 1)}) {
        ASSERT_TRUE(send(service, wire::message(wire::lookup, 1, 0, wire::objpath(going))));
        ids.push_back(service.take().at(0).number(3));
    }
    for (const std::uint32_t id : ids) {
        ASSERT_TRUE(send(service, wire::message(wire::remove_object, 1, 0, wire::objid(id))));
    }
    service.take();
    publish("0 before");
    publish("9 behind");
    std::vector<std::string> rest;
    broker.resume(caller);
    for (const auto& message : caller.take()) {
        rest.push_back(message.type() == wire::status ? "end" : path_in(message));
    }
    ASSERT_GT(rest.size(), 3u);
    EXPECT_EQ(rest.front(), path(static_cast<int>(first.size()) + 1));
    EXPECT_EQ(rest[rest.size() - 3], path(count - 2));
    EXPECT_EQ(rest[rest.size() - 2], "9 behind");
    EXPECT_EQ(rest.back(), "end");
    EXPECT_EQ(rest.size(), count - first.size() - 2 + 2);
}

TEST_F(BusdLookup, AnObjectThatIsFoundAndGoesLeavesTheStatus) {
    ASSERT_TRUE(look_up(1));
    ASSERT_TRUE(look_up(2, wire::objpath(path(0))));
    ASSERT_TRUE(send(service, wire::message(wire::lookup, 1, 0, wire::objpath(path(0)))));
    const std::uint32_t id = service.take().at(0).number(3);
    ASSERT_TRUE(send(service, wire::message(wire::remove_object, 1, 0, wire::objid(id))));
    const auto messages = caller.take();
    EXPECT_EQ(messages.back().raw, wire::message(wire::status, 2, 0, wire::status_is(4)));
}

TEST_F(BusdLookup, TheAnswerWaitsUntilAFullQueueHasRoomAgain) {
    const std::uint32_t id = publish("own");
    ASSERT_TRUE(send(caller, wire::message(wire::add_object, 1, 0, {})));
    const std::uint32_t callee = caller.take().at(0).number(3);
    const wire::bytes call =
        wire::message(wire::invoke, 7, callee,
                      wire::objid(callee) + wire::method("m") + wire::data_of(wire::bytes(100000)));
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(send(service, call));
    }
    ASSERT_TRUE(look_up(1, wire::objpath("own")));
    ASSERT_TRUE(caller.has_more());
    broker.resume(caller);
    EXPECT_TRUE(caller.has_more());
    const auto messages = caller.take();
    ASSERT_EQ(messages.size(), 12u);
    EXPECT_EQ(messages[10].number(3), id);
    EXPECT_EQ(messages[11].number(1), 0u);
}

TEST_F(BusdLookup, WaitingRequestsTakeALimitedAmountOfMemory) {
    ASSERT_TRUE(look_up(1));
    const std::string large(100000, 'x');
    int refused = 0;
    for (std::uint16_t seq = 2; seq < 32; ++seq) {
        ASSERT_TRUE(look_up(seq, wire::objpath(large)));
    }
    for (const auto& message : caller.take()) {
        if (message.type() == wire::status && message.number(1) != 0) {
            EXPECT_TRUE(message.number(1) == 4 || message.number(1) == 11) << message.number(1);
            refused += message.number(1) == 11 ? 1 : 0;
        }
    }
    EXPECT_EQ(refused, 20);
    // Once they are answered there is room again.
    ASSERT_TRUE(look_up(1, wire::objpath(large)));
    EXPECT_EQ(last_status(caller), 4u);
}

TEST_F(BusdLookup, AClientThatGoesIsNotAnsweredAnyMore) {
    ASSERT_TRUE(look_up(1));
    broker.detach(caller);
    EXPECT_FALSE(caller.has_more());
    broker.attach(caller);
}

} // namespace
