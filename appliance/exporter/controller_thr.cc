// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/controller_thr.h"

#include <ftw.h>
#include <sys/statvfs.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

#include "appliance/autodiscover/process_check.h"
#include "appliance/exporter/cnt_cycle.h"
#include "appliance/exporter/crash.h"
#include "appliance/exporter/hv_thr.h"
#include "appliance/exporter/runtime_alerts.h"
#include "appliance/exporter/snapshot_thr.h"
#include "appliance/exporter/vm_proxy_table.h"
#include "appliance/lib/registry.h"
#include "appliance/lib/vm_proxy_header.h"
#include "controller/lib/controller.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/fault_point.h"
#include "lib/file_io.h"
#include "lib/log.h"
#include "lib/startup.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr unsigned sector_shift = 9;

cnt_thr_state_t global_cnt_thr_state;
std::atomic<cnt_brand_t> _vendor_brand_name = BRAND_CORVANTIS;

cnt_thr_state_t& checked_state() {
    cor_assert(global_cnt_thr_state.version == cnt_thr_state_t::version_value);
    cor_assert(global_cnt_thr_state.magic == cnt_thr_state_t::magic_value);
    return global_cnt_thr_state;
}

void change_fs_blocks_used(std::int64_t change) {
    cnt_thr_state_t& state = checked_state();
    const std::int64_t before = state.fs_blocks_used.fetch_add(change, std::memory_order_relaxed);
    cor_assert_text(before >= 0, "fs_blocks_used >= 0");
    cor_assert_text(before + change >= 0, "fs_blocks_used >= 0");
}

constexpr const char* wait_target = "dsfs";
constexpr const char* set_target = "vmfs";
constexpr unsigned error_pause = 1;  // seconds
constexpr unsigned absent_pause = 15;
constexpr std::time_t absent_grace = 120;  // since the thread's start, before an absent controller is worth a warning

// What the thread keeps from one cycle to the next.
struct cnt_thr_life_t {
    std::string gen_id = "0-0";  // the controller's token for the inventory taken over last
    std::time_t start = clock_now();
    bool controller_seen = false;
    bool first_cycle = true;
    bool has_settings = false;  // read once; a read that fails is repeated in the next cycle
    user_folders_t folders;
};

bool is_running() {
    return global_cnt_thr_state.state == CNT_STATE_RUNNING;
}

// One long poll. An answer that differs from the known generation ends the waiting.
void poll_generation(cnt_thr_life_t* life) {
    cnt_thr_state_t& state = global_cnt_thr_state;
    const std::time_t start = clock_now();
    std::string answer;
    errdesc_t* e = controller_fs_sync_wait(wait_target, life->gen_id, 0, &state.interrupt, &answer);
    if (e != nullptr && state.interrupt == 0)
        _errdesc_log(e, ERRDESC_WARNING);
    if (e == nullptr && !answer.empty() && answer != life->gen_id) {
        life->gen_id = answer;
        state.interrupt = 1;
    } else if (state.interrupt == 0 && (e != nullptr || clock_now() - start < error_pause)) {
        clock_sleep(error_pause);  // also after a wait that was none
    }
}

void wait_for_controller(cnt_thr_life_t* life) {
    if (life->controller_seen && clock_now() - life->start > absent_grace) {
        ts_printf("cnt_thr: WARNING: %s is not running\n", "run-controller");
        life->controller_seen = false;
    }
    for (unsigned waited = 0; waited < absent_pause && global_cnt_thr_state.interrupt == 0; waited++)
        clock_sleep(1);
}

void wait_for_generation(cnt_thr_life_t* life) {
    while (global_cnt_thr_state.interrupt == 0) {
        if (!corcontroller_is_running()) {
            wait_for_controller(life);
            continue;
        }
        life->controller_seen = true;
        poll_generation(life);
    }
    global_cnt_thr_state.interrupt = 0;
}

bool read_settings() {
    errdesc_t* e = registry_settings_update();
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_NOTICE);
    return e == nullptr;
}

void report_generation(const std::string& gen_id) {
    if (errdesc_t* e = controller_fs_sync_set(set_target, gen_id))
        _errdesc_log(e, ERRDESC_WARNING);
    else
        ts_printf("cnt_thr: updating mirador genId to %s\n", gen_id.c_str());
}

