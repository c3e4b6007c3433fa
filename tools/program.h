/// What all commands of tarn share: the loop, the client on it, and time limits.
#pragma once

#include <tarn/client.h>
#include <tarn/loops/epoll_loop.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace tools {

/// The program's loop, which outlives the client made after it.
const std::shared_ptr<tarn::loops::epoll_loop>& the_loop();

/// The program's client, made on the first call.
tarn::client& the_client();

/// Runs `expired` on the loop once `limit` has passed, as long as the timer lives; zero is no
/// limit.
std::shared_ptr<tarn::utils::event_loop::timer> after(std::chrono::seconds limit,
                                                      const std::function<void()>& expired);

/// Refuses the path that no object has. Throws usage_error.
void refuse_empty(const std::string& path);

} // namespace tools
