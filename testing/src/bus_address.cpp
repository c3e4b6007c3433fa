/// Leads the clients of a test to one of its buses.
#include "tarn/testing/bus_address.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tarn::testing {

bus_address::bus_address(std::string path, std::string compiled_in)
    : path_(std::move(path))
    , compiled_in_(std::move(compiled_in)) {
    lead_clients_here();
}

bus_address::~bus_address() {
    // A daemon that is to listen there itself would not replace a link.
    std::error_code ignored;
    if (!compiled_in_.empty() && std::filesystem::read_symlink(compiled_in_, ignored) == path_) {
        std::filesystem::remove(compiled_in_, ignored);
    }
}

void bus_address::lead_clients_here() const {
    if (compiled_in_.empty()) {
        ::setenv("UBUS_SOCKET", path_.c_str(), 1);
        return;
    }
    // By way of another name, so that there is a bus at every moment.
    const std::string made = compiled_in_ + "." + std::to_string(::getpid());
    if (::symlink(path_.c_str(), made.c_str()) != 0 ||
        std::rename(made.c_str(), compiled_in_.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), "no way to " + compiled_in_);
    }
}

} // namespace tarn::testing
