/// Tests of values written as plain values and initializer lists; built in C++17 and in C++20.
#include "tarn/blob/attr.h"

#include <gtest/gtest.h>

namespace {

using namespace tarn::blob;

std::string enclosed(char open, const std::string& text, char close) {
    std::string whole(1, open);
    whole.append(text).append(1, close);
    return whole;
}

/// The value written out, so that one comparison shows all of it.
std::string text_of(const attr& value) {
    std::string text;
    if (value.type() == typeid(unsigned int)) {
        return std::to_string(value.get<int>());
    }
    if (value.type() == typeid(std::string)) {
        return enclosed('\'', value.get<std::string>(), '\'');
    }
    if (value.type() == typeid(bool)) {
        return value.get<bool>() ? "true" : "false";
    }
    if (value.type() == typeid(double)) {
        return std::to_string(value.get<double>());
    }
    if (value.type() == typeid(list)) {
        for (const attr& element : value.get<list>()) {
            text.append(text.empty() ? "" : ",").append(text_of(element));
        }
        return enclosed('[', text, ']');
    }
    if (value.type() == typeid(table)) {
        for (const auto& [name, field] : value.get<table>()) {
            text.append(text.empty() ? "" : ",").append(name).append(":").append(text_of(field));
        }
        return enclosed('{', text, '}');
    }
    return value.has_value() ? value.type().name() : "empty";
}

std::string call(const std::multimap<std::string, attr>& args) {
    return text_of(args);
}

TEST(AttrForms, APlainValueIsItself) {
    attr a = 5;
    EXPECT_EQ(text_of(a), "5");
    a = "text";
    EXPECT_EQ(text_of(a), "'text'");
    a = true;
    EXPECT_EQ(text_of(a), "true");
    a = 0.5;
    EXPECT_EQ(text_of(a), "0.500000");
    a = list{};
    EXPECT_EQ(text_of(a), "[]");
    a = table{};
    EXPECT_EQ(text_of(a), "{}");
}

TEST(AttrForms, EmptyBracesAreEmpty) {
    attr a{};
    attr b = {};
    EXPECT_EQ(text_of(a), "empty");
    EXPECT_EQ(text_of(b), "empty");
}

TEST(AttrForms, PairsOfANameAndAValueAreATable) {
    attr a = {{"name", "lan"}, {"up", true}};
    EXPECT_EQ(text_of(a), "{name:'lan',up:true}");
    attr one = {{"x", 1}};
    EXPECT_EQ(text_of(one), "{x:1}");
    attr texts = {{"x", "y"}};
    EXPECT_EQ(text_of(texts), "{x:'y'}");
    const std::string name = "dynamic";
    attr named = {{name, 1}, {std::string("other"), 2}};
    EXPECT_EQ(text_of(named), "{dynamic:1,other:2}");
    attr zero = {{"x", 0}, {"y", "0"}};
    EXPECT_EQ(text_of(zero), "{x:0,y:'0'}");
    attr same = {{"k", 2}, {"k", 1}};
    EXPECT_EQ(text_of(same), "{k:2,k:1}");
}

TEST(AttrForms, PlainValuesAreAList) {
    attr numbers = {1, 2, 3};
    EXPECT_EQ(text_of(numbers), "[1,2,3]");
    attr texts = {"x", "y"};
    EXPECT_EQ(text_of(texts), "['x','y']");
    attr mixed = {0, "x", true};
    EXPECT_EQ(text_of(mixed), "[0,'x',true]");
    attr one{1};
    EXPECT_EQ(text_of(one), "[1]");
    attr text{"x"};
    EXPECT_EQ(text_of(text), "['x']");
}

TEST(AttrForms, OneAttrBetweenBracesIsCopiedOrMoved) {
    attr a = 1;
    attr copy{a};
    attr again = {copy};
    const attr fixed{again};
    attr from_const{fixed};
    EXPECT_EQ(text_of(from_const), "1");
    EXPECT_EQ(text_of(a), "1");
    attr moved{std::move(a)};
    EXPECT_EQ(text_of(moved), "1");
    EXPECT_EQ(text_of(a), "empty");
}

TEST(AttrForms, SeveralValuesWithAnAttrAmongThemAreAList) {
    attr a = "a";
    const attr b = {{"k", 1}};
    attr l = {a, 1, b, "x"};
    EXPECT_EQ(text_of(l), "['a',1,{k:1},'x']");
    attr two = {a, b};
    EXPECT_EQ(text_of(two), "['a',{k:1}]");
    attr last = {"x", a};
    EXPECT_EQ(text_of(last), "['x','a']");
    attr moved = {std::move(a), 2};
    EXPECT_EQ(text_of(moved), "['a',2]");
    EXPECT_EQ(text_of(a), "empty");
}

TEST(AttrForms, ListsOfListsAndTablesNameTheirElements) {
    attr lists = {list{1, 2}, list{3}};
    EXPECT_EQ(text_of(lists), "[[1,2],[3]]");
    attr tables = {table{{"x", 1}}, table{{"y", 2}}};
    EXPECT_EQ(text_of(tables), "[{x:1},{y:2}]");
    attr mixed = {1, list{}, table{{"x", list{table{}}}}};
    EXPECT_EQ(text_of(mixed), "[1,[],{x:[{}]}]");
    attr whole = list{{1, 2}, {3}, {{"x", 1}}};
    EXPECT_EQ(text_of(whole), "[[1,2],[3],{x:1}]");
    attr one = list{{1, 2}};
    EXPECT_EQ(text_of(one), "[[1,2]]");
    const list inner = {1, 2};
    attr named = list{attr(inner)};
    EXPECT_EQ(text_of(named), "[[1,2]]");
    attr around{inner};
    EXPECT_EQ(text_of(around), "[[1,2]]");
    attr same = inner;
    EXPECT_EQ(text_of(same), "[1,2]");
}

TEST(AttrForms, TheValueOfAPairFollowsTheSameRules) {
    attr a = {{"l", {1, 2}}, {"one", {1}}, {"t", {{"u", {{"v", 1}}}}}, {"texts", {"a", "b"}}};
    EXPECT_EQ(text_of(a), "{l:[1,2],one:[1],t:{u:{v:1}},texts:['a','b']}");
    attr empty = {{"e", {}}};
    EXPECT_EQ(text_of(empty), "{e:empty}");
}

TEST(AttrForms, ArgumentsOfACallAreWrittenInBraces) {
    const attr a = 7;
    EXPECT_EQ(call({{"name", "lan"}, {"up", true}, {"ids", {1, 2, 3}}, {"inner", {{"x", 1}}}}),
              "{ids:[1,2,3],inner:{x:1},name:'lan',up:true}");
    EXPECT_EQ(call({{"a", "b"}}), "{a:'b'}");
    EXPECT_EQ(call({{"a", "b"}, {"c", "d"}}), "{a:'b',c:'d'}");
    EXPECT_EQ(call({{"a", a}, {"n", {a, 1}}}), "{a:7,n:[7,1]}");
    EXPECT_EQ(call({{"a", {"x"}}}), "{a:['x']}");
    EXPECT_EQ(call({}), "{}");
}

TEST(AttrForms, AnAssignmentTakesEveryForm) {
    attr a = 1;
    a = {1, 2};
    EXPECT_EQ(text_of(a), "[1,2]");
    a = {{"k", "v"}};
    EXPECT_EQ(text_of(a), "{k:'v'}");
    a = {a, a};
    EXPECT_EQ(text_of(a), "[{k:'v'},{k:'v'}]");
    a = {};
    EXPECT_EQ(text_of(a), "empty");
}

TEST(AttrForms, ASetterWithAGivenContainerTakesBraces) {
    attr a;
    a.set<list>({1, 2});
    EXPECT_EQ(text_of(a), "[1,2]");
    a.set<table>({{"k", 1}});
    EXPECT_EQ(text_of(a), "{k:1}");
}

} // namespace
