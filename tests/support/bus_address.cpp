/// Which of a test's buses its clients find.
#include "support/bus_address.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <unistd.h>

namespace tarn::test {

void lead_clients_to(const std::string& path) {
#ifdef TARN_TEST_SOCKET
    // By way of another name, so that there is a bus at every moment.
    const std::string compiled_in = TARN_TEST_SOCKET;
    const std::string made = compiled_in + "." + std::to_string(::getpid());
    if (::symlink(path.c_str(), made.c_str()) != 0 ||
        std::rename(made.c_str(), compiled_in.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), "no way to " + compiled_in);
    }
#else
    ::setenv("UBUS_SOCKET", path.c_str(), 1);
#endif
}

} // namespace tarn::test
