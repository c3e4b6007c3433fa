/// Handles on operations.
#include "client/own_link.h"

namespace tarn {

utils::link own_link::handle() {
    return misc::aggregate_adapter<utils::link>(self_of<utils::link::impl>(*this));
}

} // namespace tarn
