// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/devmap.h"

#include <sys/random.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/spawn.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr int load_timeout = 600;  // seconds

}  // namespace

void dm_mk_unique_name(const std::string& prefix, std::string* name) {
    static std::atomic<unsigned> _count = 0;
    std::uint64_t random = 0;
    cor_assert(getrandom(&random, sizeof random, 0) == sizeof random);
    *name = cor_format("%s-%d-%u-%016jx", prefix.c_str(), static_cast<int>(getpid()), ++_count,
                       static_cast<std::uintmax_t>(random));
}

errdesc_t* define_devmap_device(const std::string& table_path, const std::string& name, std::string* dm_device) {
    *dm_device = cor_format("%s/%s", tool_paths().mapper_dir.c_str(), name.c_str());
    return spawn_tool({tool_paths().dmsetup, "create", name, table_path}, load_timeout);
}

errdesc_t* remove_devmap_device(const std::string& name, bool force) {
    std::vector<std::string> argv = {tool_paths().dmsetup, "remove"};
    if (force)
        argv.emplace_back("-f");
    argv.push_back(name);
    return spawn_tool(argv);
}

void release_devmap_device(const std::string& name) {
    for (const bool force : {false, true}) {
        errdesc_t* e = remove_devmap_device(name, force);
        if (e == nullptr)
            return;
        _errdesc_log(e, ERRDESC_ERROR);
    }
}

}  // namespace mirador
