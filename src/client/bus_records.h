/// libubus's records of what one connection has registered for tarn::bus.
#pragma once

#include "bus.h"

#include <cstddef>
#include <list>
#include <set>
#include <string>
#include <type_traits>

namespace tarn {

class subscription;

/// One subscriber as libubus sees it. It stays where it is until the connection ends, unless
/// libubus has released it.
struct subscriber_record {
    struct record {
        ubus_subscriber native;
        subscriber_record* whole;
    };

    explicit subscriber_record(subscription& operation)
        : owner(&operation) {
        static_assert(std::is_standard_layout_v<record>, "a record is found by its first member");
        record_.whole = this;
    }
    subscriber_record(const subscriber_record&) = delete;
    subscriber_record& operator=(const subscriber_record&) = delete;
    ~subscriber_record() = default;

    ubus_subscriber& native() noexcept { return record_.native; }
    static subscriber_record& of(ubus_subscriber& native) noexcept {
        return *reinterpret_cast<record&>(native).whole;
    }
    static subscriber_record& of(ubus_object& object) noexcept {
        char* const start = reinterpret_cast<char*>(&object) - offsetof(ubus_subscriber, obj);
        return of(*reinterpret_cast<ubus_subscriber*>(start));
    }

    subscription* owner;    ///< null once its link has been released
    int answer_without = 0; ///< what notifications are answered from then on

private:
    record record_{};
};

/// The loop thread only, while the connection lasts.
struct bus_records {
    ubus_event_handler receiver{};               ///< of all events
    std::set<std::string, std::less<>> patterns; ///< that it is registered for
    std::list<subscriber_record> subscribers;
    bool monitors = false;
};

} // namespace tarn
