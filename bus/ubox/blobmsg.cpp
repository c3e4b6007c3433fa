/// blobmsg fields, for libubox's users: adding them to a buffer, and checking and finding them in a
/// foreign message.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <endian.h>

#include "blob_buf.h"
#include "format_limits.h"

namespace {

// Longer names are never found, whatever the policy asks for.
constexpr std::size_t longest_found_name = 255;

// The payload rule of each blobmsg type, in the order of enum blobmsg_type.
constexpr int payload_rule[] = {
    BLOB_ATTR_UNSPEC, BLOB_ATTR_NESTED, BLOB_ATTR_NESTED, BLOB_ATTR_STRING, BLOB_ATTR_INT64,
    BLOB_ATTR_INT32,  BLOB_ATTR_INT16,  BLOB_ATTR_INT8,   BLOB_ATTR_DOUBLE,
};
static_assert(sizeof payload_rule / sizeof payload_rule[0] == BLOBMSG_TYPE_LAST + 1);

// A field with room for `size` bytes of data.
blob_attr* new_field(blob_buf& buf, int type, const char* name, std::size_t size) {
    if (name == nullptr) {
        name = "";
    }
    const std::size_t name_length = std::strlen(name);
    if (name_length > ubox::longest_name || size > ubox::longest_attribute) {
        return nullptr;
    }
    const auto header_length =
        static_cast<std::size_t>(blobmsg_hdrlen(static_cast<unsigned>(name_length)));
    blob_attr* const field = blob_new(&buf, type, static_cast<int>(header_length + size));
    if (field == nullptr) {
        return nullptr;
    }
    field->id_len |= htobe32(BLOB_ATTR_EXTENDED);
    auto* const header = reinterpret_cast<blobmsg_hdr*>(field->data);
    header->namelen = htobe16(static_cast<std::uint16_t>(name_length));
    std::memcpy(header->name, name, name_length);
    std::memset(header->name + name_length, 0, header_length - sizeof *header - name_length);
    return field;
}

// 0 for a field without a header, or with less of one than its length takes.
unsigned name_length(const blob_attr* field) {
    return blob_is_extended(field) && blob_len(field) >= sizeof(blobmsg_hdr)
               ? blobmsg_namelen(reinterpret_cast<const blobmsg_hdr*>(field->data))
               : 0;
}

bool header_is_sound(const blob_attr* attr, bool name_needed) {
    if (!blob_is_extended(attr)) {
        return !name_needed;
    }
    const unsigned length = name_length(attr);
    return static_cast<std::size_t>(blobmsg_hdrlen(length)) <= blob_len(attr) &&
           blobmsg_name(attr)[length] == '\0' && (length > 0 || !name_needed);
}

bool type_matches(const blob_attr* field, int type) {
    return type == BLOBMSG_TYPE_UNSPEC || type == blobmsg_type(field);
}

bool is_integer(const blob_attr* field) {
    const int type = blobmsg_type(field);
    return type == BLOBMSG_TYPE_INT64 || type == BLOBMSG_TYPE_INT32 || type == BLOBMSG_TYPE_INT16 ||
           type == BLOBMSG_TYPE_INT8;
}

// The header's name may hold NULs, so it is compared by its length and not as text.
bool name_matches(const blob_attr* field, const char* wanted) {
    const std::size_t length = name_length(field);
    return wanted != nullptr && length <= longest_found_name &&
           ::strnlen(wanted, longest_found_name + 1) == length &&
           std::memcmp(blobmsg_name(field), wanted, length) == 0;
}

} // namespace

int blobmsg_add_field(blob_buf* buf, int type, const char* name, const void* data, unsigned len) {
    blob_attr* const field = new_field(*buf, type, name, len);
    if (field == nullptr) {
        return -1;
    }
    if (len > 0) {
        std::memcpy(blobmsg_data(field), data, len);
    }
    return 0;
}

void* blobmsg_open_nested(blob_buf* buf, const char* name, bool array) {
    blob_attr* const field =
        new_field(*buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0);
    return field == nullptr ? nullptr : ubox::open_nest(*buf, field);
}

bool blobmsg_check_attr(const blob_attr* attr, bool name) {
    return blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

bool blobmsg_check_attr_len(const blob_attr* attr, bool name, std::size_t len) {
    if (len < sizeof(blob_attr) || blob_raw_len(attr) < sizeof(blob_attr) ||
        blob_raw_len(attr) > len || blobmsg_type(attr) > BLOBMSG_TYPE_LAST ||
        !header_is_sound(attr, name)) {
        return false;
    }
    return blob_check_type(blobmsg_data(attr), static_cast<unsigned>(blobmsg_data_len(attr)),
                           payload_rule[blobmsg_type(attr)]);
}

int blobmsg_check_array(const blob_attr* attr, int type) {
    const bool table = blobmsg_type(attr) == BLOBMSG_TYPE_TABLE;
    if (type > BLOBMSG_TYPE_LAST || (!table && blobmsg_type(attr) != BLOBMSG_TYPE_ARRAY) ||
        !blobmsg_check_attr(attr, false)) {
        return -1;
    }
    int count = 0;
    blob_attr* element;
    std::size_t left;
    blobmsg_for_each_attr(element, attr, left) {
        if (!blobmsg_check_attr(element, table) || !type_matches(element, type)) {
            return -1;
        }
        ++count;
    }
    return count;
}

int blobmsg_parse(const blobmsg_policy* policy, int policy_len, blob_attr** tb, void* data,
                  unsigned len) {
    std::fill_n(tb, policy_len, nullptr);
    if (data == nullptr || len == 0) {
        return -EINVAL;
    }
    blob_attr* field;
    std::size_t left = len;
    __blob_for_each_attr(field, data, left) {
        if (!blobmsg_check_attr(field, false)) {
            return -1;
        }
        if (!blob_is_extended(field)) {
            continue;
        }
        for (int i = 0; i < policy_len; ++i) {
            const bool right_type = policy[i].type == BLOBMSG_CAST_INT64
                                        ? is_integer(field)
                                        : type_matches(field, policy[i].type);
            if (tb[i] == nullptr && right_type && name_matches(field, policy[i].name)) {
                tb[i] = field;
            }
        }
    }
    return 0;
}

int blobmsg_parse_array(const blobmsg_policy* policy, int policy_len, blob_attr** tb, void* data,
                        unsigned len) {
    std::fill_n(tb, policy_len, nullptr);
    int position = 0;
    blob_attr* element;
    std::size_t left = data == nullptr ? 0 : len;
    __blob_for_each_attr(element, data, left) {
        if (position == policy_len) {
            return 0;
        }
        if (!blobmsg_check_attr(element, false)) {
            return -1;
        }
        if (type_matches(element, policy[position].type)) {
            tb[position] = element;
            ++position;
        }
    }
    return 0;
}
