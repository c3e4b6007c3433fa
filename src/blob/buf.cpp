/// tarn::blob::buf: the encoder of tables into blobmsg messages.
#include "tarn/blob/buf.h"

#include "blob/big_endian.h"
#include "blob/message_size.h"
#include "bus.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <utility>
#include <variant>

namespace tarn::blob {

namespace {

/// Where the next field starts, counted from the start of the message. While a nest is open, `head`
/// is that nest.
std::size_t end_of(const ::blob_buf& buffer) noexcept {
    const auto head = reinterpret_cast<const char*>(buffer.head) - static_cast<char*>(buffer.buf);
    return static_cast<std::size_t>(head) + ::blob_pad_len(buffer.head);
}

void initialise(::blob_buf& buffer) {
    buffer.head = nullptr;
    if (::blob_buf_init(&buffer, 0) != 0) {
        buffer.head = nullptr;
        throw std::bad_alloc();
    }
}

} // namespace

/// An open list or table and what of it is still to be written.
class buf::nest {
public:
    nest(void* cookie, const list& elements)
        : cookie_(cookie)
        , rest_(range<list>(elements)) {}
    nest(void* cookie, const table& fields)
        : cookie_(cookie)
        , rest_(range<table>(fields)) {}

    void* cookie() const noexcept { return cookie_; }

    /// Passes the next child to `write` with its name, null for an element of a list; false when
    /// there is none left.
    template <class Write>
    bool write_next(Write&& write) {
        if (auto* elements = std::get_if<range<list>>(&rest_)) {
            if (elements->next == elements->end) {
                return false;
            }
            write(nullptr, *elements->next++);
            return true;
        }
        auto& fields = std::get<range<table>>(rest_);
        if (fields.next == fields.end) {
            return false;
        }
        const auto& field = *fields.next++;
        write(&field.first, field.second);
        return true;
    }

private:
    template <class Container>
    struct range {
        explicit range(const Container& whole)
            : next(whole.begin())
            , end(whole.end()) {}
        typename Container::const_iterator next;
        typename Container::const_iterator end;
    };

