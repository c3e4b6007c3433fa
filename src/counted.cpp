/// The one kind of reference counter.
#include "counted.h"

namespace tarn::detail {

namespace {

/// For the counter, in front of the object.
constexpr std::size_t counter_room = 64;
static_assert(counter_room % alignof(std::max_align_t) == 0);

/// Destroys the object behind it.
struct object_owner {
    object_owner(void* owned, destroyer with) noexcept
        : object(owned)
        , destroy(with) {}
    object_owner(const object_owner&) = delete;
    object_owner& operator=(const object_owner&) = delete;
    ~object_owner() { destroy(object); }

    void* const object;
    const destroyer destroy;
};

/// Hands out a block that has been allocated, and frees it.
template <class T>
class ready_allocator {
public:
    using value_type = T;

    explicit ready_allocator(char* block) noexcept
        : block_(block) {}
    template <class U>
    ready_allocator(const ready_allocator<U>& other) noexcept
        : block_(other.block_) {}

    T* allocate(std::size_t /*n*/) noexcept {
        static_assert(sizeof(T) <= counter_room);
        return reinterpret_cast<T*>(block_);
    }
    void deallocate(T* block, std::size_t /*n*/) noexcept {
        ::operator delete(static_cast<void*>(block));
    }

    template <class U>
    bool operator==(const ready_allocator<U>& other) const noexcept {
        return block_ == other.block_;
    }
    template <class U>
    bool operator!=(const ready_allocator<U>& other) const noexcept {
        return block_ != other.block_;
    }

private:
    template <class U>
    friend class ready_allocator;

    char* block_;
};

} // namespace

std::shared_ptr<void> share(void* object, destroyer destroy, self_counted* self) noexcept {
    std::shared_ptr<void> owner = std::allocate_shared<object_owner>(
        ready_allocator<object_owner>(static_cast<char*>(object) - counter_room), object, destroy);
    if (self) {
        self->self_ = owner;
    }
    return owner;
}

} // namespace tarn::detail

void* operator new(std::size_t size, tarn::detail::behind_counter /*where*/) {
    return static_cast<char*>(::operator new(tarn::detail::counter_room + size)) +
           tarn::detail::counter_room;
}

void operator delete(void* object, tarn::detail::behind_counter /*where*/) noexcept {
    ::operator delete(static_cast<char*>(object) - tarn::detail::counter_room);
}
