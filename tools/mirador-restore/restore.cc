// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-restore/restore.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "appliance/lib/cor_vdsk_header.h"
#include "appliance/lib/corcbt.h"
#include "lib/command_options.h"
#include "lib/file_io.h"
#include "tools/mirador-restore/image_copy.h"
#include "tools/mirador-restore/new_image.h"

namespace mirador {
namespace {

constexpr const char* program = "mirador-restore";

constexpr const char* help_text =
    "Usage: mirador-restore FLAT CORCBT -o IMAGE\n"
    "Makes the image of a disk as it is now: FLAT, an image of before, with the\n"
    "blocks of CORCBT, the file of what has changed since, laid over it.\n\n"
    "  -o, --output IMAGE  the image to make; it gets its name when it is whole.\n"
    "                      Until then it is IMAGE with a dot and six characters\n"
    "      --force         replace IMAGE if there is one\n"
    "  -h, --help          print this\n\n"
    "FLAT and CORCBT are not changed. Holes stay holes, and blocks are shared where\n"
    "the file system can.\n\n"
    "Exit status: 0; 1 when no image was made; 2 for a wrong command line.\n";

struct input_t {
    std::string path;
    unique_fd fd;
    struct stat st {};

    errdesc_t* open(const std::string& name) {
        path = name;
        fd.reset(::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
        if (!fd || fstat(fd.get(), &st) != 0)
            return errdesc_set_str(errno, name);
        return S_ISREG(st.st_mode) ? nullptr : errdesc_set_fmt(EINVAL, "not a regular file: %s", name.c_str());
    }
};

struct inputs_t {
    input_t flat;
    input_t corcbt;
    cbt_file_header_t header{};
    cbt_extent_list_t list;
};

// Passes on an error whose text does not name the file.
errdesc_t* with_path(errdesc_t* e, const std::string& path) {
    if (e == nullptr || std::string_view(e->string).find(path) != std::string_view::npos)
        return e;
    const std::string text = e->string;
    return errdesc_set_fmt(e->number, "%s: %s", path.c_str(), text.c_str());
}

errdesc_t* read_changes(inputs_t* in) {
    RETURN_IF_ERROR(read_corcbt_header_fd(in->corcbt.fd.get(), in->corcbt.path, &in->header, &in->list));
    return check_corcbt(in->header, in->list, in->corcbt.st.st_size);
}

// An image is smaller than the disk where the disk has grown since. One that was cut is smaller too, and what it lacks
// would become zeros; where an export has laid its header over the disk, that tells.
errdesc_t* check_is_whole(const input_t& flat) {
    cor_vdsk_header_t header{};
    if (read_cor_vdsk_header(flat.fd.get(), &header) != nullptr)
        return nullptr;
    const std::int64_t told = header.size * cbt_sector_size;
    if (told <= flat.st.st_size)
        return nullptr;
    return errdesc_set_fmt(EINVAL, "%s has %jd bytes, its header tells of %jd: it was cut", flat.path.c_str(),
                           static_cast<std::intmax_t>(flat.st.st_size), static_cast<std::intmax_t>(told));
}

errdesc_t* open_inputs(const restore_options_t& options, inputs_t* in) {
    RETURN_IF_ERROR(in->flat.open(options.flat));
    RETURN_IF_ERROR(in->corcbt.open(options.corcbt));
    RETURN_IF_ERROR(with_path(read_changes(in), options.corcbt));
    if (in->flat.st.st_size % cbt_sector_size == 0 && in->flat.st.st_size <= in->header.flat_file_size)
        return check_is_whole(in->flat);
    return errdesc_set_fmt(EINVAL, "%s has %jd bytes, the disk %jd", options.flat.c_str(),
                           static_cast<std::intmax_t>(in->flat.st.st_size),
                           static_cast<std::intmax_t>(in->header.flat_file_size));
}

errdesc_t* check_is_no_input(const inputs_t& in, const std::string& image) {
    struct stat st {};
    if (stat(image.c_str(), &st) != 0)
        return nullptr;
    for (const input_t* input : {&in.flat, &in.corcbt})
        if (st.st_dev == input->st.st_dev && st.st_ino == input->st.st_ino)
            return errdesc_set_fmt(EINVAL, "%s is %s itself", image.c_str(), input->path.c_str());
    return nullptr;
}

// Copies what the old image has between two places; behind its end there is nothing.
errdesc_t* copy_unchanged(const inputs_t& in, std::int64_t start, std::int64_t end, const copy_file_t& to) {
    const std::int64_t length = std::min<std::int64_t>(end, in.flat.st.st_size) - start;
    return length > 0 ? copy_range({in.flat.fd.get(), in.flat.path}, start, length, to, start) : nullptr;
}

errdesc_t* merge(const inputs_t& in, const copy_file_t& to) {
    std::int64_t pos = 0;
    std::int64_t data = in.header.block_data_offset;
    for (const cbt_extent_data_t extent : in.list) {
        RETURN_IF_ERROR(copy_unchanged(in, pos, extent.start, to));
        RETURN_IF_ERROR(copy_range({in.corcbt.fd.get(), in.corcbt.path}, data, extent.length, to, extent.start));
        data += extent.length;
        pos = extent.start + extent.length;
    }
    return copy_unchanged(in, pos, in.header.flat_file_size, to);
}

}  // namespace

bool restore_parse_options(const std::vector<std::string>& args, restore_options_t* options, std::string* fault) {
    const auto take_image = [&](const std::string& value) {
        return std::exchange(options->image, value).empty() && !value.empty();
    };
    std::vector<std::string> words;
    if (!command_options_parse(args,
                               {command_flag("help", 'h', &options->help),
                                command_flag("force", 0, &options->force),
                                {.name = "output", .letter = 'o', .value = "one file name", .take = take_image}},
                               &words, fault))
        return false;
    if (options->help)
        return true;
    if (words.size() != 2 || options->image.empty()) {
        *fault = "two files and -o with a third are needed";
        return false;
    }
    options->flat = words[0];
    options->corcbt = words[1];
    return true;
}

errdesc_t* restore_image(const restore_options_t& options) {
    inputs_t in;
    RETURN_IF_ERROR(open_inputs(options, &in));
    RETURN_IF_ERROR(check_is_no_input(in, options.image));
    new_image_t image(options.image, options.force);
    RETURN_IF_ERROR(image.create(in.header.flat_file_size));
    RETURN_IF_ERROR(merge(in, {image.fd(), image.path()}));
    return image.publish();
}

int restore_main(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
    restore_options_t options;
    std::string fault;
    if (!restore_parse_options(args, &options, &fault)) {
        std::fprintf(err, "%s: %s; see %s --help\n", program, fault.c_str(), program);
        return 2;
    }
    if (options.help) {
        std::fputs(help_text, out);
        return 0;
    }
    if (const errdesc_t* e = restore_image(options)) {
        std::fprintf(err, "%s: %s\n", program, e->string);
        return 1;
    }
    return 0;
}

}  // namespace mirador
