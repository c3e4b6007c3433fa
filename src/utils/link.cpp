/// Links: the handles of what can be cancelled or released.
#include "tarn/link.h"

#include <stdexcept>
#include <utility>

namespace tarn::utils {

link::impl::~impl() = default;

link::link(const std::shared_ptr<impl>& back_end) noexcept
    : impl_(back_end) {}

link::~link() = default;

link& link::operator=(const link& other) noexcept {
    assign(other);
    return *this;
}

link& link::operator=(link&& other) noexcept {
    assign(std::move(other));
    return *this;
}

bool link::active() const {
    return impl_ && impl_->active();
}

void link::release() {
    // A reference of its own: the release may destroy or reassign the very link it is called on.
    const std::shared_ptr<impl> back_end = impl_;
    if (!back_end || !back_end->active()) {
        return;
    }
    back_end->release();
    if (back_end->active()) {
        throw std::logic_error("tarn failed to release link");
    }
}

void link::assign(const link& other) noexcept {
    std::shared_ptr<impl>(other.impl_).swap(impl_);
}

void link::assign(link&& other) noexcept {
    // What this link held is released last, when both links are final: its end may access either.
    const std::shared_ptr<impl> dropped = std::move(impl_);
    impl_.swap(other.impl_);
}

scoped_link::scoped_link(const link& l) noexcept
    : link(l) {}

scoped_link::scoped_link(link&& l) noexcept
    : link(static_cast<const link&>(l)) {}

scoped_link::scoped_link(scoped_link&& other) noexcept
    : link() {
    assign(std::move(other));
}

scoped_link& scoped_link::operator=(const link& l) {
    release();
    assign(l);
    return *this;
}

scoped_link& scoped_link::operator=(link&& l) {
    release();
    assign(std::move(l));
    return *this;
}

scoped_link& scoped_link::operator=(scoped_link&& other) {
    release();
    assign(std::move(other));
    return *this;
}

scoped_link::~scoped_link() {
    release();
}

} // namespace tarn::utils
