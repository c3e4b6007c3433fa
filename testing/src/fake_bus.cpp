/// The fake bus: its objects, its standing operations and what they are notified of, and its public
/// face.
#include "tarn/testing/fake_bus.h"

#include "fake_bus_core.h"
#include "transfer.h"

#include "tarn/error.h"
#include "tarn/link.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tarn::testing {

using misc::aggregate_adapter;
using kind = standing::kind;

namespace {

bool has_nul(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

bool matches(const std::string& pattern, const std::string& text) {
    return !pattern.empty() && pattern.back() == '*'
               ? text.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0
               : text == pattern;
}

/// Whether it is the path of one object, as subscribe() and wait_for() take it.
bool is_path(const std::string& path) {
    return !path.empty() && path.back() != '*' && !has_nul(path);
}

bool is_pattern(const std::string& pattern) {
    return !pattern.empty() && !has_nul(pattern);
}

void report_presence(standing& to, const bus::object_info& object, bool is_there) {
    const auto what = is_there ? bus::presence::appeared : bus::presence::gone;
    to.add_change(object.path, is_there ? std::optional(object.id) : std::nullopt,
                  [what, path = object.path, id = object.id](const standing_handlers& handlers) {
                      if (handlers.presence) {
                          handlers.presence(what, path, id);
                      }
                  });
}

standing::report change_report(bus::subscription what, const std::error_code& reason) {
    return [what, reason](const standing_handlers& handlers) {
        if (handlers.change) {
            handlers.change(what, reason);
        }
    };
}

void report_registration(standing& to, const std::error_code& code) {
    to.in_place = !code;
    to.add([code](const standing_handlers& handlers) {
        if (handlers.how.on_registered) {
            handlers.how.on_registered(code);
        }
    });
}

} // namespace

fake_bus::core::core(std::weak_ptr<utils::event_loop> loop)
    : loop_(std::move(loop)) {}

/// With the lock held, as all that is called ..._locked.
void fake_bus::core::post_locked(std::function<void()> task) {
    existing_loop(loop_)->post([self = shared_from_this(), life = life_, task = std::move(task)] {
        {
            const guard locked(self->lock_);
            if (self->life_ != life) {
                return; // cancelled since
            }
        }
        task();
    });
}

std::error_code fake_bus::core::refusal(operation what) const {
    const auto found = refusals_.find(what);
    return found != refusals_.end() && found->second ? found->second
                                                     : make_error_code(error::msg::success);
}

const bus::object_info* fake_bus::core::find(const std::string& path) const {
    for (const auto* all : {&own_, &others_}) {
        const auto found = all->find(path);
        if (found != all->end()) {
            return &found->second;
        }
    }
    return nullptr;
}

std::map<std::string, bus::object_info> fake_bus::core::all_objects() const {
    auto all = own_;
    all.insert(others_.begin(), others_.end());
    return all;
}

std::vector<fake_bus::core::standing_ptr> fake_bus::core::active() const {
    std::vector<standing_ptr> found;
    std::copy_if(standing_.begin(), standing_.end(), std::back_inserter(found),
                 [](const standing_ptr& each) { return each->active(); });
    return found;
}

std::vector<fake_bus::core::standing_ptr> fake_bus::core::in_place(kind sort) const {
    std::vector<standing_ptr> found = active();
    found.erase(
        std::remove_if(found.begin(), found.end(),
                       [sort](const auto& each) { return each->sort != sort || !each->in_place; }),
        found.end());
    return found;
}

// --- the connection ---

void fake_bus::core::connection_made() {
    const guard locked(lock_);
    connected_ = true;
    for (const auto& each : active()) {
        restore(*each);
    }
    end_waits();
}

void fake_bus::core::connection_ended() {
    const guard locked(lock_);
    connected_ = false;
    own_.clear();
    for (const auto& each : active()) {
        suspend(*each);
    }
    for (const auto& each : asked_) {
        end_locked(each, error::msg::connection_failed);
    }
    asked_.clear();
}

/// An operation that starts on a connection, or a connection that starts.
void fake_bus::core::restore(standing& each) {
    switch (each.sort) {
    case kind::listener:
        report_registration(each, each.subject.empty()    ? error::msg::permission_denied
                                  : has_nul(each.subject) ? error::msg::invalid_argument
                                                          : refusal(operation::listen));
        break;
    case kind::follower:
        restore_follower(each);
        break;
    case kind::subscription:
        if (is_path(each.subject)) {
            if (find(each.subject) != nullptr) {
                subscribe_now(each);
            }
            report_registration(each, refusal(operation::follow));
        }
        break;
    case kind::publisher:
        follow_subscribers(each);
        break;
    case kind::monitor:
        report_registration(each, refusal(operation::monitor));
        break;
    }
}

void fake_bus::core::restore_follower(standing& each) {
    const std::error_code refused = is_pattern(each.subject)
                                        ? refusal(operation::follow)
                                        : make_error_code(error::msg::invalid_argument);
    if (!refused) {
        for (const auto& [path, object] : all_objects()) {
            if (matches(each.subject, path)) {
                report_presence(each, object, true);
            }
        }
    }
    report_registration(each, refused);
}

/// The connection has ended.
void fake_bus::core::suspend(standing& each) {
    each.in_place = false;
    const auto present = each.present();
    if (each.sort == kind::follower) {
        for (const auto& [path, id] : present) {
            report_presence(each, {path, id, 0, {}}, false);
        }
    } else if (each.sort == kind::subscription && !present.empty()) {
        each.add_change({}, std::nullopt,
                        change_report(bus::subscription::lost, error::msg::connection_failed));
    } else if (each.sort == kind::publisher) {
        follow_subscribers(each);
    }
}

void fake_bus::core::cancel() {
    std::vector<standing_ptr> all;
    waiting_list ended;
    {
        const guard locked(lock_);
        ++life_; // what is queued on the loop becomes a no-op
        all = active();
        ended.swap(operations_);
        asked_.clear();
        waits_.clear();
    }
    for (const auto& each : all) {
        each->drop_limited();
    }
    for (const auto& each : ended) {
        each->tell(error::generic::aborted);
    }
}

void fake_bus::core::close() noexcept {
    std::list<standing_ptr> all; // destroyed outside the lock
    waiting_list operations;
    {
        const guard locked(lock_);
        ++life_;
        connected_ = false;
        all.swap(standing_);
        operations.swap(operations_);
        asked_.clear();
        waits_.clear();
    }
    for (const auto& each : all) {
        each->release();
    }
    for (const auto& each : operations) {
        each->release();
    }
}

// --- objects ---

void fake_bus::core::published(const std::string& name, const client::method_map& methods) {
    const guard locked(lock_);
    object_info object{name, ++last_id_, last_id_, {}};
    for (const auto& [method, served] : methods) {
        method_info described{method, {}};
        for (const auto& [field, type] : served.second) {
            described.fields.push_back(
                {field, static_cast<field_type>(blob::utils::to_blobmsg_type(type))});
        }
        object.methods.push_back(std::move(described));
    }
    own_[name] = object;
    appeared(object);
}

void fake_bus::core::withdrawn(const std::string& name) {
    const guard locked(lock_);
    const auto found = own_.find(name);
    if (found == own_.end()) {
        return;
    }
    const object_info object = found->second;
    own_.erase(found);
    gone(object);
}

bool fake_bus::core::is_taken(const std::string& name) const {
    const guard locked(lock_);
    return others_.count(name) != 0;
}

std::uint32_t fake_bus::core::add_object(const std::string& path,
                                         std::vector<method_info> methods) {
    remove_object(path);
    const guard locked(lock_);
    const object_info object{path, ++last_id_, last_id_, std::move(methods)};
    others_[path] = object;
    appeared(object);
    return object.id;
}

void fake_bus::core::remove_object(const std::string& path) {
    const guard locked(lock_);
    const auto found = others_.find(path);
    if (found == others_.end()) {
        return;
    }
    const object_info object = found->second;
    others_.erase(found);
    gone(object);
}

void fake_bus::core::appeared(const object_info& object) {
    emit_locked("ubus.object.add", {{"id", object.id}, {"path", object.path}});
    for (const auto& each : in_place(kind::follower)) {
        if (matches(each->subject, object.path)) {
            report_presence(*each, object, true);
        }
    }
    for (const auto& each : in_place(kind::subscription)) {
        if (each->subject == object.path) {
            subscribe_now(*each);
        }
    }
    for (const auto& each : active()) {
        follow_subscribers(*each);
    }
    end_waits();
}

void fake_bus::core::gone(const object_info& object) {
    emit_locked("ubus.object.remove", {{"id", object.id}, {"path", object.path}});
    for (const auto& each : active()) {
        if (each->sort == kind::follower && each->present().count(object.path) != 0) {
            report_presence(*each, object, false);
        } else if (each->sort == kind::subscription && each->subject == object.path &&
                   !each->present().empty()) {
            each->add_change({}, std::nullopt,
                             change_report(bus::subscription::lost, error::msg::not_found));
        }
        follow_subscribers(*each);
    }
}

utils::link fake_bus::core::objects(const std::string& pattern, const objects_handler& handler) {
    std::error_code code = error::msg::success;
    std::vector<object_info> found;
    {
        const guard locked(lock_);
        look_ups_.push_back(pattern);
        code = !is_pattern(pattern) ? make_error_code(error::msg::invalid_argument)
               : !connected_        ? make_error_code(error::msg::connection_failed)
                                    : refusal(operation::objects);
        if (!code) {
            for (const auto& [path, object] : all_objects()) {
                if (matches(pattern, path)) {
                    found.push_back(object);
                }
            }
        }
    }
    if (!handler) {
        return {};
    }
    return report(
        [handler, found = std::move(found)](const std::error_code& outcome) {
            handler(outcome ? std::vector<object_info>() : found, outcome);
        },
        code);
}

// --- outcomes ---

std::shared_ptr<waiting> fake_bus::core::start_locked(const completion_handler& handler) {
    operations_.remove_if([](const auto& old) { return !old->active(); });
    asked_.remove_if([](const auto& old) { return !old->active(); });
    waits_.remove_if([](const wait& old) { return !old.operation->active(); });
    return operations_.emplace_back(std::make_shared<waiting>(handler));
}

void fake_bus::core::end_locked(const std::shared_ptr<waiting>& operation,
                                const std::error_code& code) {
    post_locked([operation, code] { operation->tell(code); });
}

void fake_bus::core::limit_locked(const std::shared_ptr<waiting>& operation,
                                  const std::chrono::seconds& limit) {
    if (limit == std::chrono::seconds::zero()) {
        return;
    }
    auto timer = existing_loop(loop_)->create_timer();
    timer->set_timeout(limit);
    timer->set_handler([weak = std::weak_ptr<waiting>(operation)] {
        if (const auto expired = weak.lock()) {
            expired->tell(error::msg::timeout);
        }
    });
    operation->limit_with(std::move(timer));
}

utils::link fake_bus::core::report(const completion_handler& handler, const std::error_code& code) {
    if (!handler) {
        return {};
    }
    const guard locked(lock_);
    const auto operation = start_locked(handler);
    end_locked(operation, code);
    return aggregate_adapter<utils::link>(operation);
}

utils::link fake_bus::core::wait_for(const std::vector<std::string>& paths,
                                     const std::chrono::seconds& limit,
                                     const completion_handler& handler) {
    const guard locked(lock_);
    const auto operation = start_locked(handler);
    if (!std::all_of(paths.begin(), paths.end(), is_path)) {
        end_locked(operation, error::msg::invalid_argument);
    } else if (paths.empty()) {
        end_locked(operation, error::msg::success);
    } else {
        limit_locked(operation, limit);
        waits_.push_back({paths, operation});
        end_waits();
    }
    return aggregate_adapter<utils::link>(operation);
}

void fake_bus::core::end_waits() {
    if (!connected_) {
        return;
    }
    waits_.remove_if([this](const wait& each) {
        const bool all_there =
            std::all_of(each.paths.begin(), each.paths.end(),
                        [this](const std::string& path) { return find(path) != nullptr; });
        const std::error_code refused = refusal(operation::follow);
        if (!all_there && !refused) {
            return false;
        }
        end_locked(each.operation, all_there ? make_error_code(error::msg::success) : refused);
        return true;
    });
}

// --- events ---

void fake_bus::core::emit_locked(const std::string& id, const table& data) {
    const auto shared = std::make_shared<const table>(data);
    for (const auto& each : in_place(kind::listener)) {
        if (matches(each->subject, id)) {
            each->add_limited([id, shared](const standing_handlers& handlers) {
                if (handlers.event) {
                    handlers.event(id, *shared);
                }
            });
        }
    }
}

void fake_bus::core::emit(const std::string& id, const table& data) {
    const table arrived = transferred_for_test(data, "the event " + id);
    const guard locked(lock_);
    emit_locked(id, arrived);
}

std::error_code fake_bus::core::check_event(const std::string& id, const table& data) const {
    try {
        transferred(data);
    } catch (const std::exception&) {
        return error::msg::parse_error;
    }
    return has_nul(id)                      ? make_error_code(error::msg::invalid_argument)
           : !connected_                    ? make_error_code(error::msg::connection_failed)
           : id.compare(0, 5, "ubus.") == 0 ? make_error_code(error::msg::permission_denied)
                                            : refusal(operation::send_event);
}

utils::link fake_bus::core::send_event(const std::string& id, const table& data,
                                       const completion_handler& handler) {
    std::error_code code;
    {
        const guard locked(lock_);
        sent_.push_back({id, data});
        code = check_event(id, data);
    }
    return report(handler, code);
}

// --- subscriptions ---

void fake_bus::core::subscribe_now(standing& each) {
    const std::error_code refused = own_.count(each.subject) != 0
                                        ? make_error_code(error::msg::invalid_argument)
                                        : refusal(operation::subscribe);
    if (refused) {
        each.add(change_report(bus::subscription::refused, refused));
    } else {
        each.add_change({}, find(each.subject)->id,
                        change_report(bus::subscription::subscribed, error::msg::success));
    }
}

std::vector<std::shared_ptr<const served_call>>
fake_bus::core::notify_from(const std::string& path, const std::string& method, const table& data,
                            bool asked) {
    const table arrived = transferred_for_test(data, "the notification " + path + '.' + method);
    std::vector<standing_ptr> subscribers;
    {
        const guard locked(lock_);
        for (const auto& each : active()) {
            if (each->sort == kind::subscription && each->subject == path &&
                !each->present().empty()) {
                subscribers.push_back(each);
            }
        }
    }
    std::vector<std::shared_ptr<const served_call>> questions;
    // Without the lock: contexts take the client's.
    for (const auto& each : subscribers) {
        const auto served = std::make_shared<served_call>();
        const auto context = make_context_(served, table(arrived));
        if (!asked || !each->answers) {
            context->respond(error::msg::success);
        }
        questions.push_back(served);
        each->add_limited(
            [method, context](const standing_handlers& handlers) {
                const auto status = handlers.notification
                                        ? handlers.notification(method, context)
                                        : std::optional<std::error_code>(error::msg::success);
                if (status) {
                    context->respond(*status);
                }
            },
            [context] { context->respond(error::msg::unknown_error); });
    }
    return questions;
}

// --- the publisher's side ---

void fake_bus::core::follow_subscribers(standing& each) {
    if (each.sort != kind::publisher) {
        return;
    }
    const auto count = subscribers_.find(each.subject);
    const bool now = connected_ && own_.count(each.subject) != 0 && count != subscribers_.end() &&
                     count->second != 0;
    if (now == each.present().empty()) {
        each.add_change({}, now ? std::optional(0U) : std::nullopt,
                        [now](const standing_handlers& handlers) {
                            if (handlers.subscribers) {
                                handlers.subscribers(now);
                            }
                        });
    }
}

void fake_bus::core::set_subscribers(const std::string& name, std::size_t count) {
    const guard locked(lock_);
    subscribers_[name] = count;
    for (const auto& each : active()) {
        follow_subscribers(*each);
    }
}

void fake_bus::core::answer_notification(const std::string& name, const std::string& method,
                                         std::vector<outcome> answers) {
    const guard locked(lock_);
    answers_[{name, method}] = std::move(answers);
}

/// What the subscribers answer; `all` is whether none of them keeps the notification waiting.
std::vector<bus::notify_answer> fake_bus::core::answers_to(const notification& sent,
                                                           bool& all) const {
    std::vector<notify_answer> arrived;
    all = true;
    const auto scripted = answers_.find({sent.name, sent.method});
    if (scripted == answers_.end()) {
        const auto count = subscribers_.find(sent.name);
        arrived.resize(count != subscribers_.end() ? count->second : 0, {{}, error::msg::success});
        return arrived;
    }
    for (const outcome& each : scripted->second) {
        notify_answer answer{
            {}, each.never ? make_error_code(error::msg::timeout) : transferred(each.status)};
        for (const auto& reply : each.replies) {
            answer.replies.emplace_back(
                transferred_for_test(reply, "an answer to " + sent.name + '.' + sent.method));
        }
        all = all && !each.never;
        arrived.push_back(std::move(answer));
    }
    return arrived;
}

utils::link fake_bus::core::notify(notification sent, const answers_handler& handler) {
    const guard locked(lock_);
    notified_.push_back(sent);
    std::error_code code = error::msg::success;
    try {
        transferred(sent.data);
    } catch (const std::exception&) {
        code = error::msg::parse_error;
    }
    if (!code) {
        code = has_nul(sent.method)         ? make_error_code(error::msg::invalid_argument)
               : !connected_                ? make_error_code(error::msg::connection_failed)
               : own_.count(sent.name) == 0 ? make_error_code(error::msg::not_found)
                                            : make_error_code(error::msg::success);
    }
    bool all = true;
    std::vector<notify_answer> answers;
    if (!code && sent.limit) {
        answers = answers_to(sent, all);
    }
    const auto operation =
        start_locked([handler, answers = std::move(answers)](const std::error_code& outcome) {
            if (handler) {
                const bool is_complete = !outcome || outcome == error::msg::timeout;
                handler(is_complete ? answers : std::vector<notify_answer>(), outcome);
            }
        });
    if (all) {
        end_locked(operation, code);
    } else {
        limit_locked(operation, *sent.limit);
        asked_.push_back(operation);
    }
    return aggregate_adapter<utils::link>(operation);
}

// --- the monitor ---

void fake_bus::core::pass(const message& passed) {
    const auto shared = std::make_shared<const message>(passed);
    const guard locked(lock_);
    for (const auto& each : in_place(kind::monitor)) {
        each->add_limited([shared](const standing_handlers& handlers) {
            if (handlers.message) {
                handlers.message(*shared);
            }
        });
    }
}

// --- standing operations, refusals and records ---

utils::link fake_bus::core::stand(kind sort, const std::string& subject, bool answers,
                                  standing_handlers handlers) {
    const auto started =
        std::make_shared<standing>(loop_, sort, subject, answers, std::move(handlers));
    const guard locked(lock_);
    standing_.remove_if([](const auto& old) { return !old->active(); });
    standing_.push_back(started);
    if (sort == kind::subscription && !is_path(subject)) {
        started->add(change_report(bus::subscription::refused, error::msg::invalid_argument));
    } else if (connected_) {
        restore(*started);
    }
    return aggregate_adapter<utils::link>(started);
}

void fake_bus::core::refuse(operation what, const std::error_code& status) {
    const guard locked(lock_);
    refusals_[what] = status;
}

void fake_bus::core::set_stats(const tarn::stats& counted) {
    const guard locked(lock_);
    stats_ = counted;
}

std::vector<fake_bus::sent_event> fake_bus::core::sent_events() const {
    const guard locked(lock_);
    return sent_;
}

std::vector<fake_bus::notification> fake_bus::core::notifications() const {
    const guard locked(lock_);
    return notified_;
}

std::vector<std::string> fake_bus::core::subjects(kind sort) const {
    const guard locked(lock_);
    std::vector<std::string> found;
    for (const auto& each : active()) {
        if (each->sort == sort) {
            found.push_back(each->subject);
        }
    }
    return found;
}

std::vector<std::string> fake_bus::core::subscribed() const {
    const guard locked(lock_);
    std::vector<std::string> found;
    for (const auto& each : active()) {
        if (each->sort == kind::subscription && !each->present().empty()) {
            found.push_back(each->subject);
        }
    }
    return found;
}

std::vector<std::string> fake_bus::core::look_ups() const {
    const guard locked(lock_);
    return look_ups_;
}

std::size_t fake_bus::core::pending_waits() const {
    const guard locked(lock_);
    return static_cast<std::size_t>(std::count_if(
        waits_.begin(), waits_.end(), [](const wait& each) { return each.operation->active(); }));
}

tarn::stats fake_bus::core::stats() const {
    const guard locked(lock_);
    return stats_;
}

// --- the public face ---

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
