/// Notifications of an object's subscribers, and their answers, as C++ types; the same of a
/// service.
#include "tarn/ext/notify.h"

#include "fake_fixture.h"
#include "tarn/ext/reply.h"
#include "tarn/ext/service.h"

#include <chrono>
#include <stdexcept>

namespace tarn::test {

struct vote {
    bool ok = false;
};
TARN_FIELDS(vote, ok)

namespace {

using error::generic;
using error::msg;
using ext::answers;
using ext::result;
using testing::outcome;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Notify = fake_fixture;

TEST_F(Notify, ANotificationIsSentAsAStructureOrATable) {
    connect();
    publish("porter");
    std::vector<std::error_code> outcomes;
    const auto keep = [&](const result<void>& done) {
        outcomes.push_back(done.error());
    };
    ext::notify(bus, "porter", "opened", door{"front", {}}, keep);
    ext::notify(bus, "porter", "opened", {{"name", "back"}}, keep);
    ext::notify(bus, "porter", "opened", {}, nullptr);
    ext::notify(bus, "absent", "opened", {}, keep);
    EXPECT_THAT(outcomes, IsEmpty());
    loop->drain();
    EXPECT_THAT(outcomes, ElementsAre(std::error_code(msg::success), msg::success, msg::not_found));
    ASSERT_EQ(rest.notifications().size(), 4U);
    EXPECT_EQ(rest.notifications()[0].data.find("name")->second.get<std::string>(), "front");
    EXPECT_THROW(ext::notify(bus, "porter", "opened", 5, keep), std::invalid_argument);
}

TEST_F(Notify, EachAnswerIsAStructureOrWhyThereIsNone) {
    connect();
    publish("porter");
    outcome without_status = outcome::reply({{"ok", true}});
    without_status.never = true;
    rest.answer_notification("porter", "may-open",
                             {outcome::reply({{"ok", true}}), outcome::reply({{"ok", "yes"}}),
                              outcome::failure(msg::not_supported), outcome::no_answer(),
                              without_status});
    std::optional<result<answers<vote>>> got;
    ext::notify(bus, "porter", "may-open", door{"front", {}}, 1500ms,
                [&](result<answers<vote>> all) { got.emplace(std::move(all)); });
    loop->drain();
    EXPECT_FALSE(got);
    EXPECT_EQ(rest.notifications().back().limit, 2s) << "rounded up";
    loop->advance(2s);
    ASSERT_TRUE(got && *got) << "what was answered in time is there";
    ASSERT_EQ((*got)->size(), 4U) << "one that sends nothing is not among them";
    EXPECT_TRUE((**got)[0]->ok);
    EXPECT_EQ((**got)[1].error(), msg::parse_error);
    EXPECT_EQ((**got)[1].detail(), "ok: expected a flag, found a string");
    EXPECT_EQ((**got)[2].error(), msg::not_supported);
    EXPECT_EQ((**got)[3].error(), msg::timeout);
}

TEST_F(Notify, AnswersAreRepliesOrNothingWhereNoStructureIsAskedFor) {
    connect();
    publish("porter");
    rest.set_subscribers("porter", 2);
    std::size_t count = 0;
    ext::notify(bus, "porter", "may-open", {}, 1s,
                [&](const auto& all) { count += all.value().at(0).value().fields().size() + 1; });
    ext::notify<void>(bus, "porter", "may-open", {}, 1s,
                      [&](const result<answers<void>>& all) { count += all->size(); });
    loop->drain();
    EXPECT_EQ(count, 3U);
}

TEST_F(Notify, AFailedNotificationHasNoAnswers) {
    std::vector<std::error_code> outcomes;
    const auto keep = [&](const result<answers<>>& all) {
        outcomes.push_back(all.error());
    };
    ext::notify(bus, "porter", "may-open", {}, 1s, keep);
    connect();
    publish("porter");
    rest.answer_notification("porter", "may-open", {outcome::no_answer()});
    ext::notify(bus, "porter", "may-open", {}, 0s, keep);
    bus.cancel();
    EXPECT_THAT(outcomes, ElementsAre(std::error_code(msg::connection_failed), generic::aborted));
}

TEST_F(Notify, AServiceNotifiesItsSubscribersAndFollowsWhetherThereAreAny) {
    ext::service porter(bus, "porter");
    porter.on_subscribers([&](bool some) { seen.emplace_back(some ? "some" : "none"); });
    porter.publish();
    rest.set_subscribers("porter", 1);
    connect();
    EXPECT_THAT(seen, ElementsAre("some"));
    porter.notify("opened", door{"front", {}}, nullptr);
    porter.notify("opened", {{"name", "back"}}, nullptr);
    std::size_t count = 0;
    porter.notify("may-open", door{"front", {}}, 1s,
                  [&](const result<answers<>>& all) { count += all->size(); });
    porter.notify<void>("may-open", {}, 1s, [&](const auto& all) { count += all->size(); });
    loop->drain();
    EXPECT_EQ(count, 2U);
    ASSERT_EQ(rest.notifications().size(), 4U);
    EXPECT_EQ(rest.notifications()[0].name, "porter");
    EXPECT_EQ(rest.notifications()[1].data.find("name")->second.get<std::string>(), "back");
    EXPECT_THROW(porter.on_subscribers({}), std::logic_error);
}

TEST_F(Notify, AServiceThatHasGoneIsNotNotifiedOfItsSubscribers) {
    connect();
    {
        ext::service porter(bus, "porter");
        porter.on_subscribers([&](bool some) { seen.emplace_back(some ? "some" : "none"); });
        porter.publish();
        rest.set_subscribers("porter", 1);
    }
    loop->drain();
    EXPECT_THAT(seen, IsEmpty());
    EXPECT_THAT(rest.following_subscribers(), IsEmpty());
}

} // namespace
} // namespace tarn::test
