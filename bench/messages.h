/// The messages that encoding and decoding are measured with.
#pragma once

#include "bus.h"
#include "tarn/blob/attr.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::bench {

/// One field of a message, as a program on plain libubox has it at hand.
struct plain_field {
    std::string name;
    int type = BLOBMSG_TYPE_INT32; ///< of libubox
    std::uint64_t number = 0;
    std::string text;
};

/// One message in both forms.
struct sample_message {
    std::string label; ///< for the table: "6 fields"
    std::vector<plain_field> fields;
    blob::table table;
};

/// Of one field, of 6 of mixed types, of 100 numbers and texts, and of one text of 100 KiB.
const std::vector<sample_message>& sample_messages();

/// Appends the fields to a message that has been initialised.
void add_plain(blob_buf& message, const std::vector<plain_field>& fields);

} // namespace tarn::bench
