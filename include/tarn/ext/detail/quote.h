/// Field names and texts as the messages of tarn::ext show them.
#pragma once

#include <string>
#include <string_view>

namespace tarn::ext::detail {

/// `text` in quotation marks, escaped as in JSON. Bytes of 0x80 and above stay as they are.
inline std::string quote(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string quoted = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        switch (c) {
        case '"':
        case '\\':
            quoted += '\\';
            quoted += c;
            break;
        case '\b':
            quoted += "\\b";
            break;
        case '\f':
            quoted += "\\f";
            break;
        case '\n':
            quoted += "\\n";
            break;
        case '\r':
            quoted += "\\r";
            break;
        case '\t':
            quoted += "\\t";
            break;
        default:
            if (byte < 0x20U) {
                quoted += "\\u00";
                quoted += digits[byte >> 4U];
                quoted += digits[byte & 0xfU];
            } else {
                quoted += c;
            }
        }
    }
    quoted += '"';
    return quoted;
}

/// A field's name as part of a path: bare where that reads well, else quoted.
inline std::string path_name(std::string_view name) {
    constexpr std::string_view plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    const bool bare = !name.empty() && name.find_first_not_of(plain) == std::string_view::npos;
    return bare ? std::string(name) : quote(name);
}

} // namespace tarn::ext::detail
