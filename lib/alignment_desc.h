// SPDX-License-Identifier: Apache-2.0
// Splitting a byte range into blocks: the part of its first block, whole blocks, the part of its last block.
//
// Head, body and tail follow each other without gap and make up the range:
//   head  bytes head_byte_offset to head_byte_offset + head_byte_count of block head_blk_addr; none when the range
//         begins with a block
//   body  body_blk_count whole blocks from body_blk_addr on
//   tail  the first tail_byte_count bytes of block tail_blk_addr; none when the range ends with a block
// A range inside one block is a head alone, or, when it begins with the block, a tail alone; never both.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

namespace mirador {

struct alignment_desc_t {
    static constexpr std::uint32_t magic_value = 0x20100416;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    // Addresses in blocks, counts in blocks or bytes. The address of a part that is empty is where it would begin.
    std::int64_t head_blk_addr = 0;
    std::size_t head_byte_offset = 0;
    std::size_t head_byte_count = 0;
    std::int64_t body_blk_addr = 0;
    std::int64_t body_blk_count = 0;
    std::int64_t tail_blk_addr = 0;
    std::size_t tail_byte_count = 0;
    std::vector<char> buf;  // scratch of one block
};
using alignment_desc_ptr = std::unique_ptr<alignment_desc_t>;

alignment_desc_ptr alignment_desc_new();

// Splits `size` bytes at `offset` into blocks of `block_size` bytes and makes the scratch buffer of that size. All are
// positive, the offset may be 0, and the range's end is a valid offset (assertions).
void alignment_desc_get(off_t offset, std::size_t size, std::size_t block_size, alignment_desc_t* desc);

// The first and the last block that the range touches.
std::int64_t alignment_desc_first(const alignment_desc_t& desc);
std::int64_t alignment_desc_last(const alignment_desc_t& desc);

// Prints the fields, one a line.
void alignment_desc_dump(const alignment_desc_t& desc, std::FILE* stream = stdout);

// Releases *desc and sets it to null.
void alignment_desc_destroy(alignment_desc_ptr* desc);

}  // namespace mirador
