/// tarn::blob::buf: encodes a table of values into a blobmsg message.
#pragma once

#include "tarn/blob/attr.h"
#include "tarn/export.h"

#include <map>
#include <memory>
#include <string>
#include <typeindex>

struct blob_buf;

namespace tarn::blob {

/// A blobmsg message under construction, in a libubox `blob_buf` that the buf owns. The library
/// builds its messages with it on the private thread; an application needs it only to make messages
/// for libubus or libubox calls of its own.
///
/// Numbers go out in network byte order, signed ones as the bits of the unsigned type of their
/// width; `bool` and `unsigned char` both become INT8, and a reader cannot distinguish them. A
/// string ends at its first NUL, and so does a name. Nesting of any depth is written with a
/// constant amount of stack. A message has at most 0xffffff bytes, a name at most 65535.
///
/// Nothing that fails rolls the message back: fields written before the failure stay, and the
/// nests that were open stay open. After an exception call clear() or discard the buf.
///
/// Threads: one at a time; no locking inside.
class TARN_API buf {
public:
    /// An empty message.
    ///
    /// Errors: throws `std::bad_alloc` when libubox cannot allocate it.
    buf();
    /// A message with the given fields, as by assign().
    buf(const std::multimap<std::string, attr>& fields);
    /// Frees the message.
    ~buf();

    buf(const buf&) = delete;
    buf& operator=(const buf&) = delete;

    /// Starts an empty message.
    ///
    /// Errors: throws `std::bad_alloc` when libubox cannot allocate it.
    void clear();

    /// Appends one field at the current level: a scalar, or a list or table with all it holds,
    /// elements of a list under the empty name.
    ///
    /// Errors: throws
    ///  - `std::logic_error` "tarn::blob::buff: Unsupported type [" + type name + "]" for an empty
    ///    attr, also one inside `value`;
    ///  - `std::runtime_error` "tarn::blob::buff: Faild to handle " + "unspec", "array", "table",
    ///    "string", "int64", "int32", "int16", "int8", "boolean" or "decimal" when the field does
    ///    not fit the message any more, its name is too long, or libubox has no memory for it;
    ///  - `std::bad_alloc`.
    void add(const std::string& name, const attr& value);

    /// Starts a new message and adds every entry of `fields` in its order.
    ///
    /// Errors: throws as clear() and add() do.
    void assign(const std::multimap<std::string, attr>& fields);
    /// As assign().
    buf& operator=(const std::multimap<std::string, attr>& fields);

    /// Whether the last field that was added or refused was one too many: the message would have
    /// become longer than a message can say. Until the next clear() or assign().
    bool overflowed() const noexcept { return overflowed_; }

    /// The buffer itself, for libubox and libubus calls; its `head` is the message. The pointer
    /// stays valid for the life of the buf; `head` changes with every operation above.
    ::blob_buf* native() noexcept { return b_.get(); }
    /// The same, to read from.
    const ::blob_buf* native() const noexcept { return b_.get(); }

private:
    struct TARN_API release {
        void operator()(::blob_buf* buffer) const noexcept;
    };

    std::unique_ptr<::blob_buf, release> b_;
    bool overflowed_ = false;
};

namespace utils {

/// The blobmsg type (a number of libubox's `enum blobmsg_type`, which a C enumeration forbids to
/// declare here) of a stored type of attr.
///
/// Thread: any.
/// Errors: throws `std::logic_error` "tarn::blob::utils::to_blobmsg_type: Unknown type" when `type`
/// is no stored type: `typeid(int)` is none, `typeid(unsigned int)` is.
TARN_API int to_blobmsg_type(const std::type_index& type);

} // namespace utils

} // namespace tarn::blob
