/// blobmsg beyond the recorded messages: limits, policies, arrays, hostile headers.
#include <libubox/blobmsg.h>

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "owned_blob.h"

namespace {

using ubox_test::buffer;
using ubox_test::hex;
using ubox_test::owned_blob;

blob_attr* first_field(const blob_buf& buf) {
    return static_cast<blob_attr*>(blob_data(buf.head));
}

int parse(const blob_buf& buf, const blobmsg_policy& policy, blob_attr*& slot) {
    return blobmsg_parse(&policy, 1, &slot, blob_data(buf.head),
                         static_cast<unsigned>(blob_len(buf.head)));
}

TEST(BlobmsgBuild, NullNameIsTheEmptyOneAndHasAHeader) {
    buffer buf;
    ASSERT_EQ(blobmsg_add_u8(&buf, nullptr, 1), 0);
    EXPECT_EQ(hex(first_field(buf)), "870000090000000001000000");
    EXPECT_STREQ(blobmsg_name(first_field(buf)), "");
}

TEST(BlobmsgBuild, NestedFieldsHaveAHeaderEvenWithoutAName) {
    buffer buf;
    void* const cookie = blobmsg_open_table(&buf, nullptr);
    ASSERT_NE(cookie, nullptr);
    blobmsg_close_table(&buf, cookie);
    EXPECT_EQ(hex(first_field(buf)), "8200000800000000");
}

TEST(BlobmsgBuild, FieldWithoutDataMayHaveNone) {
    buffer buf;
    ASSERT_EQ(blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "a", nullptr, 0), 0);
    EXPECT_EQ(hex(first_field(buf)), "8000000800016100");
}

TEST(BlobmsgBuild, LongestNameFitsAndALongerOneIsRefused) {
    buffer buf;
    const std::string longest(65535, 'n');
    EXPECT_EQ(blobmsg_add_u8(&buf, (longest + "n").c_str(), 1), -1);
    EXPECT_EQ(blobmsg_open_table(&buf, (longest + "n").c_str()), nullptr);
    EXPECT_EQ(blobmsg_open_array(&buf, (longest + "n").c_str()), nullptr);
    EXPECT_EQ(hex(buf.head), "00000004");
    ASSERT_EQ(blobmsg_add_u8(&buf, longest.c_str(), 1), 0);
    EXPECT_EQ(blobmsg_name(first_field(buf)), longest);
    EXPECT_TRUE(blobmsg_check_attr(first_field(buf), true));
    EXPECT_EQ(blobmsg_get_u8(first_field(buf)), 1);
}

TEST(BlobmsgBuild, FieldThatDoesNotFitLeavesTheMessageAsItWas) {
    buffer buf;
    ASSERT_EQ(blobmsg_add_u8(&buf, "a", 1), 0);
    const std::string before = hex(buf.head);
    const std::vector<char> data(0xffffff);
    EXPECT_EQ(blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "b", data.data(), 0xffffff), -1);
    EXPECT_EQ(blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "b", data.data(), 0xffffffffu), -1);
    EXPECT_EQ(hex(buf.head), before);
}

TEST(BlobmsgBuild, StringThatDoesNotFitIsRefused) {
    buffer buf;
    EXPECT_EQ(blobmsg_add_string(&buf, "a", std::string(0x1000000, 'x').c_str()), -1);
    EXPECT_EQ(hex(buf.head), "00000004");
}

TEST(BlobmsgBuild, NestThatDoesNotFitLeavesTheMessageAsItWas) {
    buffer buf;
    const std::vector<char> data(0xfffffc - 4 - 4 - 4 - 8);
    ASSERT_EQ(blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "b", data.data(),
                                static_cast<unsigned>(data.size())),
              0);
    const std::size_t before = blob_raw_len(buf.head);
    EXPECT_EQ(blobmsg_open_table(&buf, "a longer name"), nullptr);
    EXPECT_EQ(blob_raw_len(buf.head), before);
    void* const cookie = blobmsg_open_table(&buf, "t");
    ASSERT_NE(cookie, nullptr);
    EXPECT_EQ(blobmsg_add_u8(&buf, "a", 1), -1);
    blobmsg_close_table(&buf, cookie);
    EXPECT_EQ(blob_raw_len(buf.head), 0xfffffcu);
}

