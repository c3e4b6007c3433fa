/// Tests of the readers of blobmsg messages.
#include "tarn/blob/readers.h"

#include "blob/message.h"
#include "blob/policy.h"
#include "support/expect_throw.h"
#include "tarn/blob/buf.h"

#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>

namespace {

using namespace tarn::blob;
using namespace tarn::test;

const std::string in_attr = "tarn::blob::utils::to_attr: ";
const std::string in_table = "tarn::blob::utils::to_table: ";
const std::string in_array = "tarn::blob::utils::to_array: ";

const std::string five("\0\0\0\5", 4);

blob_attr* first(const message& from) {
    return static_cast<blob_attr*>(blob_data(from.get()));
}

table decode(const std::string& fields) {
    return utils::to_table(message(whole(fields)).get());
}

table decode(const std::string& fields, const policy& expected) {
    return utils::to_table(message(whole(fields)).get(), expected);
}

TEST(Readers, AMessageWithNoFieldsIsAnEmptyTable) {
    EXPECT_TRUE(utils::to_table(message::hex("00000004").get()).empty());
}

TEST(Readers, AnInt8IsAnUnsignedCharUnlessThePolicyAsksForAFlag) {
    const std::string fields = field(7, "b", "\2");
    EXPECT_EQ(decode(fields).find("b")->second.get<unsigned char>(), 2);
    EXPECT_TRUE(decode(fields, {{"b", typeid(bool)}}).find("b")->second.get<bool>());
    EXPECT_EQ(decode(fields, {{"b", typeid(unsigned char)}}).find("b")->second.get<unsigned char>(),
              2);
}

TEST(Readers, AFlagIsNotAskedForInsideAContainer) {
    const std::string fields = field(2, "t", field(7, "b", "\1"));
    const table read = decode(fields, {{"t", typeid(table)}});
    EXPECT_EQ(read.find("t")->second.get<table>().find("b")->second.get<unsigned char>(), 1);
}

TEST(Readers, IntegersComeBackUnsignedAndAreReadSigned) {
    const table read = decode(field(5, "i", "\xff\xff\xff\xfe"));
    EXPECT_EQ(read.find("i")->second.get<unsigned int>(), 4294967294u);
    EXPECT_EQ(read.find("i")->second.get<int>(), -2);
}

TEST(Readers, EqualNamesAreAllKeptInMessageOrder) {
    const table read = decode(field(5, "x", five) + field(3, "x", std::string("q\0", 2)));
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read.begin()->second.get<int>(), 5);
    EXPECT_EQ(std::next(read.begin())->second.get<std::string>(), "q");
}

TEST(Readers, AnArrayIsAListInOrder) {
    const std::string elements = field(3, "", std::string("a\0", 2)) +
                                 field(3, "ignored", std::string("b\0", 2)) +
                                 field(3, "", std::string("c\0", 2));
    const message whole_message(whole(field(1, "l", elements)));
    std::string joined;
    for (const attr& element : utils::to_array(first(whole_message))) {
        joined += element.get<std::string>();
    }
    EXPECT_EQ(joined, "abc");
    EXPECT_EQ(utils::to_attr(first(whole_message), false).get<list>().size(), 3u);
}

TEST(Readers, ElementsWithoutANameHeaderAreRead) {
    const message array = message::hex("0000000c0500000800000007");
    EXPECT_EQ(utils::to_array(array.get()).front().get<int>(), 7);
}

TEST(Readers, AStringEndsAtItsFirstNul) {
    const table read = decode(field(3, "s", std::string("a\0b\0", 4)));
    EXPECT_EQ(read.find("s")->second.get<std::string>(), "a");
}

TEST(Readers, AFieldWithoutANameIsSkippedInATable) {
    EXPECT_TRUE(utils::to_table(message::hex("0000000c0500000800000001").get()).empty());
}

TEST(Readers, ANestedTableIsReadByToTable) {
    const message outer(whole(field(2, "t", field(5, "a", five))));
    EXPECT_EQ(utils::to_table(first(outer)).find("a")->second.get<int>(), 5);
}

TEST(Readers, EveryTypeIsRead) {
    const table read =
        decode(field(0, "u", "\1\2") + field(4, "q", "\1\2\3\4\5\6\7\x08") + field(6, "h", "\1\2") +
               field(8, "d", std::string("\x3f\xf8\0\0\0\0\0\0", 8)) + field(1, "l", "") +
               field(2, "t", ""));
    EXPECT_EQ(read.find("u")->second.get<bytes>(), (bytes{1, 2}));
    EXPECT_EQ(read.find("q")->second.get<unsigned long long>(), 0x0102030405060708u);
    EXPECT_EQ(read.find("h")->second.get<unsigned short>(), 0x0102);
    EXPECT_EQ(read.find("d")->second.get<double>(), 1.5);
    EXPECT_TRUE(read.find("l")->second.get<list>().empty());
    EXPECT_TRUE(read.find("t")->second.get<table>().empty());
}

