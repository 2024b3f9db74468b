// SPDX-License-Identifier: Apache-2.0
#include "appliance/mounter/dmtdesc.h"

#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

// One line under construction: a disk has millions of them, so no format is interpreted.
class line_t {
  public:
    void add(std::uint64_t number) {
        const auto [end, fault] = std::to_chars(end_, text_.data() + text_.size(), number);
        cor_assert(fault == std::errc());
        end_ = end;
    }
    void add(std::string_view text) {
        cor_assert(text.size() <= static_cast<std::size_t>(text_.data() + text_.size() - end_));
        std::memcpy(end_, text.data(), text.size());
        end_ += text.size();
    }
    void write(std::FILE* file) const {
        const auto size = static_cast<std::size_t>(end_ - text_.data());
        cor_assert(fwrite_unlocked(text_.data(), 1, size, file) == size);
    }

  private:
    std::array<char, path_size + 128> text_;
    char* end_ = text_.data();
};

void add_position(const dmtdesc_t& dmtdesc, line_t* line) {
    line->add(dmtdesc.dm_offset);
    line->add(" ");
    line->add(dmtdesc.size);
}

void advance(dmtdesc_t* dmtdesc) {
    dmtdesc->stats.lines += 1;
    dmtdesc->stats.sectors += dmtdesc->size;
    dmtdesc->dm_offset += dmtdesc->size;
    dmtdesc->size = dmtdesc->grainsize;
}

}  // namespace

void dmt_check(const dmtdesc_t& dmtdesc) {
    cor_assert(dmtdesc.magic == dmtdesc_t::magic_value);
    cor_assert(dmtdesc.version == dmtdesc_t::version_value);
}

void vmdk_emit(std::FILE* file, dmtdesc_t* dmtdesc) {
    dmt_check(*dmtdesc);
    line_t line;
    add_position(*dmtdesc, &line);
    line.add(" linear ");
    line.add(*dmtdesc->loopdev);
    line.add(" ");
    line.add(dmtdesc->extent_offset);
    line.add("\n");
    line.write(file);
    if (dmtdesc->ancestor_index == 0)
        dmtdesc->stats.child_sectors += dmtdesc->size;
    advance(dmtdesc);
}

void vmdk_emit_zero(std::FILE* file, dmtdesc_t* dmtdesc) {
    dmt_check(*dmtdesc);
    line_t line;
    add_position(*dmtdesc, &line);
    line.add(" zero\n");
    line.write(file);
    dmtdesc->stats.zero_sectors += dmtdesc->size;
    advance(dmtdesc);
}

}  // namespace mirador
