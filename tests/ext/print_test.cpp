/// Values, states and codes as text, and the comparison of values.
#include "tarn/ext/print.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <limits>
#include <sstream>

namespace tarn {
namespace {

using blob::attr;
using blob::list;
using blob::table;

TEST(Print, ValuesAreWrittenLikeJson) {
    EXPECT_EQ(to_string(attr{{"name", "lan"}, {"ports", {1, 2.0, true}}}),
              R"({"name": "lan", "ports": [1, 2.0, true]})");
    EXPECT_EQ(to_string(attr(table())), "{}");
    EXPECT_EQ(to_string(attr(list())), "[]");
    EXPECT_EQ(to_string(attr(table{{"a", 1}, {"a", list{attr(list())}}})),
              R"({"a": 1, "a": [[]]})");
    EXPECT_EQ(to_string(attr()), "null");
}

TEST(Print, IntegersAreTakenAsSignedButThoseOf8Bits) {
    EXPECT_EQ(to_string(attr(-1)), "-1");
    EXPECT_EQ(to_string(attr(short(-2))), "-2");
    EXPECT_EQ(to_string(attr(-3LL)), "-3");
    EXPECT_EQ(to_string(attr(static_cast<unsigned char>(200))), "200");
}

TEST(Print, DoublesHaveAllTheirDigitsAndAPoint) {
    EXPECT_EQ(to_string(attr(0.1)), "0.1");
    EXPECT_EQ(to_string(attr(1.0)), "1.0");
    EXPECT_EQ(to_string(attr(-0.0)), "-0.0");
    EXPECT_EQ(to_string(attr(1e300)), "1e+300");
    EXPECT_EQ(to_string(attr(0.1 + 0.2)), "0.30000000000000004");
    EXPECT_EQ(to_string(attr(std::numeric_limits<double>::quiet_NaN())), "nan");
    EXPECT_EQ(to_string(attr(-std::numeric_limits<double>::infinity())), "-inf");
}

TEST(Print, TextsAreEscapedAndBytesAreHex) {
    EXPECT_EQ(to_string(attr("a\"b\\\n\t\x01\xc3\xa4")), "\"a\\\"b\\\\\\n\\t\\u0001\xc3\xa4\"");
    EXPECT_EQ(to_string(attr(table{{"\r\b\f", blob::bytes{0, 255}}})),
              R"({"\r\b\f": bytes(00ff)})");
    EXPECT_EQ(to_string(attr(blob::bytes())), "bytes()");
}

TEST(Print, NoControlCharacterOfATextIsPrinted) {
    EXPECT_EQ(to_string(attr("\x1f\x7f\xc2\x80\xc2\x9f")), R"("\u001f\u007f\u0080\u009f")");
    EXPECT_EQ(to_string(attr("\xc2\xa0\xc3\x82\xd1\x82\xc2")), "\"\xc2\xa0\xc3\x82\xd1\x82\xc2\"");
}

TEST(Print, AStreamAndATestFrameworkFindThePrinting) {
    std::ostringstream out;
    out << attr{1, "x"} << ' ' << client::state::connected;
    EXPECT_EQ(out.str(), R"([1, "x"] connected)");
    EXPECT_EQ(testing::PrintToString(attr(5)), "5");
}

TEST(Print, StatesHaveTheirNames) {
    EXPECT_EQ(to_string(client::state::disconnected), "disconnected");
    EXPECT_EQ(to_string(client::state::connecting), "connecting");
    EXPECT_EQ(to_string(client::state::disconnecting), "disconnecting");
    EXPECT_EQ(ext::to_string(static_cast<client::state>(9)), "state 9");
}

TEST(Print, CodesHaveTextCategoryAndNumber) {
    EXPECT_EQ(ext::to_string(make_error_code(error::msg::not_found)),
              "Not found (tarn::error::msg 4)");
    EXPECT_EQ(to_string(error::msg::timeout), "Request timed out (tarn::error::msg 7)");
    EXPECT_EQ(ext::to_string(error::generic::aborted), "Aborted (tarn::error::generic 1)");
}

TEST(Compare, ValuesAreEqualInTypeAndValue) {
    EXPECT_EQ(attr(1), attr(1));
    EXPECT_EQ(attr(-1), attr(4294967295U)) << "stored alike";
    EXPECT_EQ(attr(), attr());
    EXPECT_EQ(attr("x"), "x");
    for (const attr& one : {attr(1), attr(short(1)), attr(1LL), attr(true), attr(1.0), attr("1"),
                            attr(static_cast<unsigned char>(1)), attr(blob::bytes{1}), attr(),
                            attr(list{1}), attr(table{{"1", 1}})}) {
        int equal = 0;
        for (const attr& other :
             {attr(1), attr(short(1)), attr(1LL), attr(true), attr(1.0), attr("1"),
              attr(static_cast<unsigned char>(1)), attr(blob::bytes{1}), attr(), attr(list{1}),
              attr(table{{"1", 1}})}) {
            equal += one == other ? 1 : 0;
        }
        EXPECT_EQ(equal, 1) << one;
    }
    const attr nan(std::numeric_limits<double>::quiet_NaN());
    EXPECT_NE(nan, nan);
}

TEST(Compare, OfEveryTypeOtherValuesAreDifferent) {
    EXPECT_NE(attr(1), attr(2));
    EXPECT_NE(attr(short(1)), attr(short(2)));
    EXPECT_NE(attr(1LL), attr(2LL));
    EXPECT_NE(attr(true), attr(false));
    EXPECT_NE(attr(1.0), attr(2.0));
    EXPECT_NE(attr("1"), attr("2"));
    EXPECT_NE(attr(static_cast<unsigned char>(1)), attr(static_cast<unsigned char>(2)));
    EXPECT_NE(attr(blob::bytes{1}), attr(blob::bytes{2}));
}

TEST(Compare, ListsAndTablesAreComparedWithAllThatIsInside) {
    const attr one{{"a", {1, 2}}, {"b", {{"c", "d"}}}};
    EXPECT_EQ(one, (attr{{"b", {{"c", "d"}}}, {"a", {1, 2}}}));
    EXPECT_NE(one, (attr{{"a", {1, 3}}, {"b", {{"c", "d"}}}}));
    EXPECT_NE(one, (attr{{"a", {1, 2}}, {"b", {{"x", "d"}}}}));
    EXPECT_NE(one, (attr{{"a", {1, 2}}}));
    EXPECT_NE((attr{{"a", {1, 2}}}), one);
    EXPECT_NE(one, (attr{{"a", {1, 2, 3}}, {"b", {{"c", "d"}}}}));
    EXPECT_NE((attr{1, 2}), (attr{1, 2, list()}));
    EXPECT_NE((attr(table{{"a", 1}, {"a", 2}})), (attr(table{{"a", 2}, {"a", 1}})));
}

TEST(Compare, TheStandardContainersOfValuesCompareToo) {
    EXPECT_EQ((list{1, "x"}), (list{1, "x"}));
    EXPECT_NE((table{{"a", 1}}), (table{{"a", 2}}));
    const list values{1, 2};
    EXPECT_NE(std::find(values.begin(), values.end(), attr(2)), values.end());
}

TEST(Compare, ValuesOfAnyDepthAreComparedAndWritten) {
    constexpr int depth = 200000;
    const auto deep = [](const attr& inner) {
        attr value = inner;
        for (int n = 0; n < depth; ++n) {
            list outer;
            outer.push_back(std::move(value));
            value = attr(std::move(outer));
        }
        return value;
    };
    EXPECT_EQ(to_string(deep(1)).size(), 2U * depth + 1);
    EXPECT_TRUE(deep(1) == deep(1));
    EXPECT_FALSE(deep(1) == deep(2));
}

TEST(Print, TheEnumeratorsOfTheBusHaveNames) {
    EXPECT_EQ(ext::to_string(bus::presence::appeared), "appeared");
    EXPECT_EQ(to_string(bus::presence::gone), "gone");
    EXPECT_EQ(to_string(bus::subscription::subscribed), "subscribed");
    EXPECT_EQ(to_string(bus::subscription::lost), "lost");
    EXPECT_EQ(to_string(bus::subscription::refused), "refused");
    EXPECT_EQ(to_string(static_cast<bus::presence>(7)), "presence 7");
    EXPECT_EQ(to_string(static_cast<bus::subscription>(7)), "subscription 7");
    std::string types;
    for (int number = 0; number <= 9; ++number) {
        types += to_string(static_cast<bus::field_type>(number)) + ' ';
    }
    EXPECT_EQ(types, "any array table string int64 int32 int16 int8 float64 type 9 ");
    std::ostringstream out;
    out << bus::presence::gone << bus::subscription::lost << bus::field_type::int8;
    EXPECT_EQ(out.str(), "gonelostint8");
}

TEST(Print, TheLocaleDoesNotReachNumbers) {
    EXPECT_EQ(ext::detail::with_plain_point("0,5"), "0.5");
    EXPECT_EQ(ext::detail::with_plain_point("1\xd9\xab"
                                            "5e+300"),
              "1.5e+300");
    EXPECT_EQ(ext::detail::with_plain_point("1e+300"), "1e+300");
    EXPECT_EQ(ext::detail::with_plain_point("1"), "1.0");
}

} // namespace
} // namespace tarn
