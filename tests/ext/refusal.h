/// The text of a mismatch, for the tests of what is read.
#pragma once

#include "tarn/ext/mismatch.h"

#include <string>

namespace tarn::test {

/// What the mismatch says that `read` throws.
template <class Read>
std::string refusal_of(const Read& read) {
    try {
        static_cast<void>(read());
    } catch (const ext::mismatch& wrong) {
        return wrong.what();
    }
    return "not refused";
}

} // namespace tarn::test
