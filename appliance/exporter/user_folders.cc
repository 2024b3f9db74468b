// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/user_folders.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <utility>

#include "appliance/exporter/vm_state.h"
#include "appliance/lib/shadow_names.h"
#include "controller/lib/inventory_check.h"
#include "lib/errdesc.h"
#include "lib/file_tree.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr mode_t folder_mode = 0777;
constexpr int folder_level = 2;  // debug level

// The folder's directory. Errors: of a name that can be none.
errdesc_t* find_folder(const std::string& root, const ks_vm_folder_t& folder, std::string* path) {
    RETURN_IF_ERROR(ks_vm_folder_check(folder));
    return shadow_group_path(root, ks_text(folder.fldr_name), "Folder name", path);
}

// The same; false, logged, for an error.
bool folder_path(const std::string& root, const ks_vm_folder_t& folder, std::string* path) {
    errdesc_t* e = find_folder(root, folder, path);
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_INFO);
    return e == nullptr;
}

void log_added(const std::string& root, const ks_vm_folder_t& folder) {
    std::string path;
    if (folder_path(root, folder, &path))
        ts_printf("process_folders_iter: add folder %s\n", path.c_str());
}

void log_kept(const std::string& root, const ks_vm_folder_t& folder) {
    std::string path;
    if (folder_path(root, folder, &path))
        ts_dprintf(folder_level, "process_folders_iter: existing folder %s\n", path.c_str());
}

// Moves a folder that holds no VMs.
bool move_folder(const std::string& root, const ks_vm_folder_t& old_folder, const ks_vm_folder_t& folder) {
    std::string old_path;
    std::string path;
    if (!folder_path(root, old_folder, &old_path) || !folder_path(root, folder, &path))
        return false;
    if (std::rename(old_path.c_str(), path.c_str()) == 0)
        return true;
    _errdesc_log(errdesc_set_fmt(errno, "Failed to rename folder %s to %s", old_path.c_str(), path.c_str()),
                 ERRDESC_INFO);
    return false;
}

// Makes the directories that are missing, new ones and others: there may have been no room for one, a hypervisor of its
// name took it along, or a move has failed or taken another's place.
void make_missing(const std::string& root, const std::vector<ks_vm_folder_t>& folders) {
    std::string path;
    for (const ks_vm_folder_t& folder : folders) {
        const errdesc_keeper_t keeper;  // of what was logged already
        if (find_folder(root, folder, &path) == nullptr && mkdirp(path, folder_mode) != 0)
            _errdesc_log(errdesc_set_str(errno, path), ERRDESC_INFO);
    }
}

// Whether VMs are exported in the folder's directory, whatever the controller counts: a hypervisor may have its name.
bool has_vms(const std::string& root, const ks_vm_folder_t& folder) {
    const std::string inside = root + '/' + ks_text(folder.fldr_name) + '/';
    return std::ranges::any_of(vm_state_get_keys(), [&](const std::string& key) { return key.starts_with(inside); });
}

}  // namespace

void user_folders_t::rename_folder(const std::string& root, const ks_vm_folder_t& folder,
                                   std::vector<ks_vm_folder_t>::iterator old_folder) {
    const std::string& uuid = ks_text(folder.fldr_uuid);
    const std::string& old_name = ks_text(old_folder->fldr_name);
    const std::string& name = ks_text(folder.fldr_name);
    ts_printf("process_folders_iter: rename folder from %s to %s (uuid = %s)\n", old_name.c_str(), name.c_str(),
              uuid.c_str());
    if (old_folder->numVMs != 0 || has_vms(root, *old_folder)) {
        ts_dprintf(folder_level,
                   "process_folders_iter: folder (uuid = %s) renamed from %s to %s with %d VMs in it, do nothing on "
                   "the old folder until hv_thr processed it\n",
                   uuid.c_str(), old_name.c_str(), name.c_str(), static_cast<int>(old_folder->numVMs));
        log_added(root, folder);
    } else if (move_folder(root, *old_folder, folder)) {
        fldr_list_.erase(old_folder);
    }
}

void user_folders_t::process_folder(const std::string& root, const ks_vm_folder_t& folder) {
    const auto old_folder = std::ranges::find_if(fldr_list_, [&folder](const ks_vm_folder_t& other) {
        return ks_text(other.fldr_uuid) == ks_text(folder.fldr_uuid);
    });
    if (old_folder == fldr_list_.end()) {
        log_added(root, folder);
    } else if (ks_text(old_folder->fldr_name) == ks_text(folder.fldr_name)) {
        log_kept(root, folder);
        fldr_list_.erase(old_folder);
    } else {
        rename_folder(root, folder, old_folder);
    }
}

void user_folders_t::process_user_defined_folders(const std::string& root,
                                                  std::optional<std::vector<ks_vm_folder_t>> cur_folders) {
    cur_fldr_list_ = std::move(cur_folders);
    if (!cur_fldr_list_) {
        ts_printf("process_user_defined_folders: WARNING: invalid list of cur_folders\n");
        return;
    }
    for (const ks_vm_folder_t& folder : *cur_fldr_list_)
        process_folder(root, folder);
    make_missing(root, *cur_fldr_list_);
}

// Whether a folder of this cycle has the name: the directory is its own then, whoever had it before.
bool user_folders_t::is_current(const std::string& name) const {
    return std::ranges::any_of(*cur_fldr_list_,
                               [&](const ks_vm_folder_t& folder) { return ks_text(folder.fldr_name) == name; });
}

void user_folders_t::remove_old_user_defined_folders(const std::string& root) {
    if (!cur_fldr_list_) {
        ts_printf(
            "remove_old_user_defined_folders: WARNING: invalid list of cur_fldr_list or cnt_thr_state.fldr_list\n");
        return;
    }
    std::vector<ks_vm_folder_t> still_there;
    for (ks_vm_folder_t& folder : fldr_list_) {
        std::string path;
        if (is_current(ks_text(folder.fldr_name)) || !folder_path(root, folder, &path))
            continue;
        ts_printf("remove_old_user_defined_folders: remove old folder %s\n", path.c_str());
        if (rmdir(path.c_str()) == 0 || errno == ENOENT)
            continue;
        _errdesc_log(errdesc_set_fmt(errno, "Failed to remove folder %s", path.c_str()), ERRDESC_INFO);
        still_there.push_back(std::move(folder));
    }
    fldr_list_ = std::move(*cur_fldr_list_);
    std::ranges::move(still_there, std::back_inserter(fldr_list_));
    cur_fldr_list_.reset();
}

void user_folders_t::dump() const {
    for (const ks_vm_folder_t& folder : fldr_list_)
        ks_vm_folder_dump(&folder);
}

}  // namespace mirador
