/// The limits of the bundled libubox's blobs: where it refuses, or takes for empty, what would lead
/// outside of the memory or make a message that says something else.
#include "bus.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "owned_blob.h"

// Linked in place of realloc(), so that memory can run out.
static int reallocs_until_failure = -1;

extern "C" void* __real_realloc(void* memory, std::size_t size);

extern "C" void* __wrap_realloc(void* memory, std::size_t size) {
    if (reallocs_until_failure == 0) {
        return nullptr;
    }
    if (reallocs_until_failure > 0) {
        --reallocs_until_failure;
    }
    return __real_realloc(memory, size);
}

namespace {

using ubox_test::buffer;
using ubox_test::hex;
using ubox_test::owned_blob;

class no_memory {
public:
    explicit no_memory(int reallocs_before = 0) { reallocs_until_failure = reallocs_before; }
    ~no_memory() { reallocs_until_failure = -1; }
    no_memory(const no_memory&) = delete;
    no_memory& operator=(const no_memory&) = delete;
};

TEST(BlobAttrLimits, LengthBelowAHeaderMeansNoPayload) {
    const owned_blob attr("05000002");
    EXPECT_EQ(blob_raw_len(attr.attr()), 2u);
    EXPECT_EQ(blob_len(attr.attr()), 0u);
}

TEST(BlobAttrLimits, IsReadFromAnyAddress) {
    const owned_blob bytes("ff0300000c0102030405060708");
    const auto* const attr = reinterpret_cast<const blob_attr*>(bytes.bytes() + 1);
    EXPECT_EQ(blob_id(attr), 3u);
    EXPECT_EQ(blob_get_u8(attr), 1u);
    EXPECT_EQ(blob_get_u16(attr), 0x0102u);
    EXPECT_EQ(blob_get_u32(attr), 0x01020304u);
    EXPECT_EQ(blob_get_u64(attr), 0x0102030405060708u);
}

TEST(BlobAttrLimits, NothingIsCopiedOfAnAttributeOfLengthZero) {
    const owned_blob attr("01000000");
    EXPECT_EQ(blob_memdup(attr.attr()), nullptr);
}

TEST(BlobBufLimits, FreedBufferTakesNothingUntilInit) {
    buffer buf;
    blob_buf_free(&buf);
    EXPECT_EQ(buf.buf, nullptr);
    EXPECT_EQ(buf.buflen, 0);
    EXPECT_EQ(blob_put_u8(&buf, 1, 1), nullptr);
    EXPECT_EQ(blob_nest_start(&buf, 1), nullptr);
    ASSERT_EQ(blob_buf_init(&buf, 0), 0);
    EXPECT_NE(blob_put_u8(&buf, 1, 1), nullptr);
}

TEST(BlobBufLimits, PutWithoutBytesPutsZeros) {
    buffer buf;
    blob_put(&buf, 1, nullptr, 5);
    EXPECT_EQ(hex(buf.head), "00000010010000090000000000000000");
}

TEST(BlobBufLimits, ClosingWithoutACookieDoesNothing) {
    buffer buf;
    blob_nest_end(&buf, nullptr);
    EXPECT_EQ(hex(buf.head), "00000004");
}

TEST(BlobBufLimits, HoldsWhatTheLengthFieldCanSayAndNotMore) {
    buffer buf;
    // The largest multiple of 4 below the limit, less two headers.
    const std::vector<char> payload(0xfffffc - 8, 'x');
    EXPECT_EQ(blob_put(&buf, 1, payload.data(), static_cast<unsigned>(payload.size()) + 1),
              nullptr);
    EXPECT_EQ(hex(buf.head), "00000004");
    ASSERT_NE(blob_put(&buf, 1, payload.data(), static_cast<unsigned>(payload.size())), nullptr);
    EXPECT_EQ(blob_raw_len(buf.head), 0xfffffcu);
    EXPECT_LE(static_cast<unsigned>(buf.buflen), 0x1000000u);
    EXPECT_EQ(blob_put(&buf, 2, nullptr, 0), nullptr);
    EXPECT_EQ(blob_nest_start(&buf, 2), nullptr);
    EXPECT_EQ(blob_raw_len(buf.head), 0xfffffcu);
}

TEST(BlobBufLimits, LengthsThatOverflowAreRefused) {
    buffer buf;
    EXPECT_EQ(blob_put(&buf, 1, "", 0xffffffffu), nullptr);
    EXPECT_EQ(blob_put_raw(&buf, "", 0xffffffffu), nullptr);
    EXPECT_EQ(blob_put(&buf, 1, "", 0x1000000u), nullptr);
    EXPECT_EQ(blob_new(&buf, 1, 0x7fffffff), nullptr);
    EXPECT_FALSE(blob_buf_grow(&buf, 0x7fffffff));
    EXPECT_FALSE(blob_buf_grow(&buf, -1));
    EXPECT_EQ(hex(buf.head), "00000004");
}

TEST(BlobBufLimits, InitWithoutMemoryReportsIt) {
    blob_buf buf{};
    {
        const no_memory now;
        EXPECT_EQ(blob_buf_init(&buf, 0), -ENOMEM);
        EXPECT_EQ(blob_put_u8(&buf, 1, 1), nullptr);
    }
    EXPECT_EQ(blob_buf_init(&buf, 0), 0);
    blob_buf_free(&buf);
}

TEST(BlobBufLimits, PutWithoutMemoryLeavesTheMessageAsItWas) {
    buffer buf;
    const std::vector<char> much(100000, 'x');
    void* const nest = blob_nest_start(&buf, 1);
    blob_put_u8(&buf, 2, 7);
    {
        const no_memory now;
        EXPECT_EQ(blob_put(&buf, 3, much.data(), static_cast<unsigned>(much.size())), nullptr);
        EXPECT_EQ(blob_new(&buf, 3, 100000), nullptr);
        EXPECT_FALSE(blob_buf_grow(&buf, 100000));
    }
    blob_put_u8(&buf, 4, 8);
    blob_nest_end(&buf, nest);
    EXPECT_EQ(hex(buf.head), "00000018"
                             "01000014"
                             "0200000507000000"
                             "0400000508000000");
}

bool accept_but_do_nothing(blob_buf*, int) {
    return true;
}

TEST(BlobBufLimits, GrowFunctionThatGrowsTooLittleIsAnError) {
    buffer buf;
    buf.grow = accept_but_do_nothing;
    EXPECT_EQ(blob_put(&buf, 1, nullptr, 100000), nullptr);
    EXPECT_EQ(hex(buf.head), "00000004");
}

TEST(BlobAttrLimits, CopyOfNothingIsNothing) {
    EXPECT_EQ(blob_memdup(nullptr), nullptr);
}

TEST(BlobBufLimits, NegativePayloadIsRefused) {
    buffer buf;
    EXPECT_EQ(blob_new(&buf, 9, -1), nullptr);
    EXPECT_EQ(blob_new(&buf, 9, -5), nullptr);
    EXPECT_EQ(hex(buf.head), "00000004");
}

TEST(BlobTypeLimits, NegativeTypeMatchesNothing) {
    EXPECT_FALSE(blob_check_type("", 1, -1));
}

TEST(BlobWalkLimits, OfANegativeRestVisitsNothing) {
    const owned_blob message("0000000c0100000402000004");
    blob_attr* child;
    long left = -1;
    __blob_for_each_attr(child, blob_data(message.attr()), left) {
        FAIL();
    }
}

} // namespace
