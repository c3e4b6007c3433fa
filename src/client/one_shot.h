/// The operations of tarn::bus that have one outcome.
#pragma once

#include "client/identity.h"
#include "client/list_entry.h"
#include "client/pending.h"
#include "client/request_table.h"
#include "client/task.h"
#include "counted.h"
#include "tarn/bus.h"
#include "tarn/error.h"

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

namespace tarn {

class app_side;
class loop_bus;

/// One operation, from the application's request to its handler. It is its own link.
class one_shot : public pending {
public:
    one_shot(app_side& app, loop_bus& loop)
        : app_(app)
        , loop_(loop) {}

    /// For the link: gives the operation up.
    void release() override;

    /// For the thread that has ended it: calls the handler and destroys it.
    virtual void tell(const std::error_code& code) = 0;
    /// For the thread that has ended it: destroys the handler.
    virtual void drop_handler() noexcept = 0;

    std::shared_ptr<utils::event_loop::timer> timer; ///< empty without a limit; as the handler
    /// Set when `done_task` is posted.
    std::error_code outcome = error::msg::success;

protected:
    /// On the loop thread: starts it, or ends it before its outcome is known.
    virtual void begin() = 0;
    virtual void stop() {}

    app_side& app_;
    loop_bus& loop_;

private:
    void complete();
    void complete_unreported() noexcept;

public:
    loop_task<one_shot, &one_shot::begin> begin_task{*this};
    loop_task<one_shot, &one_shot::stop> stop_task{*this};
    droppable_task<one_shot, &one_shot::complete, &one_shot::complete_unreported> done_task{*this};
};

/// The look-up of all objects of a pattern.
class look_up_operation final : public one_shot {
public:
    look_up_operation(app_side& app, loop_bus& loop, const std::string& paths,
                      const bus::objects_handler& handler)
        : one_shot(app, loop)
        , pattern(paths)
        , handler_(handler) {}

    void tell(const std::error_code& code) override;
    void drop_handler() noexcept override { handler_ = nullptr; }

    const std::string pattern;
    std::vector<bus::object_info> found; ///< filled by the loop thread

private:
    void begin() override;

    bus::objects_handler handler_;
};

/// Waits for objects to be there.
class wait_operation final : public one_shot {
public:
    wait_operation(app_side& app, loop_bus& loop, const std::vector<std::string>& all,
                   const bus::completion_handler& handler);

    void tell(const std::error_code& code) override;
    void drop_handler() noexcept override { handler_ = nullptr; }

    /// What is there, by path: the id, 0 for an object that is not. The loop thread only.
    std::map<std::string, std::uint32_t, std::less<>> present;
    bool all_present() const noexcept;
    /// What is looked up is newer than what libubus has kept meanwhile: all of that has to be
    /// handled before the two together say what is there.
    bool looking = false;
    connection_id looked_for_on = connection_id::none; ///< since it was restored there
    list_entry<wait_operation> place;

private:
    void begin() override;
    void stop() override;

    bus::completion_handler handler_;
};

/// A notification of the subscribers of one of our objects.
class notify_operation final : public one_shot, public bus_request {
public:
    notify_operation(app_side& app, loop_bus& loop, const std::string& object,
                     const std::string& called, const bus::table& content,
                     const bus::completion_handler& handler)
        : notify_operation(app, loop, object, called, content, false) {
        handler_ = handler;
    }
    notify_operation(app_side& app, loop_bus& loop, const std::string& object,
                     const std::string& called, const bus::table& content,
                     const bus::answers_handler& handler)
        : notify_operation(app, loop, object, called, content, true) {
        answers_handler_ = handler;
    }

    void tell(const std::error_code& code) override;
    void drop_handler() noexcept override;
    void on_connection_end() override;

    const std::string name;
    const std::string method;
    const bool awaits_answers;
    bus::table data; ///< the loop thread's

    /// libubus's record, from which the operation is found.
    struct record {
        ubus_notify_request native;
        notify_operation* whole;
    };
    record request{};
    static notify_operation& of(ubus_notify_request& native) noexcept {
        return *reinterpret_cast<record&>(native).whole;
    }
    connection_id carried_by = connection_id::none; ///< once libubus works on it

    /// What becomes of it with the last answer. The loop thread's.
    std::error_code result = error::msg::success;

    // Answers come on the loop thread while the time limit passes on the application's.
    /// Takes `reply`, one value, unless it throws.
    void add_reply(std::uint32_t subscriber, std::list<blob::attr>& reply);
    void set_status(std::uint32_t subscriber, const std::error_code& status);

private:
    notify_operation(app_side& app, loop_bus& loop, const std::string& object,
                     const std::string& called, const bus::table& content, bool awaits);

    void begin() override;
    void stop() override;

    bus::notify_answer& answer_of(std::uint32_t subscriber);

    bus::completion_handler handler_;
    bus::answers_handler answers_handler_;
    std::mutex answers_lock_;
    // One for each subscriber, of which libubus distinguishes a few. As the handler gets them, so
    // that reporting them needs no memory.
    std::vector<bus::notify_answer> answers_;
    std::vector<std::uint32_t> subscribers_; ///< in the same order; may be longer
};

} // namespace tarn
