/// Error codes: what the outcomes of the library's operations are made of, as std::error_code.
#pragma once

#include "tarn/export.h"

#include <string>
#include <system_error>
#include <type_traits>

/// Every value of tarn::error::msg: X(number, name, message). The numbers are the status numbers of
/// the ubus protocol and cross the bus unchanged.
#define TARN_ERROR_MSG_LIST(X)                                                                     \
    X(0, success, "Success")                                                                       \
    X(1, invalid_command, "Invalid command")                                                       \
    X(2, invalid_argument, "Invalid argument")                                                     \
    X(3, method_not_found, "Method not found")                                                     \
    X(4, not_found, "Not found")                                                                   \
    X(5, no_response, "No response")                                                               \
    X(6, permission_denied, "Permission denied")                                                   \
    X(7, timeout, "Request timed out")                                                             \
    X(8, not_supported, "Operation not supported")                                                 \
    X(9, unknown_error, "Unknown error")                                                           \
    X(10, connection_failed, "Connection failed")                                                  \
    X(11, no_memory, "Out of memory")                                                              \
    X(12, parse_error, "Parsing message data failed")                                              \
    X(13, system_error, "System error")

/// Every value of tarn::error::generic: X(number, name, message). 0 is none of them: as for every
/// std::error_code, it means no error.
#define TARN_ERROR_GENERIC_LIST(X)                                                                 \
    X(1, aborted, "Aborted")                                                                       \
    X(2, unknown_error, "Unknown error")

/// One enumerator of such a list. Not defined after this header.
#define TARN_ERROR_ENUMERATOR(number, name, message) name = number,

namespace tarn::error {

/// A status of the bus: what a callee answered, or what libubus reported. TARN_ERROR_MSG_LIST above
/// has the values. Converts to std::error_code by itself; `success` gives a code that tests as no
/// error.
enum class msg : int { TARN_ERROR_MSG_LIST(TARN_ERROR_ENUMERATOR) };

/// A condition of the library's own: `aborted`, the operation was ended on this side before it had
/// an outcome, or `unknown_error`. Converts to std::error_code by itself.
enum class generic : int { TARN_ERROR_GENERIC_LIST(TARN_ERROR_ENUMERATOR) };

/// The category of codes made from `msg`. A code equals only conditions of its own category and
/// number.
class TARN_API msg_category final : public std::error_category {
public:
    /// The one instance. Categories are compared by address, so every code uses this one.
    ///
    /// Thread: any.
    static msg_category& get_inst();

    ~msg_category() override;

    /// "tarn::error::msg"
    const char* name() const noexcept override;

    /// The message of a number, as listed above; "Unknonw error condition" for any other number.
    std::string message(int code) const override;

private:
    msg_category() = default;
};

/// The category of codes made from `generic`. A code equals only conditions of its own category
/// and number.
class TARN_API generic_category final : public std::error_category {
public:
    /// The one instance. Categories are compared by address, so every code uses this one.
    ///
    /// Thread: any.
    static generic_category& get_inst();

    ~generic_category() override;

    /// "tarn::error::generic"
    const char* name() const noexcept override;

    /// The message of a number, as listed above; "Unknonw error condition" for any other number,
    /// 0 included.
    std::string message(int code) const override;

private:
    generic_category() = default;
};

/// The code with the number of `value` and the category msg_category.
///
/// Thread: any.
TARN_API std::error_code make_error_code(msg value);

/// The code with the number of `value` and the category generic_category.
///
/// Thread: any.
TARN_API std::error_code make_error_code(generic value);

} // namespace tarn::error

#undef TARN_ERROR_ENUMERATOR

/// @cond
/// Lets the enumerators be used wherever a std::error_code is expected.
template <>
struct std::is_error_code_enum<tarn::error::msg> : std::true_type {};
template <>
struct std::is_error_code_enum<tarn::error::generic> : std::true_type {};
/// @endcond
