/// tarn::ext::reply: reads the fields of a table as C++ types.
#pragma once

#include "tarn/ext/convert.h"

#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeindex>
#include <utility>

namespace tarn::ext {

namespace detail {

/// One part of a path: the name of a field, or the number of a list's element.
class step {
public:
    template <class T, std::enable_if_t<std::is_convertible_v<const T&, std::string_view> ||
                                            (std::is_integral_v<T> && !std::is_same_v<T, bool>),
                                        int> = 0>
    step(const T& part) {
        if constexpr (std::is_integral_v<T>) {
            is_index_ = true;
            index_ = static_cast<std::size_t>(part);
        } else {
            name_ = part;
        }
    }

    /// The value that this part leads to from `value`; null when there is none. Throws mismatch
    /// when `value` is not of the kind that has such parts.
    const blob::attr* from(const blob::attr& value) const {
        if (!is_index_) {
            return find_field(expect<blob::table>(value, "a table"), std::string(name_));
        }
        const auto& values = expect<blob::list>(value, "a list");
        return index_ < values.size()
                   ? &*std::next(values.begin(), static_cast<std::ptrdiff_t>(index_))
                   : nullptr;
    }

    /// `inner`, as seen from before this part.
    mismatch around(const mismatch& inner) const {
        return is_index_ ? inner.within(index_) : inner.within(name_);
    }

    const char* absent() const { return is_index_ ? "no such element" : "no such field"; }

private:
    std::string_view name_;
    std::size_t index_ = 0;
    bool is_index_ = false;
};

} // namespace detail

/// The table of a reply, or of a call's arguments, and its fields as C++ types.
///
/// Owns the table and never changes it. Copies share it, so they are cheap, and so is a table that
/// is read from it as a reply: at<reply>("network") stays valid when this one is gone.
///
/// A path is given part by part: `at<std::string>("network", "ip")`, with the number of an element
/// where a list is passed: `at<int>("ports", 0, "mtu")`. There is no written form with dots, since
/// the names of fields may hold dots themselves. Of several fields of one name the first counts.
/// What T may be, and which conversions there are, says convert.h.
///
/// Thread: any; one object may be read on several threads at once.
class reply {
public:
    /// No fields.
    reply() = default;
    /// Takes `fields` over.
    explicit reply(blob::table fields)
        : value_(std::make_shared<const blob::attr>(std::move(fields))) {}

    /// The value at `path`, a T. A std::optional is std::nullopt where the path leads nowhere.
    /// Throws mismatch, which names the path, what was wanted and what was found, when there is no
    /// such field or it is not a T.
    template <class T, class... Path>
    T at(const Path&... path) const {
        static_assert(sizeof...(path) > 0, "at() takes the name of a field");
        return read<T>({detail::step(path)...});
    }

    /// The value at `path` if it is there and is a T, else std::nullopt. Where a field of another
    /// type is a mistake to report, use at<std::optional<T>>(), which throws then.
    template <class T, class... Path>
    std::optional<T> get(const Path&... path) const {
        try {
            return at<T>(path...);
        } catch (const mismatch&) {
            return std::nullopt;
        }
    }

    /// The field `name` if it is there and has the type of `otherwise`, else `otherwise`. A string
    /// for a text.
    template <class T>
    auto value_or(std::string_view name, T&& otherwise) const {
        using plain = std::decay_t<T>;
        using value = std::conditional_t<blob::detail::is_text<plain>, std::string, plain>;
        auto found = get<value>(name);
        return found ? *std::move(found) : value(std::forward<T>(otherwise));
    }

    /// Whether there is a field called `name`, of any type.
    bool has(std::string_view name) const {
        return detail::find_field(fields(), std::string(name)) != nullptr;
    }

    /// Whether there are no fields.
    bool empty() const { return fields().empty(); }

    /// All fields, valid as long as this reply or a copy of it.
    const blob::table& fields() const {
        static const blob::table none;
        return value_ ? value_->get<blob::table>() : none;
    }

private:
    /// A table inside another one's value, which it keeps alive.
    explicit reply(std::shared_ptr<const blob::attr> value)
        : value_(std::move(value)) {}

    template <class T>
    T read(std::initializer_list<detail::step> path) const {
        static const blob::attr none = blob::table();
        const blob::attr* value = value_ ? value_.get() : &none;
        auto reached = path.begin();
        try {
            for (; reached != path.end() && value != nullptr; ++reached) {
                value = reached->from(*value);
            }
            if (value != nullptr) {
                return read_value<T>(*value);
            }
            // One too far: seen from before the part that leads nowhere.
            if constexpr (detail::is_optional<T>) {
                return std::nullopt;
            } else {
                throw mismatch(detail::wanted_words<T>(), std::prev(reached)->absent());
            }
        } catch (const mismatch& wrong) {
            mismatch whole = wrong;
            while (reached != path.begin()) {
                whole = std::prev(reached)->around(whole);
                --reached;
            }
            throw whole;
        }
    }

    template <class T>
    T read_value(const blob::attr& value) const {
        if constexpr (std::is_same_v<T, reply>) {
            detail::expect<blob::table>(value, "a table");
            return reply(std::shared_ptr<const blob::attr>(value_, &value));
        } else {
            return convert<T>::read(value);
        }
    }

    std::shared_ptr<const blob::attr> value_; ///< holds a table; null when there are no fields
};

/// \cond
template <>
struct convert<reply> {
    static reply read(const blob::attr& value) {
        return reply(detail::expect<blob::table>(value, "a table"));
    }
    static blob::attr write(const reply& value) { return value.fields(); }
    static std::type_index stored_type() { return typeid(blob::table); }
};
/// \endcond

} // namespace tarn::ext
