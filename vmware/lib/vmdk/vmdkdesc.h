// SPDX-License-Identifier: Apache-2.0
// A virtual disk's record: what its text descriptor says (filled by vmdk_parse), and what an opened disk holds besides
// (filled by vmdk_open and its kin): extent files, sparse headers, grain directories, the chain of parents.
//
// A record belongs to one thread at a time. Sizes and offsets are in 512-byte sectors unless a comment says otherwise.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lib/file_io.h"
#include "vmware/lib/vmdk/sparse_format.h"

namespace mirador {

inline constexpr std::uint32_t sector_size = 512;  // bytes

// The kind of disk. The numbers also stand in the virtual disk header, so they are fixed.
enum createtype_t : std::uint32_t {
    CT_UNKNOWN = 0,
    CT_MONOLITHIC_SPARSE = 1,
    CT_VMFS_SPARSE = 2,
    CT_MONOLITHIC_FLAT = 3,
    CT_VMFS = 4,
    CT_TWOGB_MAX_EXTENT_SPARSE = 5,
    CT_TWOGB_MAX_EXTENT_FLAT = 6,
    CT_FULL_DEVICE = 7,
    CT_VMFS_RAW = 8,
    CT_PARTITIONED_DEVICE = 9,
    CT_VMFS_RAW_DEVICE_MAP = 10,
    CT_VMFS_PASSTHROUGH_RAW_DEVICE_MAP = 11,
    CT_STREAM_OPTIMIZED = 12,
    CT_SE_SPARSE = 13,
};

enum extentmode_t : std::uint32_t { EM_RW = 0, EM_RDONLY = 1, EM_NOACCESS = 2 };

// The kind of an extent: one bit each, so that one mask tests for several.
enum extenttype_t : std::uint32_t {
    ET_UNKNOWN = 1,
    ET_FLAT = 2,
    ET_SPARSE = 4,
    ET_ZERO = 8,
    ET_VMFS = 16,
    ET_VMFSSPARSE = 32,
    ET_VMFSRDM = 64,
    ET_VMFSRAW = 128,
    ET_SESPARSE = 256,
};
inline constexpr std::uint32_t et_sparse_mask = ET_SPARSE | ET_VMFSSPARSE | ET_SESPARSE;
inline constexpr std::uint32_t et_flat_mask = ET_FLAT | ET_VMFS;

enum adaptertype_t : std::uint32_t { AT_IDE = 0, AT_BUSLOGIC = 1, AT_LSILOGIC = 2, AT_LEGACYESX = 3 };

// An opened sparse extent's table of grain tables.
struct graindir_t {
    static constexpr std::uint32_t magic_value = 0x564d444c;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = 0;
    std::uint32_t version = 0;
    std::uint32_t capacity = 0;
    std::uint32_t grainsize = 0;
    std::uint32_t numgtespergt = 0;       // entries in a grain table
    std::uint32_t gd_entry_count = 0;     //
    std::vector<std::uint32_t> gd_entry;  // sector of each grain table; 0: no grain of it is allocated
    std::uint64_t gt_entry_count = 0;     // gd_entry_count x numgtespergt
    std::uint64_t gt_entry_total = 0;     // allocated grains met so far while tables were read
};

// One extent line, and the file behind it once opened.
struct extentdesc_t {
    std::uint32_t magicnumber = 0;
    std::uint32_t version = 0;  // of a six-field line: where the data begins inside its file
    extentmode_t mode = EM_RW;
    std::uint64_t extentsize = 0;
    extenttype_t extenttype = ET_UNKNOWN;
    std::string extentname;          // as written, quotes removed; below 1024 characters
    std::uint64_t extentoffset = 0;  // where the extent begins in the virtual disk
    union {
        sparsehdr_t sparse;
        cowdiskhdr_t cow;
    } hdr{};
    graindir_t graindir;
    std::uint32_t hdr_size = 0;  // bytes of hdr that the file had; 0: not read yet
    unique_fd fd;
    std::uint64_t file_sectors = 0;  // whole sectors of the opened file
    std::string loopdev;             // loop device bound to the file; empty: none
};

// The disk database: the "ddb." values.
struct diskdb_t {
    static constexpr std::size_t text_size = 50;

    std::uint32_t magicnumber = 0;
    std::uint32_t hwversion = 0;
    std::uint32_t cylinders = 0;
    std::uint32_t heads = 0;
    std::uint32_t sectors = 0;
    adaptertype_t adaptertype = AT_IDE;
    std::uint32_t toolsversion = 0;
    std::uint32_t encoding = 0;  // 0: UTF-8
    std::string uuid;            // with its quotes, cut at 50 bytes
    std::string longcontentid;   // the same
};

struct vmdkdesc_t {
    static constexpr std::uint32_t magic_value = 0xbeeeeeed;  // set once the descriptor is open
    static constexpr std::uint32_t no_parent = 0xffffffff;    // pcid of a base disk
    static constexpr std::size_t max_extents = 1024;

    std::uint32_t magic = 0;
    std::uint32_t version = 0;
    std::uint32_t encoding = 0;  // 0: UTF-8, the only one accepted
    std::uint32_t cid = 0;       // content id
    std::uint32_t pcid = 0;      // content id of the parent
    createtype_t createtype = CT_UNKNOWN;
    std::string filename;                                   // preferred path of the descriptor, once open
    std::optional<std::string> parentfilenamehint;          // quotes removed
    std::vector<std::unique_ptr<extentdesc_t>> extentdesc;  // in file order
    diskdb_t diskdb;
    std::string dirname;               // directory of the descriptor
    std::vector<std::uint32_t> gtbuf;  // the grain table read last; empty: a disk without sparse extents
    // The opened disk and its parents: entry 0 is this disk, the last one the base. Empty until vmdk_get_ancestors.
    std::vector<vmdkdesc_t*> vmdk_ancestor_array;
    std::unique_ptr<vmdkdesc_t> parent;  // owns the next disk of the chain
    bool thin_provisioned = false;
    std::optional<std::string> change_track_path;  // quotes as written
    bool datastore_direct = false;                 // reached through the direct datastore mount
    // Read from a datastore, where others write, or named by a disk that was: may name files on datastores only. Noted
    // when the descriptor is read, for its path may lead elsewhere by the time its extents are opened.
    bool on_datastore = false;

    std::uint32_t extentdesccount() const { return static_cast<std::uint32_t>(extentdesc.size()); }
};

// Releases everything the record holds and leaves it as new.
void vmdk_free_vmdkdesc(vmdkdesc_t* vmdkdesc);

// Prints the record for debugging; "vmdkdesc is NULL" for none.
void vmdk_dump_disk_desc(const vmdkdesc_t* vmdkdesc, std::FILE* stream);

}  // namespace mirador
