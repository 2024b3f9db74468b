// SPDX-License-Identifier: Apache-2.0
#include "tools/fuse-dmsetup/dm_table.h"

#include <algorithm>
#include <charconv>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

void append_number(std::string* text, std::uint64_t number) {
    char digits[20];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
    text->append(digits, end);
}

// Appends a piece, or lengthens the last one by it.
void append_piece(const dm_piece_t& piece, std::vector<dm_piece_t>* pieces) {
    dm_piece_t* last = pieces->empty() ? nullptr : &pieces->back();
    const bool follows = last != nullptr && last->device == piece.device &&
                         (piece.device == nullptr || last->offset + last->size == piece.offset);
    if (follows)
        last->size += piece.size;
    else
        pieces->push_back(piece);
}

}  // namespace

std::vector<dm_piece_t> dm_table_t::map(std::uint64_t offset, std::size_t size) const {
    std::vector<dm_piece_t> pieces;
    add_pieces(offset, size, &pieces);
    return pieces;
}

void dm_table_t::add_pieces(std::uint64_t offset, std::size_t size, std::vector<dm_piece_t>* pieces) const {
    const std::uint64_t bytes = sectors_ * sector_size;
    if (offset >= bytes)
        return;
    const std::uint64_t end = offset + std::min<std::uint64_t>(size, bytes - offset);
    const auto next = std::upper_bound(targets_.begin(), targets_.end(), offset / sector_size,
                                       [](std::uint64_t sector, const target_t& t) { return sector < t.start; });
    for (auto index = static_cast<std::size_t>(next - targets_.begin()) - 1; offset < end; ++index) {
        const target_t& target = targets_[index];
        const std::size_t part = std::min(end, end_of(index) * sector_size) - offset;
        const bool is_zero = target.device() == zero_device;
        const dm_device_t* device = is_zero ? nullptr : &devices_[target.device()];
        const std::uint64_t at = is_zero ? 0 : target.offset() * sector_size + offset - target.start * sector_size;
        if (!is_zero && device->table != nullptr)
            device->table->add_pieces(at, part, pieces);
        else
            append_piece({device, at, part}, pieces);
        offset += part;
    }
}

void dm_table_t::print_target(std::size_t index, std::string* text) const {
    const target_t& target = targets_[index];
    append_number(text, target.start);
    *text += ' ';
    append_number(text, end_of(index) - target.start);
    if (target.device() == zero_device) {
        *text += " zero \n";
        return;
    }
    const dm_device_t& device = devices_[target.device()];
    *text += " linear ";
    if (device.table != nullptr) {
        *text += device.name;
    } else {
        append_number(text, device.major);
        *text += ':';
        append_number(text, device.minor);
    }
    *text += ' ';
    append_number(text, target.offset());
    *text += '\n';
}

void dm_table_t::print(std::string_view prefix, const std::function<bool(std::string_view)>& write) const {
    constexpr std::size_t portion = 64 << 10;
    std::string text;
    for (std::size_t index = 0; index < targets_.size(); ++index) {
        text += prefix;
        print_target(index, &text);
        if (text.size() >= portion) {
            if (!write(text))
                return;
            text.clear();
        }
    }
    write(text);
}

}  // namespace mirador
