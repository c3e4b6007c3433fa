/// Callback lists: connection, emission, and the life of their links.
#include "tarn/misc/signal.h"

#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using tarn::misc::signal;
using tarn::utils::link;
using tarn::utils::scoped_link;

using plain_signal = signal<void>;

/// Appends its name to a list of calls.
std::function<void()> named(std::vector<std::string>& calls, const std::string& name) {
    return [&calls, name] {
        calls.push_back(name);
    };
}

using names = std::vector<std::string>;

TEST(Signal, EmittingWithoutSlotsDoesNothing) {
    const plain_signal s;
    EXPECT_NO_THROW(s.call_impl<void>());
}

TEST(Signal, CallsSlotsInTheOrderOfConnection) {
    plain_signal s;
    names calls;
    s.connect(named(calls, "first"));
    s.connect(named(calls, "second"));
    s.connect(named(calls, "third"));
    s.call_impl<void>();
    EXPECT_EQ(calls, (names{"first", "second", "third"}));
}

TEST(Signal, TheCallOperatorEmits) {
    plain_signal s;
    names calls;
    s.connect(named(calls, "slot"));
    s();
    EXPECT_EQ(calls, (names{"slot"}));
}

TEST(Signal, HandsTheArgumentsToEverySlot) {
    signal<void, const std::error_code&> codes;
    int seen = 0;
    const auto check = [&seen](const std::error_code& code) {
        seen += code == std::errc::io_error;
    };
    codes.connect(check);
    codes.connect(check);
    codes.call_impl<void>(std::make_error_code(std::errc::io_error));
    EXPECT_EQ(seen, 2);

    signal<void, std::string, int&> mixed;
    mixed.connect([](std::string text, int& n) { n += static_cast<int>(std::move(text).size()); });
    mixed.connect([](const std::string& text, int& n) { n += static_cast<int>(text.size()); });
    int n = 0;
    mixed.call_impl<void>("abc", n);
    mixed("abc", n);
    EXPECT_EQ(n, 12) << "a slot that consumes its argument leaves the next one's alone";
}

TEST(Signal, ALinkIsActiveWhileItsSlotIsConnected) {
    plain_signal s;
    names calls;
    link first = s.connect(named(calls, "first"));
    const link second = s.connect(named(calls, "second"));
    EXPECT_TRUE(first.active());
    first.release();
    EXPECT_FALSE(first.active());
    EXPECT_TRUE(second.active());
    EXPECT_NO_THROW(first.release());
    s.call_impl<void>();
    EXPECT_EQ(calls, (names{"second"}));
}

TEST(Signal, DroppingALinkLeavesTheSlotConnected) {
    plain_signal s;
    names calls;
    s.connect(named(calls, "slot"));
    s.call_impl<void>();
    EXPECT_EQ(calls, (names{"slot"}));
}

TEST(Signal, ReleasingDestroysTheSlotAtOnce) {
    plain_signal s;
    auto capture = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = capture;
    link l = s.connect([capture] {});
    capture.reset();
    l.release();
    EXPECT_TRUE(watched.expired());
}

TEST(Signal, ASlotThatReleasesItsOwnLinkFinishesAndIsNotCalledAgain) {
    plain_signal s;
    names calls;
    link own;
    auto capture = std::make_shared<std::string>("first");
    own.assign(s.connect([&calls, &own, capture] {
        EXPECT_NO_THROW(own.release());
        EXPECT_FALSE(own.active());
        calls.push_back(*capture);
    }));
    s.connect(named(calls, "second"));
    s.call_impl<void>();
    EXPECT_EQ(calls, (names{"first", "second"}));
    s.call_impl<void>();
    EXPECT_EQ(calls, (names{"first", "second", "second"}));
}

TEST(Signal, ASlotReleasedByAnotherDuringAnEmissionIsStillCalledInIt) {
    plain_signal s;
    names calls;
    link later;
    s.connect([&calls, &later] {
        later.release();
        calls.emplace_back("releaser");
    });
    later.assign(s.connect(named(calls, "released")));
    s.call_impl<void>();
    EXPECT_FALSE(later.active());
    EXPECT_EQ(calls, (names{"releaser", "released"}));
    s.call_impl<void>();
    EXPECT_EQ(calls, (names{"releaser", "released", "releaser"}));
}

TEST(Signal, ASlotConnectedDuringAnEmissionIsCalledFromTheNextOneOn) {
    plain_signal s;
    names calls;
    scoped_link once;
    once = s.connect([&s, &calls, &once] {
        s.connect(named(calls, "new"));
        calls.emplace_back("connecting");
        once.release();
    });
    s.call_impl<void>();
    EXPECT_EQ(calls, (names{"connecting"}));
    s.call_impl<void>();
    EXPECT_EQ(calls, (names{"connecting", "new"}));
}

TEST(Signal, ASlotMayDestroyTheSignal) {
    auto s = std::make_unique<plain_signal>();
    names calls;
    s->connect([&s, &calls] {
        s.reset();
        calls.emplace_back("destroyer");
    });
    const link l = s->connect(named(calls, "second"));
    s->call_impl<void>();
    EXPECT_EQ(calls, (names{"destroyer", "second"}));
    EXPECT_FALSE(l.active());
}

