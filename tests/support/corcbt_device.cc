// SPDX-License-Identifier: Apache-2.0
// A changed-block file over a disk's image of before, by way of real devices. For root.
//
//   corcbt-device read FLAT CORCBT IMAGE    copies the merged device to the new file IMAGE
//   corcbt-device import FLAT CORCBT        brings the changes into FLAT through the import device
//
// Exit status: 0, or 1 with an error on standard error.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "appliance/lib/corcbt_table.h"
#include "lib/file_io.h"

using namespace mirador;

namespace {

constexpr std::size_t piece = std::size_t{1} << 20;

// Copies from one offset on to the end of the file or device.
errdesc_t* copy(const std::string& from, off_t offset, const std::string& to, int flags) {
    const unique_fd in(open(from.c_str(), O_RDONLY | O_CLOEXEC));
    const unique_fd out(open(to.c_str(), O_WRONLY | O_CLOEXEC | flags, 0600));
    if (!in || !out)
        return errdesc_set_str(errno, in ? to : from);
    std::vector<char> buffer(piece);
    std::size_t got = piece;
    for (off_t at = 0; got == piece; at += static_cast<off_t>(got)) {
        std::size_t put = 0;
        RETURN_IF_ERROR(cor_pread(in.get(), buffer.data(), piece, offset + at, &got));
        RETURN_IF_ERROR(cor_pwrite(out.get(), buffer.data(), got, at, &put));
        if (put < got)
            return errdesc_set_str(ENOSPC, to);
    }
    return fsync(out.get()) == 0 ? nullptr : errdesc_set_str(errno, to);
}

errdesc_t* read_merged(const std::string& flat, const std::string& corcbt, const std::string& image) {
    merged_corcbt_t merged;
    RETURN_IF_ERROR(get_merged_corcbt(flat, corcbt, &merged));
    errdesc_t* e = copy(merged.dm_device, 0, image, O_CREAT | O_EXCL);
    const errdesc_keeper_t keep;
    release_merged_corcbt(&merged);
    return e;
}

errdesc_t* import(const std::string& flat, const std::string& corcbt) {
    cbt_file_header_t header;
    cbt_extent_list_t list;
    merged_corcbt_t device;
    RETURN_IF_ERROR(read_corcbt_header(corcbt, &header, &list));
    RETURN_IF_ERROR(setup_import_corcbt(flat, corcbt, &device));
    if (device.name.empty())
        return nullptr;
    errdesc_t* e = copy(corcbt, header.block_data_offset, device.dm_device, 0);
    const errdesc_keeper_t keep;
    release_merged_corcbt(&device);
    return e;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    errdesc_t* e = nullptr;
    if (args.size() == 4 && args[0] == "read")
        e = read_merged(args[1], args[2], args[3]);
    else if (args.size() == 3 && args[0] == "import")
        e = import(args[1], args[2]);
    else
        e = errdesc_set_str(EINVAL, "corcbt-device");
    if (e != nullptr)
        std::fprintf(stderr, "%s\n", e->string);
    return e != nullptr ? 1 : 0;
}
