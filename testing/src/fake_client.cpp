/// The fake client's calls and published objects, and its public face.
#include "tarn/testing/fake_client.h"

#include "client/all_steps.h"
#include "fake_bus_reports.h"
#include "fake_core.h"
#include "transfer.h"

#include "tarn/error.h"
#include "tarn/link.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace tarn::testing {

using misc::aggregate_adapter;

namespace {

bool is_storable(const client::method_policy& policy) {
    try {
        for (const auto& [name, type] : policy) {
            blob::utils::to_blobmsg_type(type);
        }
        return true;
    } catch (const std::logic_error&) {
        return false;
    }
}

} // namespace

// --- calls ---

void fake_client::core::script(const std::string& path, const std::string& method,
                               responder answer) {
    // What it replaces is destroyed outside the lock, as it may own an exchange context.
    const guard locked(lock_);
    script_[{path, method}].always.swap(answer);
}

void fake_client::core::script_once(const std::string& path, const std::string& method,
                                    outcome what) {
    const guard locked(lock_);
    script_[{path, method}].next.push_back(std::move(what));
}

/// The path that a call of `path` reaches: of several that a pattern matches the last one. A script
/// of the pattern itself goes before.
std::string fake_client::core::reached_path(const std::string& path) const {
    const guard locked(lock_);
    const bool is_pattern = !path.empty() && path.back() == '*';
    const auto is_scripted = [&](const auto& each) {
        return each.first.first == path;
    };
    if (!is_pattern || std::any_of(script_.begin(), script_.end(), is_scripted)) {
        return path;
    }
    std::string last;
    const auto consider = [&](const std::string& there) {
        if (matches(path, there)) {
            last = std::max(last, there);
        }
    };
    for (const auto& each : script_) {
        if (is_path(each.first.first)) {
            consider(each.first.first);
        }
    }
    for (const auto& each : objects_) {
        consider(each.first);
    }
    return last.empty() ? path : last;
}

std::optional<outcome> fake_client::core::decide(const call& made) {
    responder answer;
    {
        const guard locked(lock_);
        const auto found = script_.find({made.path, made.method});
        if (found != script_.end() && !found->second.next.empty()) {
            outcome next = std::move(found->second.next.front());
            found->second.next.pop_front();
            return next;
        }
        if (found != script_.end() && found->second.always) {
            answer = found->second.always;
        } else if (objects_.count(made.path) != 0) {
            return std::nullopt;
        }
        if (!answer) {
            const bool is_known =
                std::any_of(script_.begin(), script_.end(),
                            [&](const auto& each) { return each.first.first == made.path; });
            return outcome::failure(is_known ? error::msg::method_not_found
                                             : error::msg::not_found);
        }
    }
    return answer(made.args);
}

/// Ends a call before it begins.
utils::link fake_client::core::refuse(const result_handler& handler, const std::error_code& code) {
    completion_handler told;
    if (handler) {
        told = [handler](const std::error_code& reason) {
            handler({}, reason);
        };
    }
    return report_known(told, code);
}

utils::link fake_client::core::invoke(call made, const result_handler& handler) {
    std::error_code refused;
    {
        const guard locked(lock_);
        refused = cancelling_ ? make_error_code(error::generic::aborted)
                  : has_nul(made.path) || has_nul(made.method)
                      ? make_error_code(error::msg::invalid_argument)
                      : std::error_code();
        if (refused) {
            made_.push_back(made);
        }
    }
    if (refused) {
        return refuse(handler, refused);
    }
    const auto timeout = made.timeout;
    const auto pending = std::make_shared<waiting_call>(made, handler);
    if (timeout != std::chrono::seconds::zero()) {
        auto timer = get_loop()->create_timer();
        timer->set_timeout(timeout);
        timer->set_handler([watched = std::weak_ptr<waiting_call>(pending)] {
            if (const auto expired = watched.lock()) {
                expired->tell({}, error::msg::timeout);
            }
        });
        pending->limit_with(std::move(timer));
    }
    const guard locked(lock_);
    made_.push_back(std::move(made));
    calls_.remove_if([](const auto& old) { return !old->active(); });
    calls_.push_back(pending);
    post_locked([this, pending] { deliver(pending); });
    return aggregate_adapter<utils::link>(pending);
}

void fake_client::core::deliver(const std::shared_ptr<waiting_call>& pending) {
    if (!pending->active()) {
        return;
    }
    if (get_state() != state::connected) {
        return pending->tell({}, error::msg::connection_failed);
    }
    call arrived = pending->made;
    if (arrived.path.empty()) {
        return pending->tell({}, error::msg::invalid_argument);
    }
    arrived.path = reached_path(arrived.path);
    try {
        arrived.args = transferred(arrived.args);
    } catch (const std::exception&) {
        return pending->tell({}, error::msg::parse_error);
    }
    const std::optional<outcome> decided = decide(arrived);
    if (!decided) {
        const auto served = std::make_shared<served_call>();
        serve(arrived, served, [pending, served] {
            pending->tell({served->replies.begin(), served->replies.end()}, *served->status);
        });
        return;
    }
    if (decided->never) {
        return;
    }
    std::list<blob::attr> replies;
    for (const auto& reply : decided->replies) {
        try {
            replies.emplace_back(transferred(reply));
        } catch (const std::exception&) {
            throw std::logic_error("tarn::testing::fake_client: a scripted reply of " +
                                   arrived.path + '.' + arrived.method + " has no encoding");
        }
    }
    pending->tell(replies, transferred(decided->status));
}