TEST(BlobmsgBuild, OpenNestsSurviveMovesOfTheMemory) {
    buffer buf;
    void* const table = blobmsg_open_table(&buf, "t");
    void* const array = blobmsg_open_array(&buf, "a");
    for (int i = 0; i < 10000; ++i) {
        ASSERT_EQ(blobmsg_add_string(&buf, nullptr, "some text"), 0);
    }
    blobmsg_close_array(&buf, array);
    blobmsg_close_table(&buf, table);
    const auto* const found = static_cast<blob_attr*>(blobmsg_data(first_field(buf)));
    EXPECT_STREQ(blobmsg_name(found), "a");
    EXPECT_EQ(blobmsg_check_array(found, BLOBMSG_TYPE_STRING), 10000);
}

TEST(BlobmsgRead, FieldWithoutAHeaderIsAllData) {
    const owned_blob field("0500000800000001");
    EXPECT_EQ(blobmsg_data(field.attr()), field.bytes() + 4);
    EXPECT_EQ(blobmsg_data_len(field.attr()), 4u);
    EXPECT_EQ(blobmsg_len(field.attr()), 4u);
    EXPECT_STREQ(blobmsg_name(field.attr()), "");
    EXPECT_EQ(blobmsg_get_u32(field.attr()), 1u);
}

TEST(BlobmsgRead, DataOfAHostileFieldLiesWithinIt) {
    for (const char* bytes : {"80000002", "80000004", "800000050000", "80000006ffff",
                              "80000007ffff61", "8000000b0004616263646566"}) {
        const owned_blob field(bytes);
        EXPECT_LE(blobmsg_data_len(field.attr()), blob_len(field.attr())) << bytes;
        EXPECT_LE(field.offset_of(blobmsg_data(field.attr())), field.size()) << bytes;
        EXPECT_FALSE(blobmsg_check_attr(field.attr(), false)) << bytes;
    }
}

TEST(BlobmsgRead, HeaderLengthIsPadded) {
    EXPECT_EQ(blobmsg_hdrlen(0), 4u);
    EXPECT_EQ(blobmsg_hdrlen(1), 4u);
    EXPECT_EQ(blobmsg_hdrlen(2), 8u);
    EXPECT_EQ(blobmsg_hdrlen(65535), 65540u);
}

TEST(BlobmsgRead, BoolIsAnyByteButZero) {
    const owned_blob two("8700000900016100"
                         "02000000");
    const owned_blob zero("8700000900016100"
                          "00000000");
    EXPECT_TRUE(blobmsg_get_bool(two.attr()));
    EXPECT_FALSE(blobmsg_get_bool(zero.attr()));
}

TEST(BlobmsgRead, TextOfNoFieldIsNull) {
    EXPECT_EQ(blobmsg_get_string(nullptr), nullptr);
}

TEST(BlobmsgRead, WalkOverNothingVisitsNothing) {
    const blob_attr* const none = nullptr;
    blob_attr* field;
    std::size_t left;
    blobmsg_for_each_attr(field, none, left) {
        FAIL();
    }
}

TEST(BlobmsgCheck, FieldMustNotClaimMoreThanIsThere) {
    const owned_blob field("8500000c0001610000000001");
    EXPECT_TRUE(blobmsg_check_attr_len(field.attr(), true, 12));
    EXPECT_FALSE(blobmsg_check_attr_len(field.attr(), true, 11));
    EXPECT_FALSE(blobmsg_check_attr_len(field.attr(), true, 3));
    EXPECT_FALSE(blobmsg_check_attr_len(field.attr(), true, 0));
}

TEST(BlobmsgCheck, NameMayHoldNulsButMustEndWithOne) {
    const owned_blob inside("8000000c0003610062000000");
    EXPECT_TRUE(blobmsg_check_attr(inside.attr(), true));
    const owned_blob missing("8000000c0003610062630000");
    EXPECT_FALSE(blobmsg_check_attr(missing.attr(), true));
}

TEST(BlobmsgCheck, HeaderMustFitWithItsGap) {
    const owned_blob field("80000009000261620000");
    EXPECT_FALSE(blobmsg_check_attr(field.attr(), true));
}

