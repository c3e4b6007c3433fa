/// The tests' event loop: the one of the test kit.
#pragma once

#include "tarn/testing/manual_loop.h"

namespace tarn::test {

using hand_loop = testing::manual_loop;

} // namespace tarn::test
