/// Fuzz target: a policy and a message, both from the input, through to_table's policy form, whose
/// findings must be among those of the plain form.
#include "codec.h"

#include <iterator>
#include <typeindex>

namespace {

using namespace tarn::blob;

// The last is no stored type.
const std::type_index types[] = {typeid(bool),
                                 typeid(unsigned char),
                                 typeid(unsigned short),
                                 typeid(unsigned int),
                                 typeid(unsigned long long),
                                 typeid(double),
                                 typeid(std::string),
                                 typeid(bytes),
                                 typeid(list),
                                 typeid(table),
                                 typeid(int)};

bool fulfils(const attr& value, const std::type_index& wanted) {
    return wanted == typeid(bytes) ||
           value.type() == (wanted == typeid(bool) ? typeid(unsigned char) : wanted);
}

bool among(const table& all, const std::string& name, const attr& found,
           const std::type_index& wanted) {
    // A flag is an INT8 whose number is lost.
    if (wanted == typeid(bool)) {
        fuzz::require(found.type() == typeid(bool), "a flag is asked for, a flag comes");
    }
    const std::string encoded = wanted == typeid(bool) ? "" : fuzz::encode({{"", found}});
    const auto range = all.equal_range(name);
    for (auto at = range.first; at != range.second; ++at) {
        if (!fulfils(at->second, wanted)) {
            continue;
        }
        if (wanted == typeid(bool) ? found.get<bool>() == (at->second.get<unsigned char>() != 0)
                                   : fuzz::encode({{"", at->second}}) == encoded) {
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::input rest(data, size);
    policy expected;
    for (std::size_t left = rest.byte() % 8U; left > 0; --left) {
        const std::uint8_t shape = rest.byte();
        const std::type_index type = types[(shape & 15U) % std::size(types)];
        expected.emplace(rest.text(shape >> 4U), type);
    }
    const fuzz::message received(rest);

    table found;
    if (!fuzz::reads([&] { found = utils::to_table(received.get(), expected); })) {
        return 0;
    }
    fuzz::require(found.size() <= expected.size(), "at most one field for each entry");
    if (blob_is_extended(received.get())) {
        return 0; // a field and no message: only the plain form looks behind a name
    }
    // Every field was sound, so the plain form can refuse only what is inside of those left out.
    table all;
    if (!fuzz::reads([&] { all = utils::to_table(received.get()); })) {
        return 0;
    }
    for (const auto& [name, value] : found) {
        bool explained = false;
        const auto wanted = expected.equal_range(name);
        for (auto entry = wanted.first; entry != wanted.second && !explained; ++entry) {
            const bool flag = entry->second == typeid(bool);
            explained = flag == (value.type() == typeid(bool)) &&
                        (flag || fulfils(value, entry->second)) &&
                        among(all, name.c_str(), value, entry->second);
        }
        fuzz::require(explained, "every field comes from the message and from the policy");
    }
    return 0;
}
