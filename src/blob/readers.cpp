/// The readers of blobmsg messages.
#include "tarn/blob/readers.h"

#include "blob/big_endian.h"
#include "blob/policy.h"
#include "bus.h"

#include <stdexcept>
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

/// Whether the header of the field, and its name if it has one, lie within the field. The field
/// that a caller passes has not been checked by anybody, unlike those found inside it.
bool is_whole(blob_attr* field) {
    const std::size_t length = ::blob_raw_len(field);
    if (length < sizeof(blob_attr)) {
        return false;
    }
    if (!::blob_is_extended(field)) {
        return true;
    }
    const std::size_t room = length - sizeof(blob_attr);
    const auto* const payload = static_cast<const unsigned char*>(::blob_data(field));
    return room >= sizeof(blobmsg_hdr) &&
           room >= static_cast<std::size_t>(
                       ::blobmsg_hdrlen(detail::from_big_endian<std::uint16_t>(payload)));
}

span data_of(blob_attr* field) {
    span found;
    if (field && is_whole(field)) {
        found.data = static_cast<const unsigned char*>(::blobmsg_data(field));
        found.size = static_cast<std::size_t>(::blobmsg_data_len(field));
    }
    return found;
}

/// The children of a table, array or message, as libubox iterates over them.
class children {
public:
    explicit children(blob_attr* parent)
        : rest_(data_of(parent)) {}

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
T read_number(blob_attr* field) {
    const span data = data_of(field);
    if (data.size < sizeof(T)) {
        throw std::runtime_error("tarn::blob::utils::to_attr: Bad attr");
    }
    return detail::from_big_endian<T>(data.data);
}

std::string read_text(blob_attr* field) {
    const span data = data_of(field);
    if (data.size == 0) {
        return {};
    }
    const auto* const text = reinterpret_cast<const char*>(data.data);
    return std::string(text, ::strnlen(text, data.size));
}

/// Reads a list or table with all that is nested in it. The lists and tables that are being filled
/// stand on a stack of its own on the heap, since a message may be nested deeper than the thread's
/// stack allows. Elements of lists and tables do not move, so the pointers to them hold.
class tree_reader {
public:
    void read(blob_attr* array, list& into) {
        nests_.push_back({children(array), &into, nullptr});
        run();
    }

    void read(blob_attr* parent, table& into) {
        nests_.push_back({children(parent), nullptr, &into});
        run();
    }

    void read(blob_attr* field, bool int8_as_bool, attr& into) {
        begin(field, int8_as_bool, into);
        run();
    }

private:
    struct nest {
        children rest;
        list* elements; ///< exactly one of the two is set
        table* fields;
    };

    void run() {
        while (!nests_.empty()) {
            nest& current = nests_.back();
            blob_attr* const child = current.rest.next();
            if (!child) {
                nests_.pop_back();
            } else if (current.elements) {
                read_element(child, *current.elements);
            } else {
                read_field(child, *current.fields);
            }
        }
    }

    // An unknown type is told before the check, which not every libubox lets it pass.
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
            begin(child, false, into.emplace(::blobmsg_name(child), attr())->second);
        }
    }

    /// Reads a scalar; of a list or table only the opening, its children are left to run().
    void begin(blob_attr* field, bool int8_as_bool, attr& into) {
        switch (::blob_id(field)) {
        case BLOBMSG_TYPE_UNSPEC:
            into.set(to_unspec(field));
            return;
        case BLOBMSG_TYPE_ARRAY:
            into.set(list());
            nests_.push_back({children(field), &into.get<list>(), nullptr});
            return;
        case BLOBMSG_TYPE_TABLE:
            into.set(table());
            nests_.push_back({children(field), nullptr, &into.get<table>()});
            return;
        case BLOBMSG_TYPE_STRING:
            into.set(read_text(field));
            return;
        case BLOBMSG_TYPE_INT64:
            into.set(read_number<unsigned long long>(field));
            return;
        case BLOBMSG_TYPE_INT32:
            into.set(read_number<unsigned int>(field));
            return;
        case BLOBMSG_TYPE_INT16:
            into.set(read_number<unsigned short>(field));
            return;
        case BLOBMSG_TYPE_INT8:
            if (int8_as_bool) {
                into.set(read_number<unsigned char>(field) != 0);
            } else {
                into.set(read_number<unsigned char>(field));
            }
            return;
        case BLOBMSG_TYPE_DOUBLE:
            into.set(read_number<double>(field));
            return;
        default:
            throw_unknown(field);
        }
    }

    std::vector<nest> nests_;
};

} // namespace

bytes to_unspec(blob_attr* field) {
    const span data = data_of(field);
    return bytes(data.data, data.data + data.size);
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
            fields.emplace(name, to_attr(found, type == std::type_index(typeid(bool))));
        }
    }
    return fields;
}

} // namespace tarn::blob::utils