    void* cookie_;
    std::variant<range<list>, range<table>> rest_;
};

void buf::release::operator()(::blob_buf* buffer) const noexcept {
    ::blob_buf_free(buffer);
    delete buffer;
}

buf::buf()
    : prefix_("tarn::blob::buff: ")
    , b_(new ::blob_buf()) {
    initialise(*b_);
    add_converters();
}

buf::buf(const table& fields)
    : buf() {
    assign(fields);
}

buf::~buf() = default;

void buf::clear() {
    overflowed_ = false;
    ::blob_buf_free(b_.get());
    initialise(*b_);
}

void buf::assign(const table& fields) {
    clear();
    for (const auto& [name, value] : fields) {
        add(name, value);
    }
}

buf& buf::operator=(const table& fields) {
    assign(fields);
    return *this;
}

void buf::add(const std::string& name, const attr& value) {
    if (!b_->head) {
        initialise(*b_); // the clear() before ran out of memory
    }
    try {
        convert(name, value);
        write_children();
    } catch (...) {
        nests_.clear(); // they stay open in the message, but nothing more is written into them
        throw;
    }
}

void buf::convert(const std::string& name, const attr& value) {
    const auto found = converters_.find(value.type());
    if (found == converters_.end()) {
        throw std::logic_error(prefix_ + "Unsupported type [" + value.type().name() + "]");
    }
    found->second(name, value);
}

void buf::write_children() {
    const auto write = [this](const std::string* name, const attr& value) {
        convert(name ? *name : no_name_, value);
    };
    while (!nests_.empty()) {
        // A child that is a list or table opens a nest of its own, on top of this one.
        if (!nests_.back().write_next(write)) {
            ::blob_nest_end(b_.get(), nests_.back().cookie());
            nests_.pop_back();
        }
    }
}

void buf::make_sure_it_fits(const std::string& name, std::size_t size, const char* failure) {
    // libubox checks neither the name nor, to the last byte, the message.
    const std::size_t length = std::strlen(name.c_str());
    const bool named = length <= message_size::name_limit;
    overflowed_ =
        named && (size > message_size::blob_limit ||
                  end_of(*b_) + message_size::field(length, size) > message_size::blob_limit);
    if (!named || overflowed_) {
        throw std::runtime_error(prefix_ + failure);
    }
}

void buf::make_room(std::size_t size, const char* failure) {
    // libubox makes the buffer longer by what a field takes: a message of many fields would be
    // moved many times. Doubled, it is moved a few times. Near the limit libubox does it its own
    // way.
    const auto length = static_cast<std::size_t>(b_->buflen);
    const std::size_t needed = end_of(*b_) + size;
    if (needed <= length || 2 * length > message_size::blob_limit) {
        return;
    }
    const std::size_t more = std::max(length, needed - length);
    if (!::blob_buf_grow(b_.get(), static_cast<int>(more))) {
        throw std::runtime_error(prefix_ + failure);
    }
}

void buf::put(int type, const std::string& name, const void* data, std::size_t size,
              const char* failure) {
    make_sure_it_fits(name, size, failure);
    make_room(message_size::field(std::strlen(name.c_str()), size), failure);
    if (::blobmsg_add_field(b_.get(), type, name.c_str(), data, static_cast<unsigned int>(size)) !=
        0) {
        throw std::runtime_error(prefix_ + failure);
    }
}

template <class T>
void buf::add_number_converter(int type, const char* failure) {
    converters_.emplace(typeid(T),
                        [this, type, failure](const std::string& name, const attr& value) {
                            const auto encoded = detail::to_big_endian(value.get<T>());
                            put(type, name, encoded.data(), encoded.size(), failure);
                        });
}

template <class Container>
void buf::add_nest_converter(bool array, const char* failure) {
    converters_.emplace(
        typeid(Container), [this, array, failure](const std::string& name, const attr& value) {
            make_sure_it_fits(name, 0, failure);
            make_room(message_size::field(std::strlen(name.c_str()), 0), failure);
            void* const cookie = ::blobmsg_open_nested(b_.get(), name.c_str(), array);
            if (!cookie) {
                throw std::runtime_error(prefix_ + failure);
            }
            nests_.emplace_back(cookie, value.get<Container>());
        });
}

void buf::add_converters() {
    converters_.emplace(typeid(bytes), [this](const std::string& name, const attr& value) {
        const bytes& data = value.get<bytes>();
        put(BLOBMSG_TYPE_UNSPEC, name, data.empty() ? "" : static_cast<const void*>(data.data()),
            data.size(), "Faild to handle unspec");
    });
    add_nest_converter<list>(true, "Faild to handle array");
    add_nest_converter<table>(false, "Faild to handle table");
    converters_.emplace(typeid(std::string), [this](const std::string& name, const attr& value) {
        const char* const text = value.get<std::string>().c_str();
        put(BLOBMSG_TYPE_STRING, name, text, std::strlen(text) + 1, "Faild to handle string");
    });
    add_number_converter<unsigned long long>(BLOBMSG_TYPE_INT64, "Faild to handle int64");
    add_number_converter<unsigned int>(BLOBMSG_TYPE_INT32, "Faild to handle int32");
    add_number_converter<unsigned short>(BLOBMSG_TYPE_INT16, "Faild to handle int16");
    add_number_converter<unsigned char>(BLOBMSG_TYPE_INT8, "Faild to handle int8");
    converters_.emplace(typeid(bool), [this](const std::string& name, const attr& value) {
        const unsigned char flag = value.get<bool>() ? 1 : 0;
        put(BLOBMSG_TYPE_INT8, name, &flag, sizeof(flag), "Faild to handle boolean");
    });
    add_number_converter<double>(BLOBMSG_TYPE_DOUBLE, "Faild to handle decimal");
}

} // namespace tarn::blob
