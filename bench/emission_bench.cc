// SPDX-License-Identifier: Apache-2.0
// How fast the device-mapper table of a large disk is written, and what memory that takes. Needs root, for the loop
// devices, and TMPDIR on a tmpfs with room for the largest table (0.6 GB).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): mkdtemp
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "appliance/lib/loopdev.h"
#include "appliance/lib/table_file.h"
#include "appliance/mounter/vmdkmount.h"
#include "bench/synthetic_disk.h"
#include "vmware/lib/vmdk/chain_check.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

// A datastore directory of its own, removed in the end. The mount roots are pointed at it.
class datastore_t {
  public:
    datastore_t() {
        const char* tmp = std::getenv("TMPDIR");
        root_ = std::string(tmp == nullptr ? "/tmp" : tmp) + "/emission.XXXXXX";
        if (mkdtemp(root_.data()) == nullptr)
            std::perror(root_.c_str());
        std::filesystem::create_directories(directory());
        datastore_mount_points.assign({root_ + "/direct", root_ + "/ordinary"});
    }
    datastore_t(const datastore_t&) = delete;
    datastore_t& operator=(const datastore_t&) = delete;
    ~datastore_t() {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    std::string directory() const { return root_ + "/direct/store"; }
    std::string table_path() const { return root_ + "/table"; }

  private:
    std::string root_;
};

// A line of /proc/self/status, in KiB.
std::int64_t status_kib(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(name + ":"))
            return std::stoll(line.substr(name.size() + 1));
    }
    return -1;
}

// From here on the peak counts anew, and memory that is free counts as given back.
void reset_peak() {
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";
}

errdesc_t* open_disk(const std::string& path, vmdkdesc_t* disk) {
    RETURN_IF_ERROR(vmdk_open_checked(path, descriptor_role_t::head, disk));
    RETURN_IF_ERROR(vmdk_get_ancestors(disk, 0, &disk->vmdk_ancestor_array));
    return vmdk_check_chain(disk);
}

// What the daemon does between the descriptor and the call of dmsetup.
errdesc_t* write_table(const std::string& path, vmdkdesc_t* disk, table_file_t* table, vdsk_stats_t* stats) {
    RETURN_IF_ERROR(open_disk(path, disk));
    RETURN_IF_ERROR(table->create());
    errdesc_t* e = vmdk_emit_dm_table(table->stream(), disk, stats);
    vmdk_emit_dm_table_free(disk);
    return e != nullptr ? e : table->finish();
}

errdesc_t* release_loops(const vmdkdesc_t& disk) {
    errdesc_t* first = nullptr;
    for (const vmdkdesc_t* ancestor : disk.vmdk_ancestor_array) {
        for (const auto& extent : ancestor->extentdesc) {
            errdesc_t* e = extent->loopdev.empty() ? nullptr : vdsk_release_loop_dev(extent->loopdev);
            first = first != nullptr ? first : e;
        }
    }
    return first;
}

// Arguments: percent of the grains that the delta holds, layout.
void emit(benchmark::State& state) {
    const datastore_t datastore;
    const std::string path = write_synthetic_disk(datastore.directory(), static_cast<unsigned>(state.range(0)),
                                                  static_cast<layout_t>(state.range(1)));
    vdsk_stats_t stats;
    std::uintmax_t bytes = 0;
    std::int64_t peak_kib = 0;
    for (auto _ : state) {
        state.PauseTiming();
        vmdkdesc_t disk;
        table_file_t table(datastore.table_path());
        reset_peak();
        const std::int64_t before_kib = status_kib("VmRSS");
        state.ResumeTiming();
        errdesc_t* e = write_table(path, &disk, &table, &stats);
        state.PauseTiming();
        peak_kib = status_kib("VmHWM") - before_kib;
        errdesc_t* released = release_loops(disk);
        if (e != nullptr || released != nullptr)
            state.SkipWithError((e != nullptr ? e : released)->string);
        else
            bytes = std::filesystem::file_size(table.path());
        state.ResumeTiming();
    }
    if (stats.sectors != synthetic_disk_t::capacity)
        state.SkipWithError("the table does not cover the disk");
    const auto rate = [](auto number) {
        return benchmark::Counter(static_cast<double>(number), benchmark::Counter::kIsIterationInvariantRate);
    };
    state.counters["grains_per_s"] = rate(synthetic_disk_t::grains);
    state.counters["held_grains_per_s"] = rate(stats.child_sectors / synthetic_disk_t::grainsize);
    state.counters["lines_per_s"] = rate(stats.lines);
    state.counters["lines"] = static_cast<double>(stats.lines);
    state.counters["table_bytes"] = static_cast<double>(bytes);
    state.counters["peak_kib"] = static_cast<double>(peak_kib);
}

BENCHMARK(emit)
    ->ArgNames({"percent", "clustered"})
    ->ArgsProduct({{1, 50}, {static_cast<int>(layout_t::scattered), static_cast<int>(layout_t::clustered)}})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace mirador

BENCHMARK_MAIN();
