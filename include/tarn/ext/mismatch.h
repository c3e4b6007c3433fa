/// tarn::ext::mismatch: the exception of a value that is not what was asked for.
#pragma once

#include "tarn/export.h"
#include "tarn/ext/detail/quote.h"

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarn::ext {

/// A value is not what was asked for. what() names the field and, in words, what was wanted and
/// what was found: "lan.ports[2].mtu: expected a signed 16-bit integer, found a string". Names that
/// hold other characters than letters, digits, `_` and `-` are quoted.
///
/// Copying does not throw. Thread: any; a const object may be used on several at once.
class TARN_API mismatch : public std::runtime_error {
public:
    /// For the value itself: `wanted` and `found` in words, such as "a table" and "no such field".
    mismatch(const std::string& wanted, const std::string& found)
        : mismatch("", wanted, found) {}

    /// The same mismatch seen from the table whose field `name` holds the value.
    mismatch within(std::string_view name) const {
        const std::string& inner = path();
        const char* const dot = inner.empty() || inner.front() == '[' ? "" : ".";
        return {detail::path_name(name) + dot + inner, wanted(), found()};
    }

    /// The same mismatch seen from the list whose element number `index` holds the value.
    mismatch within(std::size_t index) const {
        const std::string& inner = path();
        const char* const dot = inner.empty() || inner.front() == '[' ? "" : ".";
        return {'[' + std::to_string(index) + ']' + dot + inner, wanted(), found()};
    }

    /// Where the value is, such as `lan.ports[2].mtu`; empty for the value itself.
    const std::string& path() const noexcept { return parts_->path; }
    /// What was asked for, in words.
    const std::string& wanted() const noexcept { return parts_->wanted; }
    /// What is there instead, in words.
    const std::string& found() const noexcept { return parts_->found; }

private:
    struct parts {
        std::string path;
        std::string wanted;
        std::string found;
    };

    mismatch(const std::string& path, const std::string& wanted, const std::string& found)
        : std::runtime_error((path.empty() ? "" : path + ": ") + "expected " + wanted + ", found " +
                             found)
        , parts_(std::make_shared<const parts>(parts{path, wanted, found})) {}

    std::shared_ptr<const parts> parts_; ///< shared, so that copies do not throw
};

} // namespace tarn::ext
