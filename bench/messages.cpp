/// The messages that encoding and decoding are measured with.
#include "messages.h"

#include <utility>

namespace tarn::bench {
namespace {

sample_message message_of(std::string label, std::vector<plain_field> fields) {
    sample_message made{std::move(label), std::move(fields), {}};
    for (const plain_field& field : made.fields) {
        blob::attr value;
        switch (field.type) {
        case BLOBMSG_TYPE_STRING:
            value.set(field.text);
            break;
        case BLOBMSG_TYPE_INT64:
            value.set(field.number);
            break;
        case BLOBMSG_TYPE_INT8:
            value.set(field.number != 0);
            break;
        default:
            value.set(static_cast<std::uint32_t>(field.number));
        }
        made.table.emplace(field.name, std::move(value));
    }
    return made;
}

std::vector<plain_field> hundred_fields() {
    std::vector<plain_field> fields;
    for (unsigned i = 0; i < 100; ++i) {
        const std::string name = "field_" + std::to_string(i);
        if (i % 2 == 0) {
            fields.push_back({name, BLOBMSG_TYPE_INT32, i, {}});
        } else {
            fields.push_back({name, BLOBMSG_TYPE_STRING, 0, "the text of " + name});
        }
    }
    return fields;
}

} // namespace

const std::vector<sample_message>& sample_messages() {
    static const std::vector<sample_message> messages{
        message_of("1 field", {{"n", BLOBMSG_TYPE_INT32, 42, {}}}),
        message_of("6 fields", {{"interface", BLOBMSG_TYPE_STRING, 0, "lan"},
                                {"up", BLOBMSG_TYPE_INT8, 1, {}},
                                {"uptime", BLOBMSG_TYPE_INT32, 86400, {}},
                                {"received", BLOBMSG_TYPE_INT64, 1234567890123, {}},
                                {"address", BLOBMSG_TYPE_STRING, 0, "192.168.100.200"},
                                {"metric", BLOBMSG_TYPE_INT32, 10, {}}}),
        message_of("100 fields", hundred_fields()),
        message_of("100 KiB", {{"text", BLOBMSG_TYPE_STRING, 0, std::string(100UL * 1024, 'x')}}),
    };
    return messages;
}

void add_plain(blob_buf& message, const std::vector<plain_field>& fields) {
    for (const plain_field& field : fields) {
        const char* const name = field.name.c_str();
        switch (field.type) {
        case BLOBMSG_TYPE_STRING:
            blobmsg_add_string(&message, name, field.text.c_str());
            break;
        case BLOBMSG_TYPE_INT64:
            blobmsg_add_u64(&message, name, field.number);
            break;
        case BLOBMSG_TYPE_INT8:
            blobmsg_add_u8(&message, name, static_cast<std::uint8_t>(field.number));
            break;
        default:
            blobmsg_add_u32(&message, name, static_cast<std::uint32_t>(field.number));
        }
    }
}

} // namespace tarn::bench
