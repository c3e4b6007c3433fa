/// Tests of tarn::blob::buf and to_blobmsg_type.
#include "tarn/blob/buf.h"
#include "tarn/blob/readers.h"

#include "blob/message.h"
#include "support/expect_throw.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace {

using namespace tarn::blob;
using namespace tarn::test;

static_assert(!std::is_copy_constructible_v<buf> && !std::is_move_constructible_v<buf>);
static_assert(!std::is_copy_assignable_v<buf> && !std::is_move_assignable_v<buf>);

std::string hex_of(const buf& message) {
    const blob_attr* const head = message.native()->head;
    return to_hex(head, blob_raw_len(head));
}

const std::string prefix = "tarn::blob::buff: ";

std::string unsupported() {
    return prefix + "Unsupported type [" + typeid(void).name() + "]";
}

TEST(Buf, AnEmptyTableIsAnEmptyMessage) {
    EXPECT_EQ(hex_of(buf()), "00000004");
    EXPECT_EQ(hex_of(buf(table{})), "00000004");
}

TEST(Buf, AnIntIsAnInt32InNetworkOrder) {
    EXPECT_EQ(hex_of(buf(table{{"a", 1}})), "000000108500000c0001610000000001");
}

TEST(Buf, MinusOneIsFourBytesOfOnes) {
    EXPECT_EQ(hex_of(buf(table{{"a", -1}})), "000000108500000c00016100ffffffff");
}

TEST(Buf, AStringIsCutAtItsFirstNul) {
    EXPECT_EQ(hex_of(buf(table{{"s", std::string("y\0z", 3)}})), hex_of(buf(table{{"s", "y"}})));
}

TEST(Buf, AnEmptyStringHasOneByte) {
    EXPECT_EQ(hex_of(buf(table{{"s", ""}})), "00000010830000090001730000000000");
}

TEST(Buf, ANameIsCutAtItsFirstNul) {
    EXPECT_EQ(hex_of(buf(table{{std::string("a\0b", 3), 1}})), hex_of(buf(table{{"a", 1}})));
}

TEST(Buf, AListIsAnArrayOfUnnamedElementsInOrder) {
    const std::string elements = field(5, "", std::string("\0\0\0\1", 4)) +
                                 field(3, "", std::string("b\0", 2)) +
                                 field(7, "", std::string("\1", 1));
    const std::string bytes = whole(field(1, "l", elements));
    EXPECT_EQ(hex_of(buf(table{{"l", {1, "b", true}}})), to_hex(bytes.data(), bytes.size()));
}

TEST(Buf, EqualKeysGoOutInInsertionOrder) {
    const std::string bytes = whole(field(5, "k", std::string("\0\0\0\2", 4)) +
                                    field(5, "k", std::string("\0\0\0\1", 4)));
    EXPECT_EQ(hex_of(buf(table{{"k", 2}, {"k", 1}})), to_hex(bytes.data(), bytes.size()));
}

TEST(Buf, AnEmptyAttrThrows) {
    expect_throw_msg<std::logic_error>([] { buf(table{{"a", attr()}}); }, unsupported());
    buf message;
    expect_throw_msg<std::logic_error>([&] { message.add("a", attr()); }, unsupported());
}

TEST(Buf, AFailingElementLeavesWhatWasWrittenAndItsNestOpen) {
    buf message;
    const attr empty;
    expect_throw_msg<std::logic_error>(
        [&] {
            message.assign({{"a", 1}, {"b", {{"c", 2}, {"d", {3, empty, 4}}, {"e", 5}}}});
        },
        unsupported());
    // The innermost open nest, the array, holds what came before the empty element.
    const blob_attr* const open = message.native()->head;
    EXPECT_EQ(blob_id(open), unsigned{BLOBMSG_TYPE_ARRAY});
    const auto* const start = static_cast<const char*>(message.native()->buf);
    const auto size = reinterpret_cast<const char*>(open) + blob_raw_len(open) - start;
    const std::string written(start + 4, static_cast<std::size_t>(size - 4));
    EXPECT_EQ(written.substr(0, 12), field(5, "a", std::string("\0\0\0\1", 4)));
    EXPECT_NE(written.find(field(5, "c", std::string("\0\0\0\2", 4))), std::string::npos);
    EXPECT_EQ(written.substr(written.size() - 12), field(5, "", std::string("\0\0\0\3", 4)));

    message.clear();
    EXPECT_EQ(hex_of(message), "00000004");
    message.add("a", 1);
    EXPECT_EQ(hex_of(message), hex_of(buf(table{{"a", 1}})));
}

