/// The exit statuses of tarn, and the reports that go with them.
#include "exit_status.h"

#include <tarn/error.h>

#include <iostream>

namespace tools {

int exit_status_for(const std::error_code& status, const exit_statuses& numbers) {
    if (!status) {
        return 0;
    }
    if (status == make_error_code(tarn::error::msg::timeout)) {
        return numbers.timeout;
    }
    return status.category() == tarn::error::msg_category::get_inst()
               ? numbers.status_base + status.value()
               : exit_other;
}

int report(const std::string& subject, const std::error_code& status, const exit_statuses& numbers,
           const char* remark) {
    if (status) {
        tools::remark(subject + ": " + status.message() + remark);
    }
    return exit_status_for(status, numbers);
}

int report_no_bus(const exit_statuses& numbers) {
    remark("cannot connect to the bus");
    return numbers.no_bus;
}

void remark(const std::string& text) {
    // In one piece: other processes may write to the same terminal.
    std::cerr << "tarn: " + text + '\n';
}

} // namespace tools
