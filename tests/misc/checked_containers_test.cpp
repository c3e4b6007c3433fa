/// The build with checked containers (TARN_CHECKED_CONTAINERS) checks: a slip in either library
/// ends the process. Guards against a build that lost the checks and passes for that reason.
#include <gtest/gtest.h>

#include <list>
#include <string_view>

namespace {

TEST(CheckedContainers, ComparingIteratorsOfTwoListsEndsTheProcess) {
    std::list<int> one{1};
    std::list<int> other{1};
    EXPECT_DEATH(
        {
            const bool same = one.begin() == other.begin();
            one.push_back(same ? 1 : 2);
        },
        "different sequences");
}

TEST(CheckedContainers, ReadingBeyondAStringViewEndsTheProcess) {
    const std::string_view text("ab");
    volatile std::size_t beyond = 5;
    EXPECT_DEATH(static_cast<void>(text[beyond]), "__pos < this->_M_len");
}

} // namespace
