/// The readers of blobmsg messages.
#include "tarn/blob/readers.h"

#include "blob/big_endian.h"
#include "blob/container.h"
#include "blob/policy.h"
#include "blob/stored.h"
#include "bus.h"

#include <stdexcept>
#include <tuple>
#include <vector>

namespace tarn::blob::utils {

namespace {

/// The data of a field or message.
struct span {
    const unsigned char* data = nullptr;
    std::size_t size = 0;
};

bool is_unknown(blob_attr* field) {
    return ::blob_id(field) > BLOBMSG_TYPE_LAST;
}

[[noreturn]] void throw_unknown(blob_attr* field) {
    throw std::logic_error("tarn::blob::utils::to_attr: Unknown type" +
                           std::to_string(::blob_id(field)));
}

/// Nothing unless the header of the field, and its name if it has one, lie within the field: the
/// field that a caller passes has not been checked before, unlike those found inside it.
span data_of(blob_attr* field) {
    if (!field) {
        return {};
    }
    const std::size_t length = ::blob_raw_len(field);
    if (length < sizeof(blob_attr)) {
        return {};
    }
    const auto* const payload = static_cast<const unsigned char*>(::blob_data(field));
    const std::size_t room = length - sizeof(blob_attr);
    if (!::blob_is_extended(field)) {
        return {payload, room};
    }
    if (room < sizeof(blobmsg_hdr)) {
        return {};
    }
    const auto header =
        static_cast<std::size_t>(::blobmsg_hdrlen(detail::from_big_endian<std::uint16_t>(payload)));
    return header <= room ? span{payload + header, room - header} : span{};
}

/// The children of a table, array or message, as libubox iterates over them.
class children {
public:
    explicit children(const span& of_parent)
        : rest_(of_parent) {}

    /// Whether nothing is left, not even what does not fit.
    bool at_end() const { return rest_.size == 0; }

    /// The next child; null at the end and at a child that does not fit.
    blob_attr* next() {
        if (rest_.size < sizeof(blob_attr)) {
            return nullptr;
        }
        auto* const child = reinterpret_cast<blob_attr*>(const_cast<unsigned char*>(rest_.data));
        const std::size_t length = ::blob_pad_len(child);
        if (length < sizeof(blob_attr) || length > rest_.size) {
            return nullptr;
        }
        rest_.data += length;
        rest_.size -= length;
        return child;
    }

private:
    span rest_;
};

template <class T>
T read_number(const span& data) {
    if (data.size < sizeof(T)) {
        throw std::runtime_error("tarn::blob::utils::to_attr: Bad attr");
    }
    return detail::from_big_endian<T>(data.data);
}

/// The text is written where it stays: short ones would be moved several times.
void read_text(const span& data, attr& into) {
    detail::hold(into, std::string());
    if (data.size != 0) {
        const auto* const text = reinterpret_cast<const char*>(data.data);
        static_cast<std::string*>(detail::attr_access::value(into)())
            ->assign(text, ::strnlen(text, data.size));
    }
}

bytes read_unspec(const span& data) {
    return bytes(data.data, data.data + data.size);
}

/// Reads a list or table with all that is nested in it. The lists and tables that are being filled
/// are on a stack of its own on the heap, since a message may be nested deeper than the thread's
/// stack allows. Elements of lists and tables do not move, so the pointers to them hold.
class tree_reader {
public:
    void read(blob_attr* array, list& into) {
        current_ = {children(data_of(array)), &into, nullptr};
        run();
    }

    void read(blob_attr* parent, table& into) {
        current_ = {children(data_of(parent)), nullptr, &into};
        run();
    }

    void read(blob_attr* field, bool int8_as_bool, attr& into) {
        begin(field, int8_as_bool, into);
        run();
    }

private:
    struct nest {
        children rest{span()};
        list* elements = nullptr; ///< one of the two is set while anything is left
        table* fields = nullptr;
    };

    void run() {
        for (;;) {
            if (blob_attr* const child = current_.rest.next()) {
                if (current_.elements) {
                    read_element(child, *current_.elements);
                } else {
                    read_field(child, *current_.fields);
                }
            } else if (outer_.empty()) {
                return;
            } else {
                current_ = outer_.back();
                outer_.pop_back();
            }
        }
    }

    void enter(const nest& inner) {
        if (!current_.rest.at_end()) {
            outer_.push_back(current_);
        }
        current_ = inner;
    }

