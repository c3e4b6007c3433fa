/// Links and scoped links: sharing, taking over, letting go, ending.
#include "tarn/link.h"

#include "support/expect_throw.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace {

using tarn::misc::aggregate_adapter;
using tarn::test::expect_throw_msg;
using tarn::utils::link;
using tarn::utils::scoped_link;

/// A thing to end that says how often it was asked to.
class thing final : public link::impl {
public:
    void release() override {
        ++releases;
        alive = stubborn;
    }
    bool active() const override { return alive; }

    int releases = 0;
    bool alive = true;
    bool stubborn = false;
};

link link_to(const std::shared_ptr<thing>& t) {
    return aggregate_adapter<link>(t);
}

static_assert(std::is_polymorphic_v<link> && std::has_virtual_destructor_v<link>);
static_assert(std::has_virtual_destructor_v<link::impl>);
static_assert(std::is_base_of_v<link, scoped_link>);
static_assert(!std::is_copy_constructible_v<scoped_link> &&
              !std::is_copy_assignable_v<scoped_link>);
static_assert(std::is_nothrow_move_constructible_v<scoped_link>);
static_assert(!std::is_constructible_v<link, std::shared_ptr<link::impl>>);
static_assert(std::is_constructible_v<aggregate_adapter<link>, std::shared_ptr<link::impl>>);

TEST(Link, ADefaultConstructedLinkIsInactiveAndReleasesNothing) {
    link l;
    EXPECT_FALSE(l.active());
    EXPECT_FALSE(static_cast<bool>(l));
    EXPECT_NO_THROW(l.release());
}

TEST(Link, TellsWhetherTheThingIsAlive) {
    const auto t = std::make_shared<thing>();
    const link l = link_to(t);
    EXPECT_TRUE(l.active());
    EXPECT_TRUE(static_cast<bool>(l));
    t->alive = false;
    EXPECT_FALSE(l.active());
    EXPECT_FALSE(static_cast<bool>(l));
}

TEST(Link, CopiesShareTheThing) {
    const auto t = std::make_shared<thing>();
    link l = link_to(t);
    link copy(l);
    copy.release();
    EXPECT_FALSE(l.active());
    EXPECT_EQ(t->releases, 1);
}

TEST(Link, ConstructionFromAnRvalueCopies) {
    const auto t = std::make_shared<thing>();
    link l = link_to(t);
    const link other(std::move(l));
    EXPECT_TRUE(l.active()); // NOLINT(bugprone-use-after-move): there is no move
    EXPECT_TRUE(other.active());
    EXPECT_EQ(t.use_count(), 3);
}

TEST(Link, ReleasingAnInactiveLinkAsksNobody) {
    const auto t = std::make_shared<thing>();
    link l = link_to(t);
    t->alive = false;
    l.release();
    EXPECT_EQ(t->releases, 0);
}

TEST(Link, ReleasingTwiceEndsTheThingOnce) {
    const auto t = std::make_shared<thing>();
    link l = link_to(t);
    l.release();
    l.release();
    EXPECT_EQ(t->releases, 1);
}

TEST(Link, AThingThatStaysAliveMakesReleaseThrow) {
    const auto t = std::make_shared<thing>();
    t->stubborn = true;
    link l = link_to(t);
    expect_throw_msg<std::logic_error>([&l] { l.release(); }, "tarn failed to release link");
    EXPECT_TRUE(l.active());
}

TEST(Link, DestroyingTheLastCopyLeavesTheThingRunning) {
    const auto t = std::make_shared<thing>();
    {
        const link l = link_to(t);
        const link copy = l;
    }
    EXPECT_EQ(t.use_count(), 1);
    EXPECT_EQ(t->releases, 0);
    EXPECT_TRUE(t->alive);
}

