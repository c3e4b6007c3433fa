/// blobmsg against messages and verdicts recorded from libubox itself.
#include <cctype>
#include <cstring>
#include <endian.h>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

// After all others: libubox defines names that are the compiler's.
#include "owned_blob.h"

namespace {

using nlohmann::json;
using ubox_test::buffer;
using ubox_test::hex;
using ubox_test::owned_blob;

std::vector<json> load(const char* file) {
    std::ifstream in(std::string(TARN_TEST_DATA "/") + file);
    std::vector<json> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(json::parse(line));
    }
    return lines;
}

std::string case_name(const testing::TestParamInfo<json>& info) {
    std::string name;
    bool upper = true;
    for (const char c : info.param["name"].get<std::string>()) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0) {
            upper = true;
            continue;
        }
        name += upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
        upper = false;
    }
    return name + "_" + std::to_string(info.index);
}

std::uint64_t double_bits(double value) {
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

double bits_double(const std::string& digits) {
    const std::uint64_t bits = std::stoull(digits, nullptr, 16);
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

void encode(blob_buf* buf, const char* name, const json& typed) {
    const std::string type = typed.begin().key();
    const json& value = typed.begin().value();
    if (type == "int8") {
        EXPECT_EQ(blobmsg_add_u8(buf, name, value.get<std::uint8_t>()), 0);
    } else if (type == "bool") {
        EXPECT_EQ(blobmsg_add_u8(buf, name, value.get<bool>() ? 1 : 0), 0);
    } else if (type == "int16") {
        EXPECT_EQ(blobmsg_add_u16(buf, name, value.get<std::uint16_t>()), 0);
    } else if (type == "int32") {
        EXPECT_EQ(blobmsg_add_u32(buf, name, value.get<std::uint32_t>()), 0);
    } else if (type == "int64") {
        EXPECT_EQ(blobmsg_add_u64(buf, name, value.get<std::uint64_t>()), 0);
    } else if (type == "double") {
        EXPECT_EQ(blobmsg_add_double(buf, name, bits_double(value.get<std::string>())), 0);
    } else if (type == "string") {
        EXPECT_EQ(blobmsg_add_string(buf, name, value.get<std::string>().c_str()), 0);
    } else if (type == "unspec") {
        const owned_blob bytes(value.get<std::string>());
        EXPECT_EQ(blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, name, bytes.bytes(),
                                    static_cast<unsigned>(bytes.size())),
                  0);
    } else if (type == "array") {
        void* const cookie = blobmsg_open_array(buf, name);
        ASSERT_NE(cookie, nullptr);
        for (const json& element : value) {
            encode(buf, "", element);
        }
        blobmsg_close_array(buf, cookie);
    } else if (type == "table") {
        void* const cookie = blobmsg_open_table(buf, name);
        ASSERT_NE(cookie, nullptr);
        for (const json& field : value) {
            encode(buf, field[0].get<std::string>().c_str(), field[1]);
        }
        blobmsg_close_table(buf, cookie);
    } else {
        FAIL() << "a type that the test does not know: " << type;
    }
}

json decode_fields(const blob_attr* parent, bool named);

json decode(blob_attr* field) {
    EXPECT_TRUE(blobmsg_check_attr(field, false));
    switch (blobmsg_type(field)) {
    case BLOBMSG_TYPE_INT8:
        return {{"int8", blobmsg_get_u8(field)}};
    case BLOBMSG_TYPE_INT16:
        return {{"int16", blobmsg_get_u16(field)}};
    case BLOBMSG_TYPE_INT32:
        return {{"int32", blobmsg_get_u32(field)}};
    case BLOBMSG_TYPE_INT64:
        return {{"int64", blobmsg_get_u64(field)}};
    case BLOBMSG_TYPE_DOUBLE: {
        const std::uint64_t bits = htobe64(double_bits(blobmsg_get_double(field)));
        return {{"double", hex(&bits, sizeof bits)}};
    }
    case BLOBMSG_TYPE_STRING:
        return {{"string", blobmsg_get_string(field)}};
    case BLOBMSG_TYPE_ARRAY:
        return {{"array", decode_fields(field, false)}};
    case BLOBMSG_TYPE_TABLE:
        return {{"table", decode_fields(field, true)}};
    default:
        return {{"unspec", hex(blobmsg_data(field), blobmsg_data_len(field))}};
    }
}

json decode_fields(const blob_attr* parent, bool named) {
    json fields = json::array();
    blob_attr* field;
    std::size_t left;
    blobmsg_for_each_attr(field, parent, left) {
        if (named) {
            fields.push_back(json::array({blobmsg_name(field), decode(field)}));
        } else {
            fields.push_back(decode(field));
        }
    }
    return fields;
}

// A bool goes over the bus as an int8.
json as_read_back(const json& value) {
    if (value.is_object() && value.contains("bool")) {
        return {{"int8", value["bool"].get<bool>() ? 1 : 0}};
    }
    json result = value;
    if (value.is_structured()) {
        for (auto& part : result) {
            part = as_read_back(part);
        }
    }
    return result;
}

class GoldenMessage : public testing::TestWithParam<json> {};

TEST_P(GoldenMessage, IsEncodedByteForByte) {
    buffer built;
    for (const json& field : GetParam()["fields"]) {
        encode(&built, field[0].get<std::string>().c_str(), field[1]);
    }
    EXPECT_EQ(hex(built.head), GetParam()["hex"].get<std::string>());
}

TEST_P(GoldenMessage, IsDecodedFieldByField) {
    const owned_blob message(GetParam()["hex"].get<std::string>());
    ASSERT_EQ(blob_raw_len(message.attr()), message.size());
    EXPECT_EQ(decode_fields(message.attr(), true), as_read_back(GetParam()["fields"]));
}

TEST_P(GoldenMessage, IsRebuiltFromItsOwnFields) {
    const owned_blob message(GetParam()["hex"].get<std::string>());
    buffer built;
    blob_attr* field;
    std::size_t left;
    blobmsg_for_each_attr(field, message.attr(), left) {
        EXPECT_EQ(blobmsg_add_blob(&built, field), 0);
    }
    EXPECT_TRUE(blob_attr_equal(built.head, message.attr()));
}

INSTANTIATE_TEST_SUITE_P(Recorded, GoldenMessage, testing::ValuesIn(load("blobmsg.jsonl")),
                         case_name);

class GoldenVerdict : public testing::TestWithParam<json> {};

TEST_P(GoldenVerdict, OnEveryChildIsTheRecordedOne) {
    const owned_blob message(GetParam()["hex"].get<std::string>());
    json children = json::array();
    blob_attr* child;
    std::size_t left;
    blob_for_each_attr(child, message.attr(), left) {
        json seen = {{"offset", message.offset_of(child)},
                     {"id", blob_id(child)},
                     {"extended", blob_is_extended(child)},
                     {"check", blobmsg_check_attr(child, false)},
                     {"check_named", blobmsg_check_attr(child, true)}};
        if (blob_is_extended(child) && blobmsg_check_attr(child, false)) {
            seen["name"] = blobmsg_name(child);
            seen["data_len"] = blobmsg_data_len(child);
        }
        children.push_back(std::move(seen));
    }
    EXPECT_EQ(children, GetParam()["children"]);
}

TEST_P(GoldenVerdict, OfTheParserIsTheRecordedOne) {
    const owned_blob message(GetParam()["hex"].get<std::string>());
    const json& expected = GetParam()["parse"];
    std::vector<std::string> names;
    for (const json& entry : expected["policy"]) {
        names.push_back(entry[0].get<std::string>());
    }
    std::vector<blobmsg_policy> policy;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const int type = expected["policy"][i][1].get<int>();
        policy.push_back({names[i].c_str(), static_cast<enum blobmsg_type>(type)});
    }
    std::vector<blob_attr*> slots(policy.size(), message.attr());
    const int result =
        blobmsg_parse(policy.data(), static_cast<int>(policy.size()), slots.data(),
                      blob_data(message.attr()), static_cast<unsigned>(blob_len(message.attr())));
    json filled = json::array();
    for (const blob_attr* slot : slots) {
        filled.push_back(slot == nullptr ? json() : json(message.offset_of(slot)));
    }
    EXPECT_EQ(result, expected["result"].get<int>());
    EXPECT_EQ(filled, expected["filled"]);
}

