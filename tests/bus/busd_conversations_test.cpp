/// The daemon's part in recorded conversations of several clients, byte for byte. The clients were
/// the ubus command and a small publisher, the daemon was ubusd. Each conversation is replayed over
/// sockets, and without, where every client is root as those recorded were.
#include "busd_fixture.h"

#include <deque>
#include <map>
#include <memory>
#include <ostream>

#include "support/bus_daemon.h"

namespace {

// The clients of one conversation, by name.
class stage {
public:
    virtual ~stage() = default;
    virtual void enter(const std::string& name) = 0;
    virtual void leave(const std::string& name) = 0;
    virtual void send(const std::string& from, const wire::bytes& raw) = 0;
    virtual wire::bytes receive(const std::string& by) = 0;
    // What the daemon has recorded of them, with the names that these have.
    virtual wire::bytes expected(const wire::bytes& raw) const = 0;
};

class stage_of_sockets : public stage {
public:
    void enter(const std::string& name) override { clients_[name] = wire::peer(daemon_.connect()); }
    void leave(const std::string& name) override { clients_.erase(name); }
    void send(const std::string& from, const wire::bytes& raw) override {
        clients_.at(from).send(raw);
    }
    wire::bytes receive(const std::string& by) override { return clients_.at(by).receive().raw; }
    wire::bytes expected(const wire::bytes& raw) const override {
        return wire::with_own_names(raw);
    }

private:
    const tarn::test::bus_daemon daemon_;
    std::map<std::string, wire::peer> clients_;
};

class stage_in_memory : public stage {
public:
    ~stage_in_memory() override {
        for (auto& [name, client] : clients_) {
            broker_.detach(*client);
        }
    }
    void enter(const std::string& name) override {
        clients_[name] = std::make_unique<root_client>(&broker_);
        broker_.attach(*clients_[name]);
    }
    void leave(const std::string& name) override {
        broker_.detach(*clients_.at(name));
        clients_.erase(name);
    }
    void send(const std::string& from, const wire::bytes& raw) override {
        ASSERT_TRUE(broker_.receive(*clients_.at(from), raw.data(), raw.size()));
    }
    wire::bytes receive(const std::string& by) override {
        root_client& client = *clients_.at(by);
        for (const wire::received& message : client.take()) {
            client.unread.push_back(message.raw);
        }
        if (client.unread.empty()) {
            throw std::runtime_error("no message for " + by);
        }
        const wire::bytes next = client.unread.front();
        client.unread.pop_front();
        return next;
    }
    wire::bytes expected(const wire::bytes& raw) const override { return raw; }

private:
    struct root_client : busd_tests::memory_client {
        explicit root_client(busd::broker* attached_to)
            : memory_client(attached_to, "root", "root", true) {}
        std::deque<wire::bytes> unread;
    };

    busd::broker broker_;
    std::map<std::string, std::unique_ptr<root_client>> clients_;
};

struct conversation {
    const char* file;
    std::size_t lines;
};

void PrintTo(const conversation& shown, std::ostream* out) {
    *out << shown.file;
}

void replay(const conversation& wanted, stage& stage) {
    const std::vector<wire::recorded> lines = wire::load(wanted.file);
    EXPECT_EQ(lines.size(), wanted.lines);
    wire::id_map ids;
    ids.learn(lines);
    int number = 0;
    try {
        for (const wire::recorded& line : lines) {
            ++number;
            if (line.raw.empty()) {
                stage.leave(line.client);
            } else if (line.from_client) {
                stage.send(line.client, ids.to_actual(line.raw));
            } else {
                if (line.raw.at(1) == wire::hello) {
                    stage.enter(line.client);
                }
                const wire::bytes expected = stage.expected(line.raw);
                const wire::bytes got = stage.receive(line.client);
                ASSERT_EQ(wire::hex(ids.to_recorded(got, expected)), wire::hex(expected))
                    << "line " << number << ", for the " << line.client;
            }
        }
    } catch (const std::exception& error) {
        FAIL() << "line " << number << ": " << error.what();
    }
}

class BusdConversation : public testing::TestWithParam<conversation> {};
class BusdConversationOfRoot : public testing::TestWithParam<conversation> {};

TEST_P(BusdConversation, GoesOverSocketsAsRecorded) {
    stage_of_sockets sockets;
    replay(GetParam(), sockets);
}

TEST_P(BusdConversationOfRoot, GoesInMemoryAsRecorded) {
    stage_in_memory memory;
    replay(GetParam(), memory);
}

std::string subject(const testing::TestParamInfo<conversation>& of) {
    const std::string file = of.param.file;
    return file.substr(5, file.size() - 9);
}

const conversation for_everybody[] = {{"wire-events.txt", 46},
                                      {"wire-subscribe.txt", 45},
                                      {"wire-wait.txt", 32},
                                      {"wire-list.txt", 28}};
const conversation for_root[] = {{"wire-monitor.txt", 107}};

INSTANTIATE_TEST_SUITE_P(Of, BusdConversation, testing::ValuesIn(for_everybody), subject);
INSTANTIATE_TEST_SUITE_P(Of, BusdConversationOfRoot, testing::ValuesIn(for_everybody), subject);
INSTANTIATE_TEST_SUITE_P(OfThe, BusdConversationOfRoot, testing::ValuesIn(for_root), subject);

} // namespace
