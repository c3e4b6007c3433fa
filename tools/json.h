/// JSON text to message values and back, for the command-line client.
#pragma once

#include <tarn/blob.h>

#include <string>

namespace tools {

/// The message that a JSON text describes: an object, or nothing at all for an empty message.
/// Integers become 32 bits wide when they fit (signed), else 64; numbers with a point or an
/// exponent become doubles, true and false flags, null raw bytes of which there are none. A name
/// given twice is two fields.
///
/// Throws std::invalid_argument, with a text for the user, when it is no JSON or no object, or
/// holds what a message cannot: an integer beyond 64 bits with a sign, a number beyond the range of
/// a double, a NUL character, at which the bus would cut the text off. The text says where in the
/// object that stands ("lan.ports[2]: ...").
tarn::blob::table to_table(const std::string& text);

enum class layout {
    single_line,
    indented, ///< two columns a level; the deepest levels of an absurdly deep message share theirs
};

/// A message as JSON without a final newline, fields in the message's order of names, repeated
/// names kept. Integers are printed signed; a byte of 0 or 1 as false or true, since the bus tells
/// no flag from a byte; raw bytes as a string of hexadecimal digits, and as null when there are
/// none; a double that is not finite, which JSON lacks, as null too. Text on the bus need not be
/// UTF-8: U+FFFD stands for what is not.
std::string to_text(const tarn::blob::table& fields, layout form);

} // namespace tools
