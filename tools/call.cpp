/// tarn call: calls one method and prints what comes back.
#include "commands.h"
#include "exit_status.h"
#include "input.h"
#include "options.h"
#include "output.h"
#include "program.h"

#include <tarn/ext/json.h>
#include <tarn/tarn.h>

#include <iostream>

namespace tools {

namespace {

using std::chrono::seconds;
using tarn::error::msg;

/// Connects, calls one method and prints what comes back.
class one_call {
public:
    one_call(tarn::client& bus, const options& given)
        : bus_(bus)
        , path_(given.words[0])
        , method_(given.words[1])
        , form_(given.json || given.simplified ? tarn::ext::json_layout::single_line
                                               : tarn::ext::json_layout::indented) {}

    /// Starts the loop and returns the exit status. The limit counts for all of it.
    int run(const tarn::blob::table& args, seconds limit) {
        const auto patience = after(limit, [this] { expire(); });
        connection_ = bus_.connect([this, &args](const std::error_code& no_bus) {
            if (no_bus) {
                return end_with(report_no_bus(call_statuses));
            }
            call_ = bus_.invoke_each(
                path_, method_, args, [this](const tarn::blob::attr& reply) { print(reply); },
                [this](const std::error_code& status) { end(status); }, seconds::zero());
        });
        the_loop()->run();
        return exit_status_;
    }

private:
    // Flushed at once: the next reply, or the end of the call, may be long in coming.
    void print(const tarn::blob::attr& reply) const {
        std::cout << tarn::ext::write_json(reply.get<tarn::blob::table>(), form_) << std::endl;
        if (!std::cout) {
            throw output_error();
        }
    }

    void expire() {
        if (bus_.is_active()) {
            return end(msg::timeout);
        }
        end_with(report(subject(), msg::timeout, call_statuses, " (the bus does not answer)"));
    }

    void end(const std::error_code& status) { end_with(report(subject(), status, call_statuses)); }

    void end_with(int exit_status) {
        exit_status_ = exit_status;
        connection_.release();
        call_.release();
        the_loop()->stop();
    }

    std::string subject() const { return path_ + '.' + method_; }

    tarn::client& bus_;
    const std::string path_;
    const std::string method_;
    const tarn::ext::json_layout form_;
    int exit_status_ = exit_other;
    tarn::utils::scoped_link connection_;
    tarn::utils::scoped_link call_;
};

} // namespace

int call(const options& given) {
    if (given.words.size() < 2 || given.words.size() > 3) {
        throw usage_error("call takes PATH METHOD [JSON] [-t SECONDS] [-s]");
    }
    refuse_empty(given.words[0]);
    const tarn::blob::table args = read_message(given.words, 2);
    tarn::client& bus = the_client();
    const int exit_status = one_call(bus, given).run(args, given.limit.value_or(seconds(30)));
    bus.cancel();
    return exit_status;
}

} // namespace tools
