// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/stats_list.h"

#include <optional>

#include "lib/clock.h"
#include "lib/cor_assert.h"

namespace mirador {
namespace {

// An entry that holds one read alone, without its path.
stats_thr_entry_t make_probe(std::int32_t bytes_read, std::int32_t bytes_skipped, bool sr2) {
    stats_thr_entry_t probe;
    const auto read = static_cast<std::uint64_t>(std::int64_t{bytes_read});
    const auto skipped = static_cast<std::uint64_t>(std::int64_t{bytes_skipped});
    probe.sr2_stat = sr2;
    (sr2 ? probe.bytes_read2 : probe.bytes_read) = read;
    (sr2 ? probe.bytes_skipped2 : probe.bytes_skipped) = skipped;
    (sr2 ? probe.last_read_time2 : probe.last_read_time) = clock_now();
    return probe;
}

void add(const stats_thr_entry_t& probe, stats_thr_entry_t* entry) {
    entry->bytes_read += probe.bytes_read;
    entry->bytes_read2 += probe.bytes_read2;
    entry->bytes_skipped += probe.bytes_skipped;
    entry->bytes_skipped2 += probe.bytes_skipped2;
    entry->delta_bytes_read += probe.bytes_read;
    entry->delta_bytes_read2 += probe.bytes_read2;
    entry->delta_bytes_skipped += probe.bytes_skipped;
    entry->delta_bytes_skipped2 += probe.bytes_skipped2;
    entry->last_read_time = probe.last_read_time;
    entry->last_read_time2 = probe.last_read_time2;
    entry->marked_for_close = probe.marked_for_close;
}

void take_off_deltas(const stats_thr_entry_t& reported, stats_thr_entry_t* entry) {
    entry->delta_bytes_read -= reported.delta_bytes_read;
    entry->delta_bytes_read2 -= reported.delta_bytes_read2;
    entry->delta_bytes_skipped -= reported.delta_bytes_skipped;
    entry->delta_bytes_skipped2 -= reported.delta_bytes_skipped2;
}

bool has_deltas(const stats_thr_entry_t& entry) {
    return (entry.delta_bytes_read | entry.delta_bytes_read2 | entry.delta_bytes_skipped |
            entry.delta_bytes_skipped2) != 0;
}

void check(const stats_thr_entry_t& entry) {
    cor_assert(entry.magic == stats_thr_entry_t::magic_value);
}

}  // namespace

stats_thr_entry_t* stats_list_t::_find(const std::string& path, bool sr2) {
    const auto found = by_path_[sr2].find(path);
    if (found == by_path_[sr2].end())
        return nullptr;
    check(*found->second);
    return found->second.get();
}

void stats_list_t::update(const std::string& path, std::int32_t bytes_read, std::int32_t bytes_skipped, bool sr2) {
    const stats_thr_entry_t probe = make_probe(bytes_read, bytes_skipped, sr2);
    const mutex_lock_t lock(mutex_);
    if (stats_thr_entry_t* const entry = _find(path, sr2)) {
        add(probe, entry);
        return;
    }
    const auto entry = std::make_shared<stats_thr_entry_t>(probe);
    entry->path = path;
    by_path_[sr2].emplace(path, entry);
    list_add(list_, entry);
}

void stats_list_t::close(const std::string& path, bool sr2) {
    stats_thr_entry_t probe;
    probe.marked_for_close = true;
    const mutex_lock_t lock(mutex_);
    if (stats_thr_entry_t* const entry = _find(path, sr2))
        add(probe, entry);
}

std::vector<stats_thr_entry_t> stats_list_t::report() {
    std::vector<stats_thr_entry_t> entries;
    const mutex_lock_t lock(mutex_);
    while (list_pop(delete_list_)) {  // of a report that failed
    }
    list_iter(list_, [&](const entry_ptr& entry) {
        check(*entry);
        entries.push_back(*entry);
        if (entry->marked_for_close)
            list_add(delete_list_, entry);
        return true;
    });
    return entries;
}

void stats_list_t::reported(const std::vector<stats_thr_entry_t>& entries) {
    const mutex_lock_t lock(mutex_);
    for (const stats_thr_entry_t& copy : entries)
        if (stats_thr_entry_t* const entry = _find(copy.path, copy.sr2_stat))
            take_off_deltas(copy, entry);
    _drop_closed();
}

void stats_list_t::_drop_closed() {
    while (const std::optional<entry_ptr> popped = list_pop(delete_list_)) {
        const entry_ptr& entry = *popped;
        check(*entry);
        if (!entry->marked_for_close || has_deltas(*entry))
            continue;
        list_delete(list_, entry);
        by_path_[entry->sr2_stat].erase(entry->path);
    }
}

void stats_list_t::clear() {
    const mutex_lock_t lock(mutex_);
    while (list_pop(list_) || list_pop(delete_list_)) {
    }
    for (auto& entries : by_path_)
        entries.clear();
}

}  // namespace mirador
