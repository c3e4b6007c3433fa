/// The requests that libubus is working on.
#include "client/request_table.h"

#include <type_traits>
#include <utility>

namespace tarn {

namespace {

constexpr int numbers_per_object = 65536;

std::uint64_t in_object(std::uint32_t peer, std::uint16_t number) {
    return (std::uint64_t{peer} << 16U) | number;
}

} // namespace

bus_request::bus_request() noexcept {
    static_assert(std::is_standard_layout_v<record>, "a record is found by its first member");
    record_.whole = this;
}

bus_request& bus_request::of(ubus_request& native) noexcept {
    return *reinterpret_cast<record&>(native).whole;
}

request_table::~request_table() {
    while (take_oldest()) {}
}

bool request_table::in_use(std::uint64_t number) noexcept {
    const bus_request* entry = bucket(number);
    while (entry && entry->number_ != number) {
        entry = entry->next_of_bucket_;
    }
    return entry != nullptr;
}

bool request_table::insert(ubus_context& bus, std::uint32_t peer, const record& request) noexcept {
    const auto next = [&bus, peer] {
        return in_object(peer, static_cast<std::uint16_t>(bus.request_seq + 1));
    };
    for (int tried = 0; in_use(next()); ++bus.request_seq) {
        if (++tried == numbers_per_object) {
            return false;
        }
    }
    request->number_ = next();
    request->next_of_bucket_ = std::exchange(bucket(request->number_), request.get());
    request->older_ = std::exchange(newest_, request.get());
    request->newer_ = nullptr;
    (request->older_ ? request->older_->newer_ : oldest_) = request.get();
    request->kept_ = request;
    ++size_;
    return true;
}

request_table::record request_table::find(ubus_request& native) noexcept {
    return bus_request::of(native).kept_;
}

request_table::record request_table::erase(bus_request& request) noexcept {
    if (!request.kept_) {
        return nullptr;
    }
    bus_request** link = &bucket(request.number_);
    while (*link != &request) {
        link = &(*link)->next_of_bucket_;
    }
    *link = request.next_of_bucket_;
    (request.older_ ? request.older_->newer_ : oldest_) = request.newer_;
    (request.newer_ ? request.newer_->older_ : newest_) = request.older_;
    --size_;
    return std::move(request.kept_);
}

request_table::record request_table::take_oldest() noexcept {
    return oldest_ ? erase(*oldest_) : nullptr;
}

} // namespace tarn
