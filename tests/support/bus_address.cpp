/// The test kit's bus_address, for the bus that this build is tested on.
#include "support/bus_address.h"

#include <utility>

#ifndef TARN_TEST_SOCKET
#define TARN_TEST_SOCKET ""
#endif

namespace tarn::test {

bus_address::bus_address(std::string path)
    : testing::bus_address(std::move(path), TARN_TEST_SOCKET) {}

} // namespace tarn::test
