/// The readers of received blobmsg messages, for users of libubox messages of their own; the client
/// decodes replies and arguments with them.
#pragma once

#include "tarn/blob/attr.h"
#include "tarn/export.h"

#include <map>
#include <string>
#include <typeindex>

struct blob_attr;

namespace tarn::blob {

/// The fields that a message is expected to have: name to stored type of attr (an unsigned type
/// for integers). `bool` asks for an INT8 field as a flag; `blob::bytes` takes a field of any type.
using policy = std::multimap<std::string, std::type_index>;

/// Readers of a message or field in memory that stays the caller's and is left untouched.
///
/// Integers come back unsigned, INT8 as `unsigned char` unless a flag is requested. A string ends
/// at its first NUL. Nesting of any depth is read with a constant amount of stack, in linear time.
/// A reader returns all or throws, but where a child does not fit (see to_table()), and never reads
/// outside the field that it is given. A field whose own name does not end within it has no data.
/// Besides what each names, all throw `std::bad_alloc`.
///
/// Threads: any, as long as the memory stays valid. A message that libubus passes to a callback is
/// valid inside that callback only.
namespace utils {

/// The field's data; empty when it has none, or when the field is null.
TARN_API std::vector<unsigned char> to_unspec(::blob_attr* field);

/// The field's value, by its blob id. `int8_as_bool`: whether an INT8 is a flag; it does not reach
/// the fields of a table or array.
///
/// Errors: throws
///  - `std::logic_error` "tarn::blob::utils::to_attr: Unknown type" directly followed by the id,
///    for an id above 8, here or further inside;
///  - `std::runtime_error` "tarn::blob::utils::to_attr: Bad attr" when `field` is null or holds
///    less data than its type needs;
///  - what to_table() and to_array() throw, for what is inside.
TARN_API attr to_attr(::blob_attr* field, bool int8_as_bool);

/// Every named field of a message or of a table field, equal names in message order; a child
/// without a name is checked and skipped. Reading ends without a report at a child that does not
/// fit.
///
/// Errors: throws `std::runtime_error` "tarn::blob::utils::to_table: Bad attr" when a child is
/// malformed or `parent` is null, and what to_attr() throws for an unknown type.
TARN_API std::multimap<std::string, attr> to_table(::blob_attr* parent);

/// Every element of an array, in order, names ignored.
///
/// Errors: throws `std::runtime_error`
/// "tarn::blob::utils::to_array: Bad attr" when an element is malformed or `array` is null, and
/// what to_attr() throws for an unknown type.
TARN_API std::list<attr> to_array(::blob_attr* array);

/// The fields of a message that `policy` names, at most one for each of its entries: the first of
/// that name and type. A field that is absent or has another type is missing from the result; what
/// the policy does not name is left out.
///
/// Errors: throws
///  - `std::runtime_error` "tarn::blob::utils::to_table: Too big policy" for more than 2147483647
///    entries;
///  - `std::logic_error` "tarn::blob::utils::to_blobmsg_type: Unknown type" for an entry whose type
///    is no stored type, before the message is looked at;
///  - `std::runtime_error` "tarn::blob::utils::to_table: Failed to parse message" when `message` is
///    null or libubox refuses it; it refuses a malformed field, also one that the policy does not
///    name, and, in most releases, a message without any field;
///  - what the readers above throw, for what is inside the fields.
TARN_API std::multimap<std::string, attr>
to_table(::blob_attr* message, const std::multimap<std::string, std::type_index>& policy);

} // namespace utils

} // namespace tarn::blob
