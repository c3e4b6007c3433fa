/// The test kit's private_bus, with the daemon and the socket that this build is tested on.
#include "support/bus_daemon.h"

#ifndef TARN_TEST_SOCKET
#define TARN_TEST_SOCKET ""
#endif

namespace tarn::test {

bus_daemon::bus_daemon(launch when, const std::string& access_rules)
    : private_bus({TARN_TEST_BUSD_PATH, access_rules, TARN_TEST_SOCKET, when == launch::now}) {}

} // namespace tarn::test
