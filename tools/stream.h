/// The frame of the commands of tarn that print what passes until they are ended.
#pragma once

#include "connection.h"
#include "options.h"
#include "output.h"

#include <tarn/bus.h>
#include <tarn/ext/detail/exit_signals.h>

#include <cstdint>
#include <memory>
#include <string>

namespace tools {

/// Prints lines and counts them, until SIGINT, SIGTERM, the time limit, a refusal or the end of the
/// reader. Says on standard error what was dropped and, at the end, how much there was.
///
/// Make it before the client: the signals must be blocked on the client's thread too.
class stream {
public:
    /// `one` and `many` are what a line shows: "event", "events".
    stream(const options& given, std::string one, std::string many);

    /// How the standing operation `subject` of the bus is to deliver: what it drops is said, once a
    /// second, and a refusal ends the command the first time, and is said later.
    tarn::bus::options delivery(const std::string& subject);

    const output& out() const { return out_; }

    /// Prints what has passed. To be called by handlers of the bus.
    void print(const std::string& line);

    /// A refusal by the bus: ends the command if it is the first answer to `subject`.
    void refused(const std::string& subject, const std::error_code& status, bool first);

    /// Connects and returns the exit status when it has come to an end.
    int run();

private:
    void turn();
    void stop(int exit_status);
    void drop(std::uint64_t number);
    void say_what_was_dropped();
    std::string count(std::uint64_t number) const;

    const options& given_;
    const std::string one_;
    const std::string many_;
    const tarn::ext::detail::exit_signals signals_;
    output out_;
    std::uint64_t printed_ = 0;
    std::uint64_t dropped_ = 0; ///< and not said yet
    const std::shared_ptr<tarn::utils::event_loop::timer> drop_report_;
    int exit_status_ = 0;
    bool stopped_ = false;
};

} // namespace tools
