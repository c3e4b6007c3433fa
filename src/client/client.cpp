/// The public entry to the process's client.
#include "tarn/client.h"

#include "client/client_impl.h"

namespace tarn {

client& client::get_instance(const std::weak_ptr<utils::event_loop>& loop) {
    return client_impl::get_instance(loop);
}

} // namespace tarn