TEST(Link, AssigningSharesTheNewThingAndLetsTheOldOneGo) {
    const auto old_thing = std::make_shared<thing>();
    const auto new_thing = std::make_shared<thing>();
    link l = link_to(old_thing);
    const link other = link_to(new_thing);
    l.assign(other);
    EXPECT_EQ(old_thing->releases, 0);
    EXPECT_EQ(old_thing.use_count(), 1);
    EXPECT_TRUE(other.active());
    l.release();
    EXPECT_FALSE(other.active());
}

TEST(Link, AssigningALinkThatSharesTheThingChangesNothing) {
    const auto t = std::make_shared<thing>();
    link l = link_to(t);
    const link copy = l;
    l.assign(copy);
    l.assign(static_cast<const link&>(l));
    EXPECT_TRUE(l.active());
    EXPECT_EQ(t.use_count(), 3);
    EXPECT_EQ(t->releases, 0);
}

TEST(Link, AssigningAnRvalueTakesTheThingAndLetsTheOldOneGo) {
    const auto old_thing = std::make_shared<thing>();
    const auto new_thing = std::make_shared<thing>();
    link l = link_to(old_thing);
    link other = link_to(new_thing);
    l.assign(std::move(other));
    EXPECT_FALSE(other.active()); // NOLINT(bugprone-use-after-move): empty, as said
    EXPECT_TRUE(l.active());
    EXPECT_EQ(new_thing.use_count(), 2);
    EXPECT_EQ(old_thing.use_count(), 1);
    EXPECT_EQ(old_thing->releases, 0);
}

TEST(Link, AssigningALinkToItselfAsAnRvalueEmptiesIt) {
    const auto t = std::make_shared<thing>();
    link l = link_to(t);
    link& same = l;
    l.assign(std::move(same));
    EXPECT_FALSE(l.active());
    EXPECT_EQ(t.use_count(), 1);
    EXPECT_EQ(t->releases, 0);
    EXPECT_TRUE(t->alive);
}

TEST(Link, TheAssignmentOperatorsEqualAssign) {
    const auto t = std::make_shared<thing>();
    link source = link_to(t);
    link copied;
    copied = source;
    EXPECT_TRUE(source.active());
    EXPECT_TRUE(copied.active());
    link taken;
    taken = std::move(source);
    EXPECT_FALSE(source.active()); // NOLINT(bugprone-use-after-move): empty, as said
    EXPECT_TRUE(taken.active());
    EXPECT_EQ(t->releases, 0);
}

TEST(ScopedLink, ADefaultConstructedOneEndsNothing) {
    scoped_link s;
    EXPECT_FALSE(s.active());
    EXPECT_NO_THROW(s.release());
}

TEST(ScopedLink, MadeFromALinkSharesItAndEndsTheThingWhenDestroyed) {
    const auto t = std::make_shared<thing>();
    const link l = link_to(t);
    {
        const scoped_link s(l);
        EXPECT_TRUE(l.active());
        EXPECT_TRUE(s.active());
        EXPECT_EQ(t.use_count(), 3);
    }
    EXPECT_FALSE(l.active());
    EXPECT_EQ(t->releases, 1);
}

TEST(ScopedLink, MadeFromAnRvalueLinkSharesItAndEndsTheThingWhenDestroyed) {
    const auto t = std::make_shared<thing>();
    link l = link_to(t);
    {
        const scoped_link s(std::move(l));
        EXPECT_TRUE(l.active()); // NOLINT(bugprone-use-after-move): copied, as said
        EXPECT_EQ(t.use_count(), 3);
    }
    EXPECT_FALSE(l.active());
    EXPECT_EQ(t->releases, 1);
}

TEST(ScopedLink, IsMadeStraightFromAnOperationsResult) {
    const auto t = std::make_shared<thing>();
    {
        const scoped_link s = link_to(t);
        EXPECT_TRUE(s.active());
    }
    EXPECT_EQ(t->releases, 1);
}

