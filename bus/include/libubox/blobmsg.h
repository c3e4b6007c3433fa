/// blobmsg, named and typed fields on top of blobs, for C and C++: the format of method arguments
/// and replies.
///
/// A field is a blob attribute with the extended flag whose id is its type and whose payload is a
/// header (16-bit big-endian length of the name, the name, a NUL, zeros up to a multiple of 4)
/// and the data. The elements of an array are fields with empty names. C++ code puts `extern "C"`
/// around the include.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <libubox/blob.h>

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC,
    BLOBMSG_TYPE_ARRAY,
    BLOBMSG_TYPE_TABLE,
    BLOBMSG_TYPE_STRING,
    BLOBMSG_TYPE_INT64,
    BLOBMSG_TYPE_INT32,
    BLOBMSG_TYPE_INT16,
    BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_DOUBLE,
    __BLOBMSG_TYPE_LAST,
    BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
    BLOBMSG_CAST_INT64 = __BLOBMSG_TYPE_LAST
};

struct blobmsg_hdr {
    uint16_t namelen; /* big-endian, without the NUL */
    uint8_t name[];
} __attribute__((packed));

/** A field that blobmsg_parse() looks for; UNSPEC accepts every type, CAST_INT64 every integer. */
struct blobmsg_policy {
    const char* name;
    enum blobmsg_type type;
};

/* ---- one field ----------------------------------------------------------------------------- */

/** Size of the header of a field whose name has `namelen` bytes. */
static inline int blobmsg_hdrlen(unsigned int namelen) {
    const size_t size = sizeof(struct blobmsg_hdr) + namelen + 1;
    return (int)((size + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1));
}

/** Length of the name as the header says, which in a foreign field may be anything. */
static inline uint16_t blobmsg_namelen(const struct blobmsg_hdr* hdr) {
    return be16_to_cpu(hdr->namelen);
}

/** The name; "" if there is no header. Trusts the header: see blobmsg_check_attr(). */
static inline const char* blobmsg_name(const struct blob_attr* attr) {
    if (!blob_is_extended(attr) || blob_len(attr) <= sizeof(struct blobmsg_hdr)) {
        return "";
    }
    return (const char*)((const struct blobmsg_hdr*)attr->data)->name;
}

static inline int blobmsg_type(const struct blob_attr* attr) {
    return (int)blob_id(attr);
}

/** The data; of an attribute without a header, such as a whole message, the payload; null for a
 * null one. Never beyond the field, whatever the header says. */
static inline void* blobmsg_data(const struct blob_attr* attr) {
    size_t offset = 0;
    if (!attr) {
        return NULL;
    }
    if (blob_is_extended(attr)) {
        const unsigned int namelen = blob_len(attr) < sizeof(struct blobmsg_hdr)
                                         ? 0
                                         : blobmsg_namelen((const struct blobmsg_hdr*)attr->data);
        offset = (size_t)blobmsg_hdrlen(namelen);
    }
    return (char*)blob_data(attr) + (offset < blob_len(attr) ? offset : blob_len(attr));
}

/** Length of the data, in bytes; 0 for a null field. */
static inline size_t blobmsg_data_len(const struct blob_attr* attr) {
    return attr ? blob_len(attr) - (size_t)((char*)blobmsg_data(attr) - attr->data) : 0;
}

/** The same under its other name. */
static inline size_t blobmsg_len(const struct blob_attr* attr) {
    return blobmsg_data_len(attr);
}

/* The getters trust the data to be long enough: see blobmsg_check_attr(). */

static inline uint8_t blobmsg_get_u8(struct blob_attr* attr) {
    return *(const uint8_t*)blobmsg_data(attr);
}

static inline bool blobmsg_get_bool(struct blob_attr* attr) {
    return blobmsg_get_u8(attr) != 0;
}

static inline uint16_t blobmsg_get_u16(struct blob_attr* attr) {
    uint16_t value;
    memcpy(&value, blobmsg_data(attr), sizeof value);
    return be16_to_cpu(value);
}

static inline uint32_t blobmsg_get_u32(struct blob_attr* attr) {
    uint32_t value;
    memcpy(&value, blobmsg_data(attr), sizeof value);
    return be32_to_cpu(value);
}

static inline uint64_t blobmsg_get_u64(struct blob_attr* attr) {
    uint64_t value;
    memcpy(&value, blobmsg_data(attr), sizeof value);
    return be64_to_cpu(value);
}

static inline double blobmsg_get_double(struct blob_attr* attr) {
    const uint64_t bits = blobmsg_get_u64(attr);
    double value;
    memcpy(&value, &bits, sizeof value);
    return value;
}

/** The text where it lies in the field; null for a null field. */
static inline char* blobmsg_get_string(struct blob_attr* attr) {
    return attr ? (char*)blobmsg_data(attr) : NULL;
}

/* ---- building ------------------------------------------------------------------------------ */

/** Adds a field with a copy of the `len` bytes at `data`. A null `name` stands for the empty one,
 * which gets a header too. 0, or -1 with the message as it was if the buffer cannot grow or the
 * name exceeds 65535 bytes. */
