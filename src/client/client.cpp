/// The public entry to the process's client.
#include "tarn/client.h"

#include "client/client_impl.h"

#include <stdexcept>

namespace tarn {

client& client::get_instance(const std::weak_ptr<utils::event_loop>& loop) {
    return client_impl::get_instance(loop);
}

utils::link client::invoke_each(const std::string& path, const std::string& method,
                                const std::multimap<std::string, blob::attr>& args,
                                const reply_handler& each, const completion_handler& handler,
                                const std::chrono::seconds& timeout) {
    const auto tell = [each, handler](const std::list<blob::attr>& replies,
                                      const std::error_code& code) {
        for (const auto& reply : replies) {
            if (each) {
                each(reply);
            }
        }
        if (handler) {
            handler(code);
        }
    };
    return invoke(path, method, args, tell, timeout);
}

std::weak_ptr<utils::event_loop> client::get_event_loop() const {
    return {};
}

bus& client::get_bus() {
    throw std::logic_error("tarn::client: No bus");
}

} // namespace tarn
