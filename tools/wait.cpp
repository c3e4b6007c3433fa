/// tarn wait: until objects are on the bus.
#include "commands.h"
#include "connection.h"
#include "exit_status.h"
#include "options.h"
#include "program.h"

#include <tarn/bus.h>
#include <tarn/error.h>

namespace tools {

int wait(const options& given) {
    if (given.words.empty() || given.json) {
        throw usage_error("wait takes PATH... [-t SECONDS]");
    }
    std::string subject;
    for (const auto& path : given.words) {
        refuse_empty(path);
        subject += (subject.empty() ? "" : ", ") + path;
    }
    tarn::client& client = the_client();
    int exit_status = exit_other;
    const auto end = [&](const std::error_code& status) {
        exit_status = report(subject, status, statuses_of_ubus);
        the_loop()->stop();
    };
    // The loop's own timer, since the bus may be one that does not answer.
    const auto patience = after(given.limit.value_or(std::chrono::seconds(0)),
                                [&] { end(tarn::error::msg::timeout); });
    {
        const connection kept(client);
        const tarn::utils::scoped_link waiting =
            client.get_bus().wait_for(given.words, std::chrono::seconds(0), end);
        the_loop()->run();
    }
    client.cancel();
    return exit_status;
}

} // namespace tools
