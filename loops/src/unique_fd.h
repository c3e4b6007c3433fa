/// A file descriptor with one owner, closed with it or before.
#pragma once

#include <unistd.h>

namespace tarn::loops::detail {

class unique_fd {
public:
    explicit unique_fd(int fd) noexcept
        : fd_(fd) {}
    ~unique_fd() { close(); }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;

    int get() const noexcept { return fd_; }

    void close() noexcept {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }

private:
    int fd_;
};

} // namespace tarn::loops::detail
