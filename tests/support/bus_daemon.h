/// The test kit's private_bus, with the daemon and the socket that this build is tested on.
#pragma once

#include "tarn/testing/private_bus.h"

#include <string>

namespace tarn::test {

class bus_daemon : public testing::private_bus {
public:
    /// Starts at once, unless told not to: start() does it then.
    enum class launch { now, later };
    explicit bus_daemon(launch when = launch::now, const std::string& access_rules = {});
};

} // namespace tarn::test
