/// The public face of the fake bus.
#include "tarn/testing/fake_bus.h"

#include "fake_bus_core.h"

#include <utility>

namespace tarn::testing {

using kind = standing::kind;

fake_bus::fake_bus(std::shared_ptr<core> shared)
    : core_(std::move(shared)) {}

fake_bus::~fake_bus() = default;

void fake_bus::emit(const std::string& id, const table& data) {
    core_->emit(id, data);
}

std::vector<fake_bus::sent_event> fake_bus::sent_events() const {
    return core_->sent_events();
}

std::uint32_t fake_bus::add_object(const std::string& path, std::vector<method_info> methods) {
    return core_->add_object(path, std::move(methods));
}

void fake_bus::remove_object(const std::string& path) {
    core_->remove_object(path);
}

void fake_bus::notify_from(const std::string& path, const std::string& method, const table& data) {
    core_->notify_from(path, method, data, false);
}

std::vector<std::shared_ptr<const served_call>>
fake_bus::ask_from(const std::string& path, const std::string& method, const table& data) {
    return core_->notify_from(path, method, data, true);
}

void fake_bus::set_subscribers(const std::string& name, std::size_t count) {
    core_->set_subscribers(name, count);
}

void fake_bus::answer_notification(const std::string& name, const std::string& method,
                                   std::vector<outcome> answers) {
    core_->answer_notification(name, method, std::move(answers));
}

std::vector<fake_bus::notification> fake_bus::notifications() const {
    return core_->notifications();
}

void fake_bus::pass(const message& passed) {
    core_->pass(passed);
}

void fake_bus::refuse(operation what, const std::error_code& status) {
    core_->refuse(what, status);
}

std::vector<std::string> fake_bus::listening() const {
    return core_->subjects(kind::listener);
}

std::vector<std::string> fake_bus::following() const {
    return core_->subjects(kind::follower);
}

std::vector<std::string> fake_bus::subscribed() const {
    return core_->subscribed();
}

std::vector<std::string> fake_bus::following_subscribers() const {
    return core_->subjects(kind::publisher);
}

std::size_t fake_bus::monitors() const {
    return core_->subjects(kind::monitor).size();
}

std::vector<std::string> fake_bus::look_ups() const {
    return core_->look_ups();
}

std::size_t fake_bus::pending_waits() const {
    return core_->pending_waits();
}

void fake_bus::set_stats(const tarn::stats& counted) {
    core_->set_stats(counted);
}

utils::link fake_bus::listen(const std::string& pattern, const event_handler& handler,
                             const options& how) {
    standing_handlers handlers{how};
    handlers.event = handler;
    return core_->stand(kind::listener, pattern, false, std::move(handlers));
}

utils::link fake_bus::send_event(const std::string& id, const table& data,
                                 const completion_handler& handler) {
    return core_->send_event(id, data, handler);
}

utils::link fake_bus::objects(const std::string& pattern, const objects_handler& handler) {
    return core_->objects(pattern, handler);
}

utils::link fake_bus::wait_for(const std::vector<std::string>& paths,
                               const std::chrono::seconds& limit,
                               const completion_handler& handler) {
    return core_->wait_for(paths, limit, handler);
}

utils::link fake_bus::on_object(const std::string& pattern, const presence_handler& handler,
                                const options& how) {
    standing_handlers handlers{how};
    handlers.presence = handler;
    return core_->stand(kind::follower, pattern, false, std::move(handlers));
}

utils::link fake_bus::subscribe(const std::string& path, const notification_handler& handler,
                                const subscription_handler& on_change,
                                const subscribe_options& how) {
    standing_handlers handlers{how};
    handlers.notification = handler;
    handlers.change = on_change;
    return core_->stand(kind::subscription, path, how.answers, std::move(handlers));
}

utils::link fake_bus::notify(const std::string& name, const std::string& method, const table& data,
                             const completion_handler& handler) {
    const auto tell = [handler](const std::vector<notify_answer>&, const std::error_code& code) {
        handler(code);
    };
    return core_->notify({name, method, data, std::nullopt},
                         handler ? answers_handler(tell) : answers_handler());
}

utils::link fake_bus::notify(const std::string& name, const std::string& method, const table& data,
                             const std::chrono::seconds& limit, const answers_handler& handler) {
    return core_->notify({name, method, data, limit}, handler);
}

utils::link fake_bus::on_subscribers(const std::string& name, const subscribers_handler& handler) {
    standing_handlers handlers;
    handlers.subscribers = handler;
    return core_->stand(kind::publisher, name, false, std::move(handlers));
}

utils::link fake_bus::monitor(const message_handler& handler, const options& how) {
    standing_handlers handlers{how};
    handlers.message = handler;
    return core_->stand(kind::monitor, {}, false, std::move(handlers));
}

tarn::stats fake_bus::stats() const {
    return core_->stats();
}

} // namespace tarn::testing