void fake_client::core::end_calls(const std::error_code& code) {
    std::list<std::shared_ptr<waiting_call>> ended;
    {
        const guard locked(lock_);
        ended.swap(calls_);
    }
    all_steps steps;
    for (const auto& each : ended) {
        steps.run([&] { each->tell({}, code); });
    }
    steps.pass_on();
}

// --- published objects ---

utils::link fake_client::core::add_object(const std::string& name, const method_map& methods,
                                          const completion_handler& handler) {
    std::error_code code = error::msg::success;
    std::error_code known; // without the bus
    {
        const guard locked(lock_);
        const bool storable = std::all_of(methods.begin(), methods.end(), [](const auto& each) {
            return is_storable(each.second.second);
        });
        if (cancelling_) {
            known = error::generic::aborted;
        } else if (has_nul(name) || has_nul(methods) || objects_.count(name) != 0) {
            known = error::msg::invalid_argument;
        } else if (state_ != state::connected) {
            code = error::msg::connection_failed;
        } else if (!storable || rest_->is_taken(name)) {
            code = error::msg::invalid_argument;
        } else if (refusal_) {
            code = refusal_;
        } else {
            objects_.emplace(name, methods);
            rest_->published(name, methods);
        }
    }
    return known ? report_known(handler, known) : report(handler, code);
}

utils::link fake_client::core::del_object(const std::string& name,
                                          const completion_handler& handler) {
    std::error_code known;
    method_map forgotten; // destroyed outside the lock
    {
        const guard locked(lock_);
        const auto found = objects_.find(name);
        if (cancelling_) {
            known = error::generic::aborted;
        } else if (found == objects_.end()) {
            known = error::msg::not_found;
        } else {
            forgotten.swap(found->second);
            objects_.erase(found);
            rest_->withdrawn(name);
        }
    }
    return known ? report_known(handler, known) : report(handler, error::msg::success);
}

void fake_client::core::refuse_objects(const std::error_code& status) {
    const guard locked(lock_);
    refusal_ = status;
}

/// One call being served. Its last owner completes it.
class fake_client::core::exchange final : public client::exchange_ctx {
public:
    exchange(std::shared_ptr<core> owner, std::uint64_t connection,
             std::shared_ptr<served_call> served, std::function<void()> completed,
             blob::table&& arguments)
        : client::exchange_ctx(std::move(arguments))
        , owner_(std::move(owner))
        , connection_(connection)
        , served_(std::move(served))
        , completed_(std::move(completed)) {}
    ~exchange() override { exchange::respond(error::msg::success); }

    bool expired() const override {
        const guard locked(owner_->lock_);
        return !is_open();
    }

    utils::link send(blob::table data, const completion_handler& handler) override {
        std::error_code code = error::msg::success;
        try {
            blob::table arrived = transferred(data);
            const guard locked(owner_->lock_);
            if (is_open()) {
                served_->replies.push_back(std::move(arrived));
            } else {
                code = error::msg::connection_failed;
            }
        } catch (const std::exception&) {
            code = error::msg::parse_error;
        }
        return owner_->report(handler, code);
    }

    void respond(const std::error_code& status) override {
        const guard locked(owner_->lock_);
        if (!is_open()) {
            return;
        }
        served_->status = transferred(status);
        if (completed_) {
            owner_->post_locked(std::exchange(completed_, nullptr));
        }
    }

private:
    bool is_open() const { return !served_->status && owner_->connection_ == connection_; }

    const std::shared_ptr<core> owner_;
    const std::uint64_t connection_;
    const std::shared_ptr<served_call> served_;
    std::function<void()> completed_;
};

std::shared_ptr<client::exchange_ctx>
fake_client::core::make_context(const std::shared_ptr<served_call>& served, blob::table&& args) {
    std::uint64_t connection = 0;
    {
        const guard locked(lock_);
        connection = connection_;
    }
    return std::make_shared<exchange>(shared_from_this(), connection, served,
                                      std::function<void()>(), std::move(args));
}

