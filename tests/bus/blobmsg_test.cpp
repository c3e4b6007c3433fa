/// blobmsg beyond the recorded messages: limits, policies, arrays, hostile headers.
#include "bus.h"

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

TEST(BlobmsgBuild, LongestNameFits) {
    buffer buf;
    const std::string longest(65535, 'n');
    ASSERT_EQ(blobmsg_add_u8(&buf, longest.c_str(), 1), 0);
    EXPECT_EQ(blobmsg_name(first_field(buf)), longest);
    EXPECT_TRUE(blobmsg_check_attr(first_field(buf), true));
    EXPECT_EQ(blobmsg_get_u8(first_field(buf)), 1);
}

TEST(BlobmsgBuild, StringThatDoesNotFitIsRefused) {
    buffer buf;
    EXPECT_EQ(blobmsg_add_string(&buf, "a", std::string(0x1000000, 'x').c_str()), -1);
    EXPECT_EQ(hex(buf.head), "00000004");
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
    EXPECT_EQ(blobmsg_get_u32(field.attr()), 1u);
}

TEST(BlobmsgRead, NothingHasNoData) {
    EXPECT_EQ(blobmsg_data(nullptr), nullptr);
    EXPECT_EQ(blobmsg_data_len(nullptr), 0u);
    EXPECT_EQ(blobmsg_len(nullptr), 0u);
}

TEST(BlobmsgRead, HeaderRecordTellsTheLengthOfTheName) {
    const owned_blob field("8500000c0001610000000001");
    EXPECT_EQ(blobmsg_namelen(static_cast<const blobmsg_hdr*>(blob_data(field.attr()))), 1u);
}

TEST(BlobmsgRead, HeaderLengthIsPadded) {
    EXPECT_EQ(blobmsg_hdrlen(0), 4);
    EXPECT_EQ(blobmsg_hdrlen(1), 4);
    EXPECT_EQ(blobmsg_hdrlen(2), 8);
    EXPECT_EQ(blobmsg_hdrlen(65535), 65540);
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

TEST(BlobmsgCheckArray, RefusesAnArrayThatIsItselfUnsound) {
    for (const char* bytes : {"8100000800026162", "8100000800ff6162"}) {
        const owned_blob field(bytes);
        EXPECT_EQ(blobmsg_check_array(field.attr(), BLOBMSG_TYPE_UNSPEC), -1) << bytes;
    }
}

TEST(BlobmsgCheckArray, TakesAnArrayWithoutAHeader) {
    const owned_blob empty("01000004");
    EXPECT_EQ(blobmsg_check_array(empty.attr(), BLOBMSG_TYPE_UNSPEC), 0);
    const owned_blob one("010000108500000c0000000000000001");
    EXPECT_EQ(blobmsg_check_array(one.attr(), BLOBMSG_TYPE_INT32), 1);
}

TEST(BlobmsgCheckArray, RefusesATypeThatDoesNotExist) {
    const owned_blob empty("8100000800016100");
    EXPECT_EQ(blobmsg_check_array(empty.attr(), BLOBMSG_TYPE_LAST), 0);
    EXPECT_EQ(blobmsg_check_array(empty.attr(), BLOBMSG_TYPE_LAST + 1), -1);
}

TEST(BlobmsgCheckArray, DoesNotLookIntoNestedElements) {
    const owned_blob field("8100001800016100"
                           "8100001000000000"
                           "8500000a00000000");
    EXPECT_EQ(blobmsg_check_array(field.attr(), BLOBMSG_TYPE_ARRAY), 1);
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

TEST(BlobmsgParse, EntryForIntegersOfAnyWidthFindsTheFirst) {
    buffer buf;
    blobmsg_add_string(&buf, "a", "x");
    blobmsg_add_double(&buf, "a", 1);
    blobmsg_add_u8(&buf, "a", 5);
    blobmsg_add_u64(&buf, "a", 6);
    blob_attr* slot;
    EXPECT_EQ(parse(buf, {"a", BLOBMSG_CAST_INT64}, slot), 0);
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(blobmsg_type(slot), BLOBMSG_TYPE_INT8);
}

TEST(BlobmsgParse, OfNothingIsAnEmptyMessage) {
    const blobmsg_policy policy{"a", BLOBMSG_TYPE_INT32};
    const owned_blob other("00000004");
    blob_attr* slot = other.attr();
    EXPECT_EQ(blobmsg_parse_attr(&policy, 1, &slot, nullptr), -EINVAL);
    EXPECT_EQ(slot, nullptr);
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

TEST_F(BlobmsgParseArray, SlotWaitsForTheNextElementOfItsType) {
    EXPECT_EQ(parse({{nullptr, BLOBMSG_TYPE_STRING}, {nullptr, BLOBMSG_TYPE_INT8}}), 0);
    EXPECT_STREQ(blobmsg_get_string(slots_[0]), "x");
    ASSERT_NE(slots_[1], nullptr);
    EXPECT_EQ(blobmsg_get_u8(slots_[1]), 7);
}

TEST_F(BlobmsgParseArray, SlotThatIsNeverFilledKeepsThoseBehindItEmpty) {
    EXPECT_EQ(parse({{nullptr, BLOBMSG_TYPE_TABLE}, {nullptr, BLOBMSG_TYPE_INT32}}), 0);
    EXPECT_EQ(slots_[0], nullptr);
    EXPECT_EQ(slots_[1], nullptr);
}

TEST_F(BlobmsgParseArray, LooksAtNothingBehindTheLastSlot) {
    const owned_blob bad("8500000c00000000"
                         "00000005"
                         "8500000b0000000000000000");
    const blobmsg_policy policy{nullptr, BLOBMSG_TYPE_INT32};
    blob_attr* slot = elements_.head;
    EXPECT_EQ(blobmsg_parse_array(&policy, 1, &slot, bad.bytes(), 24), 0);
    EXPECT_EQ(bad.offset_of(slot), 0u);
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
