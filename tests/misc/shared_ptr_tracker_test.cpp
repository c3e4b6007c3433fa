/// Watching objects without owning them.
#include "tarn/misc/shared_ptr_tracker.h"

#include <gtest/gtest.h>

namespace {

using tarn::misc::shared_ptr_tracker;

TEST(SharedPtrTracker, IsAliveAsLongAsItsObject) {
    auto object = std::make_shared<int>(1);
    const shared_ptr_tracker tracker(object);
    EXPECT_FALSE(tracker.expired());
    EXPECT_TRUE(tracker);
    object.reset();
    EXPECT_TRUE(tracker.expired());
    EXPECT_FALSE(tracker);
}

TEST(SharedPtrTracker, IsMadeFromAReferenceWithoutAWord) {
    const auto expired = [](const shared_ptr_tracker& tracker) {
        return tracker.expired();
    };
    const auto object = std::make_shared<int>(1);
    EXPECT_FALSE(expired(std::weak_ptr<void>(object)));
    EXPECT_TRUE(expired({object, std::weak_ptr<void>()}));
}

TEST(SharedPtrTracker, MadeFromAnEmptyReferenceIsExpiredFromTheStart) {
    EXPECT_TRUE(shared_ptr_tracker(std::weak_ptr<void>()).expired());
    EXPECT_TRUE(shared_ptr_tracker(std::shared_ptr<int>()).expired());
    const auto object = std::make_shared<int>(1);
    EXPECT_TRUE(shared_ptr_tracker(object, std::weak_ptr<void>()).expired());
}

TEST(SharedPtrTracker, WithTwoReferencesIsExpiredAsSoonAsEitherObjectIsGone) {
    auto first = std::make_shared<int>(1);
    auto second = std::make_shared<long>(2);
    const shared_ptr_tracker one(first, second);
    const shared_ptr_tracker two(second, first);
    EXPECT_FALSE(one.expired());
    second.reset();
    EXPECT_TRUE(one.expired());
    EXPECT_TRUE(two.expired());
}

TEST(SharedPtrTracker, StaysExpired) {
    auto object = std::make_shared<int>(1);
    shared_ptr_tracker tracker(object);
    object.reset();
    ASSERT_TRUE(tracker.expired());
    const auto other = std::make_shared<int>(2);
    tracker.add(other);
    EXPECT_TRUE(tracker.expired());
}

TEST(SharedPtrTracker, ObjectsCanBeAdded) {
    auto first = std::make_shared<int>(1);
    auto second = std::make_shared<int>(2);
    auto third = std::make_shared<int>(3);
    shared_ptr_tracker tracker(first);
    tracker.add(second, third);
    tracker.add();
    EXPECT_FALSE(tracker.expired());
    third.reset();
    EXPECT_TRUE(tracker.expired());
}

TEST(SharedPtrTracker, WithoutReferencesNeverExpires) {
    EXPECT_FALSE(shared_ptr_tracker().expired());
}

TEST(SharedPtrTracker, CopiesWatchTheSameObjects) {
    auto object = std::make_shared<int>(1);
    shared_ptr_tracker tracker(object);
    const shared_ptr_tracker copy(tracker);
    shared_ptr_tracker assigned;
    assigned = tracker;
    object.reset();
    EXPECT_TRUE(copy.expired());
    EXPECT_TRUE(assigned.expired());
}

TEST(SharedPtrTracker, NeverKeepsAnObjectAlive) {
    auto object = std::make_shared<int>(1);
    const shared_ptr_tracker tracker(object);
    EXPECT_EQ(object.use_count(), 1);
}

} // namespace
