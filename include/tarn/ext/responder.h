/// tarn::ext::responder: the answer to one served call, given when it is there and from any thread.
#pragma once

#include "tarn/blob/attr.h"
#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/ext/convert.h"
#include "tarn/ext/result.h"

#include <atomic>
#include <memory>
#include <system_error>
#include <type_traits>
#include <utility>

namespace tarn::ext {

namespace detail {

/// The table that answers with `value`: a value that is a table itself, no fields for one that is
/// absent, else one field called "result".
template <class T>
blob::table answer_of(const T& value) {
    blob::attr data;
    if constexpr (is_optional<T>) {
        if (value) {
            return answer_of(*value);
        }
    } else {
        data = to_attr(value);
    }
    if (data.type() == typeid(blob::table)) {
        return std::move(data.get<blob::table>());
    }
    blob::table fields;
    if (data.has_value()) {
        fields.emplace("result", std::move(data));
    }
    return fields;
}

/// One served call that is completed once: by the first answer, or with unknown_error when the
/// last owner goes. All functions: any thread.
class pending_answer {
public:
    explicit pending_answer(std::shared_ptr<client::exchange_ctx> call)
        : call_(std::move(call)) {}
    pending_answer(const pending_answer&) = delete;
    pending_answer& operator=(const pending_answer&) = delete;
    ~pending_answer() {
        try {
            respond(error::msg::unknown_error);
        } catch (...) { // NOLINT(bugprone-empty-catch): the context answers in its own way then
        }
    }

    bool expired() const { return settled_ || call_->expired(); }

    /// Answers without data.
    void respond(const std::error_code& status) {
        if (!settled_.exchange(true)) {
            call_->respond(status);
        }
    }

    /// Answers with `data`. The call is completed when the reply has been handed to the bus, since
    /// a reply that cannot be sent, being too long, must not be taken for an empty one.
    void send(blob::table data) {
        if (data.empty()) {
            return respond(error::msg::success);
        }
        if (settled_.exchange(true)) {
            return;
        }
        try {
            call_->send(std::move(data), [call = call_](const std::error_code& failed) {
                call->respond(failed ? error::msg::unknown_error : error::msg::success);
            });
        } catch (...) {
            call_->respond(error::msg::unknown_error);
            throw;
        }
    }

    /// Answers with `outcome`: a value, or a reason.
    template <class T>
    void answer(const result<T>& outcome) {
        if (!outcome) {
            return respond(outcome.error());
        }
        if constexpr (std::is_void_v<T>) {
            respond(error::msg::success);
        } else {
            send(answer_of(*outcome));
        }
    }

private:
    const std::shared_ptr<client::exchange_ctx> call_;
    std::atomic<bool> settled_{false};
};

} // namespace detail

/// The answer that a method of a service owes its caller, a T or nothing but success: the last
/// parameter of a method that answers later. It may be copied, kept and handed to other threads.
/// The first answer counts. When the last copy goes without one, the caller gets
/// msg::unknown_error.
template <class T = void>
class responder {
public:
    /// Answers with a T, or with a reason why there is none: `answer(5)`,
    /// `answer(error::msg::not_found)`, and for `responder<>` also `answer()`. How a T is written
    /// says service::method(). Does nothing when the call has been answered or its connection has
    /// ended.
    /// Thread: any, several at once.
    /// Errors: a code that the bus does not carry, and a reply that cannot be sent because it is
    /// too long, reach the caller as msg::unknown_error. Throws what convert<T>::write() throws,
    /// and std::bad_alloc.
    void answer(const result<T>& outcome) const { call_->answer(outcome); }

    /// The same with what only converts to a T, such as a text where a std::string is owed.
    template <class U,
              std::enable_if_t<std::is_convertible_v<U, T> && !std::is_convertible_v<U, result<T>>,
                               int> = 0>
    void answer(U&& value) const {
        call_->answer(result<T>(T(std::forward<U>(value))));
    }

    /// The same with success, where no T is owed.
    template <class U = T, std::enable_if_t<std::is_void_v<U>, int> = 0>
    void answer() const {
        call_->answer(result<void>());
    }

    /// Whether an answer would be lost: one was given, or the connection has ended. It may
    /// change at any moment.
    /// Thread: any.
    bool expired() const { return call_->expired(); }

    /// \cond
    explicit responder(std::shared_ptr<detail::pending_answer> call)
        : call_(std::move(call)) {}
    /// \endcond

private:
    std::shared_ptr<detail::pending_answer> call_;
};

} // namespace tarn::ext
