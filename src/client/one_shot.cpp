/// The steps of the operations of tarn::bus that have one outcome.
#include "client/one_shot.h"

#include "client/app_side.h"
#include "client/loop_bus.h"
#include "tarn/error.h"

#include <algorithm>
#include <utility>

namespace tarn {

void one_shot::release() {
    app_.give_up(*this);
}

void one_shot::complete() {
    app_.complete(*this);
}

void one_shot::complete_unreported() noexcept {
    app_.drop(*this);
}

// --- looking up ---

void look_up_operation::begin() {
    loop_.look_up(*this);
}

void look_up_operation::tell(const std::error_code& code) {
    if (const auto handler = std::exchange(handler_, nullptr)) {
        handler(code ? std::vector<bus::object_info>() : std::move(found), code);
    }
}

// --- waiting ---

wait_operation::wait_operation(app_side& app, loop_bus& loop, const std::vector<std::string>& all,
                               const bus::completion_handler& handler)
    : one_shot(app, loop)
    , handler_(handler) {
    for (const std::string& path : all) {
        present.emplace(path, 0);
    }
}

bool wait_operation::all_present() const noexcept {
    return std::all_of(present.begin(), present.end(),
                       [](const auto& entry) { return entry.second != 0; });
}

void wait_operation::begin() {
    loop_.add(*this);
}

void wait_operation::stop() {
    loop_.remove(*this);
}

void wait_operation::tell(const std::error_code& code) {
    if (const auto handler = std::exchange(handler_, nullptr)) {
        handler(code);
    }
}

// --- notifying ---

notify_operation::notify_operation(app_side& app, loop_bus& loop, const std::string& object,
                                   const std::string& called, const bus::table& content,
                                   bool awaits)
    : one_shot(app, loop)
    , name(object)
    , method(called)
    , awaits_answers(awaits)
    , data(content) {
    request.whole = this;
}

void notify_operation::begin() {
    loop_.notify(*this);
}

void notify_operation::stop() {
    loop_.stop(*this);
}

bus::notify_answer& notify_operation::answer_of(std::uint32_t subscriber) {
    for (std::size_t n = 0; n < answers_.size(); ++n) {
        if (subscribers_[n] == subscriber) {
            return answers_[n];
        }
    }
    subscribers_.resize(answers_.size()); // there is one more when memory ran out below
    subscribers_.push_back(subscriber);
    bus::notify_answer& added = answers_.emplace_back();
    added.status = error::msg::timeout; // until it answers
    return added;
}

void notify_operation::add_reply(std::uint32_t subscriber, std::list<blob::attr>& reply) {
    const std::lock_guard<std::mutex> guard(answers_lock_);
    auto& replies = answer_of(subscriber).replies;
    replies.splice(replies.end(), reply);
}

void notify_operation::set_status(std::uint32_t subscriber, const std::error_code& status) {
    const std::lock_guard<std::mutex> guard(answers_lock_);
    answer_of(subscriber).status = status;
}

void notify_operation::tell(const std::error_code& code) {
    if (const auto handler = std::exchange(handler_, nullptr)) {
        handler(code);
    }
    const auto handler = std::exchange(answers_handler_, nullptr);
    if (!handler) {
        return;
    }
    std::vector<bus::notify_answer> answers;
    if (!code || code == error::msg::timeout) {
        const std::lock_guard<std::mutex> guard(answers_lock_);
        answers.swap(answers_);
        subscribers_.clear();
    }
    handler(answers, code);
}

void notify_operation::drop_handler() noexcept {
    const auto handler = std::exchange(handler_, nullptr);
    const auto answers_handler = std::exchange(answers_handler_, nullptr);
}

void notify_operation::on_connection_end() {
    app_.end(*this, error::msg::connection_failed);
}

} // namespace tarn
