// SPDX-License-Identifier: Apache-2.0
#include "lib/alignment_desc.h"

#include <algorithm>
#include <cinttypes>
#include <limits>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

void check(const alignment_desc_t& desc) {
    cor_assert(desc.magic == alignment_desc_t::magic_value);
    cor_assert(desc.version == alignment_desc_t::version_value);
}

}  // namespace

alignment_desc_ptr alignment_desc_new() {
    return std::make_unique<alignment_desc_t>();
}

void alignment_desc_get(off_t offset, std::size_t size, std::size_t block_size, alignment_desc_t* desc) {
    cor_assert(desc != nullptr);
    check(*desc);
    cor_assert(offset >= 0);
    cor_assert(size > 0);
    cor_assert(block_size > 0);
    cor_assert(size <= static_cast<std::size_t>(std::numeric_limits<off_t>::max() - offset));
    const auto start = static_cast<std::size_t>(offset);

    desc->head_blk_addr = static_cast<std::int64_t>(start / block_size);
    desc->head_byte_offset = start % block_size;
    desc->head_byte_count = 0;
    if (desc->head_byte_offset != 0)
        desc->head_byte_count = std::min(size, block_size - desc->head_byte_offset);
    const std::size_t rest = size - desc->head_byte_count;
    desc->body_blk_addr = desc->head_blk_addr + (desc->head_byte_count == 0 ? 0 : 1);
    desc->body_blk_count = static_cast<std::int64_t>(rest / block_size);
    desc->tail_blk_addr = desc->body_blk_addr + desc->body_blk_count;
    desc->tail_byte_count = rest % block_size;
    desc->buf.resize(block_size);
}

std::int64_t alignment_desc_first(const alignment_desc_t& desc) {
    check(desc);
    return desc.head_blk_addr;
}

std::int64_t alignment_desc_last(const alignment_desc_t& desc) {
    check(desc);
    return desc.tail_byte_count == 0 ? desc.tail_blk_addr - 1 : desc.tail_blk_addr;
}

void alignment_desc_dump(const alignment_desc_t& desc, std::FILE* stream) {
    check(desc);
    std::fprintf(stream, "head_blk_addr = %" PRId64 "\n", desc.head_blk_addr);
    std::fprintf(stream, "head_byte_offset = %zu\n", desc.head_byte_offset);
    std::fprintf(stream, "head_byte_count = %zu\n", desc.head_byte_count);
    std::fprintf(stream, "body_blk_addr = %" PRId64 "\n", desc.body_blk_addr);
    std::fprintf(stream, "body_blk_count = %" PRId64 "\n", desc.body_blk_count);
    std::fprintf(stream, "tail_blk_addr = %" PRId64 "\n", desc.tail_blk_addr);
    std::fprintf(stream, "tail_byte_count = %zu\n", desc.tail_byte_count);
    std::fprintf(stream, "buf_sz = %zu\n", desc.buf.size());
}

void alignment_desc_destroy(alignment_desc_ptr* desc) {
    cor_assert(desc != nullptr);
    desc->reset();
}

}  // namespace mirador
