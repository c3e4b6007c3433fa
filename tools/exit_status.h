/// The exit statuses of tarn, and the reports that go with them, for its commands.
#pragma once

#include <string>
#include <system_error>

namespace tools {

/// How a command numbers its failures.
struct exit_statuses {
    int usage;
    int json; ///< what was given is no JSON, or not for a message
    int no_bus;
    int timeout;
    int status_base; ///< ubus status N is this + N, the time-out aside
};

/// `call` keeps a service's refusal apart from its own failures.
constexpr exit_statuses call_statuses{2, 2, 3, 4, 10};
/// The others end as ubus does, whose status numbers scripts know.
constexpr exit_statuses statuses_of_ubus{254, 12, 255, 7, 0};

/// What neither has a number for.
constexpr int exit_other = 1;

int exit_status_for(const std::error_code& status, const exit_statuses& numbers);

/// Reports a failure to the user, what was requested and why it failed, and returns its exit
/// status.
int report(const std::string& subject, const std::error_code& status, const exit_statuses& numbers,
           const char* remark = "");

/// Says that there is no bus, and returns the exit status.
int report_no_bus(const exit_statuses& numbers);

/// A line on standard error.
void remark(const std::string& text);

} // namespace tools
