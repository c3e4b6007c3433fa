/// What is on the bus, with results and time limits of any unit.
#include "tarn/ext/objects.h"

#include "fake_fixture.h"

#include <chrono>

namespace tarn::test {
namespace {

using error::msg;
using ext::object_list;
using ext::result;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Objects : public fake_fixture {
protected:
    auto keep() {
        return [this](const result<void>& outcome) {
            outcomes.push_back(outcome.error());
        };
    }
    std::vector<std::error_code> outcomes;
};

TEST_F(Objects, ALookUpYieldsWhatIsThereOrWhyNot) {
    rest.add_object("net.lan", {{"status", {}}});
    rest.add_object("net.wan");
    std::optional<result<object_list>> got;
    const auto keep_list = [&](result<object_list> found) {
        got.emplace(std::move(found));
    };
    ext::objects(bus, "net.*", keep_list);
    loop->drain();
    EXPECT_EQ(got->error(), msg::connection_failed);
    connect();
    ext::objects(bus, "net.*", keep_list);
    loop->drain();
    ASSERT_EQ((*got)->size(), 2U);
    EXPECT_EQ((**got)[0].methods[0].name, "status");
    ext::objects(bus, "none", keep_list);
    loop->drain();
    EXPECT_THAT(**got, IsEmpty());
}

TEST_F(Objects, AReleasedLookUpIsSilent) {
    connect();
    bool reported = false;
    auto link = ext::objects(bus, "*", [&](const result<object_list>&) { reported = true; });
    link.release();
    loop->drain();
    EXPECT_FALSE(reported);
}

TEST_F(Objects, AWaitEndsWithTheObjects) {
    connect();
    const auto link = ext::wait_for(bus, {"a", "b"}, 5s, keep());
    rest.add_object("a");
    loop->drain();
    EXPECT_TRUE(link.active());
    rest.add_object("b");
    loop->drain();
    EXPECT_THAT(outcomes, ElementsAre(std::error_code(msg::success)));
    EXPECT_FALSE(link.active());
}

TEST_F(Objects, TheLimitOfAWaitIsRoundedUpToWholeSeconds) {
    connect();
    ext::wait_for(bus, {"a"}, 1500ms, keep());
    loop->drain();
    loop->advance(1s);
    EXPECT_THAT(outcomes, IsEmpty());
    loop->advance(1s);
    EXPECT_THAT(outcomes, ElementsAre(std::error_code(msg::timeout)));
    ext::wait_for(bus, {"a"}, -1ms, keep());
    loop->advance(0s);
    EXPECT_EQ(outcomes.size(), 2U);
    ext::wait_for(bus, {"a"}, 0ms, keep());
    EXPECT_THAT(loop->armed_timers(), IsEmpty());
}

TEST_F(Objects, AFollowerIsReleasedWithItsLink) {
    {
        const auto link = ext::on_object(
            bus, "*", [&](bus::presence what, const std::string& path, std::uint32_t) {
                seen.push_back((what == bus::presence::appeared ? "+" : "-") + path);
            });
        connect();
        rest.add_object("a");
        loop->drain();
    }
    rest.remove_object("a");
    loop->drain();
    EXPECT_THAT(seen, ElementsAre("+a"));
}

} // namespace
} // namespace tarn::test
