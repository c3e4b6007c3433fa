/// Names in C and C++ sources, for the comparison with the table of those that libubox and libubus
/// declare: what a C header declares, and which identifiers a source uses.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace bus_names {

/// What a name stands for, as far as it matters to who uses it: a function may as well be a macro.
enum class kind { callable, variable, type, structure, enumeration, enumerator, member };

struct declared {
    kind what;
    std::string name;
    /// The structure of a member, the enumeration of an enumerator; else empty.
    std::string scope;
};

/// Everything that the text of a C header declares, in its order.
std::vector<declared> declared_in(const std::string& header);

struct used {
    std::string name;
    /// Called, or declared as a function.
    bool called;
};

/// The identifiers of a source, those in comments, texts and names of files aside.
std::vector<used> used_in(const std::string& source);

} // namespace bus_names
