/// The object "pantry": counts the items on its shelf, at most 100 of each.
#pragma once

#include "stock.h"

#include <tarn/ext/service.h>

#include <map>

class pantry {
public:
    /// `on_published` gets the outcome of each registration with the bus.
    explicit pantry(tarn::client& bus, tarn::client::completion_handler on_published = {})
        : object_(bus, "pantry") {
        object_.method("put", {"item", "count"},
                       [this](const std::string& item, int count) { return put(item, count); });
        object_.method("look", {"item"}, [this](const std::string& item) { return look(item); });
        object_.on_published(std::move(on_published));
        object_.publish();
    }

private:
    tarn::ext::result<stock> put(const std::string& item, int count) {
        const int before = look(item).value_or(stock{item, 0}).count;
        if (count < 1 || count > 100 - before) {
            return tarn::error::msg::invalid_argument;
        }
        shelf_[item] = before + count;
        return look(item);
    }

    tarn::ext::result<stock> look(const std::string& item) const {
        const auto found = shelf_.find(item);
        return found != shelf_.end() ? stock{item, found->second}
                                     : tarn::ext::result<stock>(tarn::error::msg::not_found);
    }

    std::map<std::string, int> shelf_;
    tarn::ext::service object_; // last, so that it ends before what its methods use
};
