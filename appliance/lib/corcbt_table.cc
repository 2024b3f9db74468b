// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/corcbt_table.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>

#include "appliance/lib/devmap.h"
#include "appliance/lib/loopdev.h"
#include "appliance/lib/registry.h"
#include "lib/cor_string.h"
#include "lib/log.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr const char* name_prefix = "cbt";
constexpr const char* merge_suffix = "dm_table_merge";
constexpr const char* import_suffix = "dm_table_import";

bool debugs() {
    return get_reg_settings()->cbt_debug_enabled;
}

bool is_whole_sectors(std::int64_t size) {
    return size >= 0 && size % cbt_sector_size == 0;
}

errdesc_t* get_file_size(const std::string& path, std::int64_t* size) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return errdesc_set_str(errno, path);
    *size = st.st_size;
    return nullptr;
}

// An image of the disk as it was: in whole sectors and not larger than the disk is now.
errdesc_t* get_flat_size(const std::string& flat_file, const cbt_file_header_t& header, std::int64_t* size) {
    RETURN_IF_ERROR(get_file_size(flat_file, size));
    if (is_whole_sectors(*size) && is_whole_sectors(header.flat_file_size) && *size <= header.flat_file_size)
        return nullptr;
    return errdesc_set_fmt(EINVAL, "%s has %jd bytes, its disk %jd", flat_file.c_str(),
                           static_cast<std::intmax_t>(*size), static_cast<std::intmax_t>(header.flat_file_size));
}

errdesc_t* new_table(const char* suffix, std::string* name, std::unique_ptr<table_file_t>* table) {
    dm_mk_unique_name(name_prefix, name);
    *table = std::make_unique<table_file_t>(make_cbt_path(tool_paths().tmp_dir, *name, suffix));
    RETURN_IF_ERROR((*table)->create());
    if (debugs())
        (*table)->keep();
    return nullptr;
}

// Maps the bytes from `start` to `end` as the flat image has them, zeros behind its end.
struct flat_part_t {
    const std::string& loopdev;
    std::int64_t size;
    bool debug;

    void write(std::int64_t start, std::int64_t end, table_file_t* table) const {
        if (debug && start < end)
            ts_printf("dm adding extent to flat at %jd\n", static_cast<std::intmax_t>(start));
        const std::int64_t mapped = std::clamp(size, start, end);
        if (mapped > start)
            write_dm_table_entry(start, mapped - start, loopdev, start, table);
        if (end > mapped)
            write_dm_table_zeros(mapped, end - mapped, table);
    }
};

void write_merge_lines(const flat_part_t& flat, const std::string& corcbt_loopdev, const cbt_extent_list_t& list,
                       const cbt_file_header_t& header, table_file_t* table) {
    std::int64_t pos = 0;
    std::int64_t data = header.block_data_offset;
    for (const cbt_extent_data_t& extent : list) {
        flat.write(pos, extent.start, table);
        pos = extent.start;
        if (flat.debug)
            ts_printf("dm adding extent to corcbt at %jd\n", static_cast<std::intmax_t>(pos));
        write_dm_table_entry(pos, extent.length, corcbt_loopdev, data, table);
        data += extent.length;
        pos += extent.length;
    }
    flat.write(pos, header.flat_file_size, table);
}

// What both devices begin with: a file that can be laid over a disk.
errdesc_t* read_checked(const std::string& corcbt_file, cbt_file_header_t* header, cbt_extent_list_t* list) {
    std::int64_t size = 0;
    RETURN_IF_ERROR(read_corcbt_header(corcbt_file, header, list));
    RETURN_IF_ERROR(get_file_size(corcbt_file, &size));
    return check_corcbt(*header, *list, size);
}

// Loads the table. The name is noted where the device is there, or may be: the tool was ended from outside.
errdesc_t* load(const std::string& name, const table_file_t& table, merged_corcbt_t* device) {
    errdesc_t* e = define_devmap_device(table.path(), name, &device->dm_device);
    if (e == nullptr || e->number == ETIME || e->number == EINVAL)
        device->name = name;
    return e;
}

errdesc_t* build_merged(const std::string& flat_file, const std::string& corcbt_file, merged_corcbt_t* merged) {
    cbt_file_header_t header;
    cbt_extent_list_t list;
    std::string name;
    std::unique_ptr<table_file_t> table;
    RETURN_IF_ERROR(read_checked(corcbt_file, &header, &list));
    RETURN_IF_ERROR(define_loop_dev(flat_file, &merged->flat_loopdev));
    RETURN_IF_ERROR(define_loop_dev(corcbt_file, &merged->corcbt_loopdev));
    RETURN_IF_ERROR(create_devmap_table_merge(flat_file, merged->flat_loopdev, merged->corcbt_loopdev, list, header,
                                              &name, &table));
    return load(name, *table, merged);
}

