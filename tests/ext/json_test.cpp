/// JSON text to message values and back.
#include "tarn/ext/json.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

namespace {

using namespace tarn::blob;
using layout = tarn::ext::json_layout;
using tarn::ext::parse_json;
using tarn::ext::write_json;

/// The value of the only field, "v".
attr value_of(const std::string& text) {
    const table fields = parse_json("{\"v\": " + text + "}");
    EXPECT_EQ(fields.size(), 1U);
    return fields.find("v")->second;
}

template <class T>
void expect_value(const std::string& text, const std::type_info& type, T value) {
    const attr read = value_of(text);
    ASSERT_EQ(read.type(), std::type_index(type)) << text;
    EXPECT_EQ(read.get<T>(), value) << text;
}

std::string refusal_of(const std::string& text) {
    try {
        parse_json(text);
    } catch (const std::invalid_argument& refused) {
        return refused.what();
    }
    return "not refused";
}

std::string line(const table& fields) {
    return write_json(fields);
}

TEST(JsonReader, IntegersThatFitGoOutAs32BitsSigned) {
    expect_value("0", typeid(unsigned int), 0);
    expect_value("-1", typeid(unsigned int), -1);
    expect_value("2147483647", typeid(unsigned int), 2147483647);
    expect_value("-2147483648", typeid(unsigned int), std::numeric_limits<int>::min());
}

TEST(JsonReader, LargerIntegersGoOutAs64Bits) {
    expect_value("2147483648", typeid(unsigned long long), 2147483648LL);
    expect_value("-2147483649", typeid(unsigned long long), -2147483649LL);
    expect_value("-9223372036854775808", typeid(unsigned long long),
                 std::numeric_limits<long long>::min());
    expect_value("9223372036854775807", typeid(unsigned long long),
                 std::numeric_limits<long long>::max());
}

TEST(JsonReader, AnIntegerBeyondTheSigned64BitsOfTheBusIsRefused) {
    for (const std::string number :
         {"9223372036854775808", "18446744073709551615", "18446744073709551616",
          "-9223372036854775809", "100000000000000000000000000000"}) {
        EXPECT_EQ(refusal_of("{\"v\": " + number + "}"),
                  "v: the integer " + number +
                      " is beyond the signed 64 bits of the bus, -9223372036854775808 to "
                      "9223372036854775807");
    }
}

TEST(JsonReader, ARefusalNamesThePlaceOfTheValue) {
    const auto place_in = [](const std::string& text) {
        const std::string refusal = refusal_of(text);
        return refusal.substr(0, refusal.find(": the integer 9223372036854775808"));
    };
    EXPECT_EQ(place_in(R"({"a": 1, "b": 9223372036854775808, "c": 2})"), "b");
    EXPECT_EQ(place_in(R"({"lan": {"ports": [1, 2, 9223372036854775808]}})"), "lan.ports[2]");
    EXPECT_EQ(place_in(R"({"a": [[], [{}, {"b": [9223372036854775808]}]]})"), "a[1][1].b[0]");
    EXPECT_EQ(place_in(R"({"a": {"b": 1}, "c": [1], "d": 9223372036854775808})"), "d");
    EXPECT_EQ(place_in(R"({"a b": {"": {"c.d": 9223372036854775808}}})"), R"("a b".""."c.d")");
}

TEST(JsonReader, OfADeepPlaceTheEndIsNamed) {
    const std::string deep = "{\"v\":" + std::string(1000, '[') + "[1," + R"({"w":1e999})";
    EXPECT_EQ(refusal_of(deep).rfind("...[0][0][0][0][0][0][1].w: ", 0), 0U) << refusal_of(deep);
}

TEST(JsonReader, NumbersWithAPointOrAnExponentGoOutAsDoubles) {
    expect_value("1.0", typeid(double), 1.0);
    expect_value("-0.5", typeid(double), -0.5);
    expect_value("1e3", typeid(double), 1000.0);
    expect_value("123456789012345678901.0", typeid(double), 123456789012345678901.0);
}

TEST(JsonReader, ANumberBeyondTheRangeOfADoubleIsRefused) {
    EXPECT_EQ(refusal_of(R"({"v": 1e999})"), "v: number overflow parsing '1e999'");
    EXPECT_EQ(refusal_of(R"({"v": [0.5, -1e999]})"), "v[1]: number overflow parsing '-1e999'");
}

TEST(JsonReader, TrueAndFalseGoOutAsFlags) {
    expect_value("true", typeid(bool), true);
    expect_value("false", typeid(bool), false);
}

TEST(JsonReader, TextsAreKept) {
    expect_value<std::string>(R"("a \"b\" \u00e4\n")", typeid(std::string), "a \"b\" \xc3\xa4\n");
    expect_value<std::string>(R"("")", typeid(std::string), "");
}

