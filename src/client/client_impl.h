/// The one implementation of tarn::client: its two sides and what lies between them.
///
/// app_side is what the application's threads touch, loop_side what the loop thread touches, and
/// task_bridge, the only part that both touch, moves tasks from one to the other. What is on its
/// way (a call, a connection, an answer) is one object with the tasks that carry it back and forth.
#pragma once

#include "bus.h"
#include "client/app_side.h"
#include "client/bus_impl.h"
#include "client/loop_side.h"
#include "client/milestone.h"
#include "client/task.h"
#include "client/task_bridge.h"
#include "tarn/client.h"

#include <memory>
#include <string>
#include <sys/types.h>
#include <thread>

namespace tarn {

class client_impl final : public client, public self_counted {
public:
    /// The process's instance. It is never destroyed, only stopped by the exit handlers: other
    /// threads may still be inside it, or call it, while the process ends.
    static client_impl& get_instance(const std::weak_ptr<utils::event_loop>& loop);

    /// The ubus status for a code, for libubus to send: codes of other categories, and the
    /// conditions that concern only this process (no_memory, parse_error, system_error), become 9.
    static int to_ubus_msg_status(const std::error_code& code);

    /// The code for a status that libubus reported; numbers it does not know become unknown_error.
    static std::error_code to_msg_error(int status);

    client_impl(const client_impl&) = delete;
    client_impl& operator=(const client_impl&) = delete;

    utils::link connect(const completion_handler& handler) override;
    utils::link auto_connect(const backoff_function& backoff) override;
    utils::link disconnect(const completion_handler& handler) override;
    utils::link notify_on_state_change(const state_handler& handler) override;
    state get_state() const override;
    bool is_active() const override;
    utils::link invoke(const std::string& path, const std::string& method,
                       const std::multimap<std::string, blob::attr>& args,
                       const result_handler& handler, const std::chrono::seconds& timeout) override;
    utils::link add_object(const std::string& name, const method_map& methods,
                           const completion_handler& handler) override;
    utils::link del_object(const std::string& name, bool stop_serving,
                           const completion_handler& handler) override;
    void cancel() override;
    utils::link invoke_each(const std::string& path, const std::string& method,
                            const std::multimap<std::string, blob::attr>& args,
                            const reply_handler& each, const completion_handler& handler,
                            const std::chrono::seconds& timeout) override;
    std::weak_ptr<utils::event_loop> get_event_loop() const override { return loop_; }
    tarn::bus& get_bus() override { return bus_; }

    // What libubus calls, on the loop thread. Exceptions stop here, before they reach C code.
    static void connection_lost_handler(ubus_context* context);
    static void invoke_req_data_handler(ubus_request* request, int type, blob_attr* msg);
    static void invoke_req_done_handler(ubus_request* request, int status);
    static int method_callable(ubus_context* context, ubus_object* object,
                               ubus_request_data* request, const char* method, blob_attr* msg);

    loop_side& loop() { return loop_side_; }

private:
    explicit client_impl(const std::weak_ptr<utils::event_loop>& loop);
    ~client_impl() override = default;

    void start_loop_thread();
    void end_loop();
    void stop() noexcept;

    const std::string prefix_;
    const std::weak_ptr<utils::event_loop> loop_;
    task_bridge bridge_;
    app_side app_side_;
    loop_side loop_side_;
    bus_impl bus_{app_side_, loop_side_.bus()};

    loop_task<client_impl, &client_impl::end_loop> last_task_{*this};
    milestone loop_ended_;
    std::thread loop_thread_;
    const pid_t owner_; ///< the process whose loop thread this is; a forked child has none
};

} // namespace tarn
