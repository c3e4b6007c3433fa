/// Entries of lists that are made in advance.
#pragma once

#include "counted.h"

#include <list>
#include <memory>

namespace tarn {

/// The entry of an operation in a list of such, made as a part of it: so listing it cannot fail.
template <class Operation>
class list_entry {
public:
    /// Lists `operation`, which keeps it alive. Once.
    void add_to(std::list<std::shared_ptr<Operation>>& operations, Operation& operation) noexcept {
        made_.front() = self_of(operation);
        operations.splice(operations.end(), made_);
    }

private:
    std::list<std::shared_ptr<Operation>> made_ = std::list<std::shared_ptr<Operation>>(1);
};

} // namespace tarn