TEST(Readers, AMessageNeedsNoAlignment) {
    const std::string fields = field(5, "a", five) + field(8, "d", std::string(8, '\1')) +
                               field(2, "t", field(4, "q", std::string(8, '\2')));
    for (std::size_t offset = 0; offset < 4; ++offset) {
        const message shifted(whole(fields), offset);
        EXPECT_EQ(utils::to_table(shifted.get()).find("a")->second.get<int>(), 5);
        EXPECT_EQ(utils::to_table(shifted.get(), {{"a", typeid(unsigned int)}}).size(), 1u);
    }
}

TEST(Readers, ToUnspecCopiesTheDataOfAnyField) {
    EXPECT_EQ(utils::to_unspec(first(message(whole(field(5, "a", five))))), (bytes{0, 0, 0, 5}));
    EXPECT_TRUE(utils::to_unspec(first(message(whole(field(0, "a", ""))))).empty());
    EXPECT_TRUE(utils::to_unspec(nullptr).empty());
}

TEST(Readers, ToAttrReadsAFlagWhenAsked) {
    const message two(whole(field(7, "b", "\2")));
    const message none(whole(field(7, "b", std::string(1, '\0'))));
    EXPECT_TRUE(utils::to_attr(first(two), true).get<bool>());
    EXPECT_FALSE(utils::to_attr(first(none), true).get<bool>());
    EXPECT_EQ(utils::to_attr(first(two), false).get<unsigned char>(), 2);
}

TEST(Readers, ABadChildIsABadAttr) {
    const std::string bad = field(5, "a", std::string("\0\0\1", 3));
    expect_throw_msg<std::runtime_error>([&] { decode(bad); }, in_table + "Bad attr");
    expect_throw_msg<std::runtime_error>([&] { decode(field(2, "t", bad)); },
                                         in_table + "Bad attr");
    expect_throw_msg<std::runtime_error>([&] { decode(field(1, "l", bad)); },
                                         in_array + "Bad attr");
    const message array(whole(bad));
    expect_throw_msg<std::runtime_error>([&] { utils::to_array(array.get()); },
                                         in_array + "Bad attr");
}

TEST(Readers, AnIdAbove8IsAnUnknownType) {
    for (unsigned id : {9u, 10u, 126u, 127u}) {
        const std::string unknown = field(id, "a", five);
        const std::string text = in_attr + "Unknown type" + std::to_string(id);
        const message alone(whole(unknown));
        expect_throw_msg<std::logic_error>([&] { decode(unknown); }, text);
        expect_throw_msg<std::logic_error>([&] { decode(field(2, "t", unknown)); }, text);
        expect_throw_msg<std::logic_error>([&] { decode(field(1, "l", unknown)); }, text);
        expect_throw_msg<std::logic_error>([&] { utils::to_array(alone.get()); }, text);
        expect_throw_msg<std::logic_error>([&] { utils::to_attr(first(alone), false); }, text);
        const std::string nested = field(2, "t", unknown);
        expect_throw_msg<std::logic_error>([&] { decode(nested, {{"t", typeid(table)}}); }, text);
    }
}

TEST(Readers, AnUnknownElementWithoutANameHeaderIsAnUnknownType) {
    const message array = message::hex("0000000c0900000800000007");
    expect_throw_msg<std::logic_error>([&] { utils::to_array(array.get()); },
                                       in_attr + "Unknown type9");
}

TEST(Readers, NoMessageIsAnError) {
    expect_throw_msg<std::runtime_error>([] { utils::to_table(nullptr); }, in_table + "Bad attr");
    expect_throw_msg<std::runtime_error>([] { utils::to_array(nullptr); }, in_array + "Bad attr");
    expect_throw_msg<std::runtime_error>([] { utils::to_attr(nullptr, false); },
                                         in_attr + "Bad attr");
    expect_throw_msg<std::runtime_error>(
        [] {
            utils::to_table(nullptr, {{"a", typeid(bool)}});
        },
        in_table + "Failed to parse message");
}

