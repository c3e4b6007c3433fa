/// The requests that libubus is working on.
#include "client/request_table.h"

#include <utility>

namespace tarn {

namespace {

constexpr std::size_t numbers_per_object = 65536;

std::uint64_t in_object(std::uint32_t peer, std::uint16_t number) {
    return (std::uint64_t{peer} << 16U) | number;
}

} // namespace

bool request_table::insert(ubus_context& bus, std::uint32_t peer, const record& request) {
    const auto pending = pending_.try_emplace(peer, 0).first;
    if (pending->second == numbers_per_object) {
        return false;
    }
    const auto next = [&bus, peer] {
        return in_object(peer, static_cast<std::uint16_t>(bus.request_seq + 1));
    };
    while (numbers_.count(next()) != 0) {
        ++bus.request_seq;
    }
    const auto number = numbers_.insert(next()).first;
    try {
        requests_.emplace(request.get(), entry{request, *number});
    } catch (...) {
        numbers_.erase(number);
        throw;
    }
    ++pending->second;
    return true;
}

request_table::record request_table::find(ubus_request* request) const {
    const auto found = requests_.find(request);
    return found == requests_.end() ? nullptr : found->second.request;
}

bool request_table::erase(ubus_request* request) {
    const auto found = requests_.find(request);
    if (found == requests_.end()) {
        return false;
    }
    const std::uint64_t number = found->second.number;
    requests_.erase(found);
    numbers_.erase(number);
    const auto pending = pending_.find(static_cast<std::uint32_t>(number >> 16U));
    if (--pending->second == 0) {
        pending_.erase(pending);
    }
    return true;
}

request_table::entries request_table::take_all() {
    numbers_.clear();
    pending_.clear();
    return std::exchange(requests_, {});
}

} // namespace tarn
