/// What the tests of the daemon's message handling share: a broker without sockets, and clients in
/// memory.
#pragma once

#include "busd/broker.h"

#include <gtest/gtest.h>

#include "support/wire.h"

namespace busd_tests {

inline constexpr std::size_t limit = bus::longest_blob;

// A client in memory. Unless told to, it does not read.
class memory_client : public busd::client {
public:
    explicit memory_client(busd::broker* attached_to = nullptr, bool is_root = false)
        : client("alice", "staff", is_root)
        , bus(attached_to) {}
    memory_client(busd::broker* attached_to, const char* user, const char* group, bool is_root)
        : client(user, group, is_root)
        , bus(attached_to) {}

    busd::broker* bus;

    bool reads = false;
    wire::bytes seen;

    // All messages that wait, and those that wait for these to be read.
    std::vector<wire::received> take() {
        drain();
        while (has_more()) {
            bus->resume(*this);
            drain();
        }
        std::vector<wire::received> messages;
        std::size_t at = 0;
        while (at < seen.size()) {
            const auto first = seen.begin() + static_cast<std::ptrdiff_t>(at);
            wire::received next{{first, first + 12}};
            next.raw.assign(first, first + 8 + (next.word(8) & 0xffffff));
            at += next.raw.size();
            messages.push_back(next);
        }
        EXPECT_EQ(at, seen.size()) << "half a message";
        seen.clear();
        return messages;
    }

protected:
    void on_full() override {
        if (reads) {
            drain();
        }
    }

private:
    void drain() {
        seen.insert(seen.end(), out().data(), out().data() + out().size());
        out().consume(out().size());
    }
};

class broker_test : public testing::Test {
protected:
    void SetUp() override {
        broker.attach(service);
        broker.attach(caller);
        service.take();
        caller.take();
    }

    bool send(memory_client& from, const wire::bytes& raw) {
        return broker.receive(from, raw.data(), raw.size());
    }

    std::uint32_t publish(const std::string& path) {
        EXPECT_TRUE(send(service, wire::message(wire::add_object, 1, 0,
                                                wire::objpath(path) + wire::one_method("m"))));
        return service.take().at(0).number(3);
    }

    // A new object without a path.
    std::uint32_t anonymous(memory_client& of) {
        EXPECT_TRUE(send(of, wire::message(wire::add_object, 1, 0, {})));
        return of.take().at(0).number(3);
    }

    // The service has just published it.
    void expect_object_without_a_type(const std::string& path) {
        const auto answers = service.take();
        ASSERT_EQ(answers.size(), 2u);
        EXPECT_TRUE(answers[0].attribute(5).empty());
        EXPECT_EQ(answers[1].number(1), 0u);
        // It is there, and nothing is told of it.
        ASSERT_TRUE(send(caller, wire::message(wire::lookup, 1, 0, wire::objpath(path))));
        EXPECT_EQ(caller.take().at(0).raw, wire::message(wire::status, 1, 0, wire::status_is(0)));
        const std::uint32_t id = answers[0].number(3);
        ASSERT_TRUE(
            send(caller, wire::message(wire::invoke, 2, id, wire::objid(id) + wire::method("m"))));
        EXPECT_EQ(service.take().at(0).type(), wire::invoke);
    }

    std::uint32_t last_status(memory_client& of) {
        const auto messages = of.take();
        EXPECT_FALSE(messages.empty());
        EXPECT_EQ(messages.back().type(), wire::status);
        return messages.back().number(1);
    }

    busd::broker broker;
    memory_client service{&broker};
    memory_client caller{&broker};
};

} // namespace busd_tests
