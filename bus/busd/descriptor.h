/// A file descriptor that closes itself, for the daemon.
#pragma once

#include <unistd.h>
#include <utility>

namespace busd {

class descriptor {
public:
    descriptor() = default;
    explicit descriptor(int fd)
        : fd_(fd) {}
    descriptor(descriptor&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

} // namespace busd