errdesc_t* build_import(const std::string& flat_file, const std::string& corcbt_file, merged_corcbt_t* import) {
    cbt_file_header_t header;
    cbt_extent_list_t list;
    std::int64_t size = 0;
    std::string name;
    std::unique_ptr<table_file_t> table;
    RETURN_IF_ERROR(read_checked(corcbt_file, &header, &list));
    RETURN_IF_ERROR(get_flat_size(flat_file, header, &size));
    if (size < header.flat_file_size && truncate(flat_file.c_str(), header.flat_file_size) != 0)
        return errdesc_set_str(errno, flat_file);
    if (list.empty())
        return nullptr;
    RETURN_IF_ERROR(vdsk_assign_next_loop_dev(flat_file, false, loopdev_timeout, &import->flat_loopdev));
    RETURN_IF_ERROR(create_devmap_table_import(import->flat_loopdev, list, header, &name, &table));
    return load(name, *table, import);
}

// Passes an error up when what was built so far is taken down again.
errdesc_t* release_after(errdesc_t* e, merged_corcbt_t* merged) {
    if (e == nullptr)
        return nullptr;
    const errdesc_keeper_t keep;
    release_merged_corcbt(merged);
    return e;
}

}  // namespace

void write_dm_table_entry(std::int64_t start, std::int64_t length, const std::string& device, std::int64_t offset,
                          table_file_t* table) {
    const std::string line = cor_format("%jd %jd linear %s %jd\n", static_cast<std::intmax_t>(start / cbt_sector_size),
                                        static_cast<std::intmax_t>(length / cbt_sector_size), device.c_str(),
                                        static_cast<std::intmax_t>(offset / cbt_sector_size));
    if (debugs())
        ts_printf("writing dm_table_entry: %s", line.c_str());
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), table->stream()));
}

void write_dm_table_zeros(std::int64_t start, std::int64_t length, table_file_t* table) {
    std::fprintf(table->stream(), "%" PRId64 " %" PRId64 " zero\n", start / cbt_sector_size, length / cbt_sector_size);
}

std::string make_cbt_path(const std::string& dir, const std::string& name, const std::string& suffix) {
    return cor_format_path("%s/%s.%s", dir.c_str(), name.c_str(), suffix.c_str());
}

errdesc_t* create_devmap_table_merge(const std::string& flat_file, const std::string& flat_loopdev,
                                     const std::string& corcbt_loopdev, const cbt_extent_list_t& list,
                                     const cbt_file_header_t& header, std::string* name,
                                     std::unique_ptr<table_file_t>* table) {
    std::int64_t size = 0;
    RETURN_IF_ERROR(get_flat_size(flat_file, header, &size));
    RETURN_IF_ERROR(cbt_check_extents(list, header.flat_file_size));
    if (!list.empty() && !is_whole_sectors(header.block_data_offset))
        return errdesc_set_fmt(EINVAL, "changed data begin at byte %jd",
                               static_cast<std::intmax_t>(header.block_data_offset));
    RETURN_IF_ERROR(new_table(merge_suffix, name, table));
    const bool debug = debugs();
    if (debug) {
        ts_printf("defining dm table flat_loop_dev: %s\n", flat_loopdev.c_str());
        ts_printf("defining dm table corcbt_loop_dev: %s\n", corcbt_loopdev.c_str());
        ts_printf("create_devmap_table_merge, using devmap_table: %s\n", (*table)->path().c_str());
    }
    write_merge_lines({flat_loopdev, size, debug}, corcbt_loopdev, list, header, table->get());
    return (*table)->finish();
}

errdesc_t* create_devmap_table_import(const std::string& flat_loopdev, const cbt_extent_list_t& list,
                                      const cbt_file_header_t& header, std::string* name,
                                      std::unique_ptr<table_file_t>* table) {
    RETURN_IF_ERROR(cbt_check_extents(list, header.flat_file_size));
    RETURN_IF_ERROR(new_table(import_suffix, name, table));
    std::int64_t pos = 0;
    for (const cbt_extent_data_t& extent : list) {
        write_dm_table_entry(pos, extent.length, flat_loopdev, extent.start, table->get());
        pos += extent.length;
    }
    return (*table)->finish();
}

errdesc_t* get_merged_corcbt(const std::string& flat_file, const std::string& corcbt_file, merged_corcbt_t* merged) {
    return release_after(build_merged(flat_file, corcbt_file, merged), merged);
}

errdesc_t* setup_import_corcbt(const std::string& flat_file, const std::string& corcbt_file, merged_corcbt_t* import) {
    return release_after(build_import(flat_file, corcbt_file, import), import);
}

void release_merged_corcbt(merged_corcbt_t* merged) {
    if (!merged->name.empty())
        release_devmap_device(merged->name);
    for (const std::string* loopdev : {&merged->flat_loopdev, &merged->corcbt_loopdev}) {
        if (!loopdev->empty())
            if (errdesc_t* e = release_loop_dev(*loopdev))
                _errdesc_log(e, ERRDESC_ERROR);
    }
    *merged = {};
}

}  // namespace mirador
