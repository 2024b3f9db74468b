// SPDX-License-Identifier: Apache-2.0
// Which files a descriptor on a datastore may name: regular files on some datastore, and nothing else of this machine.
//
// Paths are compared resolved, because mount roots, datastore names and files may all be symbolic links. A file lies
// on a datastore when it resolves below a directory that one of the mount roots (datastore_mount_points) lists.
#pragma once

#include <string>

#include "lib/errdesc.h"

namespace mirador {

// Whether the path is below a mount root by name, or resolves onto a datastore.
bool is_on_datastore(const std::string& path);

// Asks that `path`, named by the descriptor `descriptor` (or that descriptor itself), is a regular file on a datastore.
// A descriptor that lies on no datastore may name any file: nothing is asked then.
// Errors: errno with the path when it cannot be resolved; EINVAL "Refused, outside every datastore: %s" or
// "Refused, not a regular file: %s".
[[nodiscard]] errdesc_t* datastore_check_contained(const std::string& descriptor, const std::string& path);

// The same for a descriptor of which it is known that it may name nothing else.
[[nodiscard]] errdesc_t* datastore_check_file(const std::string& path);

// The same of the file that `fd` is open on under the name `path`, whatever that name leads to by now. Errors: as
// above, with the file's own path.
[[nodiscard]] errdesc_t* datastore_check_opened(const std::string& descriptor, int fd, const std::string& path);
[[nodiscard]] errdesc_t* datastore_check_opened(int fd, const std::string& path);

}  // namespace mirador
