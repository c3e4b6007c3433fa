/// Blobs, the binary format under every bus message, for C and C++: attributes, buffers to build
/// them in, and walks over received ones.
///
/// An attribute is one big-endian header word and a payload. The word holds, from the top: 1 bit
/// "extended" (the payload starts with a blobmsg header), 7 bits id, 24 bits raw length (header and
/// payload, in bytes). Attributes start at multiples of 4 within their parent; the gaps are zero.
///
/// Nothing here is safe to use on one buffer from two threads. Like the libubox of a system it has
/// no `extern "C"` of its own: C++ code puts one around the include.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <libubox/utils.h>

#define BLOB_ATTR_ID_MASK 0x7f000000u
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffffu
#define BLOB_ATTR_ALIGN 4u
#define BLOB_ATTR_EXTENDED 0x80000000u

/** What a payload is, for blob_check_type() and blob_parse(). */
enum {
    BLOB_ATTR_UNSPEC,
    BLOB_ATTR_NESTED,
    BLOB_ATTR_BINARY,
    BLOB_ATTR_STRING,
    BLOB_ATTR_INT8,
    BLOB_ATTR_INT16,
    BLOB_ATTR_INT32,
    BLOB_ATTR_INT64,
    BLOB_ATTR_DOUBLE,
    BLOB_ATTR_LAST
};

/** An attribute where it lies in a buffer or a message; needs no alignment. */
struct blob_attr {
    uint32_t id_len; /* big-endian */
    char data[];
} __attribute__((packed));

/** What blob_parse() expects of the attribute with one id. */
struct blob_attr_info {
    unsigned int type;   /* BLOB_ATTR_...; UNSPEC and unknown ones accept anything */
    unsigned int minlen; /* of header and payload, in bytes; 0: as the type asks */
    unsigned int maxlen; /* of header and payload, in bytes; 0: as the type asks */
    bool (*validate)(const struct blob_attr_info* info, struct blob_attr* attr); /* or null */
};

/**
 * A growing buffer that holds one attribute, the message, and those inside it. Zero it before the
 * first blob_buf_init().
 *
 * While nothing is nested, `head` is the message. Adding anything may move the memory, and with
 * it every attribute handed out before.
 */
struct blob_buf {
    struct blob_attr* head; /* the innermost open attribute, which new ones go into */
    /* Makes room for at least `minlen` more bytes: sets `buf` and `buflen`, keeps the contents.
     * Null before blob_buf_init(): the heap is used. */
    bool (*grow)(struct blob_buf* buf, int minlen);
    int buflen;
    void* buf;
};

/* ---- one attribute ------------------------------------------------------------------------- */

static inline void* blob_data(const struct blob_attr* attr) {
    return (void*)attr->data;
}

static inline unsigned int blob_id(const struct blob_attr* attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr* attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_EXTENDED) != 0;
}

/** Length of header and payload, in bytes. A foreign attribute may claim less than a header. */
static inline size_t blob_raw_len(const struct blob_attr* attr) {
    return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

/** Length of the payload, in bytes; 0 for an attribute that claims less than a header. */
static inline size_t blob_len(const struct blob_attr* attr) {
    const size_t raw = blob_raw_len(attr);
    return raw < sizeof(struct blob_attr) ? 0 : raw - sizeof(struct blob_attr);
}

/** Length of header, payload and the gap behind them, in bytes. */
static inline size_t blob_pad_len(const struct blob_attr* attr) {
    return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

/** Where the attribute after this one starts. Whether there is one, the walks below know. */
static inline struct blob_attr* blob_next(const struct blob_attr* attr) {
    return (struct blob_attr*)((char*)attr + blob_pad_len(attr));
}

/* The getters trust the payload to be long enough: see blob_check_type(). */

static inline uint8_t blob_get_u8(const struct blob_attr* attr) {
    return (uint8_t)attr->data[0];
}

static inline uint16_t blob_get_u16(const struct blob_attr* attr) {
    uint16_t value;
    memcpy(&value, attr->data, sizeof value);
    return be16_to_cpu(value);
}

static inline uint32_t blob_get_u32(const struct blob_attr* attr) {
    uint32_t value;
    memcpy(&value, attr->data, sizeof value);
    return be32_to_cpu(value);
}

static inline uint64_t blob_get_u64(const struct blob_attr* attr) {
    uint64_t value;
    memcpy(&value, attr->data, sizeof value);
    return be64_to_cpu(value);
}

static inline int8_t blob_get_int8(const struct blob_attr* attr) {
    return (int8_t)blob_get_u8(attr);
}

static inline int16_t blob_get_int16(const struct blob_attr* attr) {
    return (int16_t)blob_get_u16(attr);
}

static inline int32_t blob_get_int32(const struct blob_attr* attr) {
    return (int32_t)blob_get_u32(attr);
}

static inline int64_t blob_get_int64(const struct blob_attr* attr) {
    return (int64_t)blob_get_u64(attr);
}

static inline const char* blob_get_string(const struct blob_attr* attr) {
    return attr->data;
}

/* ---- walks --------------------------------------------------------------------------------- */

/* A walk stops, without an error, where the bytes left do not hold a whole attribute with the gap
 * behind it. */

/** Walks over the attributes in the `rem` bytes at `attr`; `rem` is an integer variable that
 * counts down. An attribute visited lies within these bytes, but may claim less than a header. */
#define __blob_for_each_attr(pos, attr, rem)                                                       \
    for (pos = (struct blob_attr*)(attr);                                                          \
         (rem) > 0 && (size_t)(rem) >= sizeof(struct blob_attr) &&                                 \
         blob_pad_len(pos) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem);      \
         rem -= blob_pad_len(pos), pos = blob_next(pos))

/** Walks over the children of `attr`, which may be null. */
#define blob_for_each_attr(pos, attr, rem)                                                         \
    for (pos = (struct blob_attr*)((attr) ? blob_data(attr) : NULL),                               \
        rem = (attr) ? blob_len(attr) : 0;                                                         \
         (rem) > 0 && (size_t)(rem) >= sizeof(struct blob_attr) &&                                 \
         blob_pad_len(pos) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem);      \
         rem -= blob_pad_len(pos), pos = blob_next(pos))

