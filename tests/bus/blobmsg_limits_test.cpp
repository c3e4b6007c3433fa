/// The limits of the bundled libubox's blobmsg fields: what it refuses to build, and what it makes
/// of foreign headers, where libubox trusts them.
#include "bus.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "owned_blob.h"

namespace {

using ubox_test::buffer;
using ubox_test::hex;
using ubox_test::owned_blob;

TEST(BlobmsgBuildLimits, NameThatItsLengthCannotSayIsRefused) {
    buffer buf;
    const std::string too_long(65536, 'n');
    EXPECT_EQ(blobmsg_add_u8(&buf, too_long.c_str(), 1), -1);
    EXPECT_EQ(blobmsg_open_table(&buf, too_long.c_str()), nullptr);
    EXPECT_EQ(blobmsg_open_array(&buf, too_long.c_str()), nullptr);
    EXPECT_EQ(hex(buf.head), "00000004");
}

TEST(BlobmsgBuildLimits, FieldThatDoesNotFitLeavesTheMessageAsItWas) {
    buffer buf;
    ASSERT_EQ(blobmsg_add_u8(&buf, "a", 1), 0);
    const std::string before = hex(buf.head);
    const std::vector<char> data(0xffffff);
    EXPECT_EQ(blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "b", data.data(), 0xffffff), -1);
    EXPECT_EQ(blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "b", data.data(), 0xffffffffu), -1);
    EXPECT_EQ(hex(buf.head), before);
}

TEST(BlobmsgBuildLimits, NestThatDoesNotFitLeavesTheMessageAsItWas) {
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

TEST(BlobmsgReadLimits, DataOfAHostileFieldLiesWithinIt) {
    for (const char* bytes : {"80000002", "80000004", "800000050000", "80000006ffff",
                              "80000007ffff61", "8000000b0004616263646566"}) {
        const owned_blob field(bytes);
        EXPECT_LE(blobmsg_data_len(field.attr()), blob_len(field.attr())) << bytes;
        EXPECT_LE(field.offset_of(blobmsg_data(field.attr())), field.size()) << bytes;
        EXPECT_FALSE(blobmsg_check_attr(field.attr(), false)) << bytes;
    }
}

TEST(BlobmsgReadLimits, FieldWithoutAHeaderHasTheEmptyName) {
    for (const char* bytes : {"05000008004142", "85000004", "850000060001"}) {
        const owned_blob field(bytes);
        EXPECT_STREQ(blobmsg_name(field.attr()), "") << bytes;
    }
}

TEST(BlobmsgParseArrayLimits, WithoutAnArrayOrSlotsFillsNothing) {
    const blobmsg_policy policy{nullptr, BLOBMSG_TYPE_UNSPEC};
    const owned_blob element("8500000c0000000000000001");
    blob_attr* slot = element.attr();
    EXPECT_EQ(blobmsg_parse_array(&policy, 1, &slot, nullptr, 8), 0);
    EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(blobmsg_parse_array(&policy, 0, &slot, element.bytes(), 12), 0);
    EXPECT_EQ(slot, nullptr);
}

} // namespace
