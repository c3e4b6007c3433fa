/// Fuzz target: a table built from the input is encoded and decoded, and must come back equal, up
/// to what the format cannot say: a flag comes back as a small number, and a text ends at its first
/// NUL.
#include "codec.h"

namespace {

using namespace tarn::blob;

// So that generating and comparing may recurse.
constexpr int deepest = 40;
// Enough for every form; more would only take time.
constexpr int most_values = 10;

std::string until_nul(const std::string& text) {
    return text.c_str();
}

/// Builds values; remembers whether one of them is empty, which cannot be encoded.
struct builder {
    fuzz::input rest;
    bool empty_value = false;
    int values = 0;

    bool more() const { return values < most_values && !rest.empty(); }

    std::string text() { return rest.text(rest.byte() % 24U); }

    attr value(int depth) {
        ++values;
        switch (rest.byte() % 16U) {
        case 0:
            return rest.byte() % 2 != 0;
        case 1:
            return static_cast<unsigned char>(rest.number(1));
        case 2:
            return static_cast<short>(rest.number(2));
        case 3:
            return static_cast<int>(rest.number(4));
        case 4:
            return static_cast<long long>(rest.number(8));
        case 5: {
            const std::uint64_t bits = rest.number(8);
            double number = 0;
            std::memcpy(&number, &bits, sizeof number);
            return number;
        }
        case 6:
        case 7:
            return text();
        case 8: {
            const std::string data = text();
            return bytes(data.begin(), data.end());
        }
        case 9:
        case 10:
        case 11:
            return depth < deepest ? elements(depth + 1) : attr(list());
        case 12:
        case 13:
        case 14:
            return depth < deepest ? attr(fields(depth + 1)) : attr(table());
        default:
            if (rest.byte() % 16 == 15) {
                empty_value = true;
                return attr();
            }
            return static_cast<unsigned short>(rest.number(2));
        }
    }

    list elements(int depth) {
        list made;
        for (std::size_t left = rest.byte() % 6U; left > 0 && more(); --left) {
            made.push_back(value(depth));
        }
        return made;
    }

    table fields(int depth) {
        table made;
        for (std::size_t left = rest.byte() % 6U; left > 0 && more(); --left) {
            std::string name = text();
            made.emplace(std::move(name), value(depth));
        }
        return made;
    }
};

bool same(const attr& sent, const attr& received);

bool same(const table& sent, const table& received) {
    return sent.size() == received.size() &&
           std::equal(
               sent.begin(), sent.end(), received.begin(), [](const auto& left, const auto& right) {
                   return until_nul(left.first) == right.first && same(left.second, right.second);
               });
}

template <class T>
bool same_bits(const attr& sent, const attr& received) {
    return std::memcmp(&sent.get<T>(), &received.get<T>(), sizeof(T)) == 0;
}

bool same(const attr& sent, const attr& received) {
    if (sent.type() == typeid(bool)) {
        return received.get<unsigned char>() == (sent.get<bool>() ? 1 : 0);
    }
    if (sent.type() != received.type()) {
        return false;
    }
    if (sent.type() == typeid(table)) {
        return same(sent.get<table>(), received.get<table>());
    }
    if (sent.type() == typeid(list)) {
        const list& left = sent.get<list>();
        const list& right = received.get<list>();
        return left.size() == right.size() &&
               std::equal(left.begin(), left.end(), right.begin(),
                          [](const attr& a, const attr& b) { return same(a, b); });
    }
    if (sent.type() == typeid(std::string)) {
        return until_nul(sent.get<std::string>()) == received.get<std::string>();
    }
    if (sent.type() == typeid(bytes)) {
        return sent.get<bytes>() == received.get<bytes>();
    }
    if (sent.type() == typeid(unsigned char)) {
        return same_bits<unsigned char>(sent, received);
    }
    if (sent.type() == typeid(unsigned short)) {
        return same_bits<unsigned short>(sent, received);
    }
    if (sent.type() == typeid(unsigned int)) {
        return same_bits<unsigned int>(sent, received);
    }
    if (sent.type() == typeid(double)) {
        return same_bits<double>(sent, received);
    }
    return same_bits<unsigned long long>(sent, received);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    builder build{fuzz::input(data, size)};
    const table sent = build.fields(0);
    std::string encoded;
    try {
        encoded = fuzz::encode(sent);
        fuzz::require(!build.empty_value, "an empty value is refused");
    } catch (const std::logic_error&) {
        fuzz::require(build.empty_value, "only an empty value is refused");
        return 0;
    }
    const fuzz::message wire(
        fuzz::input(reinterpret_cast<const std::uint8_t*>(encoded.data()), encoded.size()));
    const table received = utils::to_table(wire.get());
    fuzz::require(same(sent, received), "what was sent is what is received");

    // Copying keeps the value, and so does moving.
    const attr copy = attr(table(received));
    fuzz::require(fuzz::encode(copy.get<table>()) == encoded, "a copy encodes to the same message");
    return 0;
}
