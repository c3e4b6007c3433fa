/// The growing buffer that messages are built in, for libubox's users.
///
/// The memory is a tree under construction: `head` is the innermost open attribute, its end is the
/// end of the message so far, and a new attribute goes there. Only the open attribute's length is
/// kept up to date; closing it passes the length on to its parent.
#include "blob_buf.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <endian.h>

#include "format_limits.h"

namespace {

constexpr std::size_t growth_step = 256;

std::size_t padded(std::size_t size) {
    return (size + BLOB_ATTR_ALIGN - 1) & ~std::size_t{BLOB_ATTR_ALIGN - 1};
}

std::size_t offset_of(const blob_buf& buf, const blob_attr* attr) {
    return static_cast<std::size_t>(reinterpret_cast<const char*>(attr) -
                                    static_cast<const char*>(buf.buf));
}

blob_attr* attr_at(const blob_buf& buf, std::size_t offset) {
    return reinterpret_cast<blob_attr*>(static_cast<char*>(buf.buf) + offset);
}

// To the next step above what is asked for: a message of n bytes may cost n / 256 moves.
bool grow_on_heap(blob_buf* buf, int minlen) {
    const std::size_t step = (static_cast<std::size_t>(minlen) / growth_step + 1) * growth_step;
    const std::size_t size = static_cast<std::size_t>(buf->buflen) + step;
    if (size > ubox::largest_buffer) {
        return false;
    }
    void* const memory = std::realloc(buf->buf, size);
    if (memory == nullptr) {
        return false;
    }
    buf->buf = memory;
    buf->buflen = static_cast<int>(size);
    return true;
}

// Room for `size` bytes and the gap behind them, at the end of the open attribute, which it
// lengthens. Null, and nothing changed, if there is none.
char* append(blob_buf& buf, std::size_t size) {
    if (buf.head == nullptr || size > ubox::longest_attribute) {
        return nullptr;
    }
    const std::size_t start = offset_of(buf, buf.head) + blob_pad_len(buf.head);
    const std::size_t end = start + padded(size);
    // Checked here and not only by the growing: a buffer may have a byte that no length can say.
    if (end > ubox::longest_attribute) {
        return nullptr;
    }
    const auto have = static_cast<std::size_t>(buf.buflen);
    if (end > have && !blob_buf_grow(&buf, static_cast<int>(end - have))) {
        return nullptr;
    }
    char* const place = static_cast<char*>(buf.buf) + start;
    std::memset(place + size, 0, padded(size) - size);
    blob_set_raw_len(buf.head, static_cast<unsigned>(end - offset_of(buf, buf.head)));
    return place;
}

void write_header(blob_attr* attr, int id, std::size_t raw_length) {
    const std::uint32_t id_bits =
        (static_cast<std::uint32_t>(id) << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK;
    attr->id_len = htobe32(id_bits | static_cast<std::uint32_t>(raw_length));
}

} // namespace

int blob_buf_init(blob_buf* buf, int id) {
    if (buf->grow == nullptr) {
        buf->grow = grow_on_heap;
    }
    buf->head = nullptr;
    if (static_cast<std::size_t>(buf->buflen) < sizeof(blob_attr) &&
        !blob_buf_grow(buf, static_cast<int>(sizeof(blob_attr)))) {
        return -ENOMEM;
    }
    buf->head = attr_at(*buf, 0);
    write_header(buf->head, id, sizeof(blob_attr));
    return 0;
}

void blob_buf_free(blob_buf* buf) {
    std::free(buf->buf);
    buf->buf = nullptr;
    buf->buflen = 0;
    buf->head = nullptr;
}

bool blob_buf_grow(blob_buf* buf, int required) {
    if (buf->grow == nullptr || required < 0 ||
        static_cast<std::size_t>(required) >
            ubox::largest_buffer - static_cast<std::size_t>(buf->buflen)) {
        return false;
    }
    const int wanted = buf->buflen + required;
    const std::size_t head = buf->head == nullptr ? 0 : offset_of(*buf, buf->head);
    const bool grown = buf->grow(buf, required);
    if (buf->head != nullptr) {
        buf->head = attr_at(*buf, head);
    }
    return grown && buf->buflen >= wanted;
}

blob_attr* blob_new(blob_buf* buf, int id, int payload) {
    if (payload < 0) {
        return nullptr;
    }
    const std::size_t raw_length = sizeof(blob_attr) + static_cast<std::size_t>(payload);
    char* const place = append(*buf, raw_length);
    if (place == nullptr) {
        return nullptr;
    }
    auto* const attr = reinterpret_cast<blob_attr*>(place);
    write_header(attr, id, raw_length);
    return attr;
}

blob_attr* blob_put(blob_buf* buf, int id, const void* ptr, unsigned len) {
    blob_attr* const attr =
        len > ubox::longest_attribute ? nullptr : blob_new(buf, id, static_cast<int>(len));
    if (attr == nullptr) {
        return nullptr;
    }
    if (ptr == nullptr) {
        std::memset(attr->data, 0, len);
    } else {
        std::memcpy(attr->data, ptr, len);
    }
    return attr;
}

blob_attr* blob_put_raw(blob_buf* buf, const void* ptr, unsigned len) {
    if (ptr == nullptr || len < sizeof(blob_attr)) {
        return nullptr;
    }
    char* const place = append(*buf, len);
    if (place == nullptr) {
        return nullptr;
    }
    std::memcpy(place, ptr, len);
    // What ends a message is sent without its gap.
    blob_set_raw_len(buf->head,
                     static_cast<unsigned>(offset_of(*buf, reinterpret_cast<blob_attr*>(place)) +
                                           len - offset_of(*buf, buf->head)));
    return reinterpret_cast<blob_attr*>(place);
}

void* ubox::open_nest(blob_buf& buf, blob_attr* attr) {
    // The parent's offset, since its address changes when the memory moves; plus 1, since the
    // message itself is at offset 0 and a null cookie means failure.
    const std::uintptr_t cookie = offset_of(buf, buf.head) + 1;
    buf.head = attr;
    return reinterpret_cast<void*>(cookie);
}

void* blob_nest_start(blob_buf* buf, int id) {
    blob_attr* const attr = blob_new(buf, id, 0);
    return attr == nullptr ? nullptr : ubox::open_nest(*buf, attr);
}

void blob_nest_end(blob_buf* buf, void* cookie) {
    if (cookie == nullptr) {
        return;
    }
    const std::size_t end = offset_of(*buf, buf->head) + blob_pad_len(buf->head);
    const std::size_t parent = reinterpret_cast<std::uintptr_t>(cookie) - 1;
    buf->head = attr_at(*buf, parent);
    blob_set_raw_len(buf->head, static_cast<unsigned>(end - parent));
}
