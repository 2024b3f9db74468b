// SPDX-License-Identifier: Apache-2.0
// What the daemon keeps for itself, closed to the machine's other users.
//
// The directories inside the shadow tree and the cache may be written by everybody, as clients are shown them; but who
// can put a header or a copy there decides what the daemon reads, as root, and shows. So nobody else passes their
// roots.
#pragma once

#include <sys/stat.h>

#include <string>

namespace mirador {

// Closes a shadow tree that the daemon has made. To be called before anything is in it and before clients are served.
// A failure is logged.
void close_shadow_tree(const std::string& root);

// Gives `st`, if it is the closed root's, the permissions that the root was made with: clients see those.
void show_shadow_root(struct stat* st);

// Warns in the log of a shadow tree that the user has made and that others may enter.
void check_users_shadow_tree(const std::string& root);

// Makes the cache, which recovery has removed; its parents may be written by the owner alone. A failure is logged.
void make_closed_cache();

}  // namespace mirador
