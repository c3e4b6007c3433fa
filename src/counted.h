/// Shared objects that all have the same kind of reference counter. For everything in the library
/// that std::make_shared would make.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace tarn {

class self_counted;

namespace detail {

/// Says that an object is made behind the place for its reference counter, in one block of memory.
struct behind_counter {};

using destroyer = void (*)(void* object) noexcept;

/// The first owner of an object made behind the place for its counter.
std::shared_ptr<void> share(void* object, destroyer destroy, self_counted* self) noexcept;

} // namespace detail

/// An object that knows what keeps it alive, as by std::enable_shared_from_this.
class self_counted {
public:
    self_counted() noexcept = default;
    self_counted(const self_counted&) = delete;
    self_counted& operator=(const self_counted&) = delete;

    /// An owner of the object. Null while it is made and when it is destroyed, and always for one
    /// that make_counted() has not made.
    std::shared_ptr<void> self() const noexcept { return self_.lock(); }

protected:
    ~self_counted() = default;

private:
    friend std::shared_ptr<void> detail::share(void* object, detail::destroyer destroy,
                                               self_counted* self) noexcept;

    std::weak_ptr<void> self_;
};

/// The same with the type of the object, or of one of its bases.
template <class Base = void, class T>
auto self_of(T& object) noexcept {
    return std::shared_ptr<std::conditional_t<std::is_void_v<Base>, T, Base>>(object.self(),
                                                                              &object);
}

namespace detail {

template <class T>
void destroy_counted(void* object) noexcept {
    static_cast<T*>(object)->~T();
}

} // namespace detail

} // namespace tarn

void* operator new(std::size_t size, tarn::detail::behind_counter);
void operator delete(void* object, tarn::detail::behind_counter) noexcept;

namespace tarn {

/// As std::make_shared, and in one block of memory as well. That one has a class for the counter of
/// each T, with virtual functions and type information, which make up a large part of a small
/// library. Here each T adds the call of its destructor.
template <class T, class... Args>
std::shared_ptr<T> make_counted(Args&&... args) {
    static_assert(alignof(T) <= alignof(std::max_align_t));
    T* const made = ::new (detail::behind_counter{}) T(std::forward<Args>(args)...);
    self_counted* self = nullptr;
    if constexpr (std::is_base_of_v<self_counted, T>) {
        self = made;
    }
    return {detail::share(made, &detail::destroy_counted<T>, self), made};
}

} // namespace tarn
