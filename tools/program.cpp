/// What all commands of tarn share: the loop, the client on it, and time limits.
#include "program.h"

#include "options.h"

namespace tools {

const std::shared_ptr<tarn::loops::epoll_loop>& the_loop() {
    static const auto loop = std::make_shared<tarn::loops::epoll_loop>();
    return loop;
}

tarn::client& the_client() {
    return tarn::client::get_instance(the_loop());
}

std::shared_ptr<tarn::utils::event_loop::timer> after(std::chrono::seconds limit,
                                                      const std::function<void()>& expired) {
    auto timer = the_loop()->create_timer();
    timer->set_handler(expired);
    if (limit != std::chrono::seconds::zero()) {
        timer->set_timeout(limit);
    }
    return timer;
}

void refuse_empty(const std::string& path) {
    if (path.empty()) {
        throw usage_error("no object has an empty path");
    }
}

} // namespace tools
