// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/controller_thr.h"

#include <ftw.h>
#include <sys/statvfs.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>

#include "appliance/exporter/vm_proxy_table.h"
#include "appliance/lib/vm_proxy_header.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/file_io.h"
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