TEST(Readers, AFieldShorterThanItsTypeIsABadAttrForToAttr) {
    const message cut(whole(field(5, "a", "\1\2")));
    expect_throw_msg<std::runtime_error>([&] { utils::to_attr(first(cut), false); },
                                         in_attr + "Bad attr");
    const message headless = message::hex("85000004");
    expect_throw_msg<std::runtime_error>([&] { utils::to_attr(headless.get(), false); },
                                         in_attr + "Bad attr");
    EXPECT_TRUE(utils::to_unspec(headless.get()).empty());
    EXPECT_TRUE(utils::to_table(message::hex("00000003").get()).empty());
    const message unterminated(whole(field(3, "s", "abcd")));
    EXPECT_EQ(utils::to_attr(first(unterminated), false).get<std::string>(), "abcd");
}

TEST(Readers, AFieldWhoseNameDoesNotEndWithinItHasNoData) {
    for (const unsigned namelen : {7U, 100U, 0xffffU}) {
        for (const unsigned id : {0U, 1U, 2U, 3U, 5U, 7U}) {
            std::string bytes = field(id, "n", "abcd");
            bytes[4] = static_cast<char>(namelen >> 8);
            bytes[5] = static_cast<char>(namelen & 0xff);
            const message received(bytes);
            EXPECT_TRUE(utils::to_unspec(received.get()).empty());
            EXPECT_TRUE(utils::to_table(received.get()).empty());
            EXPECT_TRUE(utils::to_array(received.get()).empty());
            if (id >= 5) {
                expect_throw_msg<std::runtime_error>([&] { utils::to_attr(received.get(), false); },
                                                     "tarn::blob::utils::to_attr: Bad attr");
            } else if (id == 3) {
                EXPECT_EQ(utils::to_attr(received.get(), false).get<std::string>(), "");
            }
        }
    }
}

TEST(Readers, AMessageStaysUntouched) {
    const std::string inside = field(0, "u", "\1\2") + field(3, "s", std::string("a\0b\0", 4)) +
                               field(4, "q", std::string(8, '\1')) + field(5, "i", five) +
                               field(6, "h", "\1\2") + field(7, "b", "\2") +
                               field(8, "d", std::string(8, '\1'));
    const std::string before = whole(field(2, "t", inside) + field(1, "l", inside) +
                                     field(3, "s", std::string("b\0", 2)) + inside);
    const message received(before);
    utils::to_table(received.get());
    utils::to_table(first(received));
    utils::to_array(first(received));
    utils::to_unspec(first(received));
    for (const bool as_flag : {false, true}) {
        utils::to_attr(first(received), as_flag);
    }
    utils::to_table(received.get(), {{"b", typeid(bool)},
                                     {"l", typeid(list)},
                                     {"s", typeid(std::string)},
                                     {"t", typeid(table)},
                                     {"u", typeid(bytes)}});
    EXPECT_EQ(to_hex(received.get(), before.size()), to_hex(before.data(), before.size()));
}

TEST(Policy, LeavesOutWhatHasAnotherTypeOrIsNotNamed) {
    const policy expected = {{"a", typeid(std::string)}};
    EXPECT_TRUE(
        decode(field(5, "a", five) + field(3, "b", std::string("z\0", 2)), expected).empty());
    const table read = decode(field(3, "a", std::string("q\0", 2)) + field(5, "b", five), expected);
    ASSERT_EQ(read.size(), 1u);
    EXPECT_EQ(read.find("a")->second.get<std::string>(), "q");
}

TEST(Policy, AnUnspecEntryTakesAFieldOfAnyTypeAsItIs) {
    const policy expected = {{"u", typeid(bytes)}};
    EXPECT_EQ(decode(field(5, "u", five), expected).find("u")->second.get<int>(), 5);
    EXPECT_EQ(decode(field(7, "u", "\2"), expected).find("u")->second.get<unsigned char>(), 2);
    EXPECT_EQ(decode(field(0, "u", "\2"), expected).find("u")->second.get<bytes>(), bytes{2});
    const std::string nested = field(1, "u", field(5, "", five));
    EXPECT_EQ(decode(nested, expected).find("u")->second.get<list>().front().get<int>(), 5);
}

TEST(Policy, EachEntryOfOneNameTakesTheFirstFieldOfItsOwnType) {
    const std::string six("\0\0\0\6", 4);
    const std::string fields = field(3, "x", std::string("q\0", 2)) + field(5, "x", five) +
                               field(5, "x", six) + field(3, "x", std::string("r\0", 2));
    const table read = decode(fields, {{"x", typeid(unsigned int)}, {"x", typeid(std::string)}});
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read.begin()->second.get<int>(), 5) << "in the order of the policy";
    EXPECT_EQ(std::next(read.begin())->second.get<std::string>(), "q");
}