INSTANTIATE_TEST_SUITE_P(Recorded, GoldenVerdict, testing::ValuesIn(load("blobmsg-verdicts.jsonl")),
                         case_name);

TEST(Golden, RecordingsAreComplete) {
    EXPECT_EQ(load("blobmsg.jsonl").size(), 39u);
    EXPECT_EQ(load("blobmsg-verdicts.jsonl").size(), 31u);
}

// Reads everything that can be reached, the way a receiver does, and returns how much it was.
std::size_t read_all(const owned_blob& message) {
    std::size_t seen = 0;
    std::vector<const blob_attr*> open{message.attr()};
    while (!open.empty()) {
        const blob_attr* const parent = open.back();
        open.pop_back();
        blob_attr* child;
        std::size_t left;
        blobmsg_for_each_attr(child, parent, left) {
            EXPECT_LE(message.offset_of(child) + blob_pad_len(child), message.size());
            if (!blobmsg_check_attr(child, false)) {
                continue;
            }
            seen += std::strlen(blobmsg_name(child));
            seen += hex(blobmsg_data(child), blobmsg_data_len(child)).size();
            if (blobmsg_type(child) == BLOBMSG_TYPE_ARRAY ||
                blobmsg_type(child) == BLOBMSG_TYPE_TABLE) {
                blobmsg_check_array(child, BLOBMSG_TYPE_UNSPEC);
                open.push_back(child);
            }
        }
    }
    return seen;
}

TEST(Golden, EveryCorruptedByteIsReadWithinTheMessage) {
    for (const json& line : load("blobmsg.jsonl")) {
        const owned_blob good(line["hex"].get<std::string>());
        for (std::size_t at = 0; at < good.size(); ++at) {
            for (const int value : {0, 1, 3, 4, 5, 8, 9, 0x7f, 0x80, 0x85, 0xff}) {
                const owned_blob bad(good.bytes(), good.size());
                bad.bytes()[at] = static_cast<char>(value);
                if (blobmsg_check_attr_len(bad.attr(), false, bad.size())) {
                    EXPECT_LE(read_all(bad), 3 * bad.size());
                }
                blob_attr* found[16];
                blob_parse_untrusted(bad.attr(), bad.size(), found, nullptr, 16);
            }
        }
    }
}

TEST(Golden, EveryTruncatedMessageIsReadWithinWhatIsLeft) {
    for (const json& line : load("blobmsg.jsonl")) {
        const owned_blob good(line["hex"].get<std::string>());
        for (std::size_t size = 0; size < good.size(); ++size) {
            const owned_blob cut(good.bytes(), size);
            blob_attr* found[16];
            EXPECT_FALSE(blobmsg_check_attr_len(cut.attr(), false, cut.size()));
            EXPECT_EQ(blob_parse_untrusted(cut.attr(), cut.size(), found, nullptr, 16), 0);
        }
    }
}

} // namespace
