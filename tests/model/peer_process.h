/// The process model_peer: an object for the client to call, and somebody who calls the client's.
#pragma once

#include "support/child_process.h"

#include <chrono>
#include <cstdint>
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

    /// Gives it an order of model_peer.c without its number, and returns that at once. The numbers
    /// are in the order in which it gets them. Any thread.
    int start(const std::string& verb, const std::string& objects);

    /// The number of the last event that it has sent, and the daemon taken. Any thread.
    long last_event() const;

    /// How often it has heard of a token of this process's. The test's thread.
    int times_heard(int token);

    /// The order's answer, once it is there. The test's thread.
    std::optional<answer> find_answer(int number);

    /// The same, awaited; nothing when it does not come within the limit.
    std::optional<answer> wait_for_answer(int number, std::chrono::milliseconds limit);

    /// Gives up what has not been answered, and withdraws what it has published. Answers begin
    /// anew. False when it does not react.
    bool reset();

private:
    bool read_more(std::chrono::milliseconds limit);
    std::string take_line(std::chrono::milliseconds limit);
    void order(const std::string& line);
    bool absorb(const std::string& line);

    std::mutex lock_; ///< of writing
    int orders_ = -1;
    std::string unread_;
    std::map<int, answer> answers_;
    std::map<int, int> heard_;            ///< by token
    std::uint32_t* last_event_ = nullptr; ///< shared with the process
    std::unique_ptr<child_process> process_;
};

} // namespace tarn::test
