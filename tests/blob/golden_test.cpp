/// The recorded messages and verdicts of the real libubox, through the encoder and the readers.
#include "tarn/blob.h"

#include "blob/json.h"
#include "blob/message.h"
#include "support/expect_throw.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace {

using namespace tarn::blob;
using namespace tarn::test;

attr value_of(const json& described);

table fields_of(const json& described) {
    table fields;
    for (const auto& entry : described.members) {
        fields.emplace(entry.second[0].text, value_of(entry.second[1]));
    }
    return fields;
}

attr value_of(const json& described) {
    const auto& [type, value] = described.members.front();
    if (type == "bool") {
        return value.flag();
    }
    if (type == "int8") {
        return static_cast<unsigned char>(value.number());
    }
    if (type == "int16") {
        return static_cast<unsigned short>(value.number());
    }
    if (type == "int32") {
        return static_cast<unsigned int>(value.number());
    }
    if (type == "int64") {
        return value.number();
    }
    if (type == "double") {
        const auto bits = std::strtoull(value.text.c_str(), nullptr, 16);
        double number;
        std::memcpy(&number, &bits, sizeof(number));
        return number;
    }
    if (type == "string") {
        return value.text;
    }
    if (type == "unspec") {
        const std::string raw = from_hex(value.text);
        return bytes(raw.begin(), raw.end());
    }
    if (type == "table") {
        return fields_of(value);
    }
    list elements;
    for (const auto& element : value.members) {
        elements.push_back(value_of(element.second));
    }
    return elements;
}

void expect_same(const attr& read, const attr& sent);

void expect_same(const table& read, const table& sent) {
    ASSERT_EQ(read.size(), sent.size());
    for (auto left = read.begin(), right = sent.begin(); left != read.end(); ++left, ++right) {
        EXPECT_EQ(left->first, right->first);
        expect_same(left->second, right->second);
    }
}

template <class T>
void expect_equal(const attr& read, const attr& sent) {
    EXPECT_EQ(read.get<T>(), sent.get<T>());
}

void expect_same(const attr& read, const attr& sent) {
    if (sent.type() == typeid(bool)) { // comes back as an int8 without a policy
        EXPECT_EQ(read.get<unsigned char>(), sent.get<bool>() ? 1 : 0);
        return;
    }
    ASSERT_EQ(read.type(), sent.type());
    if (sent.type() == typeid(unsigned char)) {
        expect_equal<unsigned char>(read, sent);
    } else if (sent.type() == typeid(unsigned short)) {
        expect_equal<unsigned short>(read, sent);
    } else if (sent.type() == typeid(unsigned int)) {
        expect_equal<unsigned int>(read, sent);
    } else if (sent.type() == typeid(unsigned long long)) {
        expect_equal<unsigned long long>(read, sent);
    } else if (sent.type() == typeid(std::string)) {
        expect_equal<std::string>(read, sent);
    } else if (sent.type() == typeid(bytes)) {
        expect_equal<bytes>(read, sent);
    } else if (sent.type() == typeid(double)) { // bits, since a NaN equals nothing
        EXPECT_EQ(std::memcmp(&read.get<double>(), &sent.get<double>(), sizeof(double)), 0);
    } else if (sent.type() == typeid(table)) {
        expect_same(read.get<table>(), sent.get<table>());
    } else {
        const list& left = read.get<list>();
        const list& right = sent.get<list>();
        ASSERT_EQ(left.size(), right.size());
        for (auto a = left.begin(), b = right.begin(); a != left.end(); ++a, ++b) {
            expect_same(*a, *b);
        }
    }
}

TEST(Golden, EveryMessageIsEncodedToItsBytes) {
    const auto lines = json_lines("blobmsg.jsonl");
    ASSERT_EQ(lines.size(), 39u);
    for (const json& line : lines) {
        const buf encoded(fields_of(line["fields"]));
        const blob_attr* const head = encoded.native()->head;
        EXPECT_EQ(to_hex(head, blob_raw_len(head)), line["hex"].text) << line["name"].text;
    }
}

