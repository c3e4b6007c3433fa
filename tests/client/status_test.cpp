/// Error codes to ubus status numbers and back.
#include "client/client_impl.h"

#include "tarn/error.h"

#include <gtest/gtest.h>

namespace tarn::test {
namespace {

int to_status(const std::error_code& code) {
    return client_impl::to_ubus_msg_status(code);
}

TEST(Status, ACodeOfValueZeroIsStatusZeroWhateverItsCategory) {
    EXPECT_EQ(to_status({}), 0);
    EXPECT_EQ(to_status(error::msg::success), 0);
    EXPECT_EQ(to_status({0, error::generic_category::get_inst()}), 0);
}

TEST(Status, CodesOfOtherCategoriesBecomeNine) {
    EXPECT_EQ(to_status(error::generic::aborted), 9);
    EXPECT_EQ(to_status(error::generic::unknown_error), 9);
    EXPECT_EQ(to_status({5, std::system_category()}), 9);
}

TEST(Status, TheNumbersUpToTenArePassedOn) {
    for (int number = 1; number <= 10; ++number) {
        EXPECT_EQ(to_status(static_cast<error::msg>(number)), number);
    }
    EXPECT_EQ(to_status(error::msg::no_response), 5);
}

TEST(Status, ConditionsOfThisProcessAndNumbersOutOfRangeBecomeNine) {
    EXPECT_EQ(to_status(error::msg::no_memory), 9);
    EXPECT_EQ(to_status(error::msg::parse_error), 9);
    EXPECT_EQ(to_status(error::msg::system_error), 9);
    EXPECT_EQ(to_status(static_cast<error::msg>(-1)), 9);
    EXPECT_EQ(to_status(static_cast<error::msg>(14)), 9);
}

TEST(Status, EveryKnownStatusKeepsItsNumber) {
    for (int status = 0; status <= 13; ++status) {
        const std::error_code code = client_impl::to_msg_error(status);
        EXPECT_EQ(code.value(), status);
        EXPECT_EQ(&code.category(), &error::msg_category::get_inst());
    }
    EXPECT_FALSE(client_impl::to_msg_error(0));
    EXPECT_EQ(client_impl::to_msg_error(12), make_error_code(error::msg::parse_error));
}

TEST(Status, NegativeAndUnknownStatusesBecomeUnknownError) {
    for (const int status : {-1, -2, -22, 14, 100}) {
        EXPECT_EQ(client_impl::to_msg_error(status), make_error_code(error::msg::unknown_error));
    }
}

} // namespace
} // namespace tarn::test
