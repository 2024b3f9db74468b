// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-inspect/inspect.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string_view>

namespace mirador {
namespace {

constexpr const char* program = "mirador-inspect";

void print_help(std::FILE* out) {
    std::fprintf(out,
                 "Usage: %s [OPTION]... KIND FILE\n"
                 "Prints what FILE holds, a file of one of these kinds:\n\n",
                 program);
    for (const inspect_kind_t& kind : inspect_kinds())
        std::fprintf(out, "  %-12s%s\n", kind.name, kind.help);
    std::fputs(
        "\n  --json      print one JSON object with every field\n"
        "  --grains    extent: the grain tables too\n"
        "  --sector N  vdsk: look at sector N instead of searching\n"
        "  -h, --help  print this\n\n"
        "Exit status: 0; 1 when FILE cannot be read, is not of the kind\n"
        "or is faulty; 2 for a wrong command line.\n",
        out);
}

// Opens the file, having looked first: a pipe would wait and some devices act when they are opened.
errdesc_t* open_file(const inspect_options_t& options, inspect_file_t* file) {
    file->path = options.path;
    struct stat st = {};
    if (stat(options.path.c_str(), &st) != 0)
        return errdesc_set_str(errno, options.path);
    if (!S_ISREG(st.st_mode) && !(S_ISBLK(st.st_mode) && options.kind->takes_device))
        return errdesc_set_fmt(EINVAL, "not a regular file: %s", options.path.c_str());
    file->fd.reset(open(options.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    return file->fd ? nullptr : errdesc_set_str(errno, options.path);
}

errdesc_t* inspect(const inspect_options_t& options, std::FILE* out) {
    inspect_file_t file;
    if (!options.kind->takes_directories)
        RETURN_IF_ERROR(open_file(options, &file));
    RETURN_IF_ERROR(options.kind->print(file, options, out));
    if (std::fflush(out) != 0 || std::ferror(out) != 0)
        return errdesc_set_str(EIO, "standard output");
    return nullptr;
}

// One line; the file's name stands in front where the error's text does not name it.
void print_error(const errdesc_t& e, const std::string& path, std::FILE* err) {
    const bool named = std::string_view(e.string).find(path) != std::string_view::npos;
    std::fprintf(err, "%s: %s%s%s\n", program, named ? "" : path.c_str(), named ? "" : ": ", e.string);
}

}  // namespace

const std::vector<inspect_kind_t>& inspect_kinds() {
    static const std::vector<inspect_kind_t> kinds = {
        {.name = "vmdk", .help = "a virtual disk's descriptor", .print = inspect_vmdk},
        {.name = "vmx", .help = "a VM's or template's configuration", .print = inspect_vmx},
        {.name = "vmsd", .help = "a VM's snapshot database", .print = inspect_vmsd},
        {.name = "discover",
         .help = "all VMs and templates below the directories FILE..., or of these files",
         .print = inspect_discover,
         .takes_directories = true},
        {.name = "extent", .help = "a sparse or copy-on-write extent", .print = inspect_extent, .takes_grains = true},
        {.name = "proxy", .help = "a file of the shadow tree", .print = inspect_proxy},
        {.name = "vdsk",
         .help = "the virtual disk header of an exported disk",
         .print = inspect_vdsk,
         .takes_sector = true,
         .takes_device = true},
        {.name = "mbr", .help = "a disk's master boot record", .print = inspect_mbr, .takes_device = true},
        {.name = "corcbt", .help = "a disk's changed blocks", .print = inspect_corcbt, .takes_device = true},
        {.name = "cfg", .help = "the exported description of a VM", .print = inspect_cfg},
    };
    return kinds;
}

int inspect_main(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
    inspect_options_t options;
    std::string fault;
    if (!inspect_parse_options(args, &options, &fault)) {
        std::fprintf(err, "%s: %s; see %s --help\n", program, fault.c_str(), program);
        return 2;
    }
    if (options.help) {
        print_help(out);
        return 0;
    }
    if (const errdesc_t* e = inspect(options, out)) {
        print_error(*e, options.path, err);
        return 1;
    }
    return 0;
}

}  // namespace mirador