TEST(JsonReader, ANulCharacterIsRefusedSinceTheBusWouldCutTheText) {
    EXPECT_EQ(refusal_of(R"({"v": "a\u0000b"})"), "v: a text cannot hold a NUL character");
    EXPECT_EQ(refusal_of(R"({"v\u0000": 1})"), R"("v\u0000": a text cannot hold a NUL character)");
}

TEST(JsonReader, ANulByteIsRefusedSinceWhatIsBehindItWouldBeLost) {
    using namespace std::string_literals;
    for (const std::string& text :
         {"{\"a\":1}\0{\"b\":2}"s, "{\"a\":1}\0"s, "{\"a\":\0 1}"s, "{\"a\":\"\0\"}"s, "\0"s}) {
        EXPECT_EQ(refusal_of(text), "the JSON text holds a NUL byte");
    }
}

TEST(JsonReader, ObjectsAndArraysNest) {
    const table fields = parse_json(R"({"o": {"l": [1, "x", {"deep": [[]]}], "e": {}}, "n": 1})");
    EXPECT_EQ(line(fields), R"({"n":1,"o":{"e":{},"l":[1,"x",{"deep":[[]]}]}})");
}

TEST(JsonReader, ANameGivenTwiceIsTwoFieldsInTheirOrder) {
    EXPECT_EQ(line(parse_json(R"({"a": 1, "b": {"c": 1, "c": 2}, "a": "x"})")),
              R"({"a":1,"a":"x","b":{"c":1,"c":2}})");
}

TEST(JsonReader, NothingAtAllIsAnEmptyMessage) {
    EXPECT_TRUE(parse_json("").empty());
    EXPECT_TRUE(parse_json("{}").empty());
}

TEST(JsonReader, NullGoesOutAsRawBytesOfWhichThereAreNone) {
    expect_value("null", typeid(bytes), bytes{});
    const attr nested = value_of(R"([null, {"w": null}])");
    const list& elements = nested.get<list>();
    ASSERT_EQ(elements.size(), 2U);
    EXPECT_EQ(elements.front().get<bytes>(), bytes{});
    EXPECT_EQ(elements.back().get<table>().find("w")->second.get<bytes>(), bytes{});
}

TEST(JsonReader, WhatIsNoObjectIsRefused) {
    for (const char* text :
         {"1", "-1", "1.5", "true", "null", "\"text\"", "[]", "[null]", "[{\"a\": 1}]"}) {
        EXPECT_EQ(refusal_of(text), "the arguments must be a JSON object") << text;
    }
}

TEST(JsonReader, WhatIsNoJsonIsRefusedWithItsPlace) {
    for (const char* text : {"{", "{\"a\": }", "{\"a\": 1,}", "{'a': 1}", "{} x", " ", "]"}) {
        EXPECT_EQ(refusal_of(text).rfind("parse error at line 1, column ", 0), 0U)
            << text << ": " << refusal_of(text);
    }
}

TEST(JsonReader, TextThatIsNoUtf8IsRefused) {
    EXPECT_EQ(refusal_of("{\"a\": \"\xff\"}").rfind("parse error", 0), 0U);
    EXPECT_EQ(refusal_of("{\"\xff\": 18446744073709551615}").rfind("parse error", 0), 0U);
}

TEST(Json, AbsurdlyDeepJsonIsReadAndWritten) {
    constexpr std::size_t depth = 200000;
    const std::string text = "{\"v\":" + std::string(depth, '[') + std::string(depth, ']') + "}";
    const table fields = parse_json(text);
    EXPECT_EQ(line(fields), text);
    EXPECT_LT(write_json(fields, layout::indented).size(), 100 * 2 * depth);
}

TEST(JsonWriter, IntegersOfEveryWidthArePrintedSigned) {
    EXPECT_EQ(line({{"a", short(-2)}, {"b", -3}, {"c", -4LL}, {"d", 4294967295U}}),
              R"({"a":-2,"b":-3,"c":-4,"d":-1})");
}

