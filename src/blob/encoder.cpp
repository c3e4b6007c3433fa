/// The encoder of values into blobmsg messages.
#include "blob/encoder.h"

#include "blob/big_endian.h"
#include "blob/message_size.h"
#include "blob/stored.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace tarn::blob::detail {

namespace {

constexpr char prefix[] = "tarn::blob::buff: ";

[[noreturn]] void fail(const char* failure) {
    throw std::runtime_error(std::string(prefix) + failure);
}

/// Where the next field starts, counted from the start of the message. While a nest is open, `head`
/// is that nest.
std::size_t end_of(const ::blob_buf& message) noexcept {
    const auto head = reinterpret_cast<const char*>(message.head) - static_cast<char*>(message.buf);
    return static_cast<std::size_t>(head) + ::blob_pad_len(message.head);
}

} // namespace

void encoder::add(const std::string& name, const attr& value) {
    write_any(name, value);
    write_nested();
}

void encoder::add(const table& fields) {
    for (const auto& [name, value] : fields) {
        add(name, value);
    }
}

void encoder::write_nested() {
    while (current_.cookie) {
        // A child that is a list or table becomes the current one.
        if (!write_next()) {
            ::blob_nest_end(&message_, current_.cookie);
            if (outer_.empty()) {
                current_.cookie = nullptr;
            } else {
                current_ = outer_.back();
                outer_.pop_back();
            }
        }
    }
}

bool encoder::write_next() {
    if (auto* const elements = std::get_if<nest::range<list>>(&current_.rest)) {
        if (elements->next == elements->end) {
            return false;
        }
        write_any("", *elements->next++);
        return true;
    }
    auto& fields = *std::get_if<nest::range<table>>(&current_.rest);
    if (fields.next == fields.end) {
        return false;
    }
    const auto& [name, value] = *fields.next++;
    write_any(name, value);
    return true;
}

void encoder::write_any(std::string_view name, const attr& value) {
    if (!visit(value, [&](const auto& held) { write(name, held); })) {
        throw std::logic_error(std::string(prefix) + "Unsupported type [" + value.type().name() +
                               "]");
    }
}

void encoder::write(std::string_view name, const bytes& value) {
    put(BLOBMSG_TYPE_UNSPEC, name, value.empty() ? "" : static_cast<const void*>(value.data()),
        value.size(), "Faild to handle unspec");
}

void encoder::write(std::string_view name, const list& value) {
    open(name, true, value, "Faild to handle array");
}

void encoder::write(std::string_view name, const table& value) {
    open(name, false, value, "Faild to handle table");
}

void encoder::write(std::string_view name, const std::string& value) {
    const char* const text = value.c_str();
    put(BLOBMSG_TYPE_STRING, name, text, std::strlen(text) + 1, "Faild to handle string");
}

void encoder::write(std::string_view name, unsigned long long value) {
    put_number(BLOBMSG_TYPE_INT64, name, value, "Faild to handle int64");
}

void encoder::write(std::string_view name, unsigned int value) {
    put_number(BLOBMSG_TYPE_INT32, name, value, "Faild to handle int32");
}

void encoder::write(std::string_view name, unsigned short value) {
    put_number(BLOBMSG_TYPE_INT16, name, value, "Faild to handle int16");
}

void encoder::write(std::string_view name, unsigned char value) {
    put_number(BLOBMSG_TYPE_INT8, name, value, "Faild to handle int8");
}

void encoder::write(std::string_view name, bool value) {
    const unsigned char flag = value ? 1 : 0;
    put_number(BLOBMSG_TYPE_INT8, name, flag, "Faild to handle boolean");
}

void encoder::write(std::string_view name, double value) {
    put_number(BLOBMSG_TYPE_DOUBLE, name, value, "Faild to handle decimal");
}

template <class Container>
void encoder::open(std::string_view name, bool array, const Container& value, const char* failure) {
    make_room(name, 0, failure);
    void* const cookie = ::blobmsg_open_nested(&message_, name.data(), array);
    if (!cookie) {
        fail(failure);
    }
    if (current_.cookie) {
        outer_.push_back(current_);
    }
    current_ = {cookie, nest::range<Container>{value.begin(), value.end()}};
}

template <class T>
void encoder::put_number(int type, std::string_view name, T value, const char* failure) {
    const auto encoded = to_big_endian(value);
    put(type, name, encoded.data(), encoded.size(), failure);
}

void encoder::put(int type, std::string_view name, const void* data, std::size_t size,
                  const char* failure) {
    make_room(name, size, failure);
    if (::blobmsg_add_field(&message_, type, name.data(), data, static_cast<unsigned int>(size)) !=
        0) {
        fail(failure);
    }
}

void encoder::make_room(std::string_view name, std::size_t size, const char* failure) {
    const std::size_t room =
        std::min(static_cast<std::size_t>(message_.buflen), message_size::blob_limit);
    if (name.size() > message_size::name_limit || size > message_size::blob_limit ||
        end_of(message_) + message_size::field(name.size(), size) > room) {
        make_more_room(name, size, failure);
    } else {
        overflowed_ = false;
    }
}

void encoder::make_more_room(std::string_view name, std::size_t size, const char* failure) {
    // libubox checks neither the name nor, to the last byte, the message.
    const std::size_t length = std::strlen(name.data());
    const bool named = length <= message_size::name_limit;
    overflowed_ =
        named && (size > message_size::blob_limit ||
                  end_of(message_) + message_size::field(length, size) > message_size::blob_limit);
    if (!named || overflowed_) {
        fail(failure);
    }
    // libubox makes the buffer longer by what a field takes: a message of many fields would be
    // moved many times. Doubled, it is moved a few times. Near the limit libubox does it its own
    // way.
    const auto room = static_cast<std::size_t>(message_.buflen);
    const std::size_t needed = end_of(message_) + message_size::field(length, size);
    if (needed <= room || 2 * room > message_size::blob_limit) {
        return;
    }
    if (!::blob_buf_grow(&message_, static_cast<int>(std::max(room, needed - room)))) {
        fail(failure);
    }
}

} // namespace tarn::blob::detail