/// Calls the handler of a published object. `completed` runs on the loop when the call is.
void fake_client::core::serve(const call& arrived, const std::shared_ptr<served_call>& served,
                              const std::function<void()>& completed) {
    std::error_code refusal;
    method_handler handler;
    method_policy policy;
    std::uint64_t connection = 0;
    {
        const guard locked(lock_);
        connection = connection_;
        const auto object = objects_.find(arrived.path);
        if (object == objects_.end()) {
            refusal = error::msg::not_found;
        } else {
            const auto method = object->second.find(arrived.method);
            if (method == object->second.end()) {
                refusal = error::msg::method_not_found;
            } else {
                std::tie(handler, policy) = method->second;
            }
        }
    }
    blob::table args;
    if (!refusal) {
        try {
            args = transferred(arrived.args, policy);
        } catch (const std::exception&) {
            refusal = error::msg::unknown_error; // what the bus makes of it
        }
    }
    const auto context = std::make_shared<exchange>(shared_from_this(), connection, served,
                                                    completed, std::move(args));
    if (refusal) {
        context->respond(refusal);
    } else if (handler) {
        handler(context);
    }
}

std::shared_ptr<const served_call> fake_client::core::call_published(const std::string& name,
                                                                     const std::string& method,
                                                                     const blob::table& args) {
    auto served = std::make_shared<served_call>();
    const call arriving{name, method, args, std::chrono::seconds(0)};
    const guard locked(lock_);
    post_locked([this, arriving, served] { serve(arriving, served, {}); });
    return served;
}

// --- what has happened ---

std::vector<std::string> fake_client::core::published() const {
    const guard locked(lock_);
    std::vector<std::string> names;
    for (const auto& each : objects_) {
        names.push_back(each.first);
    }
    return names;
}

std::vector<fake_client::call> fake_client::core::calls() const {
    const guard locked(lock_);
    return made_;
}

std::size_t fake_client::core::pending_calls() const {
    const guard locked(lock_);
    return static_cast<std::size_t>(std::count_if(calls_.begin(), calls_.end(),
                                                  [](const auto& each) { return each->active(); }));
}

std::vector<client::state> fake_client::core::states() const {
    const guard locked(lock_);
    return states_;
}

client::state fake_client::core::get_state() const {
    const guard locked(lock_);
    return state_;
}

// --- the public face ---

fake_client::fake_client(const std::shared_ptr<utils::event_loop>& loop)
    : core_(std::make_shared<core>(loop))
    , rest_(core_->rest()) {
    core_->rest()->set_context_maker(
        [weak = std::weak_ptr<core>(core_)](const std::shared_ptr<served_call>& served,
                                            blob::table&& args) {
            return weak.lock()->make_context(served, std::move(args));
        });
}

fake_client::~fake_client() {
    core_->close();
}

void fake_client::on(const std::string& path, const std::string& method, outcome what) {
    core_->script(path, method, [what = std::move(what)](const blob::table&) { return what; });
}

void fake_client::on(const std::string& path, const std::string& method, responder answer) {
    core_->script(path, method, std::move(answer));
}

void fake_client::once(const std::string& path, const std::string& method, outcome what) {
    core_->script_once(path, method, std::move(what));
}

void fake_client::set_bus(bus found) {
    core_->set_bus(found);
}

void fake_client::lose_connection() {
    core_->lose_connection();
}

std::vector<std::string> fake_client::published() const {
    return core_->published();
}

void fake_client::refuse_objects(const std::error_code& status) {
    core_->refuse_objects(status);
}

std::shared_ptr<const served_call> fake_client::call_published(const std::string& name,
                                                               const std::string& method,
                                                               const blob::table& args) {
    return core_->call_published(name, method, args);
}

std::vector<fake_client::call> fake_client::calls() const {
    return core_->calls();
}

std::size_t fake_client::pending_calls() const {
    return core_->pending_calls();
}

std::vector<client::state> fake_client::states() const {
    return core_->states();
}

utils::link fake_client::connect(const completion_handler& handler) {
    return core_->connect(handler);
}

utils::link fake_client::auto_connect(const backoff_function& backoff) {
    return core_->auto_connect(backoff);
}

utils::link fake_client::disconnect(const completion_handler& handler) {
    return core_->disconnect(handler);
}

utils::link fake_client::notify_on_state_change(const state_handler& handler) {
    return core_->notify_on_state_change(handler);
}

client::state fake_client::get_state() const {
    return core_->get_state();
}

bool fake_client::is_active() const {
    return get_state() == state::connected;
}

utils::link fake_client::invoke(const std::string& path, const std::string& method,
                                const blob::table& args, const result_handler& handler,
                                const std::chrono::seconds& timeout) {
    return core_->invoke({path, method, args, timeout}, handler);
}

utils::link fake_client::add_object(const std::string& name, const method_map& methods,
                                    const completion_handler& handler) {
    return core_->add_object(name, methods, handler);
}

utils::link fake_client::del_object(const std::string& name, bool /*stop_serving*/,
                                    const completion_handler& handler) {
    return core_->del_object(name, handler);
}

void fake_client::cancel() {
    core_->cancel();
}

std::weak_ptr<utils::event_loop> fake_client::get_event_loop() const {
    return core_->loop();
}

fake_bus& fake_client::get_bus() {
    return rest_;
}

} // namespace tarn::testing
