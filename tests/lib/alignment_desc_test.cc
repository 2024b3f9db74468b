// SPDX-License-Identifier: Apache-2.0
#include "lib/alignment_desc.h"

#include <gtest/gtest.h>

#include <limits>

namespace mirador {
namespace {

// Head, body and tail follow each other, make up exactly the range, and none is a whole block too many.
void expect_split(off_t offset, std::size_t size, std::size_t block) {
    SCOPED_TRACE(testing::Message() << offset << " " << size << " in blocks of " << block);
    const auto unit = static_cast<std::int64_t>(block);
    alignment_desc_t desc;
    alignment_desc_get(offset, size, block, &desc);
    std::int64_t at = offset;
    if (desc.head_byte_count > 0) {
        EXPECT_EQ(desc.head_blk_addr * unit + static_cast<std::int64_t>(desc.head_byte_offset), at);
        EXPECT_LE(desc.head_byte_offset + desc.head_byte_count, block);
        EXPECT_LT(desc.head_byte_count, block);
        at += static_cast<std::int64_t>(desc.head_byte_count);
    }
    if (desc.body_blk_count > 0) {
        EXPECT_EQ(desc.body_blk_addr * unit, at);
        at += desc.body_blk_count * unit;
    }
    if (desc.tail_byte_count > 0) {
        EXPECT_EQ(desc.tail_blk_addr * unit, at);
        EXPECT_LT(desc.tail_byte_count, block);
        at += static_cast<std::int64_t>(desc.tail_byte_count);
    }
    const std::int64_t end = offset + static_cast<std::int64_t>(size);
    EXPECT_EQ(at, end);
    EXPECT_EQ(alignment_desc_first(desc), offset / unit);
    EXPECT_EQ(alignment_desc_last(desc), (end - 1) / unit);
    EXPECT_EQ(desc.buf.size(), block);
}

TEST(alignment_desc, PartsMakeUpEveryRange) {
    constexpr std::size_t block = 4;
    for (off_t offset = 0; offset < 3 * static_cast<off_t>(block); offset++)
        for (std::size_t size = 1; size < 5 * block; size++)
            expect_split(offset, size, block);
    expect_split(std::numeric_limits<off_t>::max() - 1000, 1000, 512);
    expect_split(511, 1, 512);
    expect_split(7, 9, 1);
}

TEST(alignment_desc, RangeInsideOneBlockIsOnePart) {
    alignment_desc_t desc;
    alignment_desc_get(1124, 100, 512, &desc);
    EXPECT_EQ(desc.head_byte_count, 100U);
    EXPECT_EQ(desc.head_byte_offset, 100U);
    EXPECT_EQ(desc.body_blk_count, 0);
    EXPECT_EQ(desc.tail_byte_count, 0U);
    alignment_desc_get(1024, 100, 512, &desc);
    EXPECT_EQ(desc.head_byte_count, 0U);
    EXPECT_EQ(desc.tail_byte_count, 100U);
}

}  // namespace
}  // namespace mirador
