/// Operations that are their own links.
#pragma once

#include "counted.h"
#include "tarn/link.h"

namespace tarn {

/// The back end of links of which each is a handle on the object itself.
class own_link : public utils::link::impl, public self_counted {
public:
    /// Another handle on it.
    utils::link handle();
};

} // namespace tarn
