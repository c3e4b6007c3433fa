/// Pending entries: a ring of them for each list.
#include "client/pending.h"

#include <cassert>
#include <utility>

namespace tarn {

std::shared_ptr<pending> pending::end() noexcept {
    if (!kept_) {
        return nullptr;
    }
    previous_->next_ = next_;
    next_->previous_ = previous_;
    listed_ = false;
    return std::move(kept_);
}

pending_list::pending_list() noexcept {
    end_.previous_ = &end_;
    end_.next_ = &end_;
}

pending_list::~pending_list() {
    assert(empty());
}

bool pending_list::empty() const noexcept {
    return end_.next_ == &end_;
}

void pending_list::add(pending& added) noexcept {
    assert(!added.kept_);
    added.kept_ = self_of(added);
    added.number_ = ++newest_;
    added.previous_ = end_.previous_;
    added.next_ = &end_;
    end_.previous_->next_ = &added;
    end_.previous_ = &added;
    added.listed_ = true;
}

std::shared_ptr<pending> pending_list::take_oldest() noexcept {
    return end_.next_->end(); // the sentinel is never pending
}

} // namespace tarn