TEST(JsonWriter, AByteOf0Or1IsAFlagAndAnotherANumber) {
    using byte = unsigned char;
    EXPECT_EQ(line({{"a", byte(0)}, {"b", byte(1)}, {"c", byte(2)}, {"d", byte(255)}}),
              R"({"a":false,"b":true,"c":2,"d":255})");
    EXPECT_EQ(line({{"a", true}, {"b", false}}), R"({"a":true,"b":false})");
}

TEST(JsonWriter, DoublesKeepTheirPointAndTheirValue) {
    EXPECT_EQ(line({{"a", 1.0}, {"b", 0.1}}), R"({"a":1.0,"b":0.1})");
}

TEST(JsonWriter, ADoubleThatIsNotFiniteIsNull) {
    EXPECT_EQ(line({{"a", std::numeric_limits<double>::infinity()}}), R"({"a":null})");
}

TEST(JsonWriter, RawBytesAreHex) {
    EXPECT_EQ(line({{"a", bytes{0x00, 0x7f, 0xff}}, {"b", bytes{0}}}),
              R"({"a":"007fff","b":"00"})");
}

TEST(JsonWriter, RawBytesOfWhichThereAreNoneAreNullAtAnyDepth) {
    EXPECT_EQ(line({{"a", bytes{}}}), R"({"a":null})");
    const std::string nested = R"({"a":[null,1,{"b":null},[null]],"c":{"d":null}})";
    EXPECT_EQ(line(parse_json(nested)), nested);
}

TEST(JsonWriter, TheLimitsOf64BitsComeBackAsTheyWent) {
    const std::string limits = R"({"a":[9223372036854775807,-9223372036854775808]})";
    EXPECT_EQ(line(parse_json(limits)), limits);
}

TEST(JsonWriter, TextThatIsNoUtf8IsReplacedInValuesAndNames) {
    EXPECT_EQ(line({{"\xfe", "a\xff"}}), "{\"\xef\xbf\xbd\":\"a\xef\xbf\xbd\"}");
}

TEST(JsonWriter, ControlCharactersAreEscapedThoseOfTheSecondSetToo) {
    const table fields{{"n\x7f", "a\x1b\x7f\xc2\x80z\xc2\x9f"}, {"o", {{"p", {"\xc2\x85"}}}}};
    const std::string text = R"({"n\u007f":"a\u001b\u007f\u0080z\u009f","o":{"p":["\u0085"]}})";
    EXPECT_EQ(line(fields), text);
    EXPECT_EQ(line(parse_json(text)), text);
    EXPECT_EQ(parse_json(text).find("n\x7f")->second.get<std::string>(),
              fields.find("n\x7f")->second.get<std::string>());
}

TEST(JsonWriter, CharactersThatOnlyResembleThemStayAsTheyAre) {
    // U+00A0, U+00C2, U+0442, and half a character.
    EXPECT_EQ(line({{"a", "\xc2\xa0\xc3\x82\xd1\x82\xc2"}}),
              "{\"a\":\"\xc2\xa0\xc3\x82\xd1\x82\xef\xbf\xbd\"}");
}

TEST(JsonWriter, RepeatedNamesAreKept) {
    const table fields{{"a", 1}, {"a", 2}};
    EXPECT_EQ(line(fields), R"({"a":1,"a":2})");
    EXPECT_EQ(line({{"t", fields}}), R"({"t":{"a":1,"a":2}})");
}

TEST(JsonWriter, IndentsByTwoAndKeepsEmptyContainersShort) {
    EXPECT_EQ(write_json({{"a", {1, 2}}, {"b", table{}}, {"c", list{}}, {"d", {{"e", "f"}}}},
                         layout::indented),
              "{\n  \"a\": [\n    1,\n    2\n  ],\n  \"b\": {},\n  \"c\": [],\n"
              "  \"d\": {\n    \"e\": \"f\"\n  }\n}");
    EXPECT_EQ(write_json({}, layout::indented), "{}");
}

TEST(JsonWriter, AnyValueIsWrittenTheSameWay) {
    EXPECT_EQ(write_json(attr(5)), "5");
    EXPECT_EQ(write_json(attr{1, "x"}), R"([1,"x"])");
    EXPECT_EQ(write_json(attr{{"a", 1}}, layout::indented), "{\n  \"a\": 1\n}");
    EXPECT_EQ(write_json(attr()), "null");
}

} // namespace
