/// The fake client beside the real one on a bus: what the same program sees of both.
#include "tarn/testing/fake_client.h"

#include "client/client_fixture.h"
#include "tarn/testing/manual_loop.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tarn::test {
namespace {

using state = client::state;
using std::chrono::seconds;
using testing::fake_client;
using testing::manual_loop;

const char* name_of(state s) {
    switch (s) {
    case state::disconnected:
        return "disconnected";
    case state::connecting:
        return "connecting";
    case state::connected:
        return "connected";
    case state::disconnecting:
        return "disconnecting";
    }
    return "?";
}

/// A client, and the means of a program to note what it sees of it.
class stage {
public:
    using turn = std::function<void(const std::function<bool()>&)>;

    stage(client& peer, turn run, std::function<void()> lose_connection)
        : bus(peer)
        , run_(std::move(run))
        , lose_(std::move(lose_connection)) {}
    ~stage() {
        for (auto& each : links_) {
            each.release();
        }
    }
    stage(const stage&) = delete;
    stage& operator=(const stage&) = delete;

    client& bus;
    std::vector<std::string> seen;

    void note(const std::string& what) { seen.push_back(what); }
    /// Notes the outcome under this name.
    client::completion_handler outcome_of(const std::string& name) {
        return [this, name](const std::error_code& code) {
            note(name + ": " + (code ? code.message() : "done"));
        };
    }
    /// Subscribes under this name for the rest of the program. `then` runs inside the call.
    utils::link subscribe(const std::string& name, const std::function<void(state)>& then = {}) {
        links_.push_back(bus.notify_on_state_change([this, name, then](state s) {
            note(name + " " + name_of(s));
            if (then) {
                then(s);
                note(name + " has seen " + name_of(s));
            }
        }));
        return links_.back();
    }
    /// Turns the loop until this state is there, all is told, and nothing is to be done.
    void run_until(state wanted) {
        note(std::string("runs until ") + name_of(wanted));
        turn_until(wanted);
    }
    /// Turns the loop until `condition` holds, and nothing is to be done.
    void run(const std::function<bool()>& condition) { run_(condition); }
    /// Loses the connection, and turns the loop until that is told.
    void lose() {
        note("loses the connection");
        attempt(lose_);
        turn_until(state::disconnected);
    }
    /// Does something that may throw into its caller. False when it does.
    bool attempt(const std::function<void()>& work) {
        try {
            work();
            return true;
        } catch (const std::runtime_error& thrown) {
            note(std::string("thrown: ") + thrown.what());
            return false;
        }
    }

private:
    void turn_until(state wanted) {
        while (!attempt([&] { run_([&] { return bus.get_state() == wanted; }); })) {}
    }

    const turn run_;
    const std::function<void()> lose_;
    std::vector<utils::link> links_;
};

class Likeness : public client_on_bus_test {
protected:
    using strings = std::vector<std::string>;

    void expect_alike(const std::function<void(stage&)>& program) {
        stage real(
            bus(),
            [](const std::function<bool()>& condition) {
                run_until(condition);
                settle();
            },
            [this] { daemon_.kill9(); });
        program(real);
        const auto hand = std::make_shared<manual_loop>();
        fake_client peer(hand);
        stage fake(
            peer,
            [&](const std::function<bool()>& condition) {
                hand->drain();
                ASSERT_TRUE(condition());
            },
            [&] { peer.lose_connection(); });
        program(fake);
        EXPECT_EQ(fake.seen, real.seen);
        EXPECT_GT(real.seen.size(), 2U);
    }

