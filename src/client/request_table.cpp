/// The requests that libubus is working on.
#include "client/request_table.h"

#include <type_traits>
#include <utility>

namespace tarn {

namespace {

constexpr int numbers_per_object = 65536;

int by_value(const void* left, const void* right, void* /*unused*/) {
    const auto a = *static_cast<const std::uint64_t*>(left);
    const auto b = *static_cast<const std::uint64_t*>(right);
    return a < b ? -1 : static_cast<int>(a > b);
}

} // namespace

bus_request::bus_request() noexcept {
    static_assert(std::is_standard_layout_v<record>, "a record is found by its first member");
    record_.whole = this;
}

bus_request& bus_request::of(ubus_request& native) noexcept {
    return *reinterpret_cast<record&>(native).whole;
}

request_table::request_table() noexcept {
    avl_init(&by_number_, by_value, false, nullptr);
}

request_table::~request_table() {
    while (take_oldest()) {}
}

bool request_table::insert(ubus_context& bus, std::uint32_t peer, const record& request) noexcept {
    request->place_.key = &request->number_;
    for (int tried = 0; tried < numbers_per_object; ++tried, ++bus.request_seq) {
        const auto next = static_cast<std::uint16_t>(bus.request_seq + 1);
        request->number_ = (std::uint64_t{peer} << 16U) | next;
        if (avl_insert(&by_number_, &request->place_) == 0) {
            list(request);
            return true;
        }
    }
    return false;
}

void request_table::list(const record& request) noexcept {
    request->older_ = std::exchange(newest_, request.get());
    request->newer_ = nullptr;
    (request->older_ ? request->older_->newer_ : oldest_) = request.get();
    request->kept_ = request;
    ++size_;
}

request_table::record request_table::find(ubus_request& native) noexcept {
    return bus_request::of(native).kept_;
}

request_table::record request_table::erase(bus_request& request) noexcept {
    if (!request.kept_) {
        return nullptr;
    }
    avl_delete(&by_number_, &request.place_);
    (request.older_ ? request.older_->newer_ : oldest_) = request.newer_;
    (request.newer_ ? request.newer_->older_ : newest_) = request.older_;
    --size_;
    return std::move(request.kept_);
}

request_table::record request_table::take_oldest() noexcept {
    return oldest_ ? erase(*oldest_) : nullptr;
}

} // namespace tarn
