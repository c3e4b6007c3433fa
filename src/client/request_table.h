/// The requests that libubus is working on, on the loop thread.
#pragma once

#include "bus.h"

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>

namespace tarn {

/// Keeps the records of requests alive while libubus works on them, and their numbers apart.
///
/// libubus tells answers apart by the object called and a 16-bit number that it counts up. Calls
/// may be pending for as long as they like, so the count comes round to numbers that are still
/// waited for, and an answer would reach the wrong call. So numbers in use are skipped here.
///
/// The loop thread only.
class request_table {
public:
    using record = std::shared_ptr<ubus_request>;
    struct entry {
        record request;
        std::uint64_t number; ///< the object's id in front of the request's number
    };
    using entries = std::map<ubus_request*, entry>;

    /// Lists `request`, which is about to be started with object `peer`, and sees to it that the
    /// next number is free there. False when all are taken: nothing is listed. Throws
    /// std::bad_alloc; nothing is listed then.
    bool insert(ubus_context& bus, std::uint32_t peer, const record& request);

    /// The record of a request that is listed, else null.
    record find(ubus_request* request) const;

    /// Takes a request off the list. False if it was not there.
    bool erase(ubus_request* request);

    /// Takes all off the list. Allocates nothing.
    entries take_all();

private:
    entries requests_;
    /// Those in use. Ordered, since a hash table would keep its room after a burst of calls.
    std::set<std::uint64_t> numbers_;
    std::unordered_map<std::uint32_t, std::size_t> pending_; ///< requests per object
};

} // namespace tarn
