/// Field names and texts as the messages of tarn::ext show them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace tarn::ext::detail {

/// Appends the character `code` as JSON escapes it.
inline void append_escape(std::string& text, unsigned char code) {
    constexpr std::string_view digits = "0123456789abcdef";
    text += "\\u00";
    text += digits[code >> 4U];
    text += digits[code & 0xfU];
}

/// The length of the control character that begins at `at`, if it is one of those that JSON lets
/// pass but a terminal obeys, U+007F to U+009F in UTF-8; else 0. Its last byte is its code.
inline std::size_t late_control(std::string_view text, std::size_t at) noexcept {
    if (text[at] == '\x7f') {
        return 1;
    }
    if (text[at] != '\xc2' || at + 1 == text.size()) {
        return 0;
    }
    const auto code = static_cast<unsigned char>(text[at + 1]);
    return code >= 0x80U && code < 0xa0U ? 2 : 0;
}

/// `text` with these characters escaped. JSON text, which has them in its strings only, stays the
/// same JSON.
inline std::string escape_late_controls(std::string&& text) {
    std::size_t at = 0;
    while (at < text.size() && late_control(text, at) == 0) {
        ++at;
    }
    if (at == text.size()) {
        return std::move(text); // nearly always
    }
    std::string escaped(text, 0, at);
    while (at < text.size()) {
        if (const std::size_t length = late_control(text, at)) {
            at += length;
            append_escape(escaped, static_cast<unsigned char>(text[at - 1]));
        } else {
            escaped += text[at++];
        }
    }
    return escaped;
}

/// `text` in quotation marks, escaped as in JSON, with every control character. Other bytes of 0x80
/// and above stay as they are.
inline std::string quote(std::string_view text) {
    std::string quoted = "\"";
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
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
            if (const auto byte = static_cast<unsigned char>(c); byte < 0x20U) {
                append_escape(quoted, byte);
            } else if (const std::size_t length = late_control(text, at)) {
                at += length - 1;
                append_escape(quoted, static_cast<unsigned char>(text[at]));
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
