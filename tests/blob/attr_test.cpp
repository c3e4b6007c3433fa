/// Tests of tarn::blob::attr: storing, reading, copying and moving.
#include "tarn/blob/attr.h"

#include "support/expect_throw.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>

namespace {

using namespace tarn::blob;
using tarn::test::expect_throw_msg;

enum plain { one };

static_assert(!std::is_constructible_v<attr, char>);
static_assert(!std::is_constructible_v<attr, wchar_t>);
static_assert(!std::is_constructible_v<attr, char16_t>);
static_assert(!std::is_constructible_v<attr, char32_t>);
static_assert(!std::is_constructible_v<attr, float>);
static_assert(!std::is_constructible_v<attr, long double>);
static_assert(!std::is_constructible_v<attr, std::nullptr_t>);
static_assert(!std::is_constructible_v<attr, void*>);
static_assert(!std::is_constructible_v<attr, const int*>);
static_assert(!std::is_constructible_v<attr, unsigned char*>);
static_assert(!std::is_constructible_v<attr, plain>);
static_assert(!std::is_assignable_v<attr&, char>);
static_assert(!std::is_assignable_v<attr&, float>);
static_assert(!std::is_assignable_v<attr&, int*>);
static_assert(std::is_convertible_v<const char*, attr>);
static_assert(std::is_convertible_v<char*, attr>);
static_assert(std::is_convertible_v<long, attr>);
static_assert(std::is_nothrow_move_constructible_v<attr>);
static_assert(std::is_nothrow_move_assignable_v<attr>);
static_assert(std::is_nothrow_destructible_v<attr>);
// A callable and a pointer, and the gap that the alignment of the first may leave after the second.
static_assert(sizeof(attr) <= sizeof(std::function<void()>) +
                                  std::max(sizeof(void*), alignof(std::function<void()>)));

template <class T, class = void>
constexpr bool can_get = false;
template <class T>
constexpr bool can_get<T, std::void_t<decltype(std::declval<attr&>().get<T>())>> = true;
static_assert(can_get<int> && can_get<long> && can_get<table>);
static_assert(!can_get<char> && !can_get<float> && !can_get<const char*>);
static_assert(std::is_same_v<decltype(std::declval<attr&>().get<int>()), int&>);
static_assert(std::is_same_v<decltype(std::declval<const attr&>().get<int>()), const int&>);
static_assert(std::is_same_v<decltype(std::declval<attr&>().get<long>()), long>);
static_assert(
    std::is_same_v<decltype(std::declval<const attr&>().get<unsigned long>()), unsigned long>);

std::string mismatch(const std::type_info& from, const std::type_info& to) {
    return std::string("tarn::blob::attr::get can't cast from ") + from.name() + " to " + to.name();
}

template <class T>
class Integers : public ::testing::Test {};

template <class T, class S>
struct stores {
    using given = T;
    using stored = S;
};
using long_stored = std::conditional_t<sizeof(long) == 8, unsigned long long, unsigned int>;
using integer_types =
    ::testing::Types<stores<signed char, unsigned char>, stores<unsigned char, unsigned char>,
                     stores<short, unsigned short>, stores<unsigned short, unsigned short>,
                     stores<int, unsigned int>, stores<unsigned int, unsigned int>,
                     stores<long, long_stored>, stores<unsigned long, long_stored>,
                     stores<long long, unsigned long long>,
                     stores<unsigned long long, unsigned long long>>;

/// What a type is called in the names of the tests: its mangled name, a letter.
struct integer_name {
    template <class T>
    static std::string GetName(int) {
        return typeid(typename T::given).name();
    }
};
TYPED_TEST_SUITE(Integers, integer_types, integer_name);

TYPED_TEST(Integers, AreStoredAsTheUnsignedTypeOfTheirWidth) {
    using T = typename TypeParam::given;
    using S = typename TypeParam::stored;
    for (T value : {T(0), T(-1), std::numeric_limits<T>::min(), std::numeric_limits<T>::max()}) {
        attr rvalue, lvalue, deduced, constant;
        rvalue.set<T>(T(value));
        lvalue.set<T>(value);
        deduced.set(value);
        const T fixed = value;
        constant.set<T>(fixed);
        const attr constructed = value;
        for (const attr* each : std::initializer_list<const attr*>{&rvalue, &lvalue, &deduced,
                                                                   &constant, &constructed}) {
            EXPECT_EQ(each->type(), std::type_index(typeid(S)));
            EXPECT_EQ(each->template get<S>(), static_cast<S>(value));
            EXPECT_EQ(each->template get<T>(), value);
        }
    }
}

TEST(Attr, IsEmptyWhenDefaultConstructed) {
    attr a;
    EXPECT_FALSE(a.has_value());
    EXPECT_EQ(a.type(), std::type_index(typeid(void)));
    expect_throw_msg<std::runtime_error>([&] { a.get<int>(); },
                                         mismatch(typeid(void), typeid(unsigned int)));
    expect_throw_msg<std::runtime_error>([&] { a.get<std::string>(); },
                                         mismatch(typeid(void), typeid(std::string)));
    expect_throw_msg<std::runtime_error>([&] { std::as_const(a).get<table>(); },
                                         mismatch(typeid(void), typeid(table)));
}

TEST(Attr, MinusOneAsIntIsTheLargestUnsignedInt) {
    attr a;
    a.set<int>(-1);
    EXPECT_EQ(a.get<unsigned int>(), 0xffffffffu);
    EXPECT_EQ(a.type(), std::type_index(typeid(unsigned int)));
}

TEST(Attr, AShortIsNoInt) {
    attr a;
    a.set<short>(7);
    expect_throw_msg<std::runtime_error>([&] { a.get<int>(); },
                                         mismatch(typeid(unsigned short), typeid(unsigned int)));
    EXPECT_EQ(a.get<unsigned short>(), 7);
}

TEST(Attr, ABoolIsNoIntegerAndADoubleIsNeither) {
    attr flag = true, number = 1.5, small;
    small.set<unsigned char>(1);
    EXPECT_THROW(flag.get<unsigned char>(), std::runtime_error);
    EXPECT_THROW(small.get<bool>(), std::runtime_error);
    EXPECT_THROW(number.get<long long>(), std::runtime_error);
    EXPECT_THROW(number.get<bool>(), std::runtime_error);
    EXPECT_TRUE(flag.get<bool>());
    EXPECT_EQ(number.get<double>(), 1.5);
}

/// Every type that can be asked for, with the type that it is stored as.
template <class Action>
void for_each_getter(const Action& act) {
    act(stores<bool, bool>());
    act(stores<unsigned char, unsigned char>());
    act(stores<signed char, unsigned char>());
    act(stores<unsigned short, unsigned short>());
    act(stores<short, unsigned short>());
    act(stores<unsigned int, unsigned int>());
    act(stores<int, unsigned int>());
    act(stores<unsigned long long, unsigned long long>());
    act(stores<long long, unsigned long long>());
    act(stores<unsigned long, long_stored>());
    act(stores<long, long_stored>());
    act(stores<double, double>());
    act(stores<std::string, std::string>());
    act(stores<bytes, bytes>());
    act(stores<list, list>());
    act(stores<table, table>());
}

/// Expects `held`, which stores a `from`, to be read as that type only.
void expect_read_as(attr held, const std::type_info& from) {
    for_each_getter([&](auto getter) {
        using T = typename decltype(getter)::given;
        const std::type_info& wanted = typeid(typename decltype(getter)::stored);
        const attr& unchangeable = held;
        if (wanted == from) {
            EXPECT_NO_THROW(held.get<T>());
            EXPECT_NO_THROW(unchangeable.get<T>());
        } else {
            const std::string text = mismatch(from, wanted);
            expect_throw_msg<std::runtime_error>([&] { held.get<T>(); }, text);
            expect_throw_msg<std::runtime_error>([&] { unchangeable.get<T>(); }, text);
        }
    });
}

TEST(Attr, AGetterNamesTheTypeHeldAndTheOneAskedForWhateverTheyAre) {
    expect_read_as(attr(), typeid(void));
    for_each_getter([](auto setter) {
        using kind = decltype(setter);
        attr held;
        held.set<typename kind::given>(typename kind::given());
        expect_read_as(held, typeid(typename kind::stored));
    });
}

TEST(Attr, ANarrowTextIsStoredAsString) {
    attr a;
    a.set<char>("abc");
    EXPECT_EQ(a.get<std::string>(), "abc");
    EXPECT_EQ(a.type(), std::type_index(typeid(std::string)));
}

TEST(Attr, EveryKindOfTextIsStoredAsString) {
    char array[] = "array";
    const char* const pointer = "pointer";
    const std::string string = "string";
    const std::string_view view = std::string_view("view and more").substr(0, 4);
    EXPECT_EQ(attr("literal").get<std::string>(), "literal");
    EXPECT_EQ(attr(array).get<std::string>(), "array");
    EXPECT_EQ(attr(pointer).get<std::string>(), "pointer");
    EXPECT_EQ(attr(string).get<std::string>(), "string");
    EXPECT_EQ(attr(view).get<std::string>(), "view");
    EXPECT_EQ(attr(std::string("a\0b", 3)).get<std::string>().size(), 3u);
}

TEST(Attr, ANullTextThrowsAndChangesNothing) {
    attr a = 5;
    const char* const null = nullptr;
    const std::string text = "basic_string::_M_construct null not valid";
    expect_throw_msg<std::logic_error>([&] { a.set<char>(null); }, text);
    expect_throw_msg<std::logic_error>([&] { a.set(null); }, text);
    expect_throw_msg<std::logic_error>([&] { a = null; }, text);
    EXPECT_EQ(a.get<int>(), 5);
}

TEST(Attr, AFailedGetChangesNothing) {
    attr a = "text";
    EXPECT_THROW(a.get<int>(), std::runtime_error);
    EXPECT_EQ(a.get<std::string>(), "text");
}

TEST(Attr, MovesContainersInAndCopiesLvalues) {
    bytes raw{0, 255};
    std::string text(100, 'x');
    list elements = {1, 2};
    table fields = {{"a", 1}};
    attr a;
    a.set(raw);
    EXPECT_EQ(raw.size(), 2u);
    a.set<bytes>(raw);
    EXPECT_EQ(a.get<bytes>(), (bytes{0, 255}));
    a.set<bytes>(std::move(raw));
    EXPECT_TRUE(raw.empty());
    a.set<list>(elements);
    EXPECT_EQ(elements.size(), 2u);
    a.set<list>(std::move(elements));
    EXPECT_TRUE(elements.empty());
    EXPECT_EQ(a.get<list>().back().get<int>(), 2);
    a.set(fields);
    a.set<table>(std::move(fields));
    EXPECT_TRUE(fields.empty());
    EXPECT_EQ(a.get<table>().find("a")->second.get<int>(), 1);
    const char* const place = text.data();
    a.set(std::move(text));
    EXPECT_EQ(a.get<std::string>().data(), place);
}

TEST(Attr, ElementsOfACopyAreIndependent) {
    attr inner = table{{"deep", list{1}}};
    attr a = list{1, inner};
    attr b(a);
    b.get<list>().front().set<int>(9);
    b.get<list>().back().get<table>().begin()->second.get<list>().front() = "changed";
    b.get<list>().push_back("more");
    EXPECT_EQ(a.get<list>().size(), 2u);
    EXPECT_EQ(a.get<list>().front().get<int>(), 1);
    EXPECT_EQ(a.get<list>().back().get<table>().begin()->second.get<list>().front().get<int>(), 1);
}

TEST(Attr, ACopyKeepsOrderAndEqualKeys) {
    const attr a = table{{"k", 1}, {"k", "two"}, {"a", list{}}, {"k", table{{"x", true}}}};
    const attr copy = a;
    const table& fields = copy.get<table>();
    ASSERT_EQ(fields.size(), 4u);
    auto at = fields.begin();
    EXPECT_TRUE((at++)->second.get<list>().empty());
    EXPECT_EQ((at++)->second.get<int>(), 1);
    EXPECT_EQ((at++)->second.get<std::string>(), "two");
    EXPECT_TRUE(at->second.get<table>().begin()->second.get<bool>());
}

TEST(Attr, CopiesAConstAndAModifiableSourceAlike) {
    attr a = "x";
    const attr b(a);
    const attr c(b);
    EXPECT_EQ(a.get<std::string>() + b.get<std::string>() + c.get<std::string>(), "xxx");
}

TEST(Attr, TheSourceOfAMoveIsEmpty) {
    for (attr a : {attr(5), attr("text"), attr(list{1}), attr(table{{"a", 1}})}) {
        const std::type_index type = a.type();
        attr b(std::move(a));
        EXPECT_FALSE(a.has_value());
        EXPECT_EQ(a.type(), std::type_index(typeid(void)));
        EXPECT_EQ(b.type(), type);
        attr c = 1;
        c = std::move(b);
        EXPECT_FALSE(b.has_value());
        EXPECT_EQ(b.type(), std::type_index(typeid(void)));
        EXPECT_EQ(c.type(), type);
    }
}

TEST(Attr, IsChangedInPlaceThroughAGetter) {
    attr a = 5;
    a.get<unsigned int>() = 9;
    EXPECT_EQ(a.get<int>(), 9);
    attr small = static_cast<signed char>(1), mid = static_cast<short>(1), wide = 1LL;
    small.get<signed char>() = -1;
    mid.get<short>() = -1;
    wide.get<long long>() = -1;
    EXPECT_EQ(small.get<unsigned char>(), 0xff);
    EXPECT_EQ(mid.get<unsigned short>(), 0xffff);
    EXPECT_EQ(wide.get<unsigned long long>(), ~0ULL);
    attr flag = true, number = 1.0, text = "a", raw = bytes{1};
    flag.get<bool>() = false;
    number.get<double>() = 2;
    text.get<std::string>() += "b";
    raw.get<bytes>().push_back(2);
    EXPECT_FALSE(flag.get<bool>());
    EXPECT_EQ(number.get<double>(), 2);
    EXPECT_EQ(text.get<std::string>(), "ab");
    EXPECT_EQ(raw.get<bytes>().size(), 2u);
}

TEST(Attr, KeepsItsValueWhenAssignedToItself) {
    for (attr a : {attr(5), attr("text"), attr(list{1, 2})}) {
        const std::type_index type = a.type();
        attr& same = a;
        a = same;
        EXPECT_EQ(a.type(), type);
        a = std::move(same);
        EXPECT_EQ(a.type(), type);
        EXPECT_TRUE(a.has_value());
    }
}

TEST(Attr, MayBeAssignedAPartOfItself) {
    attr a = list{{7, "x"}};
    a = a.get<list>().front();
    EXPECT_EQ(a.get<list>().front().get<int>(), 7);
    a = std::move(a.get<list>().back());
    EXPECT_EQ(a.get<std::string>(), "x");
    attr b = list{{7}};
    b.set(b.get<list>().front().get<list>());
    EXPECT_EQ(b.get<list>().front().get<int>(), 7);
}

TEST(Attr, IsEmptyAfterReset) {
    attr a = 5;
    a.reset();
    EXPECT_FALSE(a.has_value());
    EXPECT_EQ(a.type(), std::type_index(typeid(void)));
    a.reset();
    EXPECT_FALSE(a.has_value());
    a = 6;
    a = {};
    EXPECT_FALSE(a.has_value());
}

TEST(Attr, SwapsValuesAndTypes) {
    attr a = 5, b = "x", empty;
    a.swap(b);
    swap(b, empty);
    EXPECT_EQ(a.get<std::string>(), "x");
    EXPECT_FALSE(b.has_value());
    EXPECT_EQ(empty.get<int>(), 5);
}

TEST(Attr, AMovedListStaysWhereItIs) {
    attr a = list{1};
    list* const place = &a.get<list>();
    attr b = std::move(a);
    EXPECT_EQ(&b.get<list>(), place);
}

} // namespace
