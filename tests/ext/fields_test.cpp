/// Structures read from and written to tables.
#include "tarn/ext/fields.h"

#include "ext/refusal.h"

#include <gtest/gtest.h>

namespace net {

struct port {
    std::string name;
    std::optional<int> speed;
};
TARN_FIELDS(port, name, speed)

struct lan {
    bool up = false;
    port first;
    std::vector<port> ports;
    std::map<std::string, short> counters;
};
TARN_FIELDS(lan, up, first, ports, counters)

struct outer {
    struct inner {
        int n = 0;
    };
    inner in;
};
TARN_FIELDS(outer::inner, n)
TARN_FIELDS(outer, in)

/// Not described, although its base is.
struct special_port : port {
    int extra = 0;
};

struct tree {
    int value = 0;
    std::vector<tree> branches;
};
TARN_FIELDS(tree, value, branches)

struct wide {
    int a1, a2, a3, a4, a5, a6, a7, a8, b1, b2, b3, b4, b5, b6, b7, b8, c1, c2, c3, c4, c5, c6, c7,
        c8, d1, d2, d3, d4, d5, d6, d7, d8, e1, e2, e3, e4, e5, e6, e7, e8, f1, f2, f3, f4, f5, f6,
        f7, f8, g1, g2, g3, g4, g5, g6, g7, g8, h1, h2, h3, h4, h5, h6, h7, h8;
};
TARN_FIELDS(wide, a1, a2, a3, a4, a5, a6, a7, a8, b1, b2, b3, b4, b5, b6, b7, b8, c1, c2, c3, c4,
            c5, c6, c7, c8, d1, d2, d3, d4, d5, d6, d7, d8, e1, e2, e3, e4, e5, e6, e7, e8, f1, f2,
            f3, f4, f5, f6, f7, f8, g1, g2, g3, g4, g5, g6, g7, g8, h1, h2, h3, h4, h5, h6, h7, h8)

} // namespace net

struct of_the_global_namespace {
    int type = 0;
    int member = 0;
};
TARN_FIELDS(of_the_global_namespace, type, member)

namespace tarn::ext {
namespace {

using blob::attr;
using blob::table;
using test::refusal_of;

template <class T>
std::string refused(const attr& value) {
    return refusal_of([&] { return from_attr<T>(value); });
}

attr a_lan() {
    return {{"up", true},
            {"first", {{"name", "lan1"}}},
            {"ports", blob::list{table{{"name", "lan2"}, {"speed", 1000}}}},
            {"counters", {{"rx", 5}}}};
}

TEST(Fields, AStructureIsReadWithAllThatIsInside) {
    const auto read = from_attr<net::lan>(a_lan());
    EXPECT_TRUE(read.up);
    EXPECT_EQ(read.first.name, "lan1");
    EXPECT_EQ(read.first.speed, std::nullopt);
    ASSERT_EQ(read.ports.size(), 1U);
    EXPECT_EQ(read.ports[0].speed, 1000);
    EXPECT_EQ(read.counters.at("rx"), 5);
}

TEST(Fields, WhatIsWrittenIsReadBack) {
    const net::lan written{true, {"a", 7}, {{"b", std::nullopt}, {"c", 9}}, {{"x", short(-1)}}};
    const auto read = from_attr<net::lan>(to_attr(written));
    EXPECT_EQ(read.up, written.up);
    EXPECT_EQ(read.first.speed, 7);
    ASSERT_EQ(read.ports.size(), 2U);
    EXPECT_EQ(read.ports[0].speed, std::nullopt);
    EXPECT_EQ(read.ports[1].name, "c");
    EXPECT_EQ(read.counters, written.counters);
    EXPECT_EQ(convert<net::lan>::stored_type(), std::type_index(typeid(table)));
}

TEST(Fields, AnOptionalWithoutAValueIsLeftOut) {
    const attr written = to_attr(net::port{"a", std::nullopt});
    EXPECT_EQ(written.get<table>().size(), 1U);
    EXPECT_EQ(to_attr(net::port{"a", 1}).get<table>().count("speed"), 1U);
}

TEST(Fields, FieldsThatTheStructureDoesNotHaveAreIgnored) {
    EXPECT_EQ(from_attr<net::port>({{"name", "a"}, {"colour", "red"}}).name, "a");
}

TEST(Fields, OfSeveralFieldsOfOneNameTheFirstCounts) {
    EXPECT_EQ(from_attr<net::port>(table{{"name", "a"}, {"name", 5}}).name, "a");
}

TEST(Fields, AMismatchNamesTheField) {
    EXPECT_EQ(refused<net::port>(table()), "name: expected a string, found no such field");
    EXPECT_EQ(refused<net::port>(5), "expected a table, found a 32-bit integer");
    attr wrong = a_lan();
    wrong.get<table>().find("ports")->second = {attr{{"name", "x"}},
                                                attr{{"name", "y"}, {"speed", "fast"}}};
    EXPECT_EQ(refused<net::lan>(wrong),
              "ports[1].speed: expected a signed 32-bit integer, found a string");
}

TEST(Fields, AStructureInAnotherIsDescribedWithItsFullName) {
    EXPECT_EQ(from_attr<net::outer>({{"in", {{"n", 5}}}}).in.n, 5);
}

TEST(Fields, AStructureOfTheGlobalNamespaceMayHaveAnyNamesOfMembers) {
    const auto read = from_attr<of_the_global_namespace>({{"type", 1}, {"member", 2}});
    EXPECT_EQ(read.type, 1);
    EXPECT_EQ(read.member, 2);
}

TEST(Fields, TheFieldsOfABaseAreNotThoseOfTheDerived) {
    EXPECT_TRUE(detail::has_convert<net::port>);
    EXPECT_FALSE(detail::has_convert<net::special_port>);
}

TEST(Fields, AStructureThatContainsItselfIsReadToALimitedDepth) {
    EXPECT_EQ(from_attr<net::tree>(
                  {{"value", 1},
                   {"branches", blob::list{table{{"value", 2}, {"branches", blob::list()}}}}})
                  .branches.at(0)
                  .value,
              2);
    attr deep{{"value", 0}, {"branches", blob::list()}};
    for (int n = 0; n < 100000; ++n) {
        blob::list around;
        around.push_back(std::move(deep));
        deep = attr{{"value", 0}, {"branches", std::move(around)}};
    }
    EXPECT_NE(refused<net::tree>(deep).find("more than 100 levels of nesting"), std::string::npos);
}

TEST(Fields, SixtyFourMembersAreDescribed) {
    net::wide written{};
    written.a1 = 1;
    written.h8 = 64;
    const auto read = from_attr<net::wide>(to_attr(written));
    EXPECT_EQ(to_attr(written).get<table>().size(), 64U);
    EXPECT_EQ(read.a1, 1);
    EXPECT_EQ(read.h8, 64);
}

} // namespace
} // namespace tarn::ext