TEST(ScopedLink, MovingHandsTheThingOn) {
    const auto t = std::make_shared<thing>();
    {
        scoped_link kept;
        {
            scoped_link s(link_to(t));
            scoped_link moved(std::move(s));
            EXPECT_FALSE(s.active()); // NOLINT(bugprone-use-after-move): empty, as said
            EXPECT_TRUE(moved.active());
            kept = std::move(moved);
            EXPECT_FALSE(moved.active()); // NOLINT(bugprone-use-after-move): empty, as said
        }
        EXPECT_TRUE(kept.active());
        EXPECT_EQ(t->releases, 0);
    }
    EXPECT_EQ(t->releases, 1);
}

TEST(ScopedLink, LivesInContainers) {
    const auto t = std::make_shared<thing>();
    std::vector<scoped_link> all;
    for (int i = 0; i < 10; ++i) {
        all.push_back(link_to(i == 0 ? t : std::make_shared<thing>()));
    }
    EXPECT_TRUE(all.front().active());
    all.clear();
    EXPECT_EQ(t->releases, 1);
}

TEST(ScopedLink, AssigningALinkEndsTheOldThingBeforeTakingTheNewOne) {
    const auto old_thing = std::make_shared<thing>();
    const auto new_thing = std::make_shared<thing>();
    const link l = link_to(new_thing);
    scoped_link s(link_to(old_thing));
    s = l;
    EXPECT_EQ(old_thing->releases, 1);
    EXPECT_TRUE(s.active());
    EXPECT_TRUE(l.active());
    EXPECT_EQ(new_thing->releases, 0);
}

TEST(ScopedLink, WhatCannotBeEndedIsKeptAndNothingNewIsTaken) {
    const auto old_thing = std::make_shared<thing>();
    const auto new_thing = std::make_shared<thing>();
    old_thing->stubborn = true;
    const link l = link_to(new_thing);
    scoped_link s(link_to(old_thing));
    EXPECT_THROW(s = l, std::logic_error);
    EXPECT_TRUE(s.active());
    EXPECT_EQ(new_thing.use_count(), 2);
    old_thing->stubborn = false;
}

TEST(ScopedLink, AssigningAnRvalueLinkEmptiesTheSource) {
    const auto old_thing = std::make_shared<thing>();
    const auto new_thing = std::make_shared<thing>();
    link l = link_to(new_thing);
    scoped_link s(link_to(old_thing));
    s = std::move(l);
    EXPECT_EQ(old_thing->releases, 1);
    EXPECT_TRUE(s.active());
    EXPECT_FALSE(l.active()); // NOLINT(bugprone-use-after-move): empty, as said
}

TEST(ScopedLink, AssigningALinkOnTheSameThingEndsIt) {
    const auto t = std::make_shared<thing>();
    const link l = link_to(t);
    scoped_link s(l);
    s = l;
    EXPECT_FALSE(s.active());
    EXPECT_FALSE(l.active());
    EXPECT_EQ(t->releases, 1);
}

TEST(ScopedLink, MovingOneToItselfEndsItsThing) {
    const auto t = std::make_shared<thing>();
    scoped_link s(link_to(t));
    scoped_link& same = s;
    s = std::move(same);
    EXPECT_FALSE(s.active());
    EXPECT_EQ(t->releases, 1);
    EXPECT_EQ(t.use_count(), 1);
}

TEST(ScopedLink, IsDestroyedThroughALinkPointer) {
    const auto t = std::make_shared<thing>();
    std::unique_ptr<link> l = std::make_unique<scoped_link>(link_to(t));
    l.reset();
    EXPECT_EQ(t->releases, 1);
}

TEST(ScopedLinkDeathTest, DestroyingOneWhoseThingCannotBeEndedEndsTheProcess) {
    const auto t = std::make_shared<thing>();
    t->stubborn = true;
    EXPECT_DEATH({ const scoped_link s(link_to(t)); }, "tarn failed to release link");
}

} // namespace
