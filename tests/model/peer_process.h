/// The process model_peer: an object for the client to call, and somebody who calls the client's.
#pragma once

#include "support/child_process.h"

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tarn::test {

class peer_process {
public:
    /// Starts it on the daemon's socket and returns once its object is published.
    explicit peer_process(const std::string& daemon);
    ~peer_process();
    peer_process(const peer_process&) = delete;
    peer_process& operator=(const peer_process&) = delete;

    struct answer {
        int status = -1;
        int token = -1; ///< the field of its reply
    };

    /// Lets it call `method` of `path`, and returns the call's number at once. Any thread.
    int start_call(const std::string& path, const std::string& method);

    /// The call's answer, once it is there. The test's thread.
    std::optional<answer> find_answer(int call);

    /// The same, awaited; nothing when it does not come within the limit.
    std::optional<answer> wait_for_answer(int call, std::chrono::milliseconds limit);

    /// Gives up what has not been answered. Numbers and answers begin anew. False when it does not
    /// react.
    bool reset();

private:
    bool read_more(std::chrono::milliseconds limit);
    std::string take_line(std::chrono::milliseconds limit);
    void order(const std::string& line);

    std::mutex lock_; ///< of writing
    int orders_ = -1;
    std::string unread_;
    std::map<int, answer> answers_;
    std::unique_ptr<child_process> process_;
};

} // namespace tarn::test