TEST(Policy, TwoEqualEntriesBothTakeTheFirstField) {
    const std::string six("\0\0\0\6", 4);
    const table read = decode(field(5, "x", five) + field(5, "x", six),
                              {{"x", typeid(unsigned int)}, {"x", typeid(unsigned int)}});
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read.begin()->second.get<int>(), 5);
    EXPECT_EQ(std::next(read.begin())->second.get<int>(), 5);
}

TEST(Policy, OfTwoEntriesOfOneNameOnlyTheOneThatAsksForAFlagGetsAFlag) {
    for (const policy& expected : {policy{{"b", typeid(bool)}, {"b", typeid(unsigned char)}},
                                   policy{{"b", typeid(unsigned char)}, {"b", typeid(bool)}}}) {
        const table read = decode(field(7, "b", "\2"), expected);
        ASSERT_EQ(read.size(), 2u);
        auto entry = expected.begin();
        for (const auto& [name, value] : read) {
            EXPECT_EQ(value.type(), entry->second) << name;
            ++entry;
        }
    }
}

TEST(Policy, ABadChildOfAFieldThatIsAskedForIsABadAttr) {
    const std::string bad = field(5, "a", std::string("\0\0\1", 3));
    const auto expect_bad = [](const std::string& fields, const policy& expected,
                               const std::string& in) {
        expect_throw_msg<std::runtime_error>([&] { decode(fields, expected); }, in + "Bad attr");
    };
    expect_bad(field(2, "f", bad), {{"f", typeid(table)}}, in_table);
    expect_bad(field(1, "f", bad), {{"f", typeid(list)}}, in_array);
    expect_bad(field(2, "f", field(1, "l", bad)), {{"f", typeid(table)}}, in_array);
    expect_bad(field(1, "f", field(2, "", bad)), {{"f", typeid(list)}}, in_table);
    expect_bad(field(2, "f", bad), {{"f", typeid(bytes)}}, in_table);
    EXPECT_TRUE(decode(field(2, "f", bad), {{"g", typeid(table)}}).empty())
        << "what is not asked for is not looked into";
}

TEST(Policy, AFieldThatIsAbsentIsMissingFromTheResult) {
    const policy expected = {{"a", typeid(unsigned int)}, {"z", typeid(unsigned int)}};
    const table read = decode(field(5, "a", five), expected);
    EXPECT_EQ(read.size(), 1u);
    EXPECT_EQ(read.count("z"), 0u);
}

TEST(Policy, EveryTypeIsFoundUnderItsName) {
    const table sent = {{"b", true},    {"c", static_cast<signed char>(1)},
                        {"d", 0.5},     {"i", 1},
                        {"l", {1, 2}},  {"q", 1LL},
                        {"s", "text"},  {"t", {{"x", 1}}},
                        {"u", bytes{1}}};
    policy expected;
    for (const auto& [name, value] : sent) {
        expected.emplace(name, value.type());
    }
    const buf encoded(sent);
    blob_attr* const head = encoded.native()->head;
    const table read = utils::to_table(head, expected);
    ASSERT_EQ(read.size(), sent.size());
    for (const auto& [name, value] : sent) {
        EXPECT_EQ(read.find(name)->second.type(), value.type()) << name;
    }
}

TEST(Policy, ATypeThatIsNotStoredIsToldBeforeTheMessageIsParsed) {
    const std::string text = "tarn::blob::utils::to_blobmsg_type: Unknown type";
    expect_throw_msg<std::logic_error>([] { decode("", {{"a", typeid(int)}}); }, text);
    expect_throw_msg<std::logic_error>(
        [] {
            utils::to_table(nullptr, {{"a", typeid(int)}});
        },
        text);
}

TEST(Policy, AMalformedFieldFailsTheMessage) {
    const std::string bad = field(5, "b", std::string("\0\0\1", 3));
    expect_throw_msg<std::runtime_error>(
        [&] {
            decode(bad, {{"a", typeid(bool)}});
        },
        in_table + "Failed to parse message");
    expect_throw_msg<std::runtime_error>([&] { decode(bad, {}); },
                                         in_table + "Failed to parse message");
}

TEST(Policy, AnEmptyPolicyFindsNothing) {
    EXPECT_TRUE(decode(field(5, "a", five), {}).empty());
}

TEST(Policy, AsManyEntriesAsAnIntCountsAreTheMost) {
    constexpr auto most = static_cast<std::size_t>(std::numeric_limits<int>::max());
    EXPECT_EQ(tarn::blob::detail::policy_count(most), std::numeric_limits<int>::max());
    expect_throw_msg<std::runtime_error>([] { tarn::blob::detail::policy_count(most + 1); },
                                         in_table + "Too big policy");
}

} // namespace
