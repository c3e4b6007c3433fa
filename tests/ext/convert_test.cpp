/// Which C++ types are read from and written to which values.
#include "tarn/ext/convert.h"

#include "ext/refusal.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace tarn::ext {
namespace {

using blob::attr;
using test::refusal_of;

template <class T>
std::string refused(const attr& value) {
    return refusal_of([&] { return from_attr<T>(value); });
}

template <class T>
void expect_round_trip(const T& value, const std::type_info& stored) {
    const attr written = to_attr(value);
    EXPECT_EQ(written.type(), std::type_index(stored));
    EXPECT_EQ(convert<T>::stored_type(), std::type_index(stored));
    EXPECT_EQ(from_attr<T>(written), value);
}

template <class T>
void expect_limits_to_return(const std::type_info& stored) {
    expect_round_trip(std::numeric_limits<T>::min(), stored);
    expect_round_trip(std::numeric_limits<T>::max(), stored);
}

TEST(Convert, IntegersOfEveryTypeReturnAsTheyWent) {
    expect_limits_to_return<signed char>(typeid(unsigned char));
    expect_limits_to_return<unsigned char>(typeid(unsigned char));
    expect_limits_to_return<short>(typeid(unsigned short));
    expect_limits_to_return<unsigned short>(typeid(unsigned short));
    expect_limits_to_return<int>(typeid(unsigned int));
    expect_limits_to_return<unsigned int>(typeid(unsigned int));
    expect_limits_to_return<std::int64_t>(typeid(unsigned long long));
    expect_limits_to_return<std::uint64_t>(typeid(unsigned long long));
    expect_limits_to_return<long long>(typeid(unsigned long long));
    expect_limits_to_return<unsigned long long>(typeid(unsigned long long));
}

TEST(Convert, ASignedIntegerKeepsItsValueInEveryWidthThatHoldsIt) {
    EXPECT_EQ(from_attr<long long>(attr(-1)), -1);
    EXPECT_EQ(from_attr<short>(attr(-1)), -1);
    EXPECT_EQ(from_attr<signed char>(attr(-128LL)), -128);
    EXPECT_EQ(from_attr<int>(attr(short(-32768))), -32768);
    EXPECT_EQ(from_attr<int>(attr(2147483647LL)), 2147483647);
    EXPECT_EQ(from_attr<int>(attr(static_cast<signed char>(-5))), -5);
}

TEST(Convert, AnUnsignedIntegerKeepsItsValueInEveryWidthThatHoldsIt) {
    EXPECT_EQ(from_attr<unsigned long long>(attr(4294967295U)), 4294967295ULL);
    EXPECT_EQ(from_attr<unsigned char>(attr(255ULL)), 255);
    EXPECT_EQ(from_attr<unsigned int>(attr(static_cast<unsigned char>(200))), 200U);
}

TEST(Convert, AnIntegerThatDoesNotFitIsRefusedWithItsValue) {
    EXPECT_EQ(refused<short>(32768), "expected a signed 16-bit integer, found the integer 32768");
    EXPECT_EQ(refused<signed char>(-129),
              "expected a signed 8-bit integer, found the integer -129");
    EXPECT_EQ(refused<unsigned char>(256),
              "expected an unsigned 8-bit integer, found the integer 256");
    EXPECT_EQ(refused<int>(2147483648LL),
              "expected a signed 32-bit integer, found the integer 2147483648");
    EXPECT_EQ(refused<unsigned short>(-1),
              "expected an unsigned 16-bit integer, found the integer 4294967295");
}

TEST(Convert, WhatIsNoIntegerIsRefusedAsOne) {
    EXPECT_EQ(refused<int>("5"), "expected a signed 32-bit integer, found a string");
    EXPECT_EQ(refused<unsigned long long>(5.0),
              "expected an unsigned 64-bit integer, found a double");
    EXPECT_EQ(refused<int>({}), "expected a signed 32-bit integer, found nothing");
    EXPECT_EQ(refused<int>(blob::list()), "expected a signed 32-bit integer, found a list");
}

TEST(Convert, AFlagIsReadFromAFlagAndFromAByteOf0Or1) {
    expect_round_trip(true, typeid(bool));
    expect_round_trip(false, typeid(bool));
    EXPECT_TRUE(from_attr<bool>(static_cast<unsigned char>(1)));
    EXPECT_FALSE(from_attr<bool>(static_cast<unsigned char>(0)));
    EXPECT_EQ(refused<bool>(static_cast<unsigned char>(2)), "expected a flag, found the integer 2");
    EXPECT_EQ(refused<bool>(1), "expected a flag, found a 32-bit integer");
    EXPECT_EQ(refused<bool>(short(1)), "expected a flag, found a 16-bit integer");
    EXPECT_EQ(refused<bool>(1LL), "expected a flag, found a 64-bit integer");
}

TEST(Convert, AFlagIsTheInteger0Or1) {
    EXPECT_EQ(from_attr<int>(true), 1);
    EXPECT_EQ(from_attr<unsigned char>(false), 0);
    EXPECT_EQ(from_attr<double>(true), 1.0);
}

TEST(Convert, ADoubleIsReadFromIntegersThatItHolds) {
    expect_round_trip(-0.1, typeid(double));
    EXPECT_EQ(from_attr<double>(-7), -7.0);
    EXPECT_EQ(from_attr<double>(1LL << 53), 9007199254740992.0);
    EXPECT_EQ(from_attr<double>(std::numeric_limits<long long>::min()), -9223372036854775808.0);
    EXPECT_EQ(refused<double>((1LL << 53) + 1),
              "expected a double, found the integer 9007199254740993");
    EXPECT_EQ(refused<double>(std::numeric_limits<long long>::max()),
              "expected a double, found the integer 9223372036854775807");
    EXPECT_EQ(refused<double>("1.0"), "expected a double, found a string");
}

TEST(Convert, TextsBytesListsAndTablesAreThemselves) {
    expect_round_trip(std::string("lan"), typeid(std::string));
    expect_round_trip(blob::bytes{1, 2}, typeid(blob::bytes));
    EXPECT_EQ(from_attr<blob::list>(to_attr(blob::list{1, 2})).size(), 2U);
    EXPECT_EQ(from_attr<blob::table>(to_attr(blob::table{{"a", 1}, {"a", 2}})).size(), 2U);
    EXPECT_EQ(refused<std::string>(5), "expected a string, found a 32-bit integer");
    EXPECT_EQ(refused<blob::bytes>("x"), "expected raw bytes, found a string");
    EXPECT_EQ(refused<blob::list>(blob::table()), "expected a list, found a table");
    EXPECT_EQ(refused<blob::table>(blob::bytes()), "expected a table, found raw bytes");
    EXPECT_EQ(to_attr("text").get<std::string>(), "text");
}

TEST(Convert, AnAttrIsAnythingAndNamesNoType) {
    EXPECT_EQ(from_attr<attr>(5).get<int>(), 5);
    EXPECT_EQ(to_attr(attr("x")).get<std::string>(), "x");
    EXPECT_FALSE(detail::has_stored_type<attr>);
    EXPECT_FALSE(detail::has_stored_type<std::optional<attr>>);
    EXPECT_TRUE(detail::has_stored_type<std::optional<int>>);
    EXPECT_EQ(convert<std::optional<int>>::stored_type(), std::type_index(typeid(unsigned int)));
}

TEST(Convert, VectorsAndListsHoldWhatIsConvertedEach) {
    expect_round_trip(std::vector<int>{1, -2}, typeid(blob::list));
    expect_round_trip(std::vector<bool>{true, false}, typeid(blob::list));
    expect_round_trip(std::list<std::string>{"a", "b"}, typeid(blob::list));
    expect_round_trip(std::vector<std::vector<double>>{{0.5}, {}}, typeid(blob::list));
    EXPECT_EQ(refused<std::vector<int>>({1, "x"}),
              "[1]: expected a signed 32-bit integer, found a string");
    EXPECT_EQ(refused<std::vector<int>>(5), "expected a list, found a 32-bit integer");
}

TEST(Convert, AMapHoldsTheFirstFieldOfEachName) {
    expect_round_trip(std::map<std::string, int>{{"a", 1}, {"b", 2}}, typeid(blob::table));
    EXPECT_EQ((from_attr<std::map<std::string, int>>(blob::table{{"a", 1}, {"a", 2}})),
              (std::map<std::string, int>{{"a", 1}}));
    EXPECT_EQ((refused<std::map<std::string, std::vector<int>>>({{"a.b", {1, "x"}}})),
              R"("a.b"[1]: expected a signed 32-bit integer, found a string)");
}

TEST(Convert, AnOptionalIsEmptyForNullAndForNothing) {
    expect_round_trip(std::optional<int>(5), typeid(unsigned int));
    EXPECT_EQ(from_attr<std::optional<int>>(blob::bytes()), std::nullopt);
    EXPECT_EQ(from_attr<std::optional<int>>({}), std::nullopt);
    EXPECT_EQ(from_attr<std::optional<blob::bytes>>(blob::bytes()), blob::bytes());
    EXPECT_EQ(to_attr(std::optional<int>()).get<blob::bytes>(), blob::bytes());
    EXPECT_EQ(refused<std::optional<int>>("x"), "expected a signed 32-bit integer, found a string");
    EXPECT_EQ((from_attr<std::vector<std::optional<int>>>({1, blob::bytes()})),
              (std::vector<std::optional<int>>{1, std::nullopt}));
}

enum class colour : short { red = -1, green = 7 };
enum class letter : char { a = 'a' };
enum class plain { one = 1 };

TEST(Convert, EnumerationsGoByTheirInteger) {
    expect_round_trip(colour::red, typeid(unsigned short));
    expect_round_trip(letter::a, typeid(unsigned char));
    expect_round_trip(plain::one, typeid(unsigned int));
    EXPECT_EQ(from_attr<colour>(7LL), colour::green);
    EXPECT_EQ(refused<colour>(70000), "expected a signed 16-bit integer, found the integer 70000");
}

/// A list of itself.
struct nest {
    std::vector<nest> inner;
};

} // namespace

