/// The connection's states: every event in every state.
#include "client/connection_machine.h"

#include <gtest/gtest.h>

#include <vector>

namespace tarn::test {
namespace {

using state = client::state;
using event = connection_event;
using action = connection_step::action;

struct row {
    event what;
    std::vector<connection_step> from; ///< disconnected, connecting, connected, disconnecting
};

constexpr auto off = state::disconnected;
constexpr auto attempting = state::connecting;
constexpr auto on = state::connected;
constexpr auto ending = state::disconnecting;

const std::vector<row> table = {
    {event::connect,
     {{attempting, action::start_attempt},
      {attempting, action::none},
      {on, action::none},
      {attempting, action::none}}},
    {event::disconnect,
     {{off, action::none},
      {ending, action::none},
      {ending, action::tear_down},
      {ending, action::none}}},
    {event::made,
     {{off, action::none}, {on, action::none}, {on, action::none}, {ending, action::tear_down}}},
    {event::failed,
     {{off, action::none}, {off, action::none}, {on, action::none}, {ending, action::tear_down}}},
    {event::lost,
     {{off, action::tear_down},
      {ending, action::tear_down},
      {ending, action::tear_down},
      {ending, action::tear_down}}},
    {event::torn_down,
     {{off, action::none},
      {attempting, action::start_attempt},
      {on, action::none},
      {off, action::none}}},
    {event::cancelled,
     {{off, action::none}, {off, action::none}, {off, action::none}, {off, action::none}}},
};

TEST(ConnectionMachine, TakesEveryEventInEveryState) {
    for (const row& line : table) {
        for (int n = 0; n < 4; ++n) {
            const auto step = next_step(static_cast<state>(n), line.what);
            const auto& expected = line.from.at(static_cast<std::size_t>(n));
            EXPECT_EQ(step.next, expected.next)
                << "event " << static_cast<int>(line.what) << " in state " << n;
            EXPECT_EQ(step.then, expected.then)
                << "event " << static_cast<int>(line.what) << " in state " << n;
        }
    }
}

TEST(ConnectionMachine, TearsDownOnlyForGoodReason) {
    for (const row& line : table) {
        for (int n = 0; n < 4; ++n) {
            const auto step = next_step(static_cast<state>(n), line.what);
            if (step.then == action::tear_down) {
                EXPECT_TRUE(step.next == ending || step.next == off);
            }
            if (step.then == action::start_attempt) {
                EXPECT_EQ(step.next, attempting);
            }
        }
    }
}

} // namespace
} // namespace tarn::test
