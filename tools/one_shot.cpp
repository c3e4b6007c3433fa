/// The frame of the commands of tarn that connect, do one thing and end.
#include "one_shot.h"

#include "exit_status.h"
#include "program.h"

namespace tools {

int run_once(const options& given, const std::string& subject,
             const std::function<tarn::utils::link(tarn::bus&, const outcome_handler&)>& start) {
    using tarn::error::msg;
    tarn::client& client = the_client();
    int exit_status = exit_other;
    const auto end_with = [&](int status) {
        exit_status = status;
        the_loop()->stop();
    };
    const auto patience = after(given.limit.value_or(std::chrono::seconds(30)), [&] {
        end_with(report(subject, msg::timeout, statuses_of_ubus,
                        client.is_active() ? "" : " (the bus does not answer)"));
    });
    tarn::utils::scoped_link work;
    tarn::utils::scoped_link connection = client.connect([&](const std::error_code& no_bus) {
        if (no_bus) {
            return end_with(report_no_bus(statuses_of_ubus));
        }
        work = start(client.get_bus(), [&](const std::error_code& status) {
            end_with(report(subject, status, statuses_of_ubus));
        });
    });
    the_loop()->run();
    // What is pending is not to be reported as aborted.
    connection.release();
    work.release();
    client.cancel();
    return exit_status;
}

} // namespace tools