template <>
struct convert<nest> {
    static nest read(const attr& value) { return {from_attr<std::vector<nest>>(value)}; }
};

namespace {

attr lists_of_depth(int depth) {
    attr value = blob::list();
    for (int n = 1; n < depth; ++n) {
        blob::list outer;
        outer.push_back(std::move(value));
        value = attr(std::move(outer));
    }
    return value;
}

TEST(Convert, ATypeThatContainsItselfIsReadToALimitedDepth) {
    EXPECT_EQ(refused<nest>(lists_of_depth(100)), "not refused");
    const std::string refusal = refused<nest>(lists_of_depth(101));
    EXPECT_NE(refusal.find("expected a list, found more than 100 levels of nesting"),
              std::string::npos)
        << refusal;
    EXPECT_EQ(refused<nest>(lists_of_depth(100)), "not refused") << "levels are counted anew";
}

struct celsius {
    double degrees;
};

} // namespace

template <>
struct convert<celsius> {
    static celsius read(const attr& value) { return {from_attr<double>(value)}; }
    static attr write(const celsius& value) { return value.degrees; }
};

namespace {

TEST(Convert, ATypeOfOnesOwnIsSpecialised) {
    EXPECT_EQ(from_attr<std::vector<celsius>>({1.5, 2}).back().degrees, 2.0);
    EXPECT_EQ(to_attr(celsius{0.5}).get<double>(), 0.5);
    EXPECT_FALSE(detail::has_stored_type<celsius>);
    EXPECT_TRUE(detail::has_convert<celsius>);
    EXPECT_FALSE(detail::has_convert<char>);
    EXPECT_FALSE(detail::has_convert<float>);
    EXPECT_FALSE(detail::has_convert<int*>);
}

} // namespace
} // namespace tarn::ext
