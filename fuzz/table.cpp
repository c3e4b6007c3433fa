/// Fuzz target: any message through the readers; what they return is encoded and read again.
#include "codec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tarn::blob;
    const fuzz::message received(fuzz::input(data, size));
    const std::string before(received.begin(), received.size());

    table fields;
    if (fuzz::reads([&] { fields = utils::to_table(received.get()); })) {
        const std::string encoded = fuzz::encode(fields);
        const fuzz::message again(
            fuzz::input(reinterpret_cast<const std::uint8_t*>(encoded.data()), encoded.size()));
        fuzz::require(fuzz::encode(utils::to_table(again.get())) == encoded,
                      "what was decoded survives encoding and decoding");
    }
    fuzz::reads([&] { utils::to_array(received.get()); });
    fuzz::reads([&] { utils::to_attr(received.get(), size % 2 == 0); });
    fuzz::require(utils::to_unspec(received.get()).size() <= size,
                  "no more data than the field has");
    fuzz::require(before == std::string(received.begin(), received.size()),
                  "the message is left untouched");
    return 0;
}