TEST(Buf, AddAppendsOneFieldAfterTheOther) {
    buf message;
    message.add("a", 1);
    message.add("b", {{"c", {2, 3}}});
    message.add("d", "x");
    EXPECT_EQ(hex_of(message), hex_of(buf(table{{"a", 1}, {"b", {{"c", {2, 3}}}}, {"d", "x"}})));
}

TEST(Buf, AssignStartsANewMessageInTheSameBuffer) {
    buf message(table{{"a", 1}});
    blob_buf* const native = message.native();
    message.assign({{"b", 2}});
    EXPECT_EQ(hex_of(message), hex_of(buf(table{{"b", 2}})));
    buf& same = message = table{{"c", 3}};
    EXPECT_EQ(&same, &message);
    EXPECT_EQ(hex_of(message), hex_of(buf(table{{"c", 3}})));
    message.clear();
    EXPECT_EQ(hex_of(message), "00000004");
    EXPECT_EQ(message.native(), native);
    EXPECT_EQ(std::as_const(message).native(), native);
}

TEST(Buf, EveryKindOfFieldThatFindsNoRoomSaysWhichItWas) {
    const std::vector<std::pair<attr, std::string>> kinds = {
        {bytes{1}, "unspec"},
        {list{}, "array"},
        {table{}, "table"},
        {"x", "string"},
        {1LL, "int64"},
        {1, "int32"},
        {static_cast<short>(1), "int16"},
        {static_cast<signed char>(1), "int8"},
        {true, "boolean"},
        {1.0, "decimal"},
    };
    for (const auto& [value, name] : kinds) {
        buf message;
        message.native()->grow = [](blob_buf*, int) {
            return false;
        };
        const attr& added = value;
        expect_throw_msg<std::runtime_error>(
            [&] {
                for (int i = 0; i < 10000; ++i) {
                    message.add("field", added);
                }
            },
            prefix + "Faild to handle " + name);
    }
}

TEST(Buf, ANestThatFindsNoRoomInsideSaysWhatFoundNone) {
    buf message;
    message.native()->grow = [](blob_buf*, int) {
        return false;
    };
    expect_throw_msg<std::runtime_error>([&] { message.add("l", list(10000, attr(1))); },
                                         prefix + "Faild to handle int32");
}

TEST(Buf, ANameOf65535BytesIsTheLongest) {
    const std::string longest(65535, 'n');
    buf message(table{{longest, 1}});
    auto* const only = static_cast<blob_attr*>(blob_data(message.native()->head));
    EXPECT_EQ(blobmsg_name(only), longest);
    EXPECT_TRUE(blobmsg_check_attr(only, true));
    expect_throw_msg<std::runtime_error>([&] { message.add(longest + "n", 1); },
                                         prefix + "Faild to handle int32");
    expect_throw_msg<std::runtime_error>([&] { message.add(longest + "n", list{}); },
                                         prefix + "Faild to handle array");
    expect_throw_msg<std::runtime_error>([&] { message.add(longest + "n", table{}); },
                                         prefix + "Faild to handle table");
}

TEST(Buf, AValueTooLongForItsLengthFieldIsRefused) {
    buf message;
    expect_throw_msg<std::runtime_error>([&] { message.add("s", std::string(0x1000000, 's')); },
                                         prefix + "Faild to handle string");
    expect_throw_msg<std::runtime_error>([&] { message.add("u", bytes(0x1000000)); },
                                         prefix + "Faild to handle unspec");
}

/// A message is at most this long, its padding included.
constexpr std::size_t longest = 0xfffffc;
/// The message's head, and the head of a field with a name of one byte.
constexpr std::size_t heads = 4 + 8;