int blobmsg_add_field(struct blob_buf* buf, int type, const char* name, const void* data,
                      unsigned int len);

/** Opens an array or a table for fields to go into. The cookie is for blob_nest_end(); null where
 * blobmsg_add_field() returns -1. */
void* blobmsg_open_nested(struct blob_buf* buf, const char* name, bool array);

/* The functions below return what blobmsg_add_field() returns. */

static inline int blobmsg_add_u8(struct blob_buf* buf, const char* name, uint8_t value) {
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &value, sizeof value);
}

static inline int blobmsg_add_u16(struct blob_buf* buf, const char* name, uint16_t value) {
    value = cpu_to_be16(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &value, sizeof value);
}

static inline int blobmsg_add_u32(struct blob_buf* buf, const char* name, uint32_t value) {
    value = cpu_to_be32(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &value, sizeof value);
}

static inline int blobmsg_add_u64(struct blob_buf* buf, const char* name, uint64_t value) {
    value = cpu_to_be64(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &value, sizeof value);
}

static inline int blobmsg_add_double(struct blob_buf* buf, const char* name, double value) {
    uint64_t bits;
    memcpy(&bits, &value, sizeof bits);
    bits = cpu_to_be64(bits);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, sizeof bits);
}

static inline int blobmsg_add_string(struct blob_buf* buf, const char* name, const char* text) {
    const size_t size = strlen(text) + 1;
    return size > BLOB_ATTR_LEN_MASK
               ? -1
               : blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, text, (unsigned int)size);
}

/** Adds a copy of a field, under its own name. */
static inline int blobmsg_add_blob(struct blob_buf* buf, struct blob_attr* attr) {
    return blobmsg_add_field(buf, blobmsg_type(attr), blobmsg_name(attr), blobmsg_data(attr),
                             (unsigned int)blobmsg_data_len(attr));
}

static inline void* blobmsg_open_table(struct blob_buf* buf, const char* name) {
    return blobmsg_open_nested(buf, name, false);
}

static inline void blobmsg_close_table(struct blob_buf* buf, void* cookie) {
    blob_nest_end(buf, cookie);
}

static inline void* blobmsg_open_array(struct blob_buf* buf, const char* name) {
    return blobmsg_open_nested(buf, name, true);
}

static inline void blobmsg_close_array(struct blob_buf* buf, void* cookie) {
    blob_nest_end(buf, cookie);
}

/* ---- reading ------------------------------------------------------------------------------- */

/** Walks over the fields of a message, table or array, which may be null; `rem` is an integer
 * variable. Check each one before use. */
#define blobmsg_for_each_attr(pos, attr, rem)                                                      \
    for (pos = (struct blob_attr*)((attr) ? blobmsg_data(attr) : NULL),                            \
        rem = (attr) ? blobmsg_data_len(attr) : 0;                                                 \
         (rem) > 0 && (size_t)(rem) >= sizeof(struct blob_attr) &&                                 \
         blob_pad_len(pos) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem);      \
         rem -= blob_pad_len(pos), pos = blob_next(pos))

/** Whether a foreign field is sound: name within the field and ended by a NUL, known type, data
 * length right for the type (see blob_check_type()). A header is needed only if `name`, and then
 * the name must not be empty. What is inside tables and arrays is not looked at. */
bool blobmsg_check_attr(const struct blob_attr* attr, bool name);

/** The same for a field of which `len` bytes are there: it must not claim more. */
bool blobmsg_check_attr_len(const struct blob_attr* attr, bool name, size_t len);

/** How many elements an array has, if it is sound itself and all of them are sound and of the given
 * type (UNSPEC: any); of a table likewise its fields, which then need names. -1 otherwise, and for
 * an unknown type. */
int blobmsg_check_array(const struct blob_attr* attr, int type);

/**
 * Finds the fields that a policy names in a message's payload.
 *
 * Sets each of the `policy_len` slots in `tb` to the first field with the name and type of its
 * policy entry, or to null. Fields without a name are skipped; names of 256 bytes and more never
 * match. Returns 0; -EINVAL if `data` is null or `len` is 0, an empty message; -1 at the first
 * unsound field, with the slots filled so far.
 */
int blobmsg_parse(const struct blobmsg_policy* policy, int policy_len, struct blob_attr** tb,
                  void* data, unsigned int len);

/** Fills the slots in their order, names aside: slot i gets the next element of the type of policy
 * entry i, those of other types before it are passed over. An empty array is fine. Returns 0; -1 at
 * the first unsound element before all slots are full; what follows then is not looked at. */
int blobmsg_parse_array(const struct blobmsg_policy* policy, int policy_len, struct blob_attr** tb,
                        void* data, unsigned int len);

/** blobmsg_parse() of what is in a message or table. */
static inline int blobmsg_parse_attr(const struct blobmsg_policy* policy, int policy_len,
                                     struct blob_attr** tb, struct blob_attr* attr) {
    return blobmsg_parse(policy, policy_len, tb, blobmsg_data(attr),
                         (unsigned int)blobmsg_data_len(attr));
}
