// SPDX-License-Identifier: Apache-2.0
// Device-mapper tables over changed-block files, with the loop devices under them.
//
// Merged: a flat image of before and the changed-block file make the disk as it is now, to be read. Imported: a device
// that stands for the changed parts of a flat image, back to back, as the data in a changed-block file do; what is
// copied onto it from there changes the image in place.
//
// Work files lie in the directory for temporary files, for the owner only, and go when the device is loaded; while
// changed-block debugging is on they stay.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "appliance/lib/corcbt.h"
#include "appliance/lib/table_file.h"
#include "lib/errdesc.h"

namespace mirador {

// Adds the line that maps `length` bytes of a device, from byte `offset` of it on, to the table's bytes from `start`
// on. All three in bytes, written in sectors and rounded towards zero: whoever calls has checked them. A fault is told
// by the table's finish(): errno with the table's path.
void write_dm_table_entry(std::int64_t start, std::int64_t length, const std::string& device, std::int64_t offset,
                          table_file_t* table);

// The same for bytes that are zeros.
void write_dm_table_zeros(std::int64_t start, std::int64_t length, table_file_t* table);

// "<dir>/<name>.<suffix>". Asserted: shorter than 4096 characters.
std::string make_cbt_path(const std::string& dir, const std::string& name, const std::string& suffix);

// Chooses a device name and writes its merge table into a new file: changed ranges lie on `corcbt_loopdev`, all others
// on `flat_loopdev`, to which `flat_file` is bound; what the disk has grown by since that was made is zeros where it
// has not changed. The table is linear in the list, two lines an extent and two more at most. Errors: those of
// cbt_check_extents; EINVAL when the header's sizes or the flat file's are not in whole sectors or the flat file is
// larger than the disk; errno with the path of the flat file or the table.
[[nodiscard]] errdesc_t* create_devmap_table_merge(const std::string& flat_file, const std::string& flat_loopdev,
                                                   const std::string& corcbt_loopdev, const cbt_extent_list_t& list,
                                                   const cbt_file_header_t& header, std::string* name,
                                                   std::unique_ptr<table_file_t>* table);

// The same for an import table: the changed ranges of `flat_loopdev` in the list's order, a line each. Errors: those of
// cbt_check_extents, errno with the table's path.
[[nodiscard]] errdesc_t* create_devmap_table_import(const std::string& flat_loopdev, const cbt_extent_list_t& list,
                                                    const cbt_file_header_t& header, std::string* name,
                                                    std::unique_ptr<table_file_t>* table);

// A device and what lies under it; empty where there is none.
struct merged_corcbt_t {
    std::string name;
    std::string dm_device;  // "/dev/mapper/<name>"
    std::string flat_loopdev;
    std::string corcbt_loopdev;
};

// Makes the merged device, read-only. After an error nothing of it is left. Errors: those of read_corcbt_header,
// check_corcbt, create_devmap_table_merge, define_loop_dev, define_devmap_device.
[[nodiscard]] errdesc_t* get_merged_corcbt(const std::string& flat_file, const std::string& corcbt_file,
                                           merged_corcbt_t* merged);

// Makes the import device over a flat image, which first grows to the size of the disk as it is now. Copy onto it the
// `total_change_size` bytes of the changed-block file that begin at `block_data_offset` and flush it. Without changes
// there is no device: *import stays empty. After an error no device is left, but the image may have grown. Errors:
// those of read_corcbt_header, check_corcbt, vdsk_assign_next_loop_dev, define_devmap_device; EINVAL when the image is
// larger than the disk.
[[nodiscard]] errdesc_t* setup_import_corcbt(const std::string& flat_file, const std::string& corcbt_file,
                                             merged_corcbt_t* import);

// Removes the device, by force where it is in use, then releases the loop devices; a failure is logged at level 3 and
// the rest is done all the same.
void release_merged_corcbt(merged_corcbt_t* merged);

}  // namespace mirador
