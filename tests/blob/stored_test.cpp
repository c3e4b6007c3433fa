/// Tests of the way from an attr to its value, with values that another copy of the library made.
#include "blob/stored.h"

#include "blob/message.h"
#include "support/expect_throw.h"
#include "tarn/blob/buf.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace {

using namespace tarn::blob;
using namespace tarn::test;

/// What type_of() is in a second copy of the library: the same answer from another address.
template <class S>
std::type_index type_in_another_copy() {
    return typeid(S);
}

template <class S>
attr from_another_copy(S value) {
    attr made(std::move(value));
    EXPECT_EQ(detail::attr_access::type(made), &detail::type_of<S>);
    detail::attr_access::type(made) = &type_in_another_copy<S>;
    return made;
}

std::string hex_of(const attr& value) {
    const buf message(table{{"v", value}});
    return to_hex(message.native()->head, blob_raw_len(message.native()->head));
}

template <class S>
void expect_the_same(const S& value) {
    const attr foreign = from_another_copy(value);
    EXPECT_EQ(foreign.get<S>(), value);
    EXPECT_EQ(hex_of(foreign), hex_of(value));
}

TEST(Stored, AValueFromAnotherCopyOfTheLibraryIsWrittenAsOneOfOurs) {
    expect_the_same(true);
    expect_the_same(static_cast<unsigned char>(1));
    expect_the_same(static_cast<unsigned short>(2));
    expect_the_same(3U);
    expect_the_same(4ULL);
    expect_the_same(0.5);
    expect_the_same(std::string("text"));
    expect_the_same(bytes{1, 2});
}

TEST(Stored, AListOrTableFromAnotherCopyOfTheLibraryIsWrittenCopiedAndDestroyed) {
    const list elements = {1, "x", table{{"k", 2}}};
    const table fields = {{"u", 3}};
    const attr plain = table{{"l", elements}, {"t", fields}};
    attr foreign = from_another_copy(
        table{{"l", from_another_copy(elements)}, {"t", from_another_copy(fields)}});
    EXPECT_EQ(hex_of(foreign), hex_of(plain));
    const attr copy = table{{"around", foreign}};
    foreign.reset();
    EXPECT_EQ(hex_of(copy), hex_of(table{{"around", plain}}));
}

TEST(Stored, ATypeThatIsNoStoredTypeHasNoFunctionHere) {
    EXPECT_EQ(detail::same_type_here(&type_in_another_copy<int>), nullptr);
    EXPECT_EQ(detail::same_type_here(&type_in_another_copy<unsigned int>),
              &detail::type_of<unsigned int>);
    attr odd = 1;
    detail::attr_access::type(odd) = &type_in_another_copy<int>;
    expect_throw_msg<std::logic_error>(
        [&] {
            buf(table{{"v", odd}});
        },
        std::string("tarn::blob::buff: Unsupported type [") + typeid(int).name() + "]");
}

TEST(Stored, AVisitGivesEveryStoredTypeAsItself) {
    const auto name = [](const attr& value) {
        std::string seen;
        EXPECT_TRUE(detail::visit(value, [&](const auto& held) { seen = typeid(held).name(); }));
        return seen;
    };
    for (const attr& value : {attr(true), attr(static_cast<unsigned char>(1)),
                              attr(static_cast<unsigned short>(1)), attr(1U), attr(1ULL), attr(0.5),
                              attr("x"), attr(bytes{1}), attr(list{1, 2}), attr(table{{"k", 1}})}) {
        EXPECT_EQ(name(value), value.type().name());
    }
    EXPECT_FALSE(detail::visit(attr(), [](const auto&) { ADD_FAILURE(); }));
}

} // namespace
