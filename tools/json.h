/// JSON to message values and back, for the command-line client.
#pragma once

#include <tarn/blob.h>

#include <nlohmann/json.hpp>

#include <string>

namespace tools {

/// The message that a JSON text describes: an object, or nothing at all for an empty message.
/// Integers become 32 bits wide when they fit (signed), else 64; numbers with a point become
/// doubles, true and false flags. Throws std::invalid_argument with a text for the user when it is
/// no JSON, no object, or holds a null, which a message cannot.
tarn::blob::table to_table(const std::string& text);

/// A message as JSON, fields in the message's order of names, repeated names kept. Integers are
/// printed signed; a byte of 0 or 1 as false or true, since the bus tells no flag from a byte; raw
/// bytes as a string of hexadecimal digits.
nlohmann::ordered_json to_json(const tarn::blob::table& fields);

} // namespace tools
