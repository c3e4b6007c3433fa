/// Boxes of lists and tables: copying and destroying nested values with a constant amount of stack.
#include "blob/container.h"

#include "blob/stored.h"

#include <tuple>

namespace tarn::blob::detail {

namespace {

attr& value_of(attr& element) noexcept {
    return element;
}
attr& value_of(table::value_type& entry) noexcept {
    return entry.second;
}

attr& append_twin(list& to, const attr&) {
    return to.emplace_back();
}
attr& append_twin(table& to, const table::value_type& original) {
    // The source is in order, so the end is always the right place, after equal keys too.
    return to
        .emplace_hint(to.end(), std::piecewise_construct, std::forward_as_tuple(original.first),
                      std::tuple<>())
        ->second;
}

const attr& value_of(const attr& element) noexcept {
    return element;
}
const attr& value_of(const table::value_type& entry) noexcept {
    return entry.second;
}

/// Makes `twin`, empty so far, a copy of `original`, a nested box left empty and queued.
void copy_without_nested(const attr& original, attr& twin, box_chain& unfilled) {
    if (const container_closure* nested = closure_in(original)) {
        container_closure::queue_twin(*nested, attr_access::value(twin), unfilled);
    } else {
        attr_access::value(twin) = attr_access::value(original);
    }
    attr_access::type(twin) = attr_access::type(original);
}

template <class Container>
class box_of final : public box {
public:
    void* address() noexcept override { return &elements_; }

    std::unique_ptr<box> make_empty() const override { return std::make_unique<box_of>(); }

    void copy_elements(const box& source, box_chain& unfilled) override {
        for (const auto& original : static_cast<const box_of&>(source).elements_) {
            attr& twin = append_twin(elements_, original);
            copy_without_nested(value_of(original), twin, unfilled);
        }
    }

    void release_nested(box_chain& released) noexcept override {
        for (auto& element : elements_) {
            if (container_closure* nested = closure_in(value_of(element))) {
                if (box* taken = nested->release()) {
                    released.push(*taken);
                }
            }
        }
    }

private:
    Container elements_;
};

} // namespace

void box_chain::push(box& entry) noexcept {
    entry.next_ = first_;
    first_ = &entry;
}

box* box_chain::pop() noexcept {
    box* const entry = first_;
    if (entry) {
        first_ = entry->next_;
    }
    return entry;
}

container_closure::container_closure(const container_closure& other) {
    // Complete from here on, so that a failure below destroys what has been copied so far.
    container_closure copy(other.box_->make_empty());
    box_chain unfilled;
    copy.box_->source_ = other.box_;
    unfilled.push(*copy.box_);
    while (box* const next = unfilled.pop()) {
        next->copy_elements(*next->source_, unfilled);
    }
    box_ = copy.release();
}

container_closure::~container_closure() {
    destroy(box_);
}

void container_closure::destroy(box* root) noexcept {
    if (!root) {
        return;
    }
    box_chain doomed;
    doomed.push(*root);
    while (box* const next = doomed.pop()) {
        next->release_nested(doomed);
        delete next;
    }
}

void container_closure::queue_twin(const container_closure& original, std::function<void*()>& twin,
                                   box_chain& unfilled) {
    std::unique_ptr<box> empty = original.box_->make_empty();
    box& queued = *empty;
    twin = container_closure(std::move(empty));
    queued.source_ = original.box_;
    unfilled.push(queued);
}

const container_closure* closure_in(const attr& value) noexcept {
    // The type is checked first: a std::function determines what it holds by comparing names.
    const type_fn type = attr_access::type(value);
    return type == &type_of<list> || type == &type_of<table>
               ? attr_access::value(value).target<container_closure>()
               : nullptr;
}

container_closure* closure_in(attr& value) noexcept {
    return const_cast<container_closure*>(closure_in(std::as_const(value)));
}

template <class Container>
Container& hold_empty(attr& empty) {
    std::unique_ptr<box> owned = make_box<Container>();
    auto* const elements = static_cast<Container*>(owned->address());
    attr_access::value(empty) = container_closure(std::move(owned));
    attr_access::type(empty) = &type_of<Container>;
    return *elements;
}

template list& hold_empty<list>(attr& empty);
template table& hold_empty<table>(attr& empty);

template <class Container>
std::unique_ptr<box> make_box() {
    return std::make_unique<box_of<Container>>();
}

template std::unique_ptr<box> make_box<list>();
template std::unique_ptr<box> make_box<table>();

} // namespace tarn::blob::detail