TEST(Golden, EveryMessageIsDecodedToItsFields) {
    for (const json& line : json_lines("blobmsg.jsonl")) {
        SCOPED_TRACE(line["name"].text);
        const message received = message::hex(line["hex"].text);
        expect_same(utils::to_table(received.get()), fields_of(line["fields"]));
    }
}

TEST(Golden, EveryDecodedMessageIsEncodedToTheSameBytes) {
    for (const json& line : json_lines("blobmsg.jsonl")) {
        const buf encoded(utils::to_table(message::hex(line["hex"].text).get()));
        const blob_attr* const head = encoded.native()->head;
        EXPECT_EQ(to_hex(head, blob_raw_len(head)), line["hex"].text) << line["name"].text;
    }
}

/// The exception that reading the children of a message as recorded must end in; empty for none.
/// What is inside a nested field is not in the record, so the two messages where that decides are
/// named here.
std::string expected_failure(const json& verdict) {
    if (verdict["name"].text == "array with a bad element") {
        return "tarn::blob::utils::to_array: Bad attr";
    }
    if (verdict["name"].text == "nested table with an id 9 child") {
        return "tarn::blob::utils::to_attr: Unknown type9";
    }
    for (const auto& entry : verdict["children"].members) {
        const json& child = entry.second;
        if (child["extended"].flag() && child["id"].number() > 8) {
            return "tarn::blob::utils::to_attr: Unknown type" + child["id"].text;
        }
        if (!child["check"].flag()) {
            return "tarn::blob::utils::to_table: Bad attr";
        }
    }
    return "";
}

TEST(Verdicts, EveryMessageIsReadOrRefusedAsRecorded) {
    const auto lines = json_lines("blobmsg-verdicts.jsonl");
    ASSERT_EQ(lines.size(), 31u);
    for (const json& line : lines) {
        SCOPED_TRACE(line["name"].text);
        const message received = message::hex(line["hex"].text);
        const std::string failure = expected_failure(line);
        const auto read = [&] {
            utils::to_table(received.get());
        };
        if (failure.find("Unknown") != std::string::npos) {
            expect_throw_msg<std::logic_error>(read, failure);
        } else if (!failure.empty()) {
            expect_throw_msg<std::runtime_error>(read, failure);
        } else {
            std::multimap<std::string, std::type_index> names;
            const table fields = utils::to_table(received.get());
            std::size_t named = 0;
            for (const auto& entry : line["children"].members) {
                if (entry.second["extended"].flag()) {
                    ++named;
                    EXPECT_EQ(fields.count(entry.second["name"].text) > 0, true);
                }
            }
            EXPECT_EQ(fields.size(), named);
        }
    }
}

TEST(Verdicts, EveryMessageIsParsedWithThePolicyAsRecorded) {
    const std::map<std::string, std::type_index> types = {
        {"0", typeid(bytes)}, {"3", typeid(std::string)}, {"5", typeid(unsigned int)}};
    for (const json& line : json_lines("blobmsg-verdicts.jsonl")) {
        SCOPED_TRACE(line["name"].text);
        const message received = message::hex(line["hex"].text);
        const json& parse = line["parse"];
        policy expected;
        std::size_t filled = 0;
        for (std::size_t i = 0; i < parse["policy"].size(); ++i) {
            const json& entry = parse["policy"][i];
            expected.emplace(entry[0].text, types.at(entry[1].text));
            filled += parse["filled"][i].is_null() ? 0 : 1;
        }
        if (parse["result"].text != "0") {
            expect_throw_msg<std::runtime_error>(
                [&] { utils::to_table(received.get(), expected); },
                "tarn::blob::utils::to_table: Failed to parse message");
            continue;
        }
        const table read = utils::to_table(received.get(), expected);
        EXPECT_EQ(read.size(), filled);
        for (std::size_t i = 0; i < parse["policy"].size(); ++i) {
            const json& offset = parse["filled"][i];
            const auto found = read.find(parse["policy"][i][0].text);
            ASSERT_EQ(found == read.end(), offset.is_null());
            if (!offset.is_null()) {
                auto* const slot = reinterpret_cast<blob_attr*>(
                    reinterpret_cast<char*>(received.get()) + offset.number());
                expect_same(found->second, utils::to_attr(slot, false));
            }
        }
    }
}

} // namespace