void cycle(cnt_thr_life_t* life) {
    cnt_thr_state_t& state = global_cnt_thr_state;
    if (std::exchange(life->first_cycle, false)) {
        crash_recover_reset_cbt_vdisk();
        fault_moment("cycle.reset");
        crash_recover_reset_snap_suffix();
    }
    life->has_settings = life->has_settings || read_settings();
    snapshot_state_init();
    if (!cnt_cycle_run({.root = state.namespaceroot, .gen = state.gen, .goes_on = is_running}, &life->folders))
        return;
    state.gen++;
    report_generation(life->gen_id);
}

void cnt_thr() {
    block_signals();
    cnt_thr_state_t& state = checked_state();
    cor_assert(state.state == CNT_STATE_STARTING);
    cor_assert(!state.namespaceroot.empty());
    cnt_thr_life_t life;
    const mutex_lock_t lock(state.mutex);
    state.gen = 0;
    state.state = CNT_STATE_RUNNING;
    while (is_running()) {
        wait_for_generation(&life);
        if (is_running())
            cycle(&life);
    }
    hv_thr_stop_all();
    ts_printf("cnt_thr: stopping\n");
}

int count_blocks_iter(const char* path, const struct stat*, int type, FTW*) {
    if (type != FTW_F)
        return 0;
    std::unique_ptr<vm_proxy_header_t> header;
    if (errdesc_t* e = vm_proxy_read_header_checked(path, &header))
        _errdesc_log(e, ERRDESC_WARNING);
    else
        inc_fs_blocks_used(static_cast<std::int64_t>(header->statb.blocks));
    return 0;
}

// Counts the blocks of the headers below the root, which an earlier run left there.
void count_existing_headers(const std::string& root) {
    constexpr int open_directories = 10;
    if (nftw(root.c_str(), count_blocks_iter, open_directories, FTW_PHYS | FTW_MOUNT) != 0)
        _errdesc_log(errdesc_set_str(errno, root), ERRDESC_WARNING);
}

}  // namespace

void cnt_thr_set_up(const std::string& namespaceroot, bool count_existing) {
    cnt_thr_state_t& state = global_cnt_thr_state;
    state.version = cnt_thr_state_t::version_value;
    state.magic = cnt_thr_state_t::magic_value;
    state.namespaceroot = namespaceroot;
    struct statvfs stbuf {};
    cor_assert(statvfs(namespaceroot.c_str(), &stbuf) == 0);
    state.fs_blocks_used = 0;
    state.fs_sectors_per_block = static_cast<std::int64_t>(stbuf.f_bsize >> sector_shift);
    cor_assert(state.fs_sectors_per_block > 0);
    if (count_existing)
        count_existing_headers(namespaceroot);
    vm_proxy_api_init();
    set_vendor_brand_name();
}

void cnt_thr_start() {
    cnt_thr_state_t& state = checked_state();
    ts_printf("cnt_thr_start\n");
    state.interrupt = 0;
    state.state = CNT_STATE_STARTING;
    runtime_alerts_start();
    state.thr = std::thread(cnt_thr);
}

void cnt_thr_stop() {
    cnt_thr_state_t& state = checked_state();
    while (state.state == CNT_STATE_STARTING)  // the thread would take the order to stop for its own start
        std::this_thread::yield();
    state.state = CNT_STATE_STOPPING;
    state.interrupt = 1;
    state.thr.join();
    runtime_alerts_stop();
    state.state = CNT_STATE_STOPPED;
    ts_printf("cnt_thr_stop\n");
}

const std::string& cnt_thr_namespaceroot() {
    return checked_state().namespaceroot;
}

void inc_fs_blocks_used(std::int64_t blocks) {
    change_fs_blocks_used(blocks);
}

void dec_fs_blocks_used(std::int64_t blocks) {
    change_fs_blocks_used(-blocks);
}

std::int64_t get_fs_blocks_used() {
    const cnt_thr_state_t& state = checked_state();
    return state.fs_blocks_used.load(std::memory_order_relaxed) / state.fs_sectors_per_block;
}

void set_vendor_brand_name() {
    const file_ptr file(std::fopen(tool_paths().brand_file.c_str(), "re"));
    if (file == nullptr)
        return;
    cnt_brand_t brand = BRAND_CORVANTIS;
    std::array<char, path_size> line{};
    while (std::fgets(line.data(), static_cast<int>(line.size()), file.get()) != nullptr)
        if (std::strstr(line.data(), "vendor.name") != nullptr && std::strstr(line.data(), "nexa") != nullptr)
            brand = BRAND_NEXA;
    _vendor_brand_name = brand;
}

cnt_brand_t vendor_brand_name() {
    return _vendor_brand_name;
}

}  // namespace mirador
