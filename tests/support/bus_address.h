/// The test kit's bus_address, for the bus that this build is tested on.
#pragma once

#include "tarn/testing/bus_address.h"

#include <string>

namespace tarn::test {

class bus_address : public testing::bus_address {
public:
    explicit bus_address(std::string path);
};

} // namespace tarn::test
