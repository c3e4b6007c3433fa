/// Fuzz target: untrusted bytes through the parsers and walks of libubox's blob formats.
#include "input.h"

#include <vector>

namespace {

constexpr blob_attr_info wanted[] = {
    {BLOB_ATTR_UNSPEC, 0, 0, nullptr}, {BLOB_ATTR_NESTED, 0, 0, nullptr},
    {BLOB_ATTR_BINARY, 2, 8, nullptr}, {BLOB_ATTR_STRING, 0, 16, nullptr},
    {BLOB_ATTR_INT8, 0, 0, nullptr},   {BLOB_ATTR_INT16, 0, 0, nullptr},
    {BLOB_ATTR_INT32, 0, 0, nullptr},  {BLOB_ATTR_INT64, 0, 0, nullptr},
    {BLOB_ATTR_DOUBLE, 0, 0, nullptr},
};
constexpr int ids = sizeof wanted / sizeof wanted[0];

constexpr blobmsg_policy fields[] = {
    {"", BLOBMSG_TYPE_UNSPEC},    {"a", BLOBMSG_TYPE_STRING}, {"b", BLOBMSG_TYPE_INT32},
    {"u", BLOBMSG_TYPE_UNSPEC},   {"t", BLOBMSG_TYPE_TABLE},  {"l", BLOBMSG_TYPE_ARRAY},
    {"n", BLOBMSG_TYPE_INT64},    {"s", BLOBMSG_TYPE_INT16},  {"x", BLOBMSG_TYPE_DOUBLE},
    {nullptr, BLOBMSG_TYPE_INT8},
};
constexpr int entries = sizeof fields / sizeof fields[0];

std::uint64_t sum = 0;

void touch(const void* data, std::size_t size) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) {
        sum += bytes[i];
    }
}

/// Reads a sound field as its type says, which must never lead outside of it.
void use(blob_attr* field) {
    sum += std::strlen(blobmsg_name(field));
    touch(blobmsg_data(field), blobmsg_data_len(field));
    switch (blobmsg_type(field)) {
    case BLOBMSG_TYPE_STRING:
        sum += std::strlen(blobmsg_get_string(field));
        break;
    case BLOBMSG_TYPE_INT64:
        sum += blobmsg_get_u64(field);
        break;
    case BLOBMSG_TYPE_INT32:
        sum += blobmsg_get_u32(field);
        break;
    case BLOBMSG_TYPE_INT16:
        sum += blobmsg_get_u16(field);
        break;
    case BLOBMSG_TYPE_INT8:
        sum += blobmsg_get_bool(field) ? 1 : 2;
        break;
    case BLOBMSG_TYPE_DOUBLE:
        sum += blobmsg_get_double(field) > 0 ? 1 : 2;
        break;
    default:
        break;
    }
}

/// Walks over everything nested in the message, without recursion.
void walk(blob_attr* message) {
    std::vector<blob_attr*> open{message};
    while (!open.empty()) {
        blob_attr* const parent = open.back();
        open.pop_back();
        blob_attr* child;
        std::size_t left;
        blobmsg_for_each_attr(child, parent, left) {
            if (!blobmsg_check_attr_len(child, false, left)) {
                break;
            }
            use(child);
            const int type = blobmsg_type(child);
            if (type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY) {
                sum += static_cast<std::uint64_t>(blobmsg_check_array(child, BLOBMSG_TYPE_UNSPEC));
                open.push_back(child);
            }
        }
    }
}

void parse(const fuzz::exact_copy& bytes) {
    // Left alone where more is claimed than is there.
    blob_attr* found[ids]{};
    blob_parse_untrusted(bytes.get(), bytes.size(), found, wanted, ids);
    for (int id = 0; id < ids; ++id) {
        if (found[id] == nullptr) {
            continue;
        }
        touch(found[id], blob_raw_len(found[id]));
        if (id == BLOB_ATTR_STRING) {
            sum += std::strlen(blob_get_string(found[id]));
        }
        blob_attr* const copy = blob_memdup(found[id]);
        fuzz::require(copy != nullptr && blob_attr_equal(copy, found[id]), "a copy is equal");
        std::free(copy);
    }
}

void parse_fields(const fuzz::exact_copy& bytes) {
    blob_attr* found[entries];
    const auto length = static_cast<unsigned int>(bytes.size());
    blobmsg_parse(fields, entries, found, bytes.begin(), length);
    for (int i = 0; i < entries; ++i) {
        if (found[i] != nullptr) {
            fuzz::require(fields[i].type == BLOBMSG_TYPE_UNSPEC ||
                              fields[i].type == blobmsg_type(found[i]),
                          "a field of the type asked for");
            fuzz::require(std::strcmp(fields[i].name, blobmsg_name(found[i])) == 0,
                          "a field of the name asked for");
            use(found[i]);
        }
    }
    blobmsg_parse_array(fields, entries, found, bytes.begin(), length);
    for (blob_attr* const element : found) {
        if (element != nullptr) {
            use(element);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::input all(data, size);
    const fuzz::message received(all);
    walk(received.get());
    for (const bool name : {false, true}) {
        if (blobmsg_check_attr(received.get(), name)) {
            use(received.get());
        }
    }
    for (int type = BLOBMSG_TYPE_UNSPEC; type <= BLOBMSG_TYPE_LAST; ++type) {
        blobmsg_check_array(received.get(), type);
    }
    parse(received);

    // Here the header may claim anything.
    const fuzz::exact_copy raw(all);
    parse(raw);
    parse_fields(raw);
    if (blobmsg_check_attr_len(raw.get(), false, raw.size())) {
        use(raw.get());
    }
    return 0;
}
