/// The two error categories.
#include "tarn/error.h"

namespace tarn::error {

namespace {

constexpr const char* unlisted = "Unknonw error condition";

} // namespace

#define TARN_ERROR_MESSAGE(number, name, message)                                                  \
    case number:                                                                                   \
        return message;

// Neither instance is ever destroyed: threads that outlive the exit handlers still use codes.

msg_category& msg_category::get_inst() {
    static msg_category& instance = *new msg_category;
    return instance;
}

msg_category::~msg_category() = default;

const char* msg_category::name() const noexcept {
    return "tarn::error::msg";
}

std::string msg_category::message(int code) const {
    switch (code) {
        TARN_ERROR_MSG_LIST(TARN_ERROR_MESSAGE)
    default:
        return unlisted;
    }
}

generic_category& generic_category::get_inst() {
    static generic_category& instance = *new generic_category;
    return instance;
}

generic_category::~generic_category() = default;

const char* generic_category::name() const noexcept {
    return "tarn::error::generic";
}

std::string generic_category::message(int code) const {
    switch (code) {
        TARN_ERROR_GENERIC_LIST(TARN_ERROR_MESSAGE)
    default:
        return unlisted;
    }
}

std::error_code make_error_code(msg value) {
    return {static_cast<int>(value), msg_category::get_inst()};
}

std::error_code make_error_code(generic value) {
    return {static_cast<int>(value), generic_category::get_inst()};
}

} // namespace tarn::error
