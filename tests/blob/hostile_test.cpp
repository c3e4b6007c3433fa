/// Damaged messages: whatever the bytes, the readers return or throw what they are documented to.
#include "tarn/blob.h"

#include "blob/json.h"
#include "blob/message.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <stdexcept>

namespace {

using namespace tarn::blob;
using namespace tarn::test;

/// Reads the message in every way; true when the plain way succeeds.
bool read_all(const std::string& bytes) {
    const message received(bytes);
    bool good = false;
    try {
        const table read = utils::to_table(received.get());
        good = true;
        const buf again(read);
        EXPECT_EQ(utils::to_table(again.native()->head).size(), read.size());
    } catch (const std::runtime_error&) {
    } catch (const std::logic_error&) {}
    const policy expected = {{"a", typeid(std::string)},
                             {"inner", typeid(table)},
                             {"k", typeid(bytes)},
                             {"l", typeid(list)}};
    try {
        utils::to_table(received.get(), expected);
    } catch (const std::runtime_error&) {
    } catch (const std::logic_error&) {}
    try {
        utils::to_array(received.get());
    } catch (const std::runtime_error&) {
    } catch (const std::logic_error&) {}
    // Good or bad, it is the caller's.
    EXPECT_EQ(std::memcmp(received.get(), bytes.data(), bytes.size()), 0);
    return good;
}

TEST(HostileBytes, DamagedMessagesAreReadOrRefused) {
    std::mt19937 random(20240501);
    std::vector<std::string> seeds;
    for (const char* file : {"blobmsg.jsonl", "blobmsg-verdicts.jsonl"}) {
        for (const json& line : json_lines(file)) {
            seeds.push_back(from_hex(line["hex"].text));
        }
    }
    std::size_t good = 0, bad = 0;
    for (int round = 0; round < 10000; ++round) {
        std::string bytes = seeds[random() % seeds.size()];
        for (auto left = 1 + random() % 4; left && bytes.size() > 4; --left) {
            const std::size_t at = 4 + random() % (bytes.size() - 4);
            if (random() % 2) {
                bytes[at] = static_cast<char>(random());
            } else {
                bytes[at] = static_cast<char>(bytes[at] ^ (1 << random() % 8));
            }
        }
        // The head is libubus's to check: it always says the size of the memory.
        ++(read_all(bytes) ? good : bad);
    }
    EXPECT_GT(good, 1000u);
    EXPECT_GT(bad, 1000u);
}

} // namespace
