/// Reading the fields of a table.
#include "tarn/ext/reply.h"

#include "ext/refusal.h"

#include <gtest/gtest.h>

namespace tarn::ext {
namespace {

using blob::attr;
using blob::table;
using test::refusal_of;

reply sample() {
    return reply({{"msg", "hello"},
                  {"n", 42},
                  {"a.b", 1},
                  {"network", {{"ip", "10.0.0.1"}, {"mtu", 1500}}},
                  {"ports", {attr{{"name", "lan1"}}, attr{{"name", "lan2"}}}}});
}

TEST(Reply, AtReadsAFieldAsTheTypeAskedFor) {
    EXPECT_EQ(sample().at<std::string>("msg"), "hello");
    EXPECT_EQ(sample().at<long>("n"), 42);
    EXPECT_EQ(sample().at<attr>("n").get<int>(), 42);
    EXPECT_EQ(sample().at<int>("a.b"), 1) << "a dot is part of a name";
}

TEST(Reply, AtFollowsAPathPartByPart) {
    EXPECT_EQ(sample().at<std::string>("network", "ip"), "10.0.0.1");
    EXPECT_EQ(sample().at<std::string>("ports", 1, "name"), "lan2");
    const std::string name = "network";
    EXPECT_EQ(sample().at<int>(name, std::string_view("mtu")), 1500);
}

TEST(Reply, AMismatchNamesThePathTheWantedAndTheFound) {
    EXPECT_EQ(refusal_of([] { return sample().at<int>("msg"); }),
              "msg: expected a signed 32-bit integer, found a string");
    EXPECT_EQ(refusal_of([] { return sample().at<int>("none"); }),
              "none: expected a signed 32-bit integer, found no such field");
    EXPECT_EQ(refusal_of([] { return sample().at<int>("network", "ip"); }),
              "network.ip: expected a signed 32-bit integer, found a string");
    EXPECT_EQ(refusal_of([] { return sample().at<int>("network", "gone", "deeper"); }),
              "network.gone: expected a signed 32-bit integer, found no such field");
    EXPECT_EQ(refusal_of([] { return sample().at<int>("msg", "x"); }),
              "msg: expected a table, found a string");
    EXPECT_EQ(refusal_of([] { return sample().at<int>("network", 0); }),
              "network: expected a list, found a table");
    EXPECT_EQ(refusal_of([] { return sample().at<int>("ports", 2); }),
              "ports[2]: expected a signed 32-bit integer, found no such element");
    EXPECT_EQ(refusal_of([] { return sample().at<int>("ports", -1); }).rfind("ports[", 0), 0U);
    EXPECT_EQ(refusal_of([] { return reply().at<int>("n"); }),
              "n: expected a signed 32-bit integer, found no such field");
    EXPECT_EQ(refusal_of([] { return reply().at<std::string>("n"); }),
              "n: expected a string, found no such field");
    EXPECT_EQ(refusal_of([] { return reply().at<attr>("n"); }),
              "n: expected a value, found no such field");
}

TEST(Reply, AnOptionalIsEmptyWhereThePathLeadsNowhere) {
    EXPECT_EQ(sample().at<std::optional<int>>("none"), std::nullopt);
    EXPECT_EQ(sample().at<std::optional<int>>("none", "deeper"), std::nullopt);
    EXPECT_EQ(sample().at<std::optional<int>>("n"), 42);
    EXPECT_EQ(refusal_of([] { return sample().at<std::optional<int>>("msg"); }),
              "msg: expected a signed 32-bit integer, found a string");
}

TEST(Reply, GetIsEmptyForWhatIsAbsentOrOfAnotherType) {
    EXPECT_EQ(sample().get<int>("n"), 42);
    EXPECT_EQ(sample().get<int>("none"), std::nullopt);
    EXPECT_EQ(sample().get<int>("msg"), std::nullopt);
    EXPECT_EQ(sample().get<int>("network", "mtu"), 1500);
}

TEST(Reply, ValueOrHasTheTypeOfItsSecondArgument) {
    EXPECT_EQ(sample().value_or("n", 7), 42);
    EXPECT_EQ(sample().value_or("none", 7), 7);
    EXPECT_EQ(sample().value_or("msg", 7), 7) << "of another type";
    EXPECT_EQ(sample().value_or("msg", "none"), "hello");
    EXPECT_EQ(sample().value_or("none", "none"), std::string("none"));
    static_assert(std::is_same_v<decltype(sample().value_or("n", "x")), std::string>);
    static_assert(std::is_same_v<decltype(sample().value_or("n", 1LL)), long long>);
}

TEST(Reply, ATableReadAsAReplyOutlivesTheOneItIsFrom) {
    reply inner;
    {
        const reply outer = sample();
        inner = outer.at<reply>("network");
        EXPECT_EQ(&inner.fields(), &outer.fields().find("network")->second.get<table>())
            << "not copied";
    }
    EXPECT_EQ(inner.at<std::string>("ip"), "10.0.0.1");
    EXPECT_EQ(sample().at<std::vector<reply>>("ports").at(1).at<std::string>("name"), "lan2");
    EXPECT_EQ(refusal_of([] { return sample().at<reply>("n"); }),
              "n: expected a table, found a 32-bit integer");
}

TEST(Reply, TellsWhichFieldsThereAre) {
    EXPECT_TRUE(sample().has("n"));
    EXPECT_FALSE(sample().has("none"));
    EXPECT_FALSE(sample().empty());
    EXPECT_TRUE(reply().empty());
    EXPECT_EQ(sample().fields().size(), 5U);
}

TEST(Reply, OneThatWasMovedFromHasNoFields) {
    reply from = sample();
    const reply to = std::move(from);
    EXPECT_TRUE(from.empty()); // NOLINT(bugprone-use-after-move): said to work
    EXPECT_EQ(to.at<int>("n"), 42);
}

TEST(Reply, OfSeveralFieldsOfOneNameTheFirstCounts) {
    const reply twice(table{{"a", 1}, {"a", 2}});
    EXPECT_EQ(twice.at<int>("a"), 1);
}

TEST(Reply, ConvertsToAndFromValues) {
    EXPECT_EQ(from_attr<reply>({{"a", 1}}).at<int>("a"), 1);
    EXPECT_EQ(to_attr(sample()).get<table>().size(), 5U);
}

} // namespace
} // namespace tarn::ext