TEST(BlobmsgCheckArray, CountsElementsOfOneType) {
    buffer buf;
    void* const cookie = blobmsg_open_array(&buf, "a");
    blobmsg_add_u32(&buf, nullptr, 1);
    blobmsg_add_u32(&buf, nullptr, 2);
    blobmsg_close_array(&buf, cookie);
    EXPECT_EQ(blobmsg_check_array(first_field(buf), BLOBMSG_TYPE_INT32), 2);
    EXPECT_EQ(blobmsg_check_array(first_field(buf), BLOBMSG_TYPE_UNSPEC), 2);
    EXPECT_EQ(blobmsg_check_array(first_field(buf), BLOBMSG_TYPE_STRING), -1);
}

TEST(BlobmsgCheckArray, OfAnEmptyArrayIsZero) {
    const owned_blob field("8100000800016100");
    EXPECT_EQ(blobmsg_check_array(field.attr(), BLOBMSG_TYPE_INT32), 0);
}

TEST(BlobmsgCheckArray, RefusesAnUnsoundElement) {
    const owned_blob field("81000014000161008500000b0000000000000000");
    EXPECT_EQ(blobmsg_check_array(field.attr(), BLOBMSG_TYPE_UNSPEC), -1);
}

TEST(BlobmsgCheckArray, WantsNamesInATable) {
    const owned_blob named("820000140001610085"
                           "00000c0001620000000001");
    const owned_blob unnamed("820000140001610085"
                             "00000c0000000000000001");
    EXPECT_EQ(blobmsg_check_array(named.attr(), BLOBMSG_TYPE_INT32), 1);
    EXPECT_EQ(blobmsg_check_array(unnamed.attr(), BLOBMSG_TYPE_INT32), -1);
}

TEST(BlobmsgCheckArray, RefusesWhatIsNeitherArrayNorTable) {
    const owned_blob field("8500000c0001610000000001");
    EXPECT_EQ(blobmsg_check_array(field.attr(), BLOBMSG_TYPE_UNSPEC), -1);
}

TEST(BlobmsgParse, NothingAtAllIsAnError) {
    const blobmsg_policy policy{"a", BLOBMSG_TYPE_INT32};
    const owned_blob message("00000004");
    blob_attr* slot = message.attr();
    EXPECT_EQ(blobmsg_parse(&policy, 1, &slot, nullptr, 8), -EINVAL);
    EXPECT_EQ(slot, nullptr);
    slot = message.attr();
    EXPECT_EQ(blobmsg_parse(&policy, 1, &slot, blob_data(message.attr()), 0), -EINVAL);
    EXPECT_EQ(slot, nullptr);
}

TEST(BlobmsgParse, NamesOf255BytesAreFoundAndLongerOnesNever) {
    for (const std::size_t length : {255u, 256u, 257u, 300u, 65535u}) {
        const std::string name(length, 'k');
        buffer buf;
        ASSERT_EQ(blobmsg_add_u32(&buf, name.c_str(), 1), 0);
        blob_attr* slot;
        EXPECT_EQ(parse(buf, {name.c_str(), BLOBMSG_TYPE_INT32}, slot), 0);
        EXPECT_EQ(slot != nullptr, length == 255) << length;
    }
}

TEST(BlobmsgParse, NameThatOnlyBeginsLikeTheWantedOneIsNotFound) {
    buffer buf;
    blobmsg_add_u32(&buf, "ab", 1);
    blobmsg_add_u32(&buf, "abcd", 2);
    blob_attr* slot;
    EXPECT_EQ(parse(buf, {"abc", BLOBMSG_TYPE_INT32}, slot), 0);
    EXPECT_EQ(slot, nullptr);
}

TEST(BlobmsgParse, NameWithANulInsideIsNotTheTextBeforeIt) {
    const owned_blob field("8500000c"
                           "0003610062000000");
    const owned_blob message("00000014"
                             "85000010"
                             "00036100"
                             "62000000"
                             "00000001");
    const blobmsg_policy policy{"a", BLOBMSG_TYPE_INT32};
    blob_attr* slot;
    EXPECT_EQ(blobmsg_parse(&policy, 1, &slot, blob_data(message.attr()),
                            static_cast<unsigned>(blob_len(message.attr()))),
              0);
    EXPECT_EQ(slot, nullptr);
}

TEST(BlobmsgParse, FieldOfTheWrongTypeDoesNotHideALaterOneOfTheRightType) {
    buffer buf;
    blobmsg_add_string(&buf, "a", "x");
    blobmsg_add_u32(&buf, "a", 5);
    blob_attr* slot;
    EXPECT_EQ(parse(buf, {"a", BLOBMSG_TYPE_INT32}, slot), 0);
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(blobmsg_get_u32(slot), 5u);
}

