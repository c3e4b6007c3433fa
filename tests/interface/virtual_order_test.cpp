/// The slots of the virtual functions: programs that were built against the headers call by number.
#include "tarn/client.h"
#include "tarn/event_loop.h"
#include "tarn/link.h"

#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <type_traits>

namespace {

using tarn::client;
using tarn::utils::event_loop;
using tarn::utils::link;
using tarn::utils::scoped_link;

// A destructor has two slots, and no pointer to it can be formed. Where it is declared first, the
// next function has slot 2.
constexpr std::ptrdiff_t after_destructor = 2;

static_assert(std::has_virtual_destructor_v<client>);
static_assert(std::has_virtual_destructor_v<client::exchange_ctx>);
static_assert(std::has_virtual_destructor_v<event_loop>);
static_assert(std::has_virtual_destructor_v<event_loop::timer>);
static_assert(std::has_virtual_destructor_v<link>);
static_assert(std::has_virtual_destructor_v<link::impl>);
static_assert(std::has_virtual_destructor_v<scoped_link>);

/// The slot of a virtual function; -1 of one that is not virtual. A pointer to a member function is
/// a pair of words. Of a virtual one they hold its place in the table in bytes, and a bit that says
/// so: added to the first word or, where functions may lie at odd addresses (ARM, MIPS), to the
/// second.
template <class Function>
std::ptrdiff_t slot_of(Function function) {
    std::ptrdiff_t words[2];
    static_assert(sizeof(function) == sizeof(words));
    std::memcpy(words, &function, sizeof(words));
#if defined(__arm__) || defined(__aarch64__) || defined(__mips__)
    const bool is_virtual = (words[1] & 1) != 0;
    const std::ptrdiff_t place = words[0];
#else
    const bool is_virtual = (words[0] & 1) != 0;
    const std::ptrdiff_t place = words[0] - 1;
#endif
    return is_virtual ? place / static_cast<std::ptrdiff_t>(sizeof(void*)) : -1;
}

/// Expects the functions in consecutive slots behind the destructor's.
template <class... Functions>
void expect_in_order(Functions... functions) {
    std::ptrdiff_t slot = after_destructor;
    const auto check = [&slot](auto function) {
        EXPECT_EQ(slot_of(function), slot);
        ++slot;
    };
    (check(functions), ...);
}

TEST(VirtualOrder, TheClientsFunctionsKeepTheirSlots) {
    expect_in_order(&client::connect, &client::auto_connect, &client::disconnect,
                    &client::notify_on_state_change, &client::get_state, &client::is_active,
                    &client::invoke, &client::add_object, &client::del_object, &client::cancel,
                    &client::invoke_each, &client::get_event_loop, &client::get_bus);
}

TEST(VirtualOrder, TheExchangeContextsFunctionsKeepTheirSlots) {
    using context = client::exchange_ctx;
    expect_in_order(&context::expired, &context::send, &context::respond);
    EXPECT_EQ(slot_of(&context::operator bool), -1);
}

TEST(VirtualOrder, TheEventLoopsFunctionsKeepTheirSlots) {
    expect_in_order(&event_loop::post, &event_loop::create_timer);
}

TEST(VirtualOrder, TheTimersFunctionsKeepTheirSlots) {
    using timer = event_loop::timer;
    expect_in_order(&timer::set_handler, &timer::set_timeout, &timer::stop);
}

TEST(VirtualOrder, TheLinkBackEndsFunctionsKeepTheirSlots) {
    expect_in_order(&link::impl::release, &link::impl::active);
}

TEST(VirtualOrder, OnlyTheDestructorOfALinkIsVirtual) {
    EXPECT_EQ(slot_of(&link::active), -1);
    EXPECT_EQ(slot_of(&link::release), -1);
    EXPECT_EQ(slot_of(&link::operator bool), -1);
    EXPECT_EQ(slot_of(static_cast<void (link::*)(const link&) noexcept>(&link::assign)), -1);
    EXPECT_EQ(slot_of(static_cast<void (link::*)(link &&) noexcept>(&link::assign)), -1);
}

} // namespace
