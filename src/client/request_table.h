/// The requests that libubus is working on, on the loop thread.
#pragma once

#include "bus.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace tarn {

/// A request as libubus sees it, and its place in the table.
class bus_request {
public:
    bus_request() noexcept;
    bus_request(const bus_request&) = delete;
    bus_request& operator=(const bus_request&) = delete;

    ubus_request& native() noexcept { return record_.native; }
    /// The request of a record that is part of one.
    static bus_request& of(ubus_request& native) noexcept;

    /// On the application's loop: the connection has ended without an answer.
    virtual void on_connection_end() = 0;

protected:
    virtual ~bus_request() = default;

private:
    friend class request_table;

    /// Found by the address of its first member, which is what libubus passes back.
    struct record {
        ubus_request native;
        bus_request* whole;
    };

    record record_{};
    avl_node place_{};
    std::uint64_t number_ = 0;          ///< the object's id in front of the request's number
    std::shared_ptr<bus_request> kept_; ///< while it is in the table
    bus_request* older_ = nullptr;
    bus_request* newer_ = nullptr;
};

/// Keeps requests alive while libubus works on them, and their numbers apart.
///
/// libubus matches answers by the object called and a 16-bit number that it counts up. Calls may be
/// pending for any length of time, so the count wraps around to numbers that are still waited for,
/// and an answer would reach the wrong call. So numbers in use are skipped here.
///
/// The loop thread only. Nothing here allocates.
class request_table {
public:
    using record = std::shared_ptr<bus_request>;

    request_table() noexcept;
    request_table(const request_table&) = delete;
    request_table& operator=(const request_table&) = delete;
    ~request_table();

    /// Lists `request`, which is about to be started with object `peer`, and ensures that the
    /// next number is free there. False when all are taken: nothing is listed.
    bool insert(ubus_context& bus, std::uint32_t peer, const record& request) noexcept;

    /// The request of `native` if it is listed, else null.
    static record find(ubus_request& native) noexcept;

    /// Takes a request off the list. Null if it was not there.
    record erase(bus_request& request) noexcept;

    std::size_t size() const noexcept { return size_; }

    /// Takes the oldest off the list; null when there is none left.
    record take_oldest() noexcept;

private:
    void list(const record& request) noexcept;

    avl_tree by_number_{};
    bus_request* oldest_ = nullptr;
    bus_request* newest_ = nullptr;
    std::size_t size_ = 0;
};

} // namespace tarn
