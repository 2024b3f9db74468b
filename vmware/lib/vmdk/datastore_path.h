// SPDX-License-Identifier: Apache-2.0
// Datastore paths: "<mount root>/<datastore>/<directory>/<file>".
//
// The hypervisor names every file below "/vmfs/volumes". Here the same datastores are mounted under more than one
// root, tried in the order of datastore_mount_points. Pure functions over their arguments and that table, which does
// not change once threads run (tests point it elsewhere): any thread may call them at any time.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "lib/errdesc.h"

namespace mirador {

// Local mount roots, best first.
inline std::vector<std::string> datastore_mount_points = {"/vmfs.direct/volumes", "/vmfs/volumes"};

inline int num_datastore_mount_points() {
    return static_cast<int>(datastore_mount_points.size());
}

// The root of the hypervisor's own paths.
inline constexpr std::string_view datastore_fs_root = "/vmfs/volumes";

// Whether `path` is a hypervisor's path: below datastore_fs_root, and not below any other mount root.
bool is_datastore_fs_path(const std::string& path);

// Points *ds_name_path at the part of `path` behind its mount root and the slashes that follow. The root is compared
// as text: "/vmfs/volumesX/a" gives "X/a". The view lives as long as `path`.
// Error: EINVAL "Invalid datastore path %s" for a path under no root; *ds_name_path is then null (no data).
// Asserted: ds_name_path is not null.
[[nodiscard]] errdesc_t* remove_datastore_mount_point(const std::string& path, std::string_view* ds_name_path);

// The hypervisor's name of a file: the path with its mount root replaced by datastore_fs_root. A path under no root is
// logged at level 4 and returned as it is.
std::string translate_to_datastore_fs_path(const std::string& path);

// The first mount root that holds a directory `ds_name`; datastore_fs_root when none does.
std::string get_datastore_mount_point(const std::string& ds_name);

// Splits a path into datastore name, directory within the datastore and file name, the last two by the rules of
// dirname and basename ("." for a file at the top). `dir` and `base` may be null. Without a slash behind the
// datastore's name both are empty.
// Error: EINVAL "Invalid datastore path %s". Asserted: ds_name is not null.
[[nodiscard]] errdesc_t* parse_datastore_path(const std::string& path, std::string* ds_name, std::string* dir,
                                              std::string* base);

// The path by which a file is best reached: a hypervisor's path under the preferred mount root of its datastore, any
// other path as it is.
// Error: EINVAL "Invalid datastore path %s". Asserted: preferred_path is not null.
[[nodiscard]] errdesc_t* get_preferred_datastore_path(const std::string& path, std::string* preferred_path);

}  // namespace mirador