/* ---- buffers ------------------------------------------------------------------------------- */

/** Starts an empty message. Memory the buffer has already is used again. 0, or -ENOMEM. */
int blob_buf_init(struct blob_buf* buf, int id);

/** Gives the memory back. blob_buf_init() starts again. */
void blob_buf_free(struct blob_buf* buf);

/** Makes room for more than `required` bytes: the heap is asked for the next multiple of 256 above
 * it. False, with everything as it was, if the memory is exhausted or the buffer would exceed
 * 0x1000000 bytes. */
bool blob_buf_grow(struct blob_buf* buf, int required);

/* What follows adds to the innermost open attribute. All return null, with the message as it was,
 * if the buffer cannot grow or has not been initialised, or if the message would exceed 0xffffff
 * bytes, the longest that its length can say. */

/** Adds an attribute with a payload of `payload` bytes, to be written by the caller. */
struct blob_attr* blob_new(struct blob_buf* buf, int id, int payload);

/** Adds an attribute with a copy of the `len` bytes at `ptr`; of zeros if `ptr` is null. */
struct blob_attr* blob_put(struct blob_buf* buf, int id, const void* ptr, unsigned int len);

/** Adds a copy of the `len` bytes at `ptr`, which are whole attributes; the gap behind the last is
 * zeroed, but counted in the message only when something follows. Null for a null `ptr`. */
struct blob_attr* blob_put_raw(struct blob_buf* buf, const void* ptr, unsigned int len);

/** Opens an attribute for others to go into. The cookie is for blob_nest_end() and stays valid
 * when the memory moves. */
void* blob_nest_start(struct blob_buf* buf, int id);

/** Closes the innermost open attribute; `cookie` is from the call that opened it. */
void blob_nest_end(struct blob_buf* buf, void* cookie);

static inline struct blob_attr* blob_put_u8(struct blob_buf* buf, int id, uint8_t value) {
    return blob_put(buf, id, &value, sizeof value);
}

static inline struct blob_attr* blob_put_u16(struct blob_buf* buf, int id, uint16_t value) {
    value = cpu_to_be16(value);
    return blob_put(buf, id, &value, sizeof value);
}

static inline struct blob_attr* blob_put_u32(struct blob_buf* buf, int id, uint32_t value) {
    value = cpu_to_be32(value);
    return blob_put(buf, id, &value, sizeof value);
}

static inline struct blob_attr* blob_put_u64(struct blob_buf* buf, int id, uint64_t value) {
    value = cpu_to_be64(value);
    return blob_put(buf, id, &value, sizeof value);
}

#define blob_put_int8 blob_put_u8
#define blob_put_int16 blob_put_u16
#define blob_put_int32 blob_put_u32
#define blob_put_int64 blob_put_u64

static inline struct blob_attr* blob_put_string(struct blob_buf* buf, int id, const char* text) {
    const size_t size = strlen(text) + 1;
    return size > BLOB_ATTR_LEN_MASK ? NULL : blob_put(buf, id, text, (unsigned int)size);
}

/* ---- whole attributes ---------------------------------------------------------------------- */

/** Sets the length of header and payload; id and extended flag stay. */
void blob_set_raw_len(struct blob_attr* attr, unsigned int len);

/** Zeroes the gap behind the attribute. */
void blob_fill_pad(struct blob_attr* attr);

/** Whether `len` bytes at `ptr` can be a payload of this type: integers have their exact width,
 * a double at least 8 bytes, a string at least the NUL that ends it. */
bool blob_check_type(const void* ptr, unsigned int len, int type);

/** Sorts the children of `attr`, whose length must be trusted, by id: `data[id]` becomes the last
 * child with that id, or null. Ids from `max` on, and children that do not fit `info[id]`, are
 * skipped; a null `info` accepts all. Returns how many slots it filled; for a null `attr`, 0. */
int blob_parse(struct blob_attr* attr, struct blob_attr** data, const struct blob_attr_info* info,
               int max);

/** The same for an attribute of which `attr_len` bytes are there. Of one that is null or claims
 * more it does not even clear the slots; one that claims less than a header is empty. */
int blob_parse_untrusted(struct blob_attr* attr, size_t attr_len, struct blob_attr** data,
                         const struct blob_attr_info* info, int max);

/** Same id, flag, length, payload and gap, or both null. Both gaps must be there. */
bool blob_attr_equal(const struct blob_attr* a1, const struct blob_attr* a2);

/** A copy from malloc(), for the caller to free, of the attribute and the gap behind it, which must
 * be there. Null if out of memory. */
struct blob_attr* blob_memdup(const struct blob_attr* attr);
