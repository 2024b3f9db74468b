// SPDX-License-Identifier: Apache-2.0
#include "appliance/mounter/vdsk_mapping.h"

#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "appliance/lib/devmap.h"
#include "appliance/lib/table_file.h"
#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr std::string_view table_suffix = ".corstorage";

// A table's lines, one after the other.
class line_reader_t {
  public:
    ~line_reader_t() { std::free(text_); }
    line_reader_t() = default;
    line_reader_t(const line_reader_t&) = delete;
    line_reader_t& operator=(const line_reader_t&) = delete;

    // Errors: errno with the path; those of next().
    errdesc_t* open(const std::string& path) {
        path_ = path;
        file_.reset(std::fopen(path.c_str(), "re"));
        return file_ ? next() : errdesc_set_str(errno, path);
    }
    // Errors: errno with the path of a failed read; EIO with the path for what is no line.
    errdesc_t* next() {
        const ssize_t length = getline(&text_, &room_, file_.get());
        at_end_ = length < 0;
        if (at_end_)
            return std::ferror(file_.get()) != 0 ? errdesc_set_str(errno, path_) : nullptr;
        std::string_view line(text_, static_cast<std::size_t>(length));
        return take_number(&line, &start) && take_number(&line, &size) && take_target(line)
                   ? nullptr
                   : errdesc_set_str(EIO, path_);
    }
    bool at_end() const { return at_end_; }

    // Of the current line, in sectors; what they are mapped onto, with the line's end.
    std::uint64_t start = 0;
    std::uint64_t size = 0;
    std::string_view target;

  private:
    static bool take_number(std::string_view* line, std::uint64_t* number) {
        const auto [end, fault] = std::from_chars(line->data(), line->data() + line->size(), *number);
        line->remove_prefix(static_cast<std::size_t>(end - line->data()));
        const bool good = fault == std::errc() && line->starts_with(' ');
        line->remove_prefix(good ? 1 : 0);
        return good;
    }
    bool take_target(std::string_view line) {
        target = line;
        return line.ends_with('\n');
    }

    std::string path_;
    file_ptr file_;
    char* text_ = nullptr;
    std::size_t room_ = 0;
    bool at_end_ = true;
};

void write_line(std::uint64_t start, std::uint64_t size, std::string_view target, std::FILE* file) {
    std::fprintf(file, "%" PRIu64 " %" PRIu64 " %.*s", start, size, static_cast<int>(target.size()), target.data());
}

// Whether the tool was ended from outside and so may have loaded the table after all.
bool may_have_loaded(const errdesc_t& e) {
    return e.number == ETIME || e.number == EINVAL;
}

// *loaded becomes the name when the device is there or may be.
errdesc_t* load(const std::string& name, const std::string& table_path, std::string* device, std::string* loaded) {
    errdesc_t* e = define_devmap_device(table_path, name, device);
    if (e == nullptr || may_have_loaded(*e))
        *loaded = name;
    return e;
}

// Loads the lines from the reader's on, as many as one device takes, and writes the line that joins them to the others.
errdesc_t* load_piece(line_reader_t* reader, const std::string& name, std::vector<std::string>* pieces,
                      std::FILE* joining) {
    const std::uint64_t begin = reader->start;
    std::uint64_t end = begin;
    table_file_t table(vdsk_table_path(name));
    RETURN_IF_ERROR(table.create());
    for (std::uint64_t lines = 0; lines < vdsk_mapping_lines && !reader->at_end(); ++lines) {
        write_line(reader->start - begin, reader->size, reader->target, table.stream());
        end = reader->start + reader->size;
        RETURN_IF_ERROR(reader->next());
    }
    RETURN_IF_ERROR(table.finish());
    std::string device;
    std::string loaded;
    errdesc_t* e = load(name, table.path(), &device, &loaded);
    if (!loaded.empty())
        pieces->push_back(loaded);
    write_line(begin, end - begin, "linear " + device + " 0\n", joining);
    return e;
}

errdesc_t* load_pieces(const std::string& name, const std::string& table_path, std::vector<std::string>* pieces,
                       std::FILE* joining) {
    line_reader_t reader;
    RETURN_IF_ERROR(reader.open(table_path));
    for (unsigned number = 0; !reader.at_end(); ++number)
        RETURN_IF_ERROR(load_piece(&reader, cor_format("%s-%u", name.c_str(), number), pieces, joining));
    return nullptr;
}

}  // namespace

std::string vdsk_table_path(const std::string& name) {
    return tool_paths().tmp_dir + "/" + name + std::string(table_suffix);
}

errdesc_t* vdsk_load_mapping(const std::string& name, const std::string& table_path, vdskdesc_t* vdskdesc) {
    if (vdskdesc->stats.lines <= vdsk_mapping_lines)
        return load(name, table_path, &vdskdesc->devicemapper_path, &vdskdesc->dm_name);
    table_file_t joining(vdsk_table_path(name + "-joining"));
    RETURN_IF_ERROR(joining.create());
    RETURN_IF_ERROR(load_pieces(name, table_path, &vdskdesc->dm_pieces, joining.stream()));
    RETURN_IF_ERROR(joining.finish());
    return load(name, joining.path(), &vdskdesc->devicemapper_path, &vdskdesc->dm_name);
}

void vdsk_remove_mapping(vdskdesc_t* vdskdesc) {
    if (!vdskdesc->dm_name.empty())
        release_devmap_device(vdskdesc->dm_name);
    vdskdesc->dm_name.clear();
    for (; !vdskdesc->dm_pieces.empty(); vdskdesc->dm_pieces.pop_back())
        release_devmap_device(vdskdesc->dm_pieces.back());
}

}  // namespace mirador