    /// A subscriber's part: throws in that state.
    static std::function<void(state)> throws_in(state wanted) {
        return [wanted](state s) {
            if (s == wanted) {
                throw std::runtime_error(name_of(s));
            }
        };
    }
};

TEST_F(Likeness, OfAChangeThatASubscriberMakes) {
    for (const state when : {state::connecting, state::connected, state::disconnecting}) {
        expect_alike([&](stage& on) {
            bool made = false;
            on.subscribe("first", [&](state s) {
                if (s == when && !made) {
                    made = true;
                    if (s == state::disconnecting) {
                        on.bus.connect(on.outcome_of("inner connect"));
                    } else {
                        on.bus.disconnect(on.outcome_of("inner disconnect"));
                    }
                }
            });
            on.subscribe("second");
            on.bus.connect(on.outcome_of("connect"));
            on.run_until(when == state::disconnecting ? state::connected : state::disconnected);
            on.bus.disconnect(on.outcome_of("disconnect"));
            on.run_until(when == state::disconnecting ? state::connected : state::disconnected);
            on.bus.disconnect(on.outcome_of("last disconnect"));
            on.run_until(state::disconnected);
        });
    }
}

TEST_F(Likeness, OfASubscriberThatThrows) {
    for (const state when :
         {state::connecting, state::connected, state::disconnecting, state::disconnected}) {
        expect_alike([&](stage& on) {
            on.subscribe("first");
            on.subscribe("second", throws_in(when));
            on.subscribe("third");
            on.attempt([&] { on.bus.connect(on.outcome_of("connect")); });
            on.run_until(state::connected);
            on.attempt([&] { on.bus.disconnect(on.outcome_of("disconnect")); });
            on.attempt([&] { on.bus.disconnect(on.outcome_of("second disconnect")); });
            on.run_until(state::disconnected);
        });
    }
}

TEST_F(Likeness, OfAHandlerThatThrows) {
    expect_alike([](stage& on) {
        on.subscribe("subscriber");
        on.bus.connect([](const std::error_code&) { throw std::runtime_error("a report's"); });
        on.bus.connect(on.outcome_of("dropped connect"));
        on.bus.disconnect([](const std::error_code&) { throw std::runtime_error("another's"); });
        on.bus.connect(on.outcome_of("next connect"));
        on.run_until(state::connected);
        on.bus.disconnect([](const std::error_code&) { throw std::runtime_error("a third's"); });
        on.bus.disconnect(on.outcome_of("dropped disconnect"));
        on.run_until(state::disconnected);
        on.bus.connect(on.outcome_of("last connect"));
        on.run_until(state::connected);
    });
}

TEST_F(Likeness, OfWhatHandlersRequest) {
    expect_alike([](stage& on) {
        on.subscribe("subscriber");
        on.bus.connect([&](const std::error_code&) {
            on.note("connect");
            on.bus.disconnect(on.outcome_of("disconnect inside"));
            on.bus.connect(on.outcome_of("connect inside"));
            on.bus.disconnect(on.outcome_of("second disconnect inside"));
        });
        on.bus.connect(on.outcome_of("second connect"));
        on.run_until(state::disconnected);
        on.bus.connect({});
        on.run_until(state::connected);
        on.bus.disconnect([&](const std::error_code&) {
            on.note("disconnect");
            on.bus.connect(on.outcome_of("third connect"));
            on.bus.disconnect(on.outcome_of("third disconnect"));
            on.bus.connect(on.outcome_of("fourth connect"));
        });
        on.bus.disconnect(on.outcome_of("fourth disconnect"));
        on.run_until(state::connected);
    });
}

TEST_F(Likeness, OfASubscriberThatReleasesTheNext) {
    expect_alike([](stage& on) {
        utils::link second;
        on.subscribe("first", [&](state s) {
            if (s == state::connected) {
                second.release();
            }
        });
        second = on.subscribe("second");
        on.bus.connect({});
        on.run_until(state::connected);
        on.bus.disconnect({});
        on.run_until(state::disconnected);
    });
}

/// Calls methods of paths, and notes the outcomes in that order.
void call_in_turn(stage& on, const std::vector<std::pair<std::string, std::string>>& calls) {
    for (const auto& [to, method] : calls) {
        bool ended = false;
        on.bus.invoke(
            to, method, {},
            [&, path = to](const std::list<blob::attr>& replies, const std::error_code& code) {
                ended = true;
                on.note(path + ": " + code.message());
                for (const auto& each : replies) {
                    on.note(each.get<blob::table>().find("from")->second.get<std::string>());
                }
            },
            seconds(0));
        on.run([&ended] { return ended; });
    }
}

TEST_F(Likeness, OfPathsThatEndInAStarOrHoldANul) {
    expect_alike([](stage& on) {
        on.bus.connect({});
        on.run_until(state::connected);
        for (const std::string name : {"demo.c", "demo.a", "demo.b", "else"}) {
            on.bus.add_object(name,
                              {{"tell",
                                {[name](const std::shared_ptr<client::exchange_ctx>& call) {
                                     call->send({{"from", name}}, {});
                                 },
                                 {}}}},
                              {});
        }
        const std::string nul("\0", 1);
        call_in_turn(on, {{"demo*", "tell"},
                          {"demo.b*", "tell"},
                          {"demo.b", "tell"},
                          {"*", "tell"},
                          {"demo*", "other"},
                          {"nobody*", "tell"},
                          {"", "tell"},
                          {"demo.a" + nul, "tell"},
                          {"demo.a", "tell" + nul}});
        std::size_t ended = 0;
        const auto note = [&](const std::error_code& code) {
            ++ended;
            on.note("added: " + code.message());
        };
        on.bus.add_object("own" + nul, {}, note);
        on.bus.add_object("own", {{"tell" + nul, {}}}, note);
        on.bus.add_object("own", {{"tell", {{}, {{"n" + nul, typeid(unsigned)}}}}}, note);
        on.bus.add_object("own", {}, note);
        on.run([&ended] { return ended == 4; });
    });
}

TEST_F(Likeness, OfACancellation) {
    expect_alike([](stage& on) {
        on.subscribe("first");
        on.bus.connect(on.outcome_of("connect"));
        on.bus.cancel();
        on.note("cancelled");
        on.bus.connect(on.outcome_of("second connect"));
        on.run_until(state::connected);
        on.bus.invoke(
            "demo", "hang", {},
            [&on](const std::list<blob::attr>&, const std::error_code& code) {
                on.note("call: " + code.message());
            },
            seconds(0));
        on.bus.disconnect(on.outcome_of("disconnect"));
        on.bus.cancel();
        on.note("cancelled");
        on.bus.cancel();
        on.note("cancelled without a connection");
        on.bus.connect(on.outcome_of("third connect"));
        on.run_until(state::connected);
        on.bus.cancel();
        on.note("cancelled a connection");
    });
}

TEST_F(Likeness, OfWhatHandlersOfACancellationRequest) {
    expect_alike([](stage& on) {
        on.subscribe("subscriber");
        on.bus.connect({});
        on.run_until(state::connected);
        on.bus.connect(on.outcome_of("connect that is known"));
        on.bus.del_object("nobody", true, on.outcome_of("removal"));
        on.bus.invoke(
            "demo", "hang", {},
            [&on](const std::list<blob::attr>&, const std::error_code& code) {
                on.note("call: " + code.message());
                on.bus.connect(on.outcome_of("connect inside"));
                on.bus.disconnect(on.outcome_of("disconnect inside"));
                on.bus.add_object("own", {}, on.outcome_of("addition inside"));
                on.bus.del_object("own", true, on.outcome_of("removal inside"));
                on.bus.invoke(
                    "demo", "hang", {},
                    [&on](const std::list<blob::attr>&, const std::error_code& inner) {
                        on.note("call inside: " + inner.message());
                    },
                    seconds(0));
            },
            seconds(0));
        on.bus.disconnect([&on](const std::error_code&) {
            on.note("disconnect");
            on.bus.connect(on.outcome_of("second connect inside"));
        });
        on.bus.cancel();
        on.note("cancelled");
        on.run_until(state::disconnected);
        on.bus.connect(on.outcome_of("connect"));
        on.run_until(state::connected);
    });
}

TEST_F(Likeness, OfACancellationThatIsCancelled) {
    expect_alike([](stage& on) {
        on.subscribe("subscriber");
        on.bus.connect({});
        on.run_until(state::connected);
        on.bus.disconnect([&on](const std::error_code&) {
            on.note("disconnect");
            on.bus.cancel();
            on.note("cancelled inside");
            on.bus.connect(on.outcome_of("connect"));
        });
        on.bus.disconnect(on.outcome_of("second disconnect"));
        on.bus.cancel();
        on.note("cancelled");
        on.run_until(state::connected);
    });
}

TEST_F(Likeness, OfACancellationWhoseHandlerThrows) {
    expect_alike([](stage& on) {
        on.subscribe("subscriber");
        on.bus.connect({});
        on.run_until(state::connected);
        on.bus.invoke(
            "demo", "hang", {},
            [](const std::list<blob::attr>&, const std::error_code&) {
                throw std::runtime_error("a call's");
            },
            seconds(0));
        on.bus.add_object("own", {}, on.outcome_of("addition"));
        on.bus.disconnect(on.outcome_of("disconnect"));
        on.attempt([&] { on.bus.cancel(); });
        on.bus.connect(on.outcome_of("connect"));
        on.bus.cancel();
        on.note("cancelled");
        on.bus.connect(on.outcome_of("second connect"));
        on.run_until(state::connected);
    });
}

TEST_F(Likeness, OfALossAtWhoseEndASubscriberThrows) {
    expect_alike([](stage& on) {
        on.subscribe("subscriber", throws_in(state::disconnected));
        const utils::scoped_link link = on.bus.auto_connect([&on](long long attempt) {
            on.note("attempt " + std::to_string(attempt));
            return seconds(3600);
        });
        on.run_until(state::connected);
        on.lose();
        on.note(link.active() ? "reconnects" : "does not reconnect");
    });
}

} // namespace
} // namespace tarn::test