TEST(Signal, ASlotMayEmitTheSignal) {
    plain_signal s;
    int depth = 0;
    s.connect([&s, &depth] {
        if (++depth < 3) {
            s.call_impl<void>();
        }
    });
    s.call_impl<void>();
    EXPECT_EQ(depth, 3);
}

TEST(Signal, AssigningASignalToItselfEmptiesIt) {
    plain_signal s;
    names calls;
    const link l = s.connect(named(calls, "slot"));
    plain_signal& same = s;
    s = same;
    EXPECT_FALSE(l.active());
    s.call_impl<void>();
    EXPECT_TRUE(calls.empty());
}

TEST(Signal, AssignmentCopiesTheSlotsAndTheLinksReachOnlyTheOriginals) {
    plain_signal s;
    plain_signal t;
    names calls;
    link l = s.connect(named(calls, "copied"));
    const link replaced = t.connect(named(calls, "replaced"));
    t = s;
    EXPECT_FALSE(replaced.active());
    EXPECT_TRUE(l.active());
    l.release();
    s.call_impl<void>();
    EXPECT_TRUE(calls.empty());
    t.call_impl<void>();
    EXPECT_EQ(calls, (names{"copied"}));
}

TEST(Signal, CopyConstructionEqualsAssignmentToAnEmptySignal) {
    plain_signal s;
    names calls;
    link l = s.connect(named(calls, "slot"));
    const plain_signal copy(s);
    l.release();
    EXPECT_FALSE(l.active());
    copy.call_impl<void>();
    EXPECT_EQ(calls, (names{"slot"}));
}

TEST(Signal, DestroyingTheSignalMakesItsLinksInactiveAndReleasingThemDoesNothing) {
    std::vector<link> links;
    {
        plain_signal s;
        links.push_back(s.connect([] {}));
        links.push_back(s.connect([] {}));
    }
    for (link& l : links) {
        EXPECT_FALSE(l.active());
        EXPECT_NO_THROW(l.release());
    }
}

TEST(Signal, AnEmptySlotEndsTheEmission) {
    plain_signal s;
    names calls;
    s.connect(named(calls, "before"));
    const link empty = s.connect(nullptr);
    s.connect(named(calls, "after"));
    EXPECT_TRUE(empty.active());
    EXPECT_THROW(s.call_impl<void>(), std::bad_function_call);
    EXPECT_EQ(calls, (names{"before"}));
}

TEST(Signal, WhatASlotThrowsPassesThroughAndLeavesTheSignalUnchanged) {
    plain_signal s;
    names calls;
    const link thrower = s.connect([] { throw std::out_of_range("x"); });
    const link other = s.connect(named(calls, "other"));
    EXPECT_THROW(s.call_impl<void>(), std::out_of_range);
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(thrower.active());
    EXPECT_TRUE(other.active());
}

/// Both ways to write a swap move the slots themselves.
template <class Swap>
void expect_swap_moves_slots(Swap&& exchange) {
    plain_signal waiting;
    names calls;
    const link l = waiting.connect(named(calls, "slot"));
    {
        plain_signal taken;
        exchange(waiting, taken);
        EXPECT_TRUE(l.active());
        waiting.call_impl<void>();
        EXPECT_TRUE(calls.empty());
        taken.call_impl<void>();
        EXPECT_EQ(calls, (names{"slot"}));
    }
    EXPECT_FALSE(l.active());
}

TEST(Signal, SwappingMovesTheSlotsThemselves) {
    expect_swap_moves_slots([](plain_signal& a, plain_signal& b) { swap(a, b); });
    expect_swap_moves_slots([](plain_signal& a, plain_signal& b) { a.swap(b); });
    expect_swap_moves_slots([](plain_signal& a, plain_signal& b) { std::swap(a, b); });
}

TEST(Signal, ALinkWorksAgainOnceItsSlotIsSwappedBack) {
    plain_signal s;
    plain_signal other;
    link l = s.connect([] {});
    swap(s, other);
    swap(s, other);
    l.release();
    EXPECT_FALSE(l.active());
}

TEST(Signal, SlotsMayHoldTheLinksOfOtherSlots) {
    const auto connect_two = [](plain_signal& s) {
        const auto held = std::make_shared<scoped_link>();
        s.connect([held] {});
        *held = s.connect([] {});
    };
    {
        plain_signal destroyed;
        connect_two(destroyed);
    }
    plain_signal assigned;
    connect_two(assigned);
    assigned = plain_signal();
    EXPECT_NO_THROW(assigned.call_impl<void>());
    connect_two(assigned);
    const plain_signal empty;
    assigned = empty;
    EXPECT_NO_THROW(assigned.call_impl<void>());
}

TEST(Signal, ASlotsDestructionMayReleaseItsOwnLinkAndConnect) {
    plain_signal s;
    names calls;
    struct reconnects {
        plain_signal& s;
        names& calls;
        link own;
        ~reconnects() {
            EXPECT_FALSE(own.active());
            own.release();
            s.connect(named(calls, "reconnected"));
        }
    };
    std::shared_ptr<reconnects> capture(new reconnects{s, calls, {}});
    link l = s.connect([capture] {});
    capture->own.assign(l);
    capture.reset();
    l.release();
    s.call_impl<void>();
    EXPECT_EQ(calls, (names{"reconnected"}));
}

} // namespace
