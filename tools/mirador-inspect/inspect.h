// SPDX-License-Identifier: Apache-2.0
// mirador-inspect: prints one file of a format that the system reads, for a person or as JSON. One function per kind of
// file; none of them trusts the file: whatever it holds, they print it or return an error.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "lib/errdesc.h"
#include "lib/file_io.h"

namespace mirador {

struct inspect_options_t;

// The file to look at.
struct inspect_file_t {
    std::string path;
    unique_fd fd;  // open for reading
};

// Prints the file, which it may use up, to `out`. Errors, with a text that tells the fault: the file is not of this
// kind (nothing is printed then), or it is, and the system would refuse it.
using inspect_function_t = errdesc_t* (*)(inspect_file_t& file, const inspect_options_t& options, std::FILE* out);

// A kind of file, as the command line names it.
struct inspect_kind_t {
    const char* name;
    const char* help;
    inspect_function_t print;
    bool takes_sector = false;
    bool takes_grains = false;
    bool takes_device = false;       // a block device is as good as a file
    bool takes_directories = false;  // instead of a file, any number of them and of configuration files
};

struct inspect_options_t {
    bool help = false;
    bool json = false;
    bool grains = false;
    std::optional<std::uint32_t> sector;
    const inspect_kind_t* kind = nullptr;
    std::string path;                      // empty for a kind that takes directories
    std::vector<std::string> directories;  // of such a kind
};

const std::vector<inspect_kind_t>& inspect_kinds();

// Reads a command line without the program's name. False, with the fault in *fault, when it makes no sense.
[[nodiscard]] bool inspect_parse_options(const std::vector<std::string>& args, inspect_options_t* options,
                                         std::string* fault);

// The program. Its exit status is 0; 1 with one line on `err` for a file that cannot be read, is not of the kind or is
// faulty, and for an output that cannot be written; 2 with a line on `err` for a command line that makes no sense.
int inspect_main(const std::vector<std::string>& args, std::FILE* out, std::FILE* err);

// The kinds.
[[nodiscard]] errdesc_t* inspect_vmdk(inspect_file_t& file, const inspect_options_t& options, std::FILE* out);
[[nodiscard]] errdesc_t* inspect_extent(inspect_file_t& file, const inspect_options_t& options, std::FILE* out);
[[nodiscard]] errdesc_t* inspect_proxy(inspect_file_t& file, const inspect_options_t& options, std::FILE* out);
[[nodiscard]] errdesc_t* inspect_vdsk(inspect_file_t& file, const inspect_options_t& options, std::FILE* out);
[[nodiscard]] errdesc_t* inspect_vmx(inspect_file_t& file, const inspect_options_t& options, std::FILE* out);
[[nodiscard]] errdesc_t* inspect_vmsd(inspect_file_t& file, const inspect_options_t& options, std::FILE* out);
[[nodiscard]] errdesc_t* inspect_discover(inspect_file_t& file, const inspect_options_t& options, std::FILE* out);
[[nodiscard]] errdesc_t* inspect_mbr(inspect_file_t& file, const inspect_options_t& options, std::FILE* out);
[[nodiscard]] errdesc_t* inspect_corcbt(inspect_file_t& file, const inspect_options_t& options, std::FILE* out);
[[nodiscard]] errdesc_t* inspect_cfg(inspect_file_t& file, const inspect_options_t& options, std::FILE* out);

}  // namespace mirador
