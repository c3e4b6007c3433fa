/// The daemon's listening socket: takes over a stale path, never a live one, and removes the path
/// again at its end.
#pragma once

#include <string>
#include <sys/types.h>

#include "descriptor.h"

namespace busd {

class listener {
public:
    /// Listens at `path`. A socket file there that no process listens on is removed first. Throws
    /// std::runtime_error, whose text is meant for the user, if the path is too long, is in use, is
    /// no socket, or cannot be bound.
    explicit listener(const std::string& path);
    /// Removes the path, unless another daemon has put its own socket there meanwhile.
    ~listener();
    listener(const listener&) = delete;
    listener& operator=(const listener&) = delete;

    /// Non-blocking, closed on exec.
    int fd() const { return socket_.get(); }

private:
    std::string path_;
    descriptor socket_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

} // namespace busd