TEST(BlobmsgParse, TwoEntriesWithOneNameFindTheSameField) {
    buffer buf;
    blobmsg_add_u32(&buf, "a", 5);
    const blobmsg_policy policy[] = {{"a", BLOBMSG_TYPE_INT32}, {"a", BLOBMSG_TYPE_UNSPEC}};
    blob_attr* slots[2];
    EXPECT_EQ(blobmsg_parse_attr(policy, 2, slots, buf.head), 0);
    EXPECT_NE(slots[0], nullptr);
    EXPECT_EQ(slots[0], slots[1]);
}

TEST(BlobmsgParse, EntryWithoutANameFindsNothing) {
    buffer buf;
    blobmsg_add_u32(&buf, "", 5);
    blob_attr* slot;
    EXPECT_EQ(parse(buf, {nullptr, BLOBMSG_TYPE_INT32}, slot), 0);
    EXPECT_EQ(slot, nullptr);
}

TEST(BlobmsgParse, OfATableLooksInsideIt) {
    buffer buf;
    void* const cookie = blobmsg_open_table(&buf, "t");
    blobmsg_add_u32(&buf, "a", 5);
    blobmsg_close_table(&buf, cookie);
    const blobmsg_policy policy{"a", BLOBMSG_TYPE_INT32};
    blob_attr* slot;
    EXPECT_EQ(blobmsg_parse_attr(&policy, 1, &slot, first_field(buf)), 0);
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(blobmsg_get_u32(slot), 5u);
}

class BlobmsgParseArray : public testing::Test {
protected:
    BlobmsgParseArray() {
        blobmsg_add_u32(&elements_, nullptr, 5);
        blobmsg_add_string(&elements_, nullptr, "x");
        blobmsg_add_u8(&elements_, nullptr, 7);
    }

    int parse(const std::vector<blobmsg_policy>& policy) {
        slots_.assign(policy.size(), elements_.head);
        return blobmsg_parse_array(policy.data(), static_cast<int>(policy.size()), slots_.data(),
                                   blob_data(elements_.head),
                                   static_cast<unsigned>(blob_len(elements_.head)));
    }

    buffer elements_;
    std::vector<blob_attr*> slots_;
};

TEST_F(BlobmsgParseArray, FillsSlotsByPosition) {
    EXPECT_EQ(parse({{nullptr, BLOBMSG_TYPE_INT32},
                     {nullptr, BLOBMSG_TYPE_STRING},
                     {nullptr, BLOBMSG_TYPE_UNSPEC},
                     {nullptr, BLOBMSG_TYPE_UNSPEC}}),
              0);
    EXPECT_EQ(blobmsg_get_u32(slots_[0]), 5u);
    EXPECT_STREQ(blobmsg_get_string(slots_[1]), "x");
    EXPECT_EQ(blobmsg_get_u8(slots_[2]), 7);
    EXPECT_EQ(slots_[3], nullptr);
}

TEST_F(BlobmsgParseArray, LeavesOutElementsOfTheWrongType) {
    EXPECT_EQ(parse({{nullptr, BLOBMSG_TYPE_STRING}, {nullptr, BLOBMSG_TYPE_STRING}}), 0);
    EXPECT_EQ(slots_[0], nullptr);
    EXPECT_NE(slots_[1], nullptr);
}

TEST_F(BlobmsgParseArray, OfAnEmptyArrayFillsNothing) {
    const blobmsg_policy policy{nullptr, BLOBMSG_TYPE_UNSPEC};
    blob_attr* slot = elements_.head;
    EXPECT_EQ(blobmsg_parse_array(&policy, 1, &slot, nullptr, 0), 0);
    EXPECT_EQ(slot, nullptr);
}

TEST_F(BlobmsgParseArray, EndsAtAnUnsoundElement) {
    const owned_blob bad("8500000b0000000000000000");
    const blobmsg_policy policy{nullptr, BLOBMSG_TYPE_UNSPEC};
    blob_attr* slot = elements_.head;
    EXPECT_EQ(blobmsg_parse_array(&policy, 1, &slot, bad.bytes(), 12), -1);
    EXPECT_EQ(slot, nullptr);
}

} // namespace
