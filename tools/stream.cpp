/// The frame of the commands of tarn that print what passes until they are ended.
#include "stream.h"

#include "exit_status.h"
#include "program.h"

#include <cerrno>
#include <poll.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tools {

stream::stream(const options& given, std::string one, std::string many)
    : given_(given)
    , one_(std::move(one))
    , many_(std::move(many))
    , out_({given.time_stamps, !given.json && output::wants_colours()}, signals_.fd())
    , drop_report_(the_loop()->create_timer()) {
    drop_report_->set_handler([this] { say_what_was_dropped(); });
}

tarn::bus::options stream::delivery(const std::string& subject) {
    tarn::bus::options how;
    how.on_dropped = [this](std::uint64_t number) {
        drop(number);
    };
    how.on_registered = [this, subject, first = true](const std::error_code& status) mutable {
        if (status) {
            refused(subject, status, first);
        } else if (given_.verbose) {
            remark(subject + ": registered");
        }
        first = false;
    };
    return how;
}

void stream::print(const std::string& line) {
    if (!stopped_) {
        out_.line(line);
        ++printed_;
    }
}

void stream::refused(const std::string& subject, const std::error_code& status, bool first) {
    const int exit_status = report(subject, status, statuses_of_ubus);
    if (first) {
        stop(exit_status);
    }
}

void stream::stop(int exit_status) {
    if (!stopped_) {
        stopped_ = true;
        exit_status_ = exit_status;
    }
}

int stream::run() {
    const std::chrono::seconds limit = given_.limit.value_or(std::chrono::seconds(0));
    const auto patience = after(limit, [this] { stop(0); });
    out_.set_limit(limit); // the loop, and with it the timer, stands still while a line waits
    try {
        const connection kept(the_client());
        while (!stopped_) {
            turn();
        }
    } catch (const interrupted&) {
        stop(0);
    } catch (const reader_gone&) {
        return 0;
    }
    say_what_was_dropped();
    if (exit_status_ == 0) {
        remark(count(printed_));
    }
    return exit_status_;
}

/// Waits for something to do and does it.
void stream::turn() {
    // A reader that has gone is noticed at once, not with the next line, which may never come.
    pollfd all[] = {
        {the_loop()->fd(), POLLIN, 0}, {signals_.fd(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    if (::poll(all, 3, -1) < 0 && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "poll");
    }
    if (signals_.take() != 0) {
        return stop(0);
    }
    if ((all[2].revents & POLLNVAL) != 0) {
        throw output_error();
    }
    if (all[2].revents != 0) {
        throw reader_gone();
    }
    if ((all[0].revents & POLLIN) != 0) {
        the_loop()->dispatch();
    }
}

// One by one they would be as many as what passes.
void stream::drop(std::uint64_t number) {
    if (dropped_ == 0) {
        drop_report_->set_timeout(std::chrono::seconds(1));
    }
    dropped_ += number;
}

void stream::say_what_was_dropped() {
    if (dropped_ != 0) {
        remark(count(dropped_) + " dropped: the output is too slow");
        dropped_ = 0;
    }
}

std::string stream::count(std::uint64_t number) const {
    return std::to_string(number) + ' ' + (number == 1 ? one_ : many_);
}

} // namespace tools
