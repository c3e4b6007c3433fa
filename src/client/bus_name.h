/// What the names of paths, objects, methods and fields have in common on the bus: they end at a
/// NUL.
#pragma once

#include "tarn/client.h"

#include <algorithm>
#include <string>

namespace tarn {

/// Whether `name` would be cut, and so be another one, on the bus.
inline bool has_nul(const std::string& name) {
    return name.find('\0') != std::string::npos;
}

/// Whether the name of one of the methods, or of a field that it expects, would be.
inline bool has_nul(const client::method_map& methods) {
    return std::any_of(methods.begin(), methods.end(), [](const auto& method) {
        const client::method_policy& fields = method.second.second;
        return has_nul(method.first) ||
               std::any_of(fields.begin(), fields.end(),
                           [](const auto& field) { return has_nul(field.first); });
    });
}

} // namespace tarn
