/// Error codes: numbers, names, messages and conversions.
#include "tarn/error.h"

#include <future>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

namespace {

using tarn::error::generic;
using tarn::error::generic_category;
using tarn::error::msg;
using tarn::error::msg_category;

constexpr const char* unlisted = "Unknonw error condition";

// The numbers cross the bus, so they are written down here once more.
static_assert(std::is_same_v<std::underlying_type_t<msg>, int>);
static_assert(std::is_same_v<std::underlying_type_t<generic>, int>);
static_assert(static_cast<int>(msg::success) == 0 && static_cast<int>(msg::invalid_command) == 1 &&
              static_cast<int>(msg::invalid_argument) == 2 &&
              static_cast<int>(msg::method_not_found) == 3 &&
              static_cast<int>(msg::not_found) == 4 && static_cast<int>(msg::no_response) == 5 &&
              static_cast<int>(msg::permission_denied) == 6 &&
              static_cast<int>(msg::timeout) == 7 && static_cast<int>(msg::not_supported) == 8 &&
              static_cast<int>(msg::unknown_error) == 9 &&
              static_cast<int>(msg::connection_failed) == 10 &&
              static_cast<int>(msg::no_memory) == 11 && static_cast<int>(msg::parse_error) == 12 &&
              static_cast<int>(msg::system_error) == 13);
static_assert(static_cast<int>(generic::aborted) == 1 &&
              static_cast<int>(generic::unknown_error) == 2);
static_assert(std::is_error_code_enum_v<msg> && std::is_error_code_enum_v<generic>);

TEST(Error, EveryMsgNumberHasItsMessage) {
    const char* const messages[] = {"Success",
                                    "Invalid command",
                                    "Invalid argument",
                                    "Method not found",
                                    "Not found",
                                    "No response",
                                    "Permission denied",
                                    "Request timed out",
                                    "Operation not supported",
                                    "Unknown error",
                                    "Connection failed",
                                    "Out of memory",
                                    "Parsing message data failed",
                                    "System error"};
    int number = 0;
    for (const char* message : messages) {
        EXPECT_EQ(msg_category::get_inst().message(number), message) << number;
        ++number;
    }
}

TEST(Error, EveryGenericNumberHasItsMessage) {
    EXPECT_EQ(generic_category::get_inst().message(1), "Aborted");
    EXPECT_EQ(generic_category::get_inst().message(2), "Unknown error");
}

TEST(Error, EveryListedEnumeratorMakesACodeWithItsNumberAndMessage) {
    // Written down apart from the list in the header, which makes all of them there.
    const std::vector<std::tuple<std::error_code, int, std::string>> expected{
        {msg::success, 0, "Success"},
        {msg::invalid_command, 1, "Invalid command"},
        {msg::invalid_argument, 2, "Invalid argument"},
        {msg::method_not_found, 3, "Method not found"},
        {msg::not_found, 4, "Not found"},
        {msg::no_response, 5, "No response"},
        {msg::permission_denied, 6, "Permission denied"},
        {msg::timeout, 7, "Request timed out"},
        {msg::not_supported, 8, "Operation not supported"},
        {msg::unknown_error, 9, "Unknown error"},
        {msg::connection_failed, 10, "Connection failed"},
        {msg::no_memory, 11, "Out of memory"},
        {msg::parse_error, 12, "Parsing message data failed"},
        {msg::system_error, 13, "System error"},
        {generic::aborted, 1, "Aborted"},
        {generic::unknown_error, 2, "Unknown error"}};
    for (const auto& [code, number, message] : expected) {
        EXPECT_EQ(code.value(), number) << message;
        EXPECT_EQ(code.message(), message);
    }
    std::vector<std::error_code> listed;
#define LIST(number, name, text) listed.emplace_back(category::name);
    {
        using category = msg;
        TARN_ERROR_MSG_LIST(LIST)
    }
    {
        using category = generic;
        TARN_ERROR_GENERIC_LIST(LIST)
    }
#undef LIST
    ASSERT_EQ(listed.size(), expected.size());
    for (std::size_t i = 0; i < listed.size(); ++i) {
        EXPECT_EQ(listed[i], std::get<0>(expected[i])) << i;
    }
}

TEST(Error, MsgNumbersOutsideTheListHaveTheFallbackMessage) {
    for (const int number : {-1, 14, 100, -2147483647}) {
        EXPECT_EQ(msg_category::get_inst().message(number), unlisted) << number;
    }
}

TEST(Error, GenericNumbersOutsideTheListHaveTheFallbackMessage) {
    for (const int number : {0, -1, 3, 100}) {
        EXPECT_EQ(generic_category::get_inst().message(number), unlisted) << number;
    }
}

TEST(Error, CategoriesHaveTheirNames) {
    EXPECT_STREQ(msg_category::get_inst().name(), "tarn::error::msg");
    EXPECT_STREQ(generic_category::get_inst().name(), "tarn::error::generic");
    EXPECT_STREQ(std::error_code(msg::timeout).category().name(), "tarn::error::msg");
}

TEST(Error, MsgSuccessTestsAsNoError) {
    const std::error_code code = make_error_code(msg::success);
    EXPECT_FALSE(code);
    EXPECT_EQ(code.message(), "Success");
    EXPECT_EQ(&code.category(), &msg_category::get_inst());
}

TEST(Error, EnumeratorsConvertToCodesOfTheirCategory) {
    const std::error_code timeout = msg::timeout;
    EXPECT_TRUE(timeout);
    EXPECT_EQ(timeout.value(), 7);
    EXPECT_EQ(&timeout.category(), &msg_category::get_inst());

    std::error_code aborted;
    aborted = generic::aborted;
    EXPECT_TRUE(aborted);
    EXPECT_EQ(aborted.value(), 1);
    EXPECT_EQ(&aborted.category(), &generic_category::get_inst());

    EXPECT_TRUE(timeout == msg::timeout);
    EXPECT_FALSE(timeout == msg::no_response);
}

TEST(Error, CodesEqualOnlyTheirOwnCategory) {
    EXPECT_NE(std::error_code(msg::invalid_argument), std::error_code(generic::unknown_error));
    EXPECT_NE(std::error_code(msg::invalid_argument), std::error_code(2, std::system_category()));

    const std::error_code code = msg::timeout;
    EXPECT_EQ(code, std::error_condition(7, msg_category::get_inst()));
    EXPECT_NE(code, std::error_condition(7, generic_category::get_inst()));
    EXPECT_NE(code, std::error_condition(7, std::generic_category()));
    EXPECT_NE(code, std::errc::timed_out);
    EXPECT_EQ(code.default_error_condition().category(), msg_category::get_inst());
}

TEST(Error, TheSameEnumeratorGivesEqualCodesOnAllThreads) {
    const auto make = [] {
        return std::error_code(msg::timeout);
    };
    auto one = std::async(std::launch::async, make);
    auto two = std::async(std::launch::async, make);
    const std::error_code first = one.get();
    EXPECT_EQ(first, two.get());
    EXPECT_EQ(first, make());
}

} // namespace
