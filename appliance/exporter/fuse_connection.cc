// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/fuse_connection.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string_view>

#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "lib/spawn.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

// A path as the process's mount table writes it: blanks and backslashes as octal numbers.
std::string mount_info_path(std::string_view path) {
    std::string text;
    for (const char c : path) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\\')
            text += cor_format("\\%03o", static_cast<unsigned>(c));
        else
            text.push_back(c);
    }
    return text;
}

// The switch is a file of a file system that is not mounted everywhere. Error: errno with its path.
errdesc_t* turn_switch(int connection) {
    const std::string path = cor_format("%s/%d/abort", tool_paths().fuse_connections.c_str(), connection);
    const unique_fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return fd && write(fd.get(), "1\n", 2) == 2 ? nullptr : errdesc_set_str(errno, path);
}

}  // namespace

// It is the minor number of the file system's device.
int fuse_connection_of(const std::string& mountpoint) {
    const std::string wanted = mount_info_path(mountpoint);
    std::ifstream table(tool_paths().mount_info);
    std::string line;
    int connection = -1;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string id;
        std::string parent;
        std::string device;
        std::string root;
        std::string directory;
        fields >> id >> parent >> device >> root >> directory;
        const std::size_t type = line.find(" - fuse");
        if (directory == wanted && type != std::string::npos && device.starts_with("0:"))
            connection = std::atoi(device.c_str() + 2);
    }
    return connection;
}

errdesc_t* fuse_connection_end(int connection, const std::string& mountpoint) {
    if (connection >= 0) {
        errdesc_t* e = turn_switch(connection);
        if (e == nullptr)
            return nullptr;
        _errdesc_log(e, ERRDESC_WARNING);
    }
    return spawn_tool({tool_paths().umount, "-fl", mountpoint});
}

}  // namespace mirador
