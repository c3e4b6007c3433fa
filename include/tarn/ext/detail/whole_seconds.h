/// Time limits of any unit in the whole seconds that client::invoke() takes.
#pragma once

#include <chrono>

namespace tarn::ext::detail {

/// `limit` rounded up. Zero stays zero, which means no limit, so that nothing else becomes it: a
/// negative limit is rounded down. What is more than 30,000 years is the largest number there is.
template <class Rep, class Period>
std::chrono::seconds whole_seconds(const std::chrono::duration<Rep, Period>& limit) {
    using std::chrono::seconds;
    if (limit == limit.zero()) {
        return seconds::zero();
    }
    if (limit < limit.zero()) {
        return seconds(-1);
    }
    // Compared as a number that cannot overflow; one that is none is taken for the largest.
    constexpr long double most = 1e12L;
    if (!(std::chrono::duration<long double>(limit).count() < most)) {
        return seconds::max();
    }
    const auto whole = std::chrono::duration_cast<seconds>(limit);
    return whole < limit ? whole + seconds(1) : whole;
}

} // namespace tarn::ext::detail
