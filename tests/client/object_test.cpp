/// Publishing objects, serving calls, and withdrawing objects.
#include "client/client_fixture.h"

#include "support/scripted_bus.h"
#include "tarn/error.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

namespace tarn::test {
namespace {

using error::msg;
using std::chrono::seconds;
using context = std::shared_ptr<client::exchange_ctx>;

class Object : public client_on_bus_test {
protected:
    void SetUp() override { connect(); }

    /// Adds an object and waits for the outcome.
    static std::error_code add(const std::string& name, const client::method_map& methods) {
        outcome added;
        bus().add_object(name, methods, added.handler());
        run_until([&] { return added.reported(); });
        return added.code();
    }

    /// Calls a method, of this process's own object, and waits for the outcome.
    static call_outcome call(const std::string& name, const std::string& method,
                             const blob::table& args = {}) {
        call_outcome done;
        bus().invoke(name, method, args, done.handler(), seconds(0));
        run_until([&] { return done.reported(); });
        return done;
    }

    static std::error_code remove(const std::string& name) {
        outcome removed;
        bus().del_object(name, true, removed.handler());
        run_until([&] { return removed.reported(); });
        return removed.code();
    }

    static client::method_map echo() {
        return {{"echo", {[](const context& ctx) { ctx->send(ctx->args, {}); }, {}}}};
    }
};

TEST_F(Object, AnAddedObjectServesCallsOfThisVeryProcess) {
    outcome added;
    const auto link = bus().add_object("own", echo(), added.handler());
    EXPECT_TRUE(link.active());
    EXPECT_FALSE(added.reported()) << "never before add_object() returns";
    run_until([&] { return added.reported(); });
    EXPECT_FALSE(added.code());
    EXPECT_FALSE(link.active());
    const auto echoed = call("own", "echo", {{"text", "hi"}, {"n", 7}});
    EXPECT_FALSE(echoed.code());
    ASSERT_EQ(echoed.replies().size(), 1U);
    EXPECT_EQ(echoed.reply().find("text")->second.get<std::string>(), "hi");
    EXPECT_EQ(echoed.reply().find("n")->second.get<int>(), 7);
}

TEST_F(Object, ServesACallerOnPlainLibubus) {
    ASSERT_FALSE(add("own", echo()));
    child_process caller({TARN_TEST_CALLER, "own", "echo", "20000", "text=hello", "n:-3"});
    std::thread reader([&caller] {
        caller.wait_for_line("reply");
        EXPECT_EQ(caller.wait_for_line("  n"), "  n:-3");
        EXPECT_EQ(caller.wait_for_line("  text"), "  text=hello");
        EXPECT_EQ(caller.wait_for_line("status"), "status 0");
        loop()->post([] {});
    });
    const auto before = loop()->post_count();
    run_until([&] { return loop()->post_count() >= before + 2; });
    reader.join();
}

TEST_F(Object, AMethodThatNobodyDeclaredIsAnsweredMethodNotFound) {
    ASSERT_FALSE(add("own", echo()));
    EXPECT_EQ(call("own", "other").code(), make_error_code(msg::method_not_found));
}

TEST_F(Object, AMethodWithAnEmptyHandlerIsAnsweredWithSuccess) {
    ASSERT_FALSE(add("own", {{"silent", {{}, {}}}}));
    const auto silent = call("own", "silent");
    EXPECT_FALSE(silent.code());
    EXPECT_TRUE(silent.replies().empty());
}

TEST_F(Object, AMethodWithAnEmptyPolicyTakesItsArgumentsAsTheyCome) {
    blob::table seen;
    ASSERT_FALSE(add("own", {{"take", {[&](const context& ctx) { seen = ctx->args; }, {}}}}));
    EXPECT_FALSE(call("own", "take", {{"flag", true}, {"any", "thing"}}).code());
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_EQ(seen.find("flag")->second.get<unsigned char>(), 1);
}

TEST_F(Object, AMethodWithAPolicyGetsTheFieldsOfItsNamesAndTypesOnly) {
    blob::table seen;
    const client::method_policy policy{{"count", typeid(unsigned int)},
                                       {"flag", typeid(bool)},
                                       {"missing", typeid(std::string)},
                                       {"name", typeid(std::string)}};
    ASSERT_FALSE(add("own", {{"take", {[&](const context& ctx) { seen = ctx->args; }, policy}}}));
    EXPECT_FALSE(call("own", "take",
                      {{"count", "no number"}, {"flag", true}, {"name", "lan"}, {"unasked", 1}})
                     .code());
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_TRUE(seen.find("flag")->second.get<bool>());
    EXPECT_EQ(seen.find("name")->second.get<std::string>(), "lan");
}

TEST_F(Object, AnEmptyMessageForAMethodWithAPolicyCannotBeDecoded) {
    bool served = false;
    const client::method_policy policy{{"name", typeid(std::string)}};
    ASSERT_FALSE(add("own", {{"take", {[&](const context&) { served = true; }, policy}}}));
    EXPECT_EQ(call("own", "take").code(), make_error_code(msg::unknown_error));
    EXPECT_FALSE(served);
}

TEST_F(Object, APolicyOfATypeThatIsNotStoredIsAnInvalidArgumentAndForgetsTheObject) {
    const client::method_policy natural_mistake{{"n", typeid(int)}};
    EXPECT_EQ(add("own", {{"take", {[](const context&) {}, natural_mistake}}}),
              make_error_code(msg::invalid_argument));
    EXPECT_FALSE(add("own", echo())) << "the name is free";
    EXPECT_FALSE(call("own", "echo").code()) << "and the loop thread alive";
}

TEST_F(Object, ADescriptionBeyondTheBusLimitIsAnInvalidArgumentAndTheConnectionStays) {
    client::method_map methods;
    for (int n = 0; n < 20; ++n) {
        methods[std::string(60000, 'm') + std::to_string(n)];
    }
    EXPECT_EQ(add("own", methods), make_error_code(msg::invalid_argument));
    EXPECT_EQ(bus().get_state(), client::state::connected);
    EXPECT_FALSE(add("own", echo()));
}

TEST_F(Object, ANulInANameIsAnInvalidArgument) {
    using namespace std::string_literals;
    const client::method_handler serve = [](const context&) {
    };
    EXPECT_EQ(add("own\0"s, echo()), make_error_code(msg::invalid_argument));
    EXPECT_EQ(add("own\0ed"s, echo()), make_error_code(msg::invalid_argument));
    EXPECT_EQ(add("own", {{"method\0"s, {serve, {}}}}), make_error_code(msg::invalid_argument));
    EXPECT_EQ(add("own", {{"method", {serve, {{"field\0"s, typeid(bool)}}}}}),
              make_error_code(msg::invalid_argument));
    EXPECT_FALSE(add("own", echo())) << "none of them has taken the name";
}

TEST_F(Object, ASecondObjectOfTheSameNameIsAnInvalidArgument) {
    ASSERT_FALSE(add("own", echo()));
    outcome second;
    const auto link = bus().add_object("own", echo(), second.handler());
    EXPECT_TRUE(link.active());
    EXPECT_FALSE(second.reported());
    run_until([&] { return second.reported(); });
    EXPECT_EQ(second.code(), make_error_code(msg::invalid_argument));
    EXPECT_FALSE(call("own", "echo").code()) << "the first one is undisturbed";
}

TEST_F(Object, ANameThatAnotherProcessHasTakenIsAnInvalidArgument) {
    start_service();
    EXPECT_EQ(add("demo", echo()), make_error_code(msg::invalid_argument));
}

TEST_F(Object, AddingTheNameOfAnObjectBeingRemovedIsAccepted) {
    ASSERT_FALSE(add("own", echo()));
    outcome removed;
    outcome added;
    bus().del_object("own", true, removed.handler());
    bus().add_object("own", echo(), added.handler());
    run_until([&] { return removed.reported() && added.reported(); });
    EXPECT_FALSE(removed.code());
    EXPECT_FALSE(added.code());
    EXPECT_FALSE(call("own", "echo").code());
}

TEST_F(Object, RemovingANameThatTwoObjectsSharePicksTheOneNotBeingRemoved) {
    ASSERT_FALSE(add("own", echo()));
    outcome first;
    outcome added;
    outcome second;
    outcome third;
    bus().del_object("own", true, first.handler());
    bus().add_object("own", echo(), added.handler());
    bus().del_object("own", true, second.handler());
    bus().del_object("own", true, third.handler());
    run_until([&] { return first.reported() && second.reported() && third.reported(); });
    EXPECT_FALSE(first.code());
    EXPECT_FALSE(added.code());
    EXPECT_FALSE(second.code());
    EXPECT_EQ(third.code(), make_error_code(msg::not_found)) << "both are on their way out";
}

TEST_F(Object, ARemovedObjectIsNotFound) {
    ASSERT_FALSE(add("own", echo()));
    EXPECT_FALSE(remove("own"));
    EXPECT_EQ(call("own", "echo").code(), make_error_code(msg::not_found));
}

TEST_F(Object, RemovingAnUnknownNameIsNotFound) {
    EXPECT_EQ(remove("nobody"), make_error_code(msg::not_found));
}

TEST_F(Object, EmptyHandlersGiveEmptyLinksAndTheWorkIsDone) {
    EXPECT_FALSE(bus().add_object("own", echo(), {}).active());
    EXPECT_FALSE(call("own", "echo").code());
    EXPECT_FALSE(bus().add_object("own", echo(), {}).active());
    EXPECT_FALSE(bus().del_object("own", true, {}).active());
    EXPECT_FALSE(bus().del_object("own", true, {}).active());
    EXPECT_EQ(call("own", "echo").code(), make_error_code(msg::not_found));
}

TEST_F(Object, ReleasingTheLinkOfAnAdditionDoesNotStopTheRegistration) {
    outcome added;
    auto link = bus().add_object("own", echo(), added.handler());
    link.release();
    EXPECT_FALSE(link.active());
    EXPECT_FALSE(call("own", "echo").code());
    EXPECT_FALSE(added.reported());
}

TEST_F(Object, ReleasingTheLinkOfARemovalDoesNotStopIt) {
    ASSERT_FALSE(add("own", echo()));
    outcome removed;
    auto link = bus().del_object("own", true, removed.handler());
    link.release();
    EXPECT_FALSE(link.active());
    EXPECT_EQ(call("own", "echo").code(), make_error_code(msg::not_found));
    EXPECT_FALSE(removed.reported());
}

/// Two calls in a row of an object whose removal begins between their arrival and their dispatch.
class RemovalUnderCalls : public Object {
protected:
    /// Makes a call arrive without dispatching it: the loop is not turned, only listened to.
    void arrive(call_outcome& done) {
        settle();
        bus().invoke("own", "count", {}, done.handler(), seconds(0));
        ASSERT_TRUE(loop()->wait_for_task(limit));
    }
    client::method_map counting() {
        return {{"count", {[this](const context&) { ++served_; }, {}}}};
    }
    int served_ = 0;
};

TEST_F(RemovalUnderCalls, WithStopServingACallThatHasArrivedIsAnsweredNotFound) {
    ASSERT_FALSE(add("own", counting()));
    call_outcome done;
    arrive(done);
    bus().del_object("own", true, {});
    run_until([&] { return done.reported(); });
    EXPECT_EQ(served_, 0);
    EXPECT_EQ(done.code(), make_error_code(msg::not_found));
}

TEST_F(RemovalUnderCalls, WithoutStopServingACallThatHasArrivedReachesTheHandlerAndNobodyElse) {
    ASSERT_FALSE(add("own", counting()));
    call_outcome done;
    arrive(done);
    outcome removed;
    bus().del_object("own", false, removed.handler());
    run_until([&] { return served_ == 1 && removed.reported(); });
    // The answer comes after the removal, and the bus passes it on to nobody.
    EXPECT_EQ(remove("own"), make_error_code(msg::not_found));
    EXPECT_EQ(done.count(), 0U);
}

/// What the bus is told of an object.
using PublishedDescription = client_test;

TEST_F(PublishedDescription, NamesMethodsInOrderAndTheirFieldsInTheOrderOfThePolicy) {
    constexpr std::uint8_t table = 2;
    constexpr std::uint8_t int32 = 5;
    scripted_bus bus_seen;
    wire::bytes signature;
    bus_seen.on_next(wire::add_object, [&](const auto& healthy, const auto& request) {
        signature = request.attribute(6);
        return scripted_bus::answer{healthy};
    });
    outcome added;
    bus().connect({});
    bus().add_object(
        "own",
        {{"b",
          {{}, {{"z", typeid(std::string)}, {"a", typeid(unsigned int)}, {"a", typeid(bool)}}}},
         {"a", {}}},
        added.handler());
    run_until([&] { return added.reported(); });
    EXPECT_FALSE(added.code());
    const auto argument = [](const char* name, std::uint8_t type) {
        return wire::field(int32, name, {0, 0, 0, type});
    };
    EXPECT_EQ(
        wire::hex(signature),
        wire::hex(wire::field(table, "a", {}) +
                  wire::field(table, "b", argument("a", 5) + argument("a", 7) + argument("z", 3))));
}

TEST_F(Object, DelObjectWhileDisconnectedReportsConnectionFailedAndForgetsTheObject) {
    ASSERT_FALSE(add("own", echo()));
    daemon_.kill9();
    // Asked before the loss is heard of.
    const auto removed = remove("own");
    EXPECT_EQ(removed, make_error_code(msg::connection_failed));
    EXPECT_EQ(remove("own"), make_error_code(msg::not_found));
}

TEST_F(Object, AddObjectWithoutAConnectionReportsConnectionFailedAndForgetsTheObject) {
    bus().disconnect({});
    run_until_state(client::state::disconnected);
    EXPECT_EQ(add("own", echo()), make_error_code(msg::connection_failed));
    EXPECT_EQ(remove("own"), make_error_code(msg::not_found));
}

TEST_F(Object, AnObjectAddedWhileConnectingIsPublished) {
    bus().disconnect({});
    run_until_state(client::state::disconnected);
    bus().connect({});
    EXPECT_FALSE(add("own", echo()));
    EXPECT_FALSE(call("own", "echo").code());
}

TEST_F(Object, ObjectsAreForgottenWithALostConnectionAndCanBeAddedOnEveryConnected) {
    std::vector<std::error_code> added;
    const utils::scoped_link states = bus().notify_on_state_change([&](client::state s) {
        if (s == client::state::connected) {
            bus().add_object("own", echo(),
                             [&](const std::error_code& code) { added.push_back(code); });
        }
    });
    ASSERT_FALSE(add("own", echo()));
    for (int round = 0; round < 5; ++round) {
        daemon_.restart();
        run_until_state(client::state::disconnected);
        EXPECT_EQ(remove("own"), make_error_code(msg::not_found));
        connect();
        run_until([&] { return added.size() == static_cast<std::size_t>(round) + 1; });
        EXPECT_FALSE(added.back()) << added.back().message();
        EXPECT_FALSE(call("own", "echo").code());
    }
}

TEST_F(Object, CancelAbortsAdditionsAndRemovalsInProgress) {
    ASSERT_FALSE(add("first", echo()));
    outcome added;
    outcome removed;
    const auto adding = bus().add_object("second", echo(), added.handler());
    const auto removing = bus().del_object("first", true, removed.handler());
    bus().cancel();
    EXPECT_EQ(added.code(), make_error_code(error::generic::aborted));
    EXPECT_EQ(removed.code(), make_error_code(error::generic::aborted));
    EXPECT_FALSE(adding.active());
    EXPECT_FALSE(removing.active());
    loop()->drain();
    EXPECT_EQ(added.count(), 1U);
    EXPECT_EQ(removed.count(), 1U);
}

TEST_F(Object, DuringCancelAdditionsAndRemovalsAreAborted) {
    ASSERT_FALSE(add("own", echo()));
    outcome added;
    outcome removed;
    utils::scoped_link states = bus().notify_on_state_change([&](client::state s) {
        if (s == client::state::disconnecting) {
            EXPECT_TRUE(bus().add_object("other", echo(), added.handler()).active());
            EXPECT_TRUE(bus().del_object("own", true, removed.handler()).active());
            EXPECT_FALSE(bus().add_object("other", echo(), {}).active());
        }
    });
    bus().cancel();
    run_until([&] { return added.reported() && removed.reported(); });
    EXPECT_EQ(added.code(), make_error_code(error::generic::aborted));
    EXPECT_EQ(removed.code(), make_error_code(error::generic::aborted));
}

TEST_F(Object, AfterCancelTheSameNameIsPublishedAgain) {
    ASSERT_FALSE(add("own", echo()));
    bus().cancel();
    connect();
    EXPECT_FALSE(add("own", echo()));
    EXPECT_FALSE(call("own", "echo").code());
}

TEST_F(Object, AMethodHandlerMayInvokeAndAnswerFromTheResult) {
    start_service();
    ASSERT_FALSE(add("own", {{"relay",
                              {[](const context& ctx) {
                                   bus().invoke(
                                       "demo", "echo", ctx->args,
                                       [ctx](const auto& replies, const std::error_code& status) {
                                           for (const auto& reply : replies) {
                                               ctx->send(reply.template get<blob::table>(), {});
                                           }
                                           ctx->respond(status);
                                       },
                                       seconds(0));
                               },
                               {}}}}));
    const auto relayed = call("own", "relay", {{"n", 5}});
    EXPECT_FALSE(relayed.code());
    ASSERT_EQ(relayed.replies().size(), 1U);
    EXPECT_EQ(relayed.reply().find("n")->second.get<int>(), 5);
}

/// Says when and where what a method handler has captured is destroyed.
class capture_watch {
public:
    /// A method map whose only owner of the capture is the handler of "serve".
    client::method_map methods(const client::method_policy& policy = {}) {
        const std::shared_ptr<void> capture(nullptr, [record = record_](void*) {
            record->where = std::this_thread::get_id();
            ++record->destroyed;
        });
        return {{"serve", {[capture](const context&) {}, policy}}};
    }
    int destroyed() const { return record_->destroyed; }
    /// Where the last one was destroyed.
    std::thread::id where() const { return record_->where; }

private:
    struct record {
        std::thread::id where;
        std::atomic<int> destroyed{0};
    };
    std::shared_ptr<record> record_ = std::make_shared<record>();
};

class CapturesOfMethodHandlers : public Object {
protected:
    /// Waits until the capture is gone, which must happen here: this thread plays the loop's.
    void expect_gone() const {
        run_until([this] { return watch_.destroyed() != 0; });
        settle();
        EXPECT_EQ(watch_.destroyed(), 1);
        EXPECT_EQ(watch_.where(), std::this_thread::get_id()) << "not on the loop's thread";
    }
    capture_watch watch_;
};

TEST_F(CapturesOfMethodHandlers, LiveAsLongAsTheObjectAndGoWithItOnTheApplicationsLoop) {
    for (const bool stop_serving : {true, false}) {
        watch_ = capture_watch();
        ASSERT_FALSE(add("own", watch_.methods()));
        EXPECT_FALSE(call("own", "serve").code());
        settle();
        EXPECT_EQ(watch_.destroyed(), 0);
        bus().del_object("own", stop_serving, {});
        settle();
        expect_gone();
    }
}

TEST_F(CapturesOfMethodHandlers, GoWithAnAdditionThatFails) {
    start_service();
    // Handed over as temporaries, so that nobody but the client keeps the capture.
    outcome taken;
    bus().add_object("demo", watch_.methods(), taken.handler());
    run_until([&] { return taken.reported(); });
    EXPECT_TRUE(taken.code());
    expect_gone();
    watch_ = capture_watch();
    outcome bad;
    bus().add_object("own", watch_.methods({{"n", typeid(int)}}), bad.handler());
    run_until([&] { return bad.reported(); });
    EXPECT_TRUE(bad.code());
    expect_gone();
}

TEST_F(CapturesOfMethodHandlers, GoWithTheConnection) {
    ASSERT_FALSE(add("own", watch_.methods()));
    daemon_.kill9();
    expect_gone();
    EXPECT_EQ(bus().get_state(), client::state::disconnected);
    watch_ = capture_watch();
    daemon_.restart();
    connect();
    ASSERT_FALSE(add("own", watch_.methods()));
    bus().disconnect({});
    expect_gone();
}

TEST_F(CapturesOfMethodHandlers, GoWithACancelOnceTheConnectionIsClosed) {
    ASSERT_FALSE(add("own", watch_.methods()));
    bus().cancel();
    EXPECT_EQ(bus().get_state(), client::state::disconnected);
    connect();
    expect_gone();
}

TEST_F(CapturesOfMethodHandlers, OutliveARemovalInsideTheHandlerItself) {
    int after_removal = -1;
    outcome removed;
    auto methods = watch_.methods();
    methods["serve"].first = [&, inner = methods["serve"].first](const context& ctx) {
        bus().del_object("own", true, removed.handler());
        on_loop_thread([] {});
        after_removal = watch_.destroyed();
        inner(ctx);
    };
    ASSERT_FALSE(add("own", methods));
    methods.clear();
    bus().invoke("own", "serve", {}, {}, seconds(0));
    run_until([&] { return removed.reported(); });
    EXPECT_EQ(after_removal, 0);
    expect_gone();
}

/// Uses the whole client from another thread, and waits for it: hangs if a lock is held here.
void use_the_client_elsewhere() {
    std::thread([] {
        client& bus = client::get_instance({});
        bus.get_state();
        bus.invoke(
               "nobody", "echo", {}, [](const auto&, const auto&) {}, seconds(60))
            .release();
        bus.add_object("other", {}, [](const std::error_code&) {}).release();
        bus.del_object("other", true, [](const std::error_code&) {}).release();
        bus.notify_on_state_change([](client::state) {}).release();
    }).join();
}

TEST_F(Object, NothingIsLockedWhileAHandlerRunsOrIsDestroyed) {
    struct on_destruction {
        ~on_destruction() { use_the_client_elsewhere(); }
    };
    std::size_t handlers = 0;
    const auto used = [&handlers](const auto&...) {
        use_the_client_elsewhere();
        ++handlers;
    };
    const auto doomed = [](const auto& handler) {
        return [handler, kept = std::make_shared<on_destruction>()](const auto&... arguments) {
            handler(arguments...);
        };
    };
    utils::scoped_link states = bus().notify_on_state_change(doomed(used));
    outcome added;
    bus().add_object("own",
                     {{"echo",
                       {[&](const context& ctx) {
                            used();
                            ctx->send({}, doomed(used));
                        },
                        {}}}},
                     doomed(used));
    bus().invoke("own", "echo", {}, doomed(used), seconds(60));
    run_until([&] { return handlers >= 4; }); // added, served, sent, answered
    bus().invoke("own", "echo", {}, doomed(used), seconds(60)).release();
    bus().invoke("nobody", "echo", {}, doomed(used), seconds(60));
    run_until([&] { return handlers >= 5; });
    bus().connect(doomed(used)).release();
    bus().add_object("own", {}, doomed(used)); // reported as a duplicate
    bus().del_object("own", true, doomed(used)).release();
    bus().invoke("own", "echo", {}, doomed(used), seconds(60));
    const auto before = handlers;
    bus().cancel();
    EXPECT_GT(handlers, before);
    states.release();
}

TEST_F(Object, ManyThreadsMayAddAndDeleteAtOnce) {
    constexpr int threads = 4;
    constexpr int rounds = 50;
    // Names that two threads share may be taken or gone when one gets there; of the thread's own
    // every operation finds what the one before has left.
    std::atomic<int> heard{0};
    std::atomic<int> own_done{0};
    const auto count_own = [&](const std::error_code& code) {
        EXPECT_FALSE(code) << code.message();
        ++own_done;
    };
    std::vector<std::thread> workers;
    for (int n = 0; n < threads; ++n) {
        workers.emplace_back([&heard, &count_own, n] {
            const std::string shared = "object" + std::to_string(n % 2);
            const std::string own = "own" + std::to_string(n);
            for (int round = 0; round < rounds; ++round) {
                bus().add_object(shared, echo(), [&heard](const std::error_code&) { ++heard; });
                bus().add_object(own, echo(), count_own);
                bus().del_object(shared, round % 2 == 0,
                                 [&heard](const std::error_code&) { ++heard; });
                bus().del_object(own, round % 2 == 0, count_own);
            }
        });
    }
    constexpr int operations = 2 * threads * rounds;
    run_until([&] { return heard == operations && own_done == operations; });
    for (auto& worker : workers) {
        worker.join();
    }
    settle();
    EXPECT_EQ(heard, operations);
    EXPECT_EQ(own_done, operations);
    for (int n = 0; n < threads; ++n) {
        const std::string own = "own" + std::to_string(n);
        EXPECT_EQ(remove(own), make_error_code(msg::not_found));
        EXPECT_EQ(call(own, "echo").code(), make_error_code(msg::not_found));
        EXPECT_FALSE(add(own, echo())) << "the name is free";
        EXPECT_FALSE(call(own, "echo").code());
    }
    for (const std::string shared : {"object0", "object1"}) {
        // Served or free, whoever came last; nothing between.
        const bool served = !call(shared, "echo").code();
        const auto removed = remove(shared);
        EXPECT_EQ(removed, make_error_code(served ? msg::success : msg::not_found)) << shared;
        EXPECT_EQ(call(shared, "echo").code(), make_error_code(msg::not_found));
        EXPECT_FALSE(add(shared, echo())) << "the name is free";
        EXPECT_FALSE(call(shared, "echo").code());
    }
}

TEST_F(Object, NamesThatThreadsAddAndDeleteWhileAnotherCancelsAndConnectsAreServedOrFree) {
    constexpr int rounds = 100;
    std::atomic<int> heard{0};
    std::atomic<bool> over{false};
    const auto count = [&heard](const std::error_code&) {
        ++heard;
    };
    int asked = 0;
    std::thread worker([&] {
        for (; !over; ++asked) {
            bus().add_object("own", echo(), count);
            bus().del_object("nothing", true, count);
        }
    });
    for (int round = 0; round < rounds; ++round) {
        bus().connect({});
        loop()->run_until([] { return bus().is_active(); }, limit);
        bus().cancel();
        loop()->drain();
    }
    over = true;
    worker.join();
    connect();
    run_until([&] { return heard >= 2 * asked; });
    settle();
    EXPECT_EQ(heard, 2 * asked) << "each handler once";
    if (call("own", "echo").code()) {
        EXPECT_FALSE(add("own", echo())) << "not served, so it is free";
    }
    EXPECT_FALSE(call("own", "echo").code());
    EXPECT_FALSE(remove("own"));
}

} // namespace
} // namespace tarn::test
