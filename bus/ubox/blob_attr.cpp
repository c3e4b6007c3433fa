/// Whole blob attributes, for libubox's users: lengths, type checks, sorting by id, copies.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <endian.h>

#include "headers.h"

namespace {

bool accepts(const blob_attr_info& wanted, blob_attr* attr) {
    const std::size_t size = blob_raw_len(attr);
    return (wanted.type >= BLOB_ATTR_LAST ||
            blob_check_type(blob_data(attr), static_cast<unsigned>(blob_len(attr)),
                            static_cast<int>(wanted.type))) &&
           size >= wanted.minlen && (wanted.maxlen == 0 || size <= wanted.maxlen) &&
           (wanted.validate == nullptr || wanted.validate(&wanted, attr));
}

// Of an attribute all of which is there.
int sort_children(blob_attr* attr, blob_attr** data, const blob_attr_info* info, int max) {
    int filled = 0;
    blob_attr* child;
    std::size_t left;
    blob_for_each_attr(child, attr, left) {
        const unsigned id = blob_id(child);
        if (static_cast<int>(id) < max && blob_raw_len(child) >= sizeof(blob_attr) &&
            (info == nullptr || accepts(info[id], child))) {
            filled += data[id] == nullptr ? 1 : 0;
            data[id] = child;
        }
    }
    return filled;
}

} // namespace

void blob_set_raw_len(blob_attr* attr, unsigned len) {
    const std::uint32_t rest = be32toh(attr->id_len) & ~BLOB_ATTR_LEN_MASK;
    attr->id_len = htobe32(rest | (len & BLOB_ATTR_LEN_MASK));
}

void blob_fill_pad(blob_attr* attr) {
    const std::size_t size = blob_raw_len(attr);
    std::memset(reinterpret_cast<char*>(attr) + size, 0, blob_pad_len(attr) - size);
}

bool blob_check_type(const void* ptr, unsigned len, int type) {
    switch (type) {
    case BLOB_ATTR_UNSPEC:
    case BLOB_ATTR_NESTED:
    case BLOB_ATTR_BINARY:
        return true;
    case BLOB_ATTR_STRING:
        return len > 0 && static_cast<const char*>(ptr)[len - 1] == '\0';
    case BLOB_ATTR_INT8:
        return len == sizeof(std::uint8_t);
    case BLOB_ATTR_INT16:
        return len == sizeof(std::uint16_t);
    case BLOB_ATTR_INT32:
        return len == sizeof(std::uint32_t);
    case BLOB_ATTR_INT64:
        return len == sizeof(std::uint64_t);
    case BLOB_ATTR_DOUBLE:
        return len >= sizeof(double);
    default:
        return false;
    }
}

int blob_parse(blob_attr* attr, blob_attr** data, const blob_attr_info* info, int max) {
    std::fill_n(data, max, nullptr);
    return attr == nullptr ? 0 : sort_children(attr, data, info, max);
}

int blob_parse_untrusted(blob_attr* attr, std::size_t attr_len, blob_attr** data,
                         const blob_attr_info* info, int max) {
    if (attr == nullptr || attr_len < sizeof(blob_attr) || blob_raw_len(attr) > attr_len) {
        return 0;
    }
    std::fill_n(data, max, nullptr);
    return sort_children(attr, data, info, max);
}

bool blob_attr_equal(const blob_attr* a1, const blob_attr* a2) {
    if (a1 == nullptr || a2 == nullptr) {
        return a1 == a2;
    }
    return a1->id_len == a2->id_len && std::memcmp(a1, a2, blob_pad_len(a1)) == 0;
}

blob_attr* blob_memdup(const blob_attr* attr) {
    const std::size_t size = attr == nullptr ? 0 : blob_pad_len(attr);
    if (size == 0) {
        return nullptr;
    }
    auto* const copy = static_cast<blob_attr*>(std::malloc(size));
    if (copy != nullptr) {
        std::memcpy(static_cast<void*>(copy), attr, size);
    }
    return copy;
}
