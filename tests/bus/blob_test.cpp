/// Blob attributes and the buffer they are built in.
#include "bus.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <vector>

#include "owned_blob.h"

namespace {

using ubox_test::buffer;
using ubox_test::hex;
using ubox_test::owned_blob;

TEST(BlobAttr, HeaderHoldsFlagIdAndLength) {
    const owned_blob attr("fe000007010203ff");
    EXPECT_TRUE(blob_is_extended(attr.attr()));
    EXPECT_EQ(blob_id(attr.attr()), 126u);
    EXPECT_EQ(blob_raw_len(attr.attr()), 7u);
    EXPECT_EQ(blob_len(attr.attr()), 3u);
    EXPECT_EQ(blob_pad_len(attr.attr()), 8u);
    EXPECT_EQ(blob_next(attr.attr()), reinterpret_cast<blob_attr*>(attr.bytes() + 8));
}

TEST(BlobAttr, SignedGettersKeepTheSign) {
    const owned_blob attr("0000000cfffffffffffffffe");
    EXPECT_EQ(blob_get_int8(attr.attr()), -1);
    EXPECT_EQ(blob_get_int16(attr.attr()), -1);
    EXPECT_EQ(blob_get_int32(attr.attr()), -1);
    EXPECT_EQ(blob_get_int64(attr.attr()), -2);
}

TEST(BlobAttr, SettingTheLengthKeepsFlagAndId) {
    const owned_blob attr("fe000007010203ff");
    blob_set_raw_len(attr.attr(), 0xabcdef);
    EXPECT_EQ(hex(attr.bytes(), 4), "feabcdef");
}

TEST(BlobAttr, EqualMeansSameHeaderPayloadAndGap) {
    const owned_blob one("01000005aa000000");
    const owned_blob same("01000005aa000000");
    const owned_blob other_gap("01000005aaffffff");
    const owned_blob other_payload("01000005ab000000");
    const owned_blob other_id("02000005aa000000");
    const owned_blob other_flag("81000005aa000000");
    EXPECT_TRUE(blob_attr_equal(one.attr(), same.attr()));
    EXPECT_FALSE(blob_attr_equal(one.attr(), other_gap.attr()));
    EXPECT_FALSE(blob_attr_equal(one.attr(), other_payload.attr()));
    EXPECT_FALSE(blob_attr_equal(one.attr(), other_id.attr()));
    EXPECT_FALSE(blob_attr_equal(one.attr(), other_flag.attr()));
    EXPECT_FALSE(blob_attr_equal(one.attr(), nullptr));
    EXPECT_FALSE(blob_attr_equal(nullptr, one.attr()));
    EXPECT_TRUE(blob_attr_equal(nullptr, nullptr));
}

TEST(BlobAttr, CopyTakesTheGapAsItIs) {
    const owned_blob attr("01000006aabbffee");
    blob_attr* const copy = blob_memdup(attr.attr());
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(hex(copy), "01000006aabbffee");
    std::free(copy);
}

TEST(BlobAttr, FillingTheGapLeavesThePayload) {
    const owned_blob attr("00000005aabbccdd");
    blob_fill_pad(attr.attr());
    EXPECT_EQ(hex(attr.attr()), "00000005aa000000");
}

TEST(BlobType, IntegersNeedTheirExactWidth) {
    const char zeros[16] = {};
    const struct {
        int type;
        unsigned width;
    } rules[] = {
        {BLOB_ATTR_INT8, 1}, {BLOB_ATTR_INT16, 2}, {BLOB_ATTR_INT32, 4}, {BLOB_ATTR_INT64, 8}};
    for (const auto& rule : rules) {
        for (unsigned size = 0; size <= sizeof zeros; ++size) {
            EXPECT_EQ(blob_check_type(zeros, size, rule.type), size == rule.width)
                << rule.type << " of " << size;
        }
    }
}

TEST(BlobType, DoubleNeedsAtLeastEightBytes) {
    const char zeros[12] = {};
    EXPECT_FALSE(blob_check_type(zeros, 7, BLOB_ATTR_DOUBLE));
    EXPECT_TRUE(blob_check_type(zeros, 8, BLOB_ATTR_DOUBLE));
    EXPECT_TRUE(blob_check_type(zeros, 12, BLOB_ATTR_DOUBLE));
}

TEST(BlobType, StringNeedsAFinalNul) {
    EXPECT_FALSE(blob_check_type("", 0, BLOB_ATTR_STRING));
    EXPECT_TRUE(blob_check_type("", 1, BLOB_ATTR_STRING));
    EXPECT_TRUE(blob_check_type("a\0b", 4, BLOB_ATTR_STRING));
    EXPECT_FALSE(blob_check_type("abc", 3, BLOB_ATTR_STRING));
}

TEST(BlobType, UnspecNestedAndBinaryTakeAnything) {
    for (const int type : {BLOB_ATTR_UNSPEC, BLOB_ATTR_NESTED, BLOB_ATTR_BINARY}) {
        EXPECT_TRUE(blob_check_type(nullptr, 0, type));
        EXPECT_TRUE(blob_check_type("ab", 2, type));
    }
}

TEST(BlobType, UnknownTypesMatchNothing) {
    EXPECT_FALSE(blob_check_type("", 1, BLOB_ATTR_LAST));
    EXPECT_FALSE(blob_check_type("", 1, BLOB_ATTR_LAST + 1));
}

int children_of(const owned_blob& message) {
    int count = 0;
    blob_attr* child;
    std::size_t left;
    blob_for_each_attr(child, message.attr(), left) {
        ++count;
    }
    return count;
}

TEST(BlobWalk, EndsWhenFewerThanFourBytesRemain) {
    EXPECT_EQ(children_of(owned_blob("0000000b01000004020000")), 1);
}

TEST(BlobWalk, EndsAtAChildThatIsLongerThanWhatRemains) {
    EXPECT_EQ(children_of(owned_blob("0000000c0100000402000005")), 1);
}

TEST(BlobWalk, EndsAtAChildWhoseGapDoesNotFit) {
    EXPECT_EQ(children_of(owned_blob("0000000d0100000402000005aa")), 1);
}

TEST(BlobWalk, EndsAtALengthOfZero) {
    EXPECT_EQ(children_of(owned_blob("0000000c0100000002000004")), 0);
}

TEST(BlobWalk, VisitsAChildOfLengthOneToThree) {
    EXPECT_EQ(children_of(owned_blob("0000001001000001020000020300"
                                     "0003")),
              3);
}

TEST(BlobWalk, OfNothingVisitsNothing) {
    const blob_attr* const none = nullptr;
    blob_attr* child;
    std::size_t left;
    blob_for_each_attr(child, none, left) {
        FAIL();
    }
    EXPECT_EQ(left, 0u);
}

TEST(BlobWalk, CountsDownASignedVariableToo) {
    const owned_blob message("0000000c0100000402000004");
    blob_attr* child;
    long left = 8;
    int count = 0;
    __blob_for_each_attr(child, blob_data(message.attr()), left) {
        ++count;
    }
    EXPECT_EQ(count, 2);
    EXPECT_EQ(left, 0);
}

TEST(BlobBuf, StartsWithAnEmptyMessageOfTheGivenId) {
    buffer buf(5);
    EXPECT_EQ(hex(buf.head), "05000004");
}

TEST(BlobBuf, InitAgainStartsAnewInTheSameMemory) {
    buffer buf;
    blob_put_u64(&buf, 1, 1);
    void* const memory = buf.buf;
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    EXPECT_EQ(hex(buf.head), "00000004");
    EXPECT_EQ(buf.buf, memory);
}

TEST(BlobBuf, FreeTwiceIsFine) {
    buffer buf;
    blob_buf_free(&buf);
    blob_buf_free(&buf);
    EXPECT_EQ(buf.head, nullptr);
}

TEST(BlobBuf, NumbersAreBigEndianAndGapsZero) {
    buffer buf;
    blob_put_u8(&buf, 1, 0x11);
    blob_put_u16(&buf, 2, 0x1122);
    blob_put_u32(&buf, 3, 0x11223344);
    blob_put_u64(&buf, 4, 0x1122334455667788);
    blob_put_string(&buf, 5, "abcd");
    EXPECT_EQ(hex(buf.head), "00000034"
                             "0100000511000000"
                             "0200000611220000"
                             "0300000811223344"
                             "0400000c1122334455667788"
                             "050000096162636400000000");
}

TEST(BlobBuf, SignedNamesPutTheSame) {
    buffer buf;
    blob_put_int8(&buf, 1, static_cast<std::uint8_t>(-1));
    blob_put_int16(&buf, 1, static_cast<std::uint16_t>(-1));
    blob_put_int32(&buf, 1, static_cast<std::uint32_t>(-1));
    blob_put_int64(&buf, 1, static_cast<std::uint64_t>(-1));
    blob_attr* child;
    std::size_t left;
    blob_for_each_attr(child, buf.head, left) {
        EXPECT_EQ(blob_get_int8(child), -1);
    }
}

TEST(BlobBuf, NewAttributeIsTheCallersToFill) {
    buffer buf;
    blob_attr* const attr = blob_new(&buf, 9, 3);
    ASSERT_NE(attr, nullptr);
    std::memcpy(blob_data(attr), "xyz", 3);
    EXPECT_EQ(hex(buf.head), "0000000c0900000778797a00");
}

TEST(BlobBuf, RawAttributesAreCopiedAsTheyAreAndPadded) {
    buffer buf;
    const owned_blob attr("01000005aa");
    blob_attr* const put = blob_put_raw(&buf, attr.attr(), static_cast<unsigned>(attr.size()));
    ASSERT_NE(put, nullptr);
    EXPECT_EQ(hex(put), "01000005aa000000");
    // The gap counts once something follows.
    EXPECT_EQ(hex(buf.head), "0000000901000005aa000000");
    blob_put_u8(&buf, 2, 1);
    EXPECT_EQ(hex(buf.head), "0000001401000005aa0000000200000501000000");
}

TEST(BlobBuf, RawBytesThatAreNoAttributeAreRefused) {
    buffer buf;
    EXPECT_EQ(blob_put_raw(&buf, "abcd", 3), nullptr);
    EXPECT_EQ(blob_put_raw(&buf, "abcd", 0), nullptr);
    EXPECT_EQ(blob_put_raw(&buf, nullptr, 8), nullptr);
    EXPECT_EQ(hex(buf.head), "00000004");
}

TEST(BlobBuf, SeveralRawAttributesAreOnePiece) {
    buffer buf;
    const owned_blob attrs("01000005aa00000002000004");
    ASSERT_NE(blob_put_raw(&buf, attrs.attr(), static_cast<unsigned>(attrs.size())), nullptr);
    EXPECT_EQ(hex(buf.head), "0000001001000005aa00000002000004");
}

TEST(BlobBuf, GrowsByMoreThanIsAskedInStepsOf256) {
    const struct {
        int asked;
        int grown;
    } cases[] = {{0, 256}, {1, 256}, {255, 256}, {256, 512}, {257, 512}, {1000, 1024}};
    for (const auto& each : cases) {
        buffer buf;
        ASSERT_EQ(buf.buflen, 256);
        EXPECT_TRUE(blob_buf_grow(&buf, each.asked));
        EXPECT_EQ(buf.buflen, 256 + each.grown) << each.asked;
    }
}

TEST(BlobBuf, GrowsNoFurtherThan0x1000000) {
    buffer largest;
    EXPECT_TRUE(blob_buf_grow(&largest, 0x1000000 - 512));
    EXPECT_EQ(largest.buflen, 0x1000000);
    buffer beyond;
    EXPECT_FALSE(blob_buf_grow(&beyond, 0x1000000 - 256));
    EXPECT_FALSE(blob_buf_grow(&beyond, 0x7fffffff));
    EXPECT_EQ(beyond.buflen, 256);
}

TEST(BlobBuf, PutGrowsByWhatIsMissingInStepsOf256) {
    const struct {
        unsigned size;
        int buflen;
    } cases[] = {{248, 256}, {249, 512}, {500, 512}, {1000, 1024}, {100000, 100096}};
    const std::vector<char> payload(100000, 'x');
    for (const auto& each : cases) {
        buffer buf;
        ASSERT_NE(blob_put(&buf, 1, payload.data(), each.size), nullptr);
        EXPECT_EQ(buf.buflen, each.buflen) << each.size;
    }
}

TEST(BlobBuf, NestsAreCountedInTheirParents) {
    buffer buf;
    void* const outer = blob_nest_start(&buf, 1);
    void* const inner = blob_nest_start(&buf, 2);
    blob_put_u8(&buf, 3, 7);
    blob_nest_end(&buf, inner);
    blob_put_u8(&buf, 4, 8);
    blob_nest_end(&buf, outer);
    blob_put_u8(&buf, 5, 9);
    EXPECT_EQ(hex(buf.head), "00000024"
                             "01000018"
                             "0200000c"
                             "0300000507000000"
                             "0400000508000000"
                             "0500000509000000");
}

TEST(BlobBuf, OpenNestsSurviveMovesOfTheMemory) {
    buffer buf;
    void* const outer = blob_nest_start(&buf, 1);
    void* const inner = blob_nest_start(&buf, 2);
    const std::vector<char> much(100000, 'x');
    const void* const before = buf.buf;
    blob_put(&buf, 3, much.data(), static_cast<unsigned>(much.size()));
    blob_nest_end(&buf, inner);
    blob_nest_end(&buf, outer);
    EXPECT_NE(buf.buf, before);
    EXPECT_EQ(blob_raw_len(buf.head), 4u + 4 + 4 + 4 + 100000);
    const auto* const first = static_cast<blob_attr*>(blob_data(buf.head));
    EXPECT_EQ(blob_len(first), 4u + 4 + 100000);
}

bool refuse(blob_buf*, int) {
    return false;
}

char fixed_memory[64];

bool grow_in_place(blob_buf* buf, int minlen) {
    if (buf->buflen + minlen > static_cast<int>(sizeof fixed_memory)) {
        return false;
    }
    buf->buf = fixed_memory;
    buf->buflen = sizeof fixed_memory;
    return true;
}

TEST(BlobBuf, GrowFunctionOfTheCallerIsUsed) {
    blob_buf buf{};
    buf.grow = grow_in_place;
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    EXPECT_EQ(buf.buf, fixed_memory);
    EXPECT_NE(blob_put(&buf, 1, nullptr, 56), nullptr);
    EXPECT_EQ(blob_put(&buf, 1, nullptr, 0), nullptr);
    EXPECT_EQ(blob_raw_len(buf.head), 64u);
}

TEST(BlobBuf, GrowFunctionThatRefusesIsAnError) {
    blob_buf buf{};
    buf.grow = refuse;
    EXPECT_EQ(blob_buf_init(&buf, 0), -ENOMEM);
}

TEST(BlobParse, SortsChildrenById) {
    const owned_blob message("000000180100000511000000030000083344556602000004");
    blob_attr* found[4];
    EXPECT_EQ(blob_parse(message.attr(), found, nullptr, 4), 3);
    EXPECT_EQ(found[0], nullptr);
    EXPECT_EQ(message.offset_of(found[1]), 4u);
    EXPECT_EQ(message.offset_of(found[2]), 20u);
    EXPECT_EQ(message.offset_of(found[3]), 12u);
}

TEST(BlobParse, SkipsIdsItHasNoSlotFor) {
    const owned_blob message("0000000c0100000405000004");
    blob_attr* found[2];
    EXPECT_EQ(blob_parse(message.attr(), found, nullptr, 2), 1);
    EXPECT_EQ(message.offset_of(found[1]), 4u);
}

TEST(BlobParse, SkipsChildrenShorterThanAHeader) {
    const owned_blob message("0000000801000002");
    blob_attr* found[2];
    EXPECT_EQ(blob_parse(message.attr(), found, nullptr, 2), 0);
    EXPECT_EQ(found[1], nullptr);
}

TEST(BlobParse, SkipsWhatDoesNotFitTheInfo) {
    const owned_blob message("00000028"
                             "0100000a"
                             "616263646500ffff"
                             "02000007"
                             "000000ff"
                             "03000008"
                             "00000001"
                             "04000008"
                             "61626300");
    blob_attr_info info[5] = {};
    info[1].type = BLOB_ATTR_STRING;
    info[2].type = BLOB_ATTR_INT32;
    info[3].type = BLOB_ATTR_INT32;
    info[4].type = BLOB_ATTR_BINARY;
    blob_attr* found[5];
    EXPECT_EQ(blob_parse(message.attr(), found, info, 5), 3);
    EXPECT_NE(found[1], nullptr);
    EXPECT_EQ(found[2], nullptr);
    EXPECT_NE(found[3], nullptr);
    EXPECT_NE(found[4], nullptr);
}

TEST(BlobParse, LengthsOfTheInfoCountTheHeader) {
    const owned_blob message("0000000c0100000611220000");
    blob_attr_info info[2] = {};
    blob_attr* found[2];
    const auto accepts = [&](unsigned minlen, unsigned maxlen) {
        info[1] = {BLOB_ATTR_BINARY, minlen, maxlen, nullptr};
        return blob_parse(message.attr(), found, info, 2) == 1 && found[1] != nullptr;
    };
    EXPECT_TRUE(accepts(0, 0));
    EXPECT_TRUE(accepts(6, 0));
    EXPECT_FALSE(accepts(7, 0));
    EXPECT_TRUE(accepts(0, 6));
    EXPECT_FALSE(accepts(0, 5));
    EXPECT_FALSE(accepts(0, 2));
}

TEST(BlobParse, InfoOfAnUnknownTypeAcceptsAnything) {
    const owned_blob message("0000000c0100000611220000");
    blob_attr_info info[2] = {};
    info[1].type = BLOB_ATTR_LAST;
    blob_attr* found[2];
    EXPECT_EQ(blob_parse(message.attr(), found, info, 2), 1);
}

TEST(BlobParse, KeepsTheLastOfSeveralAndCountsThemOnce) {
    const owned_blob message("00000014010000040100000402000004"
                             "01000004");
    blob_attr* found[3];
    EXPECT_EQ(blob_parse(message.attr(), found, nullptr, 3), 2);
    EXPECT_EQ(message.offset_of(found[1]), 16u);
    EXPECT_EQ(message.offset_of(found[2]), 12u);
}

TEST(BlobParse, OneOfSeveralThatDoesNotFitTheInfoLeavesTheOther) {
    const owned_blob message("000000140100000511000000"
                             "0100000611110000");
    blob_attr_info info[2] = {};
    info[1].type = BLOB_ATTR_INT8;
    blob_attr* found[2];
    EXPECT_EQ(blob_parse(message.attr(), found, info, 2), 1);
    EXPECT_EQ(message.offset_of(found[1]), 4u);
}

TEST(BlobParse, OfNothingClearsTheSlots) {
    const owned_blob other("00000004");
    blob_attr* found[2] = {other.attr(), other.attr()};
    EXPECT_EQ(blob_parse(nullptr, found, nullptr, 2), 0);
    EXPECT_EQ(found[0], nullptr);
    EXPECT_EQ(found[1], nullptr);
}

bool is_one(const blob_attr_info* info, blob_attr* attr) {
    return info->type == BLOB_ATTR_INT32 && blob_get_u32(attr) == 1;
}

TEST(BlobParse, AsksTheValidator) {
    const owned_blob message("0000001401000008000000010200000800000002");
    blob_attr_info info[3] = {};
    info[1] = {BLOB_ATTR_INT32, 0, 0, is_one};
    info[2] = {BLOB_ATTR_INT32, 0, 0, is_one};
    blob_attr* found[3];
    EXPECT_EQ(blob_parse(message.attr(), found, info, 3), 1);
    EXPECT_NE(found[1], nullptr);
    EXPECT_EQ(found[2], nullptr);
}

TEST(BlobParse, UntrustedMessageThatClaimsMoreThanIsThereLeavesTheSlotsAlone) {
    const owned_blob message("0000000d0100000400000000");
    for (const std::size_t there : {0U, 3U, 4U, 8U, 12U}) {
        blob_attr* found[2] = {message.attr(), message.attr()};
        EXPECT_EQ(blob_parse_untrusted(message.attr(), there, found, nullptr, 2), 0);
        EXPECT_EQ(found[0], message.attr()) << there;
        EXPECT_EQ(found[1], message.attr()) << there;
    }
}

TEST(BlobParse, UntrustedMessageThatIsNotThereLeavesTheSlotsAlone) {
    const owned_blob other("00000004");
    blob_attr* found[1] = {other.attr()};
    EXPECT_EQ(blob_parse_untrusted(nullptr, 8, found, nullptr, 1), 0);
    EXPECT_EQ(found[0], other.attr());
}

TEST(BlobParse, UntrustedMessageMayBeShorterThanWhatIsThere) {
    const owned_blob message("000000080100000402000004");
    blob_attr* found[3];
    EXPECT_EQ(blob_parse_untrusted(message.attr(), message.size(), found, nullptr, 3), 1);
    EXPECT_EQ(message.offset_of(found[1]), 4u);
    EXPECT_EQ(found[2], nullptr);
}

TEST(BlobParse, UntrustedMessageThatClaimsLessThanAHeaderIsEmpty) {
    const owned_blob message("0000000201000004");
    blob_attr* found[2] = {message.attr(), message.attr()};
    EXPECT_EQ(blob_parse_untrusted(message.attr(), message.size(), found, nullptr, 2), 0);
    EXPECT_EQ(found[1], nullptr);
}

} // namespace
