/// A program that the driver starts, asks and ends.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace tarn::bench {

/// A process whose standard input and output are connected to the driver. It dies with the driver,
/// or with this object, whichever ends first. Failures throw std::runtime_error.
class worker {
public:
    /// Starts `arguments[0]` (a path). `preload`: a library to load before it, or empty.
    explicit worker(std::vector<std::string> arguments, const std::string& preload = {});
    ~worker();
    worker(const worker&) = delete;
    worker& operator=(const worker&) = delete;

    void send(const std::string& line) const;
    /// The rest of the next line, which must begin with this word and come within two minutes.
    std::string receive(const std::string& first_word);
    std::string ask(const std::string& line, const std::string& first_word);

    pid_t pid() const { return pid_; }

    /// Whether it has not ended yet.
    bool runs();

    /// Ends its input, and waits for it to end.
    void finish();

private:
    const std::string program_;
    pid_t pid_ = -1;
    int channel_ = -1;
    std::string unread_;
};

} // namespace tarn::bench
