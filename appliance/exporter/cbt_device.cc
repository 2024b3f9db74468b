// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cbt_device.h"

#include <sys/stat.h>

#include "appliance/exporter/cbt_files.h"
#include "appliance/lib/corcbt_table.h"
#include "appliance/lib/loopdev.h"
#include "appliance/lib/registry.h"
#include "appliance/lib/table_file.h"
#include "appliance/mounter/vdsk_mapping.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/fault_point.h"
#include "lib/log.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

void release(std::string* loopdev) {
    if (loopdev->empty())
        return;
    if (errdesc_t* e = release_loop_dev(*loopdev))
        _errdesc_log(e, ERRDESC_ERROR);
    loopdev->clear();
}

// A line of the table, as debugging tells it.
std::string line_of(std::int64_t position, std::int64_t length, const std::string& loopdev, std::int64_t offset) {
    return cor_format("%jd %jd linear %s %jd\n", static_cast<std::intmax_t>(position / cbt_sector_size),
                      static_cast<std::intmax_t>(length / cbt_sector_size), loopdev.c_str(),
                      static_cast<std::intmax_t>(offset / cbt_sector_size));
}

void write_extents(const cbt_extent_list_t& extents, std::int64_t position, const std::string& main_loop_dev,
                   table_file_t* table) {
    const bool debug = get_reg_settings()->cbt_debug_enabled;
    for (const cbt_extent_data_t& extent : extents) {
        if (debug) {
            ts_printf("dm cbt_item start: %jd\n", static_cast<std::intmax_t>(extent.start));
            ts_printf("   dm cbt_item length: %jd\n", static_cast<std::intmax_t>(extent.length));
            ts_printf("dm table_buf: %s", line_of(position, extent.length, main_loop_dev, extent.start).c_str());
        }
        write_dm_table_entry(position, extent.length, main_loop_dev, extent.start, table);
        position += extent.length;
    }
}

void write_padding(std::int64_t position, std::int64_t length, const std::string& zero_loop_dev, table_file_t* table) {
    if (get_reg_settings()->cbt_debug_enabled)
        ts_printf("dm table_buf for pad extent: %s\n", line_of(position, length, zero_loop_dev, 0).c_str());
    write_dm_table_entry(position, length, zero_loop_dev, 0, table);
}

// Head, changed ranges, padding.
errdesc_t* make_dmsetup_cbt_table(const cbt_file_header_t& header, const cbt_extent_list_t& extents,
                                  std::int64_t missing_sectors, cbt_device_t* device, table_file_t* table) {
    RETURN_IF_ERROR(table->create());
    if (get_reg_settings()->cbt_debug_enabled)
        table->keep();
    write_dm_table_entry(0, header.block_data_offset, device->cbt_hdr_loop_dev, 0, table);
    write_extents(extents, header.block_data_offset, device->cbt_main_loop_dev, table);
    if (missing_sectors > 0)
        write_padding(header.corcbt_file_size, missing_sectors * cbt_sector_size, device->cbt_zero_loop_dev, table);
    device->vdskdesc.stats.lines = 1 + extents.size() + (missing_sectors > 0 ? 1 : 0);
    return table->finish();
}

// A table by hand, for diagnosis. It decides what the export's reader gets, so it counts only where nobody but root can
// have put it.
bool find_test_table(std::string* path) {
    *path = tool_paths().tmp_dir + "/dmsetup_cbt_table_test";
    struct stat st {};
    return lstat(path->c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == 0 &&
           (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

cbt_device_t::~cbt_device_t() {
    const errdesc_keeper_t keep;
    vdsk_remove_mapping(&vdskdesc);
    fault_moment("cbt.unmapped");
    release(&cbt_main_loop_dev);
    release(&cbt_hdr_loop_dev);
    release(&cbt_zero_loop_dev);
    vdsk_teardown(&vdskdesc);
}

errdesc_t* make_cbt_dm_device(const cbt_file_header_t& header, const cbt_extent_list_t& extents, std::int64_t promised,
                              const std::string& dm_name, cbt_device_t* device) {
    cor_assert(!device->cbt_hdr_loop_dev.empty() && !device->cbt_main_loop_dev.empty());
    cor_assert(promised >= header.corcbt_file_size);
    const std::int64_t missing_sectors = (promised - header.corcbt_file_size + cbt_sector_size - 1) / cbt_sector_size;
    if (missing_sectors > 0)
        RETURN_IF_ERROR(make_cbt_zero_dev(missing_sectors, dm_name, &device->cbt_zero_loop_dev));
    RETURN_IF_ERROR(fault_point("cbt.zeros"));

    table_file_t table(make_cbt_path(tool_paths().tmp_dir, dm_name, "dmsetup_table"));
    RETURN_IF_ERROR(make_dmsetup_cbt_table(header, extents, missing_sectors, device, &table));
    RETURN_IF_ERROR(fault_point("cbt.table"));

    std::string test_table;
    if (!find_test_table(&test_table))
        return vdsk_load_mapping(dm_name, table.path(), &device->vdskdesc);
    ts_printf("make_cbt_dm_device using: %s\n", test_table.c_str());
    device->vdskdesc.stats.lines = 0;  // it is loaded as it stands
    return vdsk_load_mapping(dm_name, test_table, &device->vdskdesc);
}

}  // namespace mirador