    // An unknown type is reported before the check, which not every libubox lets it pass.
    void read_element(blob_attr* child, list& into) {
        if (is_unknown(child)) {
            throw_unknown(child);
        }
        if (!::blobmsg_check_attr(child, false)) {
            throw std::runtime_error("tarn::blob::utils::to_array: Bad attr");
        }
        begin(child, false, into.emplace_back());
    }

    void read_field(blob_attr* child, table& into) {
        const bool named = ::blob_is_extended(child);
        if (named && is_unknown(child)) {
            throw_unknown(child);
        }
        if (!::blobmsg_check_attr(child, false)) {
            throw std::runtime_error("tarn::blob::utils::to_table: Bad attr");
        }
        if (named) {
            // The end is the place where the sender encoded a table.
            const auto place =
                into.emplace_hint(into.end(), std::piecewise_construct,
                                  std::forward_as_tuple(::blobmsg_name(child)), std::tuple<>());
            begin(child, false, place->second);
        }
    }

    /// Reads a scalar; of a list or table only the opening, its children are left to run(). `into`
    /// is empty.
    void begin(blob_attr* field, bool int8_as_bool, attr& into) {
        const span data = data_of(field);
        switch (::blob_id(field)) {
        case BLOBMSG_TYPE_UNSPEC:
            detail::hold(into, read_unspec(data));
            return;
        case BLOBMSG_TYPE_ARRAY:
            enter({children(data), &detail::hold_empty<list>(into), nullptr});
            return;
        case BLOBMSG_TYPE_TABLE:
            enter({children(data), nullptr, &detail::hold_empty<table>(into)});
            return;
        case BLOBMSG_TYPE_STRING:
            read_text(data, into);
            return;
        case BLOBMSG_TYPE_INT64:
            detail::hold(into, read_number<unsigned long long>(data));
            return;
        case BLOBMSG_TYPE_INT32:
            detail::hold(into, read_number<unsigned int>(data));
            return;
        case BLOBMSG_TYPE_INT16:
            detail::hold(into, read_number<unsigned short>(data));
            return;
        case BLOBMSG_TYPE_INT8:
            if (int8_as_bool) {
                detail::hold(into, read_number<unsigned char>(data) != 0);
            } else {
                detail::hold(into, read_number<unsigned char>(data));
            }
            return;
        case BLOBMSG_TYPE_DOUBLE:
            detail::hold(into, read_number<double>(data));
            return;
        default:
            throw_unknown(field);
        }
    }

    /// The list or table that is being filled, and those around it of which something is left.
    nest current_;
    std::vector<nest> outer_;
};

} // namespace

bytes to_unspec(blob_attr* field) {
    return read_unspec(data_of(field));
}

attr to_attr(blob_attr* field, bool int8_as_bool) {
    if (!field) {
        throw std::runtime_error("tarn::blob::utils::to_attr: Bad attr");
    }
    attr value;
    tree_reader().read(field, int8_as_bool, value);
    return value;
}

list to_array(blob_attr* array) {
    if (!array) {
        throw std::runtime_error("tarn::blob::utils::to_array: Bad attr");
    }
    list elements;
    tree_reader().read(array, elements);
    return elements;
}

table to_table(blob_attr* parent) {
    if (!parent) {
        throw std::runtime_error("tarn::blob::utils::to_table: Bad attr");
    }
    table fields;
    tree_reader().read(parent, fields);
    return fields;
}

table to_table(blob_attr* message, const policy& expected) {
    const int count = detail::policy_count(expected.size());
    const std::vector<blobmsg_policy> records = detail::policy_records(expected);
    std::vector<blob_attr*> slots(expected.size());
    // libubox clears the slots with memset, which must not be given null even for none of them.
    blob_attr* no_slot = nullptr;
    if (!message || ::blob_raw_len(message) < sizeof(blob_attr) ||
        ::blobmsg_parse(records.data(), count, slots.empty() ? &no_slot : slots.data(),
                        ::blob_data(message),
                        static_cast<unsigned int>(::blob_len(message))) != 0) {
        throw std::runtime_error("tarn::blob::utils::to_table: Failed to parse message");
    }
    table fields;
    std::size_t index = 0;
    for (const auto& [name, type] : expected) {
        if (blob_attr* const found = slots[index++]) {
            const auto place = fields.emplace_hint(fields.end(), std::piecewise_construct,
                                                   std::forward_as_tuple(name), std::tuple<>());
            tree_reader().read(found, type == typeid(bool), place->second);
        }
    }
    return fields;
}

} // namespace tarn::blob::utils
