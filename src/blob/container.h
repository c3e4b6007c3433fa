/// How attr holds lists and tables: boxes on the heap that are copied and destroyed without
/// recursion, for attr itself.
#pragma once

#include "tarn/blob/attr.h"

#include <functional>
#include <memory>
#include <utility>

namespace tarn::blob::detail {

class box;

/// Boxes waiting for work, linked through the boxes themselves, so that queueing never allocates.
class box_chain {
public:
    void push(box& entry) noexcept;
    box* pop() noexcept;

private:
    box* first_ = nullptr;
};

/// Owns one list or table. Nested values are boxes of their own, reached through the attrs in the
/// container; copying or destroying a box handles those in a loop, never by recursion, since a
/// hostile message may nest deeper than a small stack allows.
class box {
public:
    box() = default;
    box(const box&) = delete;
    box& operator=(const box&) = delete;
    virtual ~box() = default;

    virtual void* address() noexcept = 0;
    /// An empty box of the same kind.
    virtual std::unique_ptr<box> make_empty() const = 0;
    /// Fills this box, empty so far, with copies of the elements of `source`, a box of the same
    /// kind. Nested boxes are made empty and queued with their sources noted.
    virtual void copy_elements(const box& source, box_chain& unfilled) = 0;
    /// Detaches the nested boxes from the elements and queues them, after which this box can be
    /// destroyed alone.
    virtual void release_nested(box_chain& released) noexcept = 0;

private:
    friend class box_chain;
    friend class container_closure;

    box* next_ = nullptr;
    const box* source_ = nullptr;
};

/// What the std::function of an attr holds when the value is a list or table.
class container_closure {
public:
    explicit container_closure(std::unique_ptr<box> owned) noexcept
        : box_(owned.release()) {}
    /// A deep copy.
    container_closure(const container_closure& other);
    container_closure(container_closure&& other) noexcept
        : box_(std::exchange(other.box_, nullptr)) {}
    container_closure& operator=(const container_closure&) = delete;
    ~container_closure();

    void* operator()() const noexcept { return box_->address(); }

    box* release() noexcept { return std::exchange(box_, nullptr); }

    /// Puts an empty box into `twin` and queues it to be filled from the original's.
    static void queue_twin(const container_closure& original, std::function<void*()>& twin,
                           box_chain& unfilled);

private:
    static void destroy(box* root) noexcept;

    box* box_ = nullptr;
};

/// The closure of a list or table; null for every other value.
container_closure* closure_in(attr& value) noexcept;
const container_closure* closure_in(const attr& value) noexcept;

/// Puts an empty list or table into an attr that is empty; returns it.
template <class Container>
Container& hold_empty(attr& empty);

/// An empty box for a list or a table.
template <class Container>
std::unique_ptr<box> make_box();

} // namespace tarn::blob::detail
