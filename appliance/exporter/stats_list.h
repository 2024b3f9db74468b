// SPDX-License-Identifier: Apache-2.0
// The counters of exported files: what was read and skipped of each, in total and since the controller heard of it.
//
// A file has an entry for each stream that it is read by: the ordinary one, and the second one, which reads it under
// its loop-file name. An entry comes with the first read and goes when it was closed and the controller knows all of
// it.
//
// Thread-safe. Every call holds the list's mutex, a leaf, for moments, whatever a report to the controller takes
// meanwhile: a report is made from copies, and what was counted since stays counted.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "lib/list.h"
#include "lib/thread_annotations.h"

namespace mirador {

struct stats_thr_entry_t {
    static constexpr std::uint32_t magic_value = 0x7890beef;

    std::uint32_t magic = magic_value;
    std::string path;  // of the exported file
    // Bytes; those with a 2 are of the second stream.
    std::uint64_t bytes_read = 0;
    std::uint64_t bytes_read2 = 0;
    std::uint64_t bytes_skipped = 0;
    std::uint64_t bytes_skipped2 = 0;
    // Bytes since the last successful report.
    std::uint64_t delta_bytes_read = 0;
    std::uint64_t delta_bytes_read2 = 0;
    std::uint64_t delta_bytes_skipped = 0;
    std::uint64_t delta_bytes_skipped2 = 0;
    std::time_t last_read_time = 0;
    std::time_t last_read_time2 = 0;
    bool marked_for_close = false;  // reported once more, then gone
    bool sr2_stat = false;          // of the second stream
};

class stats_list_t {
  public:
    // Counts a read of `path`: bytes read and skipped, added with their sign. Opens a closed entry again. The bytes of
    // an entry's first read are in its totals only, not in its deltas.
    void update(const std::string& path, std::int32_t bytes_read, std::int32_t bytes_skipped, bool sr2);

    // Closes the entry, if there is one.
    void close(const std::string& path, bool sr2);

    // Copies of all entries, the oldest first. Closed ones are due to go with the report that is made of the copies.
    std::vector<stats_thr_entry_t> report();

    // What report() returned has reached the controller: takes that much off the deltas and drops the entries that were
    // closed then and still are, with nothing counted since.
    void reported(const std::vector<stats_thr_entry_t>& entries);

    bool is_empty() const { return list_empty(list_); }
    void clear();

  private:
    using entry_ptr = std::shared_ptr<stats_thr_entry_t>;

    stats_thr_entry_t* _find(const std::string& path, bool sr2) REQUIRES(mutex_);
    void _drop_closed() REQUIRES(mutex_);

    mutex_t mutex_;  // also guards what the lists' elements hold
    list_t<entry_ptr> list_;
    list_t<entry_ptr> delete_list_;  // entries that go with the next successful report
    // The same by path, for each stream: a read must not cost a walk.
    std::unordered_map<std::string, entry_ptr> by_path_[2] GUARDED_BY(mutex_);
};

}  // namespace mirador
