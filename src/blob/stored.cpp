/// The stored types of values that come from elsewhere.
#include "blob/stored.h"

namespace tarn::blob::detail {

namespace {

template <class... S>
type_fn find(const std::type_index& type, types<S...> /*candidates*/) {
    // An array, since g++ 9 deduces no type from a list of templates' addresses.
    const type_fn all[] = {&type_of<S>...};
    for (const type_fn ours : all) {
        if (ours() == type) {
            return ours;
        }
    }
    return nullptr;
}

} // namespace

type_fn same_type_here(type_fn other) {
    return find(other(), stored_types());
}

} // namespace tarn::blob::detail
