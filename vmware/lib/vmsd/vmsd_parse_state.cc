// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmsd/vmsd_parse_state.h"

#include <charconv>
#include <limits>
#include <system_error>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

void look_at_count(const vmsd_parse_state_t& state, vmsd_line_t kind, std::uint64_t count, std::uint64_t bound) {
    cor_assert_text(state.seen || count <= bound, "the records fit into memory");
    if (!state.seen)
        return;
    state.seen->kind = kind;
    state.seen->bad_count |= count > bound;
    std::uint64_t& sum = kind == vmsd_line_t::numsnapshots ? state.seen->snapshots : state.seen->disks;
    if (count <= bound)
        sum += count;
}

}  // namespace

std::uint64_t vmsd_number(std::string_view text) {
    if (text.starts_with('"'))
        text.remove_prefix(1);
    const bool negative = text.starts_with('-');
    if (negative)
        text.remove_prefix(1);
    std::uint64_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec == std::errc::result_out_of_range)
        return std::numeric_limits<std::uint64_t>::max();
    return negative ? 0 - value : value;
}

std::string vmsd_unquoted(const vmsd_token_t& token) {
    cor_assert(token.text.size() >= 2);
    return std::string(token.text.substr(1, token.text.size() - 2));
}

void vmsd_set_numsnapshots(const vmsd_parse_state_t& state, const vmsd_token_t& count) {
    look_at_count(state, vmsd_line_t::numsnapshots, count.number, vmsd_max_snapshots);
    if (state.desc && count.number <= vmsd_max_snapshots)
        state.desc->snapshot = std::vector<vmsdsnapshot_t>(count.number + 1);
}

void vmsd_set_numdisks(const vmsd_parse_state_t& state, const vmsd_token_t& snapshot, const vmsd_token_t& count) {
    look_at_count(state, vmsd_line_t::numdisks, count.number, vmsd_max_disks);
    vmsdsnapshot_t* const record = vmsd_snapshot(state, snapshot);
    if (record && count.number <= vmsd_max_disks)
        record->disk = std::vector<vmsddisk_t>(count.number);
}

void vmsd_set_disk_filename(const vmsd_parse_state_t& state, const vmsd_token_t& snapshot, const vmsd_token_t& disk,
                            const vmsd_token_t& name) {
    if (state.seen)
        state.seen->cut_name |= name.length > vmsd_token_t::max_text;
    vmsddisk_t* const record = vmsd_disk(state, snapshot, disk);
    if (!record)
        return;
    record->magic = vmsddisk_t::magic_value;
    record->version = 1;
    record->filename = vmsd_unquoted(name);
}

vmsdsnapshot_t* vmsd_snapshot(const vmsd_parse_state_t& state, const vmsd_token_t& snapshot) {
    const bool known = state.desc && snapshot.number < state.desc->snapshot.size();
    return known ? &state.desc->snapshot[snapshot.number] : nullptr;
}

vmsddisk_t* vmsd_disk(const vmsd_parse_state_t& state, const vmsd_token_t& snapshot, const vmsd_token_t& disk) {
    vmsdsnapshot_t* const record = vmsd_snapshot(state, snapshot);
    return record && disk.number < record->disk.size() ? &record->disk[disk.number] : nullptr;
}

}  // namespace mirador
