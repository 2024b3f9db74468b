// SPDX-License-Identifier: Apache-2.0
#include "lib/fs_info.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "lib/cor_assert.h"
#include "lib/file_io.h"
#include "lib/spawn.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

// The index is the type.
constexpr std::array<fs_type_entry_t, 10> filesys_table = {{
    {FS_TYPE_UNKNOWN, VOL_UNKNOWN, "unknown"},
    {FS_TYPE_VFAT, VOL_FILESYS, "vfat"},
    {FS_TYPE_NTFS, VOL_FILESYS, "ntfs"},
    {FS_TYPE_EXT2, VOL_FILESYS, "ext2"},
    {FS_TYPE_EXT3, VOL_FILESYS, "ext3"},
    {FS_TYPE_EXT4, VOL_FILESYS, "ext4"},
    {FS_TYPE_UFS, VOL_FILESYS, "ufs"},
    {FS_TYPE_LVM2, VOL_LVM, "LVM2_member"},
    {FS_TYPE_SWAP, VOL_UNMOUNTABLE, "swap"},
    {FS_TYPE_MD, VOL_LVM, "raid"},
}};

// The tool's exit status for a device whose content it does not know.
constexpr errnum_t status_nothing_known = 4;

const std::string& vol_id_tool() {
    static const std::string tool = [] {
        const tool_paths_t& paths = tool_paths();
        if (access(paths.vol_id.c_str(), X_OK) == 0)
            return paths.vol_id;
        cor_assert(access(paths.vol_id_fallback.c_str(), X_OK) == 0);
        return paths.vol_id_fallback;
    }();
    return tool;
}

// The first word that `fd` yields; empty when there is none. Closes it.
std::string read_word(int fd) {
    std::array<char, 256> word{};
    std::FILE* stream = fdopen(fd, "r");
    if (stream == nullptr) {
        cor_safe_close(&fd);
        return {};
    }
    const bool found = std::fscanf(stream, "%255s", word.data()) == 1;
    cor_safe_fclose(&stream);
    return found ? word.data() : "";
}

errdesc_t* run_vol_id(const std::string& device, const fs_type_entry_t** entry) {
    int out = -1;
    pid_t pid = -1;
    RETURN_IF_ERROR(spawn({vol_id_tool(), "-t", device}, SPAWN_PIPE_FROM_CHILD, &out, nullptr, &pid, 0));
    *entry = &fs_name_to_entry(read_word(out));
    errdesc_t* e = spawn_wait(pid, 0, vol_id_tool(), spawn_tool_timeout);
    return e != nullptr && e->number == status_nothing_known ? nullptr : e;
}

}  // namespace

const fs_type_entry_t& fs_type_to_entry(fs_type_t fs_type) {
    cor_assert(fs_type >= FS_TYPE_UNKNOWN && fs_type <= FS_TYPE_MD);
    return filesys_table[fs_type];
}

const fs_type_entry_t& fs_name_to_entry(std::string_view text) {
    for (const fs_type_entry_t& entry : filesys_table) {
        if (text.find(entry.name) != std::string_view::npos)
            return entry;
    }
    return fs_type_to_entry(FS_TYPE_UNKNOWN);
}

errdesc_t* get_vol_fs_type(const std::string& device, vol_type_t* vol_type, fs_type_t* fs_type) {
    cor_assert(vol_type != nullptr);
    cor_assert(fs_type != nullptr);
    const fs_type_entry_t* entry = nullptr;
    errdesc_t* e = run_vol_id(device, &entry);
    *vol_type = e == nullptr ? entry->vol_type : VOL_UNKNOWN;
    *fs_type = e == nullptr ? entry->fs_type : FS_TYPE_UNKNOWN;
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_WARNING);
    return e;
}

std::uint32_t fs_ino_hash(std::string_view text) {
    std::uint32_t hash = 5381;
    for (const char c : text)
        hash = (hash * 33) ^ static_cast<std::uint32_t>(static_cast<signed char>(c));
    return hash;
}

}  // namespace mirador
