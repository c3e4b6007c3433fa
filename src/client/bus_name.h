/// What the names of paths, objects and methods have in common on the bus: they end at a NUL.
#pragma once

#include <string>

namespace tarn {

/// Whether `name` would be cut, and so be another one, on the bus.
inline bool has_nul(const std::string& name) {
    return name.find('\0') != std::string::npos;
}

} // namespace tarn
