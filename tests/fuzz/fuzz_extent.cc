// SPDX-License-Identifier: Apache-2.0
// Any bytes in the place of a sparse extent, alone or over a parent: check, open, map. Every line of a table that comes
// out must lie where the extents' own tables say, and within their files; those are read here without the readers.
//
// Input: a byte that picks the chain, four bytes for the extent's size in sectors, two for the length of the files in
// units of 8 sectors (what the input lacks are zeros), then the extent, or two of equal length.
#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

#include "appliance/mounter/vmdkmount.h"
#include "lib/cor_string.h"
#include "tests/fuzz/memory_file.h"
#include "tests/support/dm_table.h"
#include "tests/support/record_bytes.h"
#include "vmware/lib/vmdk/chain_check.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_extent.h"
#include "vmware/lib/vmdk/vmdk_graindir.h"

using namespace mirador;

namespace {

using bytes_t = std::span<const std::uint8_t>;

constexpr std::size_t parameter_bytes = 7;
constexpr std::uint64_t length_unit = 8;       // sectors
constexpr std::uint64_t max_grains = 1 << 18;  // more of them are only slower

enum chain_bits_t : std::uint8_t { COPY_ON_WRITE = 1, FLAT_PARENT = 2, SPARSE_PARENT = 4 };

struct input_t {
    std::uint8_t chain;
    std::uint32_t extentsize;
    std::uint64_t file_sectors;
    bytes_t child;
    bytes_t parent;
};

std::uint64_t number_at(bytes_t bytes, std::uint64_t at, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size && at + i < bytes.size(); ++i)
        value |= std::uint64_t{bytes[at + i]} << (8 * i);
    return value;
}

input_t parse(bytes_t data) {
    input_t input{};
    input.chain = data[0];
    input.extentsize = static_cast<std::uint32_t>(number_at(data, 1, 4));
    input.file_sectors = number_at(data, 5, 2) * length_unit;
    input.child = data.subspan(parameter_bytes);
    input.parent = input.child.first(0);
    if ((input.chain & SPARSE_PARENT) != 0) {
        input.parent = input.child.subspan(input.child.size() / 2);
        input.child = input.child.first(input.child.size() / 2);
    }
    return input;
}

// What an extent's own tables say: the sector of a grain, or 0.
class oracle_t {
  public:
    oracle_t(bytes_t extent, bool copy_on_write) : extent_(extent) {
        grainsize_ = copy_on_write ? number_at(extent, 16, 4) : number_at(extent, 20, 8);
        entries_ = copy_on_write ? 4096 : number_at(extent, 44, 4);
        directory_ = (copy_on_write ? number_at(extent, 20, 4) : number_at(extent, 56, 8)) * sector_size;
    }
    std::uint64_t grainsize() const { return grainsize_; }
    std::uint64_t sector_of(std::uint64_t grain) const {
        const std::uint64_t table = number_at(extent_, directory_ + grain / entries_ * 4, 4) * sector_size;
        return table == 0 ? 0 : number_at(extent_, table + grain % entries_ * 4, 4);
    }

  private:
    bytes_t extent_;
    std::uint64_t grainsize_;
    std::uint64_t entries_;
    std::uint64_t directory_;
};

void add_disk(const input_t& input, memory_file_t* file, bytes_t content, extenttype_t type, vmdkdesc_t* disk) {
    file->fill(content.data(), content.size());
    const auto size = static_cast<off_t>(std::max<std::uint64_t>(input.file_sectors * sector_size, content.size()));
    cor_assert(ftruncate(file->fd(), size) == 0);
    auto extent = std::make_unique<extentdesc_t>();
    extent->extenttype = type;
    extent->extentsize = input.extentsize;
    extent->extentname = file->path();
    disk->extentdesc.push_back(std::move(extent));
    disk->magic = vmdkdesc_t::magic_value;
    disk->datastore_direct = true;
    disk->filename = "fuzz";
}

// The table of a chain, with names in place of loop devices; false when it is turned down.
bool emit(vmdkdesc_t* head, std::string* table) {
    static const char* names[] = {"child", "parent"};
    if (vmdk_check_chain(head) != nullptr)
        return false;
    const vmdk_chain_t chain = vmdk_mapped_disks(head);
    for (std::size_t i = 0; i < chain.size(); ++i) {
        if (vmdk_open_extentfiles(chain[i]) != nullptr || chain[i]->extentdesc[0]->graindir.gt_entry_count > max_grains)
            return false;
        chain[i]->extentdesc[0]->loopdev = names[i];
    }
    bool done = false;
    vdsk_stats_t stats;
    *table = printed([&](std::FILE* out) { done = vmdk_emit_extents(out, chain, &stats) == nullptr; });
    return done;
}

// The grain that a line's part beginning at the grain's first sector must be: in the child, else in the parent, else
// nowhere.
dm_line_t expected_grain(const input_t& input, const oracle_t& child, const oracle_t& parent, std::uint64_t grain) {
    const std::uint64_t start = grain * child.grainsize();
    const std::uint64_t length = std::min(child.grainsize(), input.extentsize - start);
    if (const std::uint64_t sector = child.sector_of(grain))
        return {start, length, "child", sector};
    if ((input.chain & FLAT_PARENT) != 0)
        return {start, length, "parent", start};
    const std::uint64_t sector = (input.chain & SPARSE_PARENT) != 0 ? parent.sector_of(grain) : 0;
    return {start, length, sector != 0 ? "parent" : "", sector};
}

void compare(const input_t& input, const std::string& text) {
    std::vector<dm_line_t> table;
    std::string fault;
    cor_assert(parse_dm_table(text, &table, &fault));
    const bool cow = (input.chain & COPY_ON_WRITE) != 0;
    const oracle_t child(input.child, cow);
    const oracle_t parent(input.parent, cow);
    std::uint64_t position = 0;
    for (const dm_line_t& line : table) {
        for (std::uint64_t done = 0; done < line.length; done += child.grainsize()) {
            const dm_line_t expected = expected_grain(input, child, parent, position / child.grainsize());
            cor_assert(line.start + done == expected.start && line.device == expected.device);
            cor_assert(line.device.empty() || line.offset + done == expected.offset);
            cor_assert(line.device.empty() || expected.offset + expected.length <= input.file_sectors ||
                       (expected.offset + expected.length) * sector_size <=
                           std::max(input.child.size(), input.parent.size()));
            position += expected.length;
        }
    }
    cor_assert(position == input.extentsize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static memory_file_t child_file;
    static memory_file_t parent_file;
    if (size < parameter_bytes)
        return 0;
    const input_t input = parse({data, size});
    if (input.extentsize == 0)  // the descriptor's check lets no such extent through
        return 0;
    const extenttype_t type = (input.chain & COPY_ON_WRITE) != 0 ? ET_VMFSSPARSE : ET_SPARSE;
    vmdkdesc_t head;
    vmdkdesc_t parent;
    head.vmdk_ancestor_array = {&head};
    add_disk(input, &child_file, input.child, type, &head);
    if ((input.chain & (FLAT_PARENT | SPARSE_PARENT)) != 0) {
        add_disk(input, &parent_file, input.parent, (input.chain & FLAT_PARENT) != 0 ? ET_FLAT : type, &parent);
        head.vmdk_ancestor_array.push_back(&parent);
    }
    std::string table;
    if (emit(&head, &table))
        compare(input, table);
    return 0;
}
