/// The inside of the fake bus: the connection, the standing operations and the one-shot ones, and
/// what a test may ask of them.
#include "fake_bus_core.h"
#include "fake_bus_reports.h"
#include "transfer.h"

#include "tarn/error.h"
#include "tarn/link.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tarn::testing {

using misc::aggregate_adapter;
using kind = standing::kind;

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

bool fake_bus::core::close() noexcept {
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
    return !all.empty() || !operations.empty();
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

} // namespace tarn::testing
