// SPDX-License-Identifier: Apache-2.0
// Any text in the place of the block-list script's results. What was read is written down again in the simplest form
// and read once more: the same must come out, and a range that passes the check must lie within the disk.
#include <string>

#include "appliance/exporter/cbt_results.h"
#include "appliance/lib/corcbt.h"
#include "tests/fuzz/memory_file.h"

using namespace mirador;

namespace {

constexpr std::int64_t disk_size = 1 << 30;

struct results_t {
    cbt_extent_list_t list;
    std::string changeid;
    bool valid = false;
};

results_t read(const std::uint8_t* data, std::size_t size, bool changeid_only) {
    static memory_file_t file;
    file.fill(data, size);
    const file_ptr stream(std::fopen(file.path().c_str(), "re"));
    cor_assert(stream);
    results_t results;
    results.valid = _cbt_read_results(stream.get(), changeid_only, &results.list, &results.changeid) == nullptr;
    return results;
}

std::string written(const results_t& results) {
    std::string text = "changeid: " + results.changeid + "\n";
    for (const cbt_extent_data_t& extent : results.list)
        text += "length: " + std::to_string(extent.length) + "\nstart: " + std::to_string(extent.start) + "\n";
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const results_t results = read(data, size, false);
    const results_t only_id = read(data, size, true);
    cor_assert(only_id.valid == results.valid && only_id.list.empty());
    if (!results.valid)
        return 0;
    cor_assert(only_id.changeid == results.changeid);

    const std::string text = written(results);
    const results_t again = read(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(), false);
    cor_assert(again.valid && again.changeid == results.changeid && again.list.size() == results.list.size());
    for (std::size_t i = 0; i < results.list.size(); i++) {
        const std::int64_t start = results.list[i].start;
        const std::int64_t length = results.list[i].length;
        cor_assert(start >= 0 && length >= 0 && again.list[i].start == start && again.list[i].length == length);
    }
    if (cbt_check_extents(results.list, disk_size) != nullptr)
        return 0;
    std::int64_t end = 0;
    for (const cbt_extent_data_t& extent : results.list) {
        const std::int64_t start = extent.start;
        cor_assert(start >= end);
        end = start + extent.length;
        cor_assert(end > start && end <= disk_size && start % 512 == 0 && end % 512 == 0);
    }
    return 0;
}
