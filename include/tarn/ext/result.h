/// tarn::ext::result: a value, or the reason why there is none.
#pragma once

#include "tarn/error.h"
#include "tarn/ext/convert.h"
#include "tarn/ext/mismatch.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

namespace tarn::ext {

template <class T>
class result;

namespace detail {

/// A std::system_error whose what() is the whole message.
class failed_result final : public std::system_error {
public:
    failed_result(const std::error_code& code, const std::string& message)
        : std::system_error(code)
        , message_(message) {}
    const char* what() const noexcept override { return message_.what(); }

private:
    std::runtime_error message_; ///< for its text, which is copied without throwing
};

/// An error code and what more is known of the failure.
class outcome {
public:
    outcome() = default;
    outcome(const std::error_code& code, std::string detail)
        : code_(code)
        , detail_(std::move(detail)) {}

    const std::error_code& code() const { return code_; }
    const std::string& detail() const { return detail_; }
    std::string message() const {
        return detail_.empty() ? code_.message() : code_.message() + ": " + detail_;
    }
    void check() const {
        if (code_) {
            throw failed_result(code_, message());
        }
    }

private:
    std::error_code code_;
    std::string detail_;
};

/// What makes a result without a value.
template <class T>
inline constexpr bool is_failure = std::is_same_v<T, std::error_code> ||
                                   std::is_same_v<T, mismatch> || std::is_error_code_enum_v<T>;

template <class T>
inline constexpr bool is_result = false;
template <class T>
inline constexpr bool is_result<result<T>> = true;

} // namespace detail

/// A T, or the std::error_code of what went wrong.
///
/// Thread: as a value; none inside.
template <class T>
class [[nodiscard]] result {
public:
    /// What it holds when nothing went wrong.
    using value_type = T;

    /// Holds `value`, which is a T or converts to one.
    template <class U = T, std::enable_if_t<std::is_convertible_v<U&&, T> &&
                                                !detail::is_failure<std::decay_t<U>> &&
                                                !detail::is_result<std::decay_t<U>>,
                                            int> = 0>
    result(U&& value)
        : value_(std::in_place, std::forward<U>(value)) {}

    /// Failed with `code`; `detail` says in words what more is known, such as the field. Throws
    /// std::logic_error when `code` is success, since there is no value then.
    result(const std::error_code& code, std::string detail = {})
        : outcome_(code, std::move(detail)) {
        if (!code) {
            throw std::logic_error("tarn::ext::result: success without a value");
        }
    }

    /// The same for an enumerator of a code: `return tarn::error::msg::not_found;`.
    template <class Code, std::enable_if_t<std::is_error_code_enum_v<Code>, int> = 0>
    result(Code code, std::string detail = {})
        : result(std::error_code(code), std::move(detail)) {}

    /// Failed with msg::parse_error, for a value that was not as expected.
    result(const mismatch& wrong)
        : result(error::msg::parse_error, wrong.what()) {}

    /// Whether there is a value.
    bool has_value() const noexcept { return value_.has_value(); }
    /// The same.
    explicit operator bool() const noexcept { return has_value(); }

    /// The value. Throws std::system_error, with error() and message(), when there is none.
    T& value() & {
        outcome_.check();
        return *value_;
    }
    /// The same.
    const T& value() const& {
        outcome_.check();
        return *value_;
    }
    /// The same, moved out.
    T&& value() && {
        outcome_.check();
        return *std::move(value_);
    }

    /// The value, checked as by value().
    T& operator*() & { return value(); }
    /// The same.
    const T& operator*() const& { return value(); }
    /// The same, moved out.
    T&& operator*() && { return std::move(*this).value(); }
    /// The value, checked as by value().
    T* operator->() { return &value(); }
    /// The same.
    const T* operator->() const { return &value(); }

    /// The value, or `otherwise` when there is none.
    template <class U>
    T value_or(U&& otherwise) const& {
        return has_value() ? *value_ : static_cast<T>(std::forward<U>(otherwise));
    }
    /// The same, moved out.
    template <class U>
    T value_or(U&& otherwise) && {
        return has_value() ? *std::move(value_) : static_cast<T>(std::forward<U>(otherwise));
    }

    /// Why there is no value; success when there is one.
    const std::error_code& error() const noexcept { return outcome_.code(); }
    /// error() in words, with what more is known: "Parsing message data failed: lan.mtu: expected a
    /// signed 32-bit integer, found a string".
    std::string message() const { return outcome_.message(); }
    /// What more is known of the failure; often empty.
    const std::string& detail() const noexcept { return outcome_.detail(); }

private:
    std::optional<T> value_;
    detail::outcome outcome_;
};

/// Success, or the std::error_code of what went wrong.
template <>
class [[nodiscard]] result<void> {
public:
    /// Nothing.
    using value_type = void;

    /// Success.
    result() = default;

    /// Failed with `code`, or success if that is what it says; `detail` says in words what more is
    /// known.
    result(const std::error_code& code, std::string detail = {})
        : outcome_(code, std::move(detail)) {}

    /// The same for an enumerator of a code: `return tarn::error::msg::not_found;`.
    template <class Code, std::enable_if_t<std::is_error_code_enum_v<Code>, int> = 0>
    result(Code code, std::string detail = {})
        : result(std::error_code(code), std::move(detail)) {}

    /// Failed with msg::parse_error, for a value that was not as expected.
    result(const mismatch& wrong)
        : result(error::msg::parse_error, wrong.what()) {}

    /// Whether it succeeded.
    bool has_value() const noexcept { return !outcome_.code(); }
    /// The same.
    explicit operator bool() const noexcept { return has_value(); }

    /// Throws std::system_error, with error() and message(), unless it succeeded.
    void value() const { outcome_.check(); }
    /// The same.
    void operator*() const { value(); }

    /// What went wrong, or success.
    const std::error_code& error() const noexcept { return outcome_.code(); }
    /// error() in words, with what more is known.
    std::string message() const { return outcome_.message(); }
    /// What more is known of the failure; often empty.
    const std::string& detail() const noexcept { return outcome_.detail(); }

private:
    detail::outcome outcome_;
};

/// As from_attr(), with a mismatch as the error msg::parse_error, which names the field in
/// message(). Passes on what else convert<T>::read() throws. Thread: any.
template <class T>
result<T> try_from_attr(const blob::attr& value) {
    try {
        return convert<T>::read(value);
    } catch (const mismatch& wrong) {
        return wrong;
    }
}

} // namespace tarn::ext
