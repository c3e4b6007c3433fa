/// The way of clients to one of a test's buses.
#include "support/bus_address.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tarn::test {

bus_address::bus_address(std::string path)
    : path_(std::move(path)) {
    lead_clients_here();
}

#ifdef TARN_TEST_SOCKET

bus_address::~bus_address() {
    // A daemon that is to listen there itself would not replace a link.
    std::error_code ignored;
    if (std::filesystem::read_symlink(TARN_TEST_SOCKET, ignored) == path_) {
        std::filesystem::remove(TARN_TEST_SOCKET, ignored);
    }
}

void bus_address::lead_clients_here() const {
    // By way of another name, so that there is a bus at every moment.
    const std::string compiled_in = TARN_TEST_SOCKET;
    const std::string made = compiled_in + "." + std::to_string(::getpid());
    if (::symlink(path_.c_str(), made.c_str()) != 0 ||
        std::rename(made.c_str(), compiled_in.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), "no way to " + compiled_in);
    }
}

#else

bus_address::~bus_address() = default;

void bus_address::lead_clients_here() const {
    ::setenv("UBUS_SOCKET", path_.c_str(), 1);
}

#endif

} // namespace tarn::test