TEST(Buf, AFieldThatEndsWhereTheLengthRunsOverIsRefused) {
    buf message;
    for (const std::size_t beyond : {1U, 2U, 3U, 4U}) {
        message.clear();
        expect_throw_msg<std::runtime_error>(
            [&] { message.add("u", bytes(longest - heads + beyond)); },
            prefix + "Faild to handle unspec");
        EXPECT_TRUE(message.overflowed());
        EXPECT_EQ(blob_raw_len(message.native()->head), 4U) << "nothing of it was written";
        expect_throw_msg<std::runtime_error>(
            [&] { message.add("s", std::string(longest - heads - 1 + beyond, 's')); },
            prefix + "Faild to handle string");
    }
}

TEST(Buf, TheLongestMessageHasTheLengthThatItSays) {
    buf message;
    message.add("u", bytes(longest - heads));
    EXPECT_FALSE(message.overflowed());
    EXPECT_EQ(blob_raw_len(message.native()->head), longest);
    expect_throw_msg<std::runtime_error>([&] { message.add("i", 1); },
                                         prefix + "Faild to handle int32");
    EXPECT_TRUE(message.overflowed());
    message.assign({{"i", 1}});
    EXPECT_FALSE(message.overflowed());
}

TEST(Buf, EveryKindOfFieldIsRefusedWhenTheMessageIsFull) {
    const std::pair<attr, const char*> fields[]{
        {bytes{}, "unspec"},
        {list{}, "array"},
        {table{}, "table"},
        {"", "string"},
        {1ULL, "int64"},
        {1U, "int32"},
        {static_cast<short>(1), "int16"},
        {static_cast<unsigned char>(1), "int8"},
        {true, "boolean"},
        {0.5, "decimal"},
    };
    for (const auto& [value, name] : fields) {
        buf message;
        message.add("u", bytes(longest - heads));
        expect_throw_msg<std::runtime_error>([&, &field = value] { message.add("f", field); },
                                             prefix + "Faild to handle " + name);
        EXPECT_TRUE(message.overflowed()) << name;
    }
}

TEST(Buf, ManySmallFieldsBehindALargeOneFillTheMessageToTheLastWord) {
    buf message;
    // A field takes the header with its name and four bytes of data.
    constexpr std::size_t small = 8 + 4;
    constexpr int fit = 200;
    message.add("u", bytes(longest - heads - fit * small));
    for (int i = 0; i < fit; ++i) {
        message.add("i", i);
    }
    EXPECT_EQ(blob_raw_len(message.native()->head), longest);
    expect_throw_msg<std::runtime_error>([&] { message.add("i", fit); },
                                         prefix + "Faild to handle int32");
}

TEST(Buf, NestsCountTowardsTheLengthOfTheMessageThatTheyAreIn) {
    // Three levels, each with the head of a nest around the innermost field.
    const auto nested = [](std::size_t size) {
        return table{{"t", {{"t", {{"u", bytes(size)}}}}}};
    };
    constexpr std::size_t nest = 8;
    buf message;
    message.assign(nested(longest - heads - 2 * nest));
    EXPECT_EQ(blob_raw_len(message.native()->head), longest);
    expect_throw_msg<std::runtime_error>(
        [&] { message.assign(nested(longest - heads - 2 * nest + 1)); },
        prefix + "Faild to handle unspec");
    EXPECT_TRUE(message.overflowed());
}

TEST(Buf, ANameThatIsTooLongIsNoOverflow) {
    buf message;
    expect_throw_msg<std::runtime_error>([&] { message.add(std::string(65536, 'n'), 1); },
                                         prefix + "Faild to handle int32");
    EXPECT_FALSE(message.overflowed());
}

TEST(Buf, ANameIsAsLongAsWhatStandsBeforeItsFirstNul) {
    std::string cut(70000, 'n');
    cut[1] = '\0';
    EXPECT_EQ(hex_of(buf(table{{cut, 1}})), hex_of(buf(table{{"n", 1}})));
    // The last field that fits, by the name as it is written.
    constexpr std::size_t small = 8 + 4;
    buf message;
    message.add("u", bytes(longest - heads - small));
    message.add(cut, 1);
    EXPECT_EQ(blob_raw_len(message.native()->head), longest);
    EXPECT_FALSE(message.overflowed());
}

