/// The encoder as a means of comparison, for the targets that decode.
#pragma once

#include "input.h"
#include "tarn/blob.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace fuzz {

/// The message that holds `fields`.
inline std::string encode(const tarn::blob::table& fields) {
    static tarn::blob::buf encoder;
    encoder = fields;
    const blob_attr* const head = encoder.native()->head;
    return std::string(reinterpret_cast<const char*>(head), blob_raw_len(head));
}

/// Runs `read` and returns whether it came to an end; only the errors that the readers document
/// count as a refusal.
template <class Read>
bool reads(Read&& read) {
    try {
        read();
        return true;
    } catch (const std::logic_error& error) {
        const std::string_view text = error.what();
        require(text.find("tarn::blob::utils::to_attr: Unknown type") == 0 ||
                    text == "tarn::blob::utils::to_blobmsg_type: Unknown type",
                "a documented std::logic_error");
    } catch (const std::runtime_error& error) {
        const std::string_view text = error.what();
        require(text == "tarn::blob::utils::to_table: Bad attr" ||
                    text == "tarn::blob::utils::to_array: Bad attr" ||
                    text == "tarn::blob::utils::to_attr: Bad attr" ||
                    text == "tarn::blob::utils::to_table: Failed to parse message",
                "a documented std::runtime_error");
    }
    return false;
}

} // namespace fuzz