TEST(Buf, ANameThatIsTooLongIsRefusedWhereTheBufferHasRoomForIt) {
    buf message;
    message.add("u", bytes(300000));
    message.add("v", bytes(1000));
    ASSERT_GT(message.native()->buflen, 500000) << "doubled";
    const std::size_t written = blob_raw_len(message.native()->head);
    expect_throw_msg<std::runtime_error>([&] { message.add(std::string(65536, 'n'), 1); },
                                         prefix + "Faild to handle int32");
    EXPECT_EQ(blob_raw_len(message.native()->head), written);
}

TEST(Buf, AFieldThatFitsBehindOneThatDoesNotEndsTheOverflow) {
    constexpr std::size_t small = 8 + 4;
    buf message;
    message.add("u", bytes(longest - heads - small));
    EXPECT_THROW(message.add("l", 1LL), std::runtime_error);
    EXPECT_TRUE(message.overflowed());
    message.add("i", 1);
    EXPECT_FALSE(message.overflowed());
}

TEST(Buf, AFieldAfterSeveralNestsOnEachLevelGoesToItsLevel) {
    const attr inner = {{"a", {1, 2}}, {"b", {{"c", {{"d", 3}}}}}, {"e", 4}};
    const std::string d = field(2, "c", field(5, "d", std::string("\0\0\0\3", 4)));
    const std::string fields =
        field(1, "a",
              field(5, "", std::string("\0\0\0\1", 4)) + field(5, "", std::string("\0\0\0\2", 4))) +
        field(2, "b", d) + field(5, "e", std::string("\0\0\0\4", 4));
    const std::string bytes = whole(field(1, "l", field(2, "", fields) + field(2, "", fields)) +
                                    field(5, "z", std::string("\0\0\0\5", 4)));
    const table source = {{"l", list{inner, inner}}, {"z", 5}};
    EXPECT_EQ(hex_of(buf(source)), to_hex(bytes.data(), bytes.size()));
    const message received(bytes);
    EXPECT_EQ(hex_of(buf(utils::to_table(received.get()))), to_hex(bytes.data(), bytes.size()));
}

TEST(ToBlobmsgType, KnowsEveryStoredType) {
    using utils::to_blobmsg_type;
    EXPECT_EQ(to_blobmsg_type(typeid(bytes)), BLOBMSG_TYPE_UNSPEC);
    EXPECT_EQ(to_blobmsg_type(typeid(list)), BLOBMSG_TYPE_ARRAY);
    EXPECT_EQ(to_blobmsg_type(typeid(table)), BLOBMSG_TYPE_TABLE);
    EXPECT_EQ(to_blobmsg_type(typeid(std::string)), BLOBMSG_TYPE_STRING);
    EXPECT_EQ(to_blobmsg_type(typeid(unsigned long long)), BLOBMSG_TYPE_INT64);
    EXPECT_EQ(to_blobmsg_type(typeid(unsigned int)), BLOBMSG_TYPE_INT32);
    EXPECT_EQ(to_blobmsg_type(typeid(unsigned short)), BLOBMSG_TYPE_INT16);
    EXPECT_EQ(to_blobmsg_type(typeid(double)), BLOBMSG_TYPE_DOUBLE);
}

TEST(ToBlobmsgType, BoolAndUnsignedCharAreBothInt8) {
    EXPECT_EQ(utils::to_blobmsg_type(typeid(bool)), BLOBMSG_TYPE_INT8);
    EXPECT_EQ(utils::to_blobmsg_type(typeid(unsigned char)), BLOBMSG_TYPE_INT8);
}

TEST(ToBlobmsgType, IntIsNoStoredType) {
    const std::string text = "tarn::blob::utils::to_blobmsg_type: Unknown type";
    expect_throw_msg<std::logic_error>([] { utils::to_blobmsg_type(typeid(int)); }, text);
    expect_throw_msg<std::logic_error>([] { utils::to_blobmsg_type(typeid(void)); }, text);
}

} // namespace
