// SPDX-License-Identifier: Apache-2.0
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <string_view>

#include "appliance/autodiscover/vhost.h"
#include "lib/walker.h"
#include "tools/mirador-inspect/inspect.h"
#include "tools/mirador-inspect/inspect_vm_json.h"

namespace mirador {
namespace {

constexpr std::string_view template_suffix = ".vmtx";

using records_t = std::vector<std::unique_ptr<vhost_record_t>>;

// While one lives, what is logged to standard output goes to standard error: the output is data.
class log_aside_t {
  public:
    log_aside_t() : saved_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)) {
        std::fflush(stdout);
        if (saved_)
            dup2(STDERR_FILENO, STDOUT_FILENO);
    }
    ~log_aside_t() {
        std::fflush(stdout);
        if (saved_)
            dup2(saved_.get(), STDOUT_FILENO);
    }
    log_aside_t(const log_aside_t&) = delete;
    log_aside_t& operator=(const log_aside_t&) = delete;

  private:
    unique_fd saved_;
};

// Whether a path leads through a file server's own copies of the past: the VMs in there are not VMs.
bool is_past(const std::string& path) {
    constexpr std::array<std::string_view, 4> names = {"/.snapshot/", "/~snapshot/", "/#snapshot/", "/.zfs/"};
    const auto within = [&](std::string_view name) { return path.find(name) != std::string::npos; };
    return std::any_of(names.begin(), names.end(), within);
}

bool is_configuration(const std::string& path) {
    const bool named_so = vhost_get_type(path) == VHOST_VMWARE ||
                          (path.size() > template_suffix.size() && path.ends_with(template_suffix));
    std::error_code ignored;
    return named_so && std::filesystem::is_regular_file(path, ignored);
}

bool is_vm(const std::string& path) {
    return !is_past(path) && is_configuration(path);
}

// Discovers below some directories, walker_max_threads at most. A directory that is a symbolic link, as names of
// datastores are, is one that is walked all the same.
errdesc_t* discover_some(std::vector<std::string> directories, records_t* records) {
    for (std::string& directory : directories) {
        std::error_code ignored;
        if (std::filesystem::is_symlink(directory, ignored))
            directory += "/.";
    }
    vhost_list_t list;
    RETURN_IF_ERROR(vhost_auto_discover_if(directories, is_vm, &list));
    while (auto record = list_pop(list))
        records->push_back(std::move(*record));
    return nullptr;
}

bool by_filename(const std::unique_ptr<vhost_record_t>& a, const std::unique_ptr<vhost_record_t>& b) {
    return a->filename < b->filename;
}

// What a command line names: configuration files, and directories to look for them in.
struct sources_t {
    std::vector<std::string> files;
    std::vector<std::string> directories;
};

// All records, ordered by file, each once though directories may lie in one another.
errdesc_t* discover(const sources_t& sources, records_t* records) {
    for (const std::string& file : sources.files)
        static_cast<void>(vhost_record_new_at_once(file, &records->emplace_back()));  // the record keeps its error
    const std::vector<std::string>& directories = sources.directories;
    for (auto begin = directories.begin(); begin != directories.end();) {
        const auto count = std::min<std::ptrdiff_t>(directories.end() - begin, walker_max_threads);
        RETURN_IF_ERROR(discover_some({begin, begin + count}, records));
        begin += count;
    }
    walker_end();
    for (const auto& record : *records) {
        record->filename = std::filesystem::path(record->filename).lexically_normal();
        record->dirname = std::filesystem::path(record->dirname).lexically_normal();
    }
    std::sort(records->begin(), records->end(), by_filename);
    const auto same = [](const auto& a, const auto& b) { return a->filename == b->filename; };
    records->erase(std::unique(records->begin(), records->end(), same), records->end());
    return nullptr;
}

// Sorts paths, and leaves out those that are neither a configuration file nor a directory that can be read; the error
// is the first fault.
errdesc_t* sort_paths(const std::vector<std::string>& paths, sources_t* sources) {
    errdesc_t* fault = nullptr;
    for (const std::string& path : paths) {
        if (is_configuration(path))
            sources->files.push_back(path);
        else if (const dir_ptr dir(opendir(path.c_str())); dir)
            sources->directories.push_back(path);
        else if (fault == nullptr)
            fault = errdesc_set_str(errno, path);
    }
    return fault;
}

json_ptr vdsk_json(const vhost_record_t& record) {
    json_ptr disks = json_array();
    for (int i = 0; i < record.vdskcount; ++i) {
        const vdisk_record_t& disk = record.vdsk.at(static_cast<std::size_t>(i));
        json_ptr json = json_map();
        json_add(json, "name", json_text(disk.name));
        json_add(json, "snapshot_ok", json_bool(disk.snapshot_ok));
        json_append(disks, std::move(json));
    }
    return disks;
}

json_ptr record_json(const vhost_record_t& record) {
    json_ptr json = json_map();
    json_add(json, "filename", json_text(record.filename));
    json_add(json, "dirname", json_text(std::filesystem::path(record.filename).parent_path().string()));
    json_add(json, "vmx_path", path_json(record.filename));
    json_add(json, "err", error_json(record.err.get()));
    json_add(json, "name", json_text(record.name));
    json_add(json, "uuid", json_text(record.uuid));
    json_add(json, "uuid2", json_text(record.uuid2));
    json_add(json, "uuid3", json_text(record.uuid3));
    json_add(json, "os", json_text(record.os));
    json_add(json, "workingdir", record.workingdir ? json_text(*record.workingdir) : json_null());
    json_add(json, "size", json_signed(record.stat.st_size));
    json_add(json, "mtime", json_signed(record.stat.st_mtim.tv_sec));
    json_add(json, "vdsk", vdsk_json(record));
    return json;
}

json_ptr disks_json(const vmxdesc_t& vmx) {
    json_ptr disks = json_array();
    for (const auto& [address, device] : vmx_disks(vmx)) {
        json_ptr disk = vmx_device_json(address, *device);
        add_chain_json(vmx, *device, disk);
        json_append(disks, std::move(disk));
    }
    return disks;
}

// The record with what its files hold besides. Of a configuration that cannot be read there is only what its name
// tells, and no list of disks.
json_ptr vm_json(const vhost_record_t& record) {
    json_ptr json = record_json(record);
    vmxdesc_t vmx;
    const bool is_readable = vmx_open(record.filename, &vmx) == nullptr;
    if (!is_readable) {
        vmx.is_template = record.filename.ends_with(template_suffix);
        vmx.dirname = std::filesystem::path(record.filename).parent_path();
    }
    json_add(json, "is_template", json_bool(vmx.is_template));
    json_add(json, "ctk_enabled", json_bool(vmx.ctk_enabled));
    json_add(json, "working_directory", path_json(vmx_working_dir(vmx)));
    if (is_readable)
        json_add(json, "disks", disks_json(vmx));
    return json;
}

// One VM's object a line.
void print_json(const records_t& records, std::FILE* out) {
    const char* separator = "[\n";
    std::fputs(records.empty() ? separator : "", out);
    for (const auto& record : records) {
        std::string line;
        {
            const log_aside_t aside;
            line = json_line(vm_json(*record));
        }
        std::fprintf(out, "%s%s", separator, line.c_str());
        separator = ",\n";
    }
    std::fputs("\n]\n", out);
}

void print_text(const records_t& records, std::FILE* out) {
    for (const auto& record : records) {
        vhost_record_dump(*record, out);
        if (record->err)
            std::fprintf(out, "vhost_record->err = %s\n", record->err->string);
        std::fputs("\n", out);
    }
}

}  // namespace

errdesc_t* inspect_discover(inspect_file_t&, const inspect_options_t& options, std::FILE* out) {
    sources_t sources;
    records_t records;
    std::unique_ptr<const errdesc_t> fault;
    if (const errdesc_t* e = sort_paths(options.directories, &sources))
        fault = std::make_unique<const errdesc_t>(*e);
    {
        const log_aside_t aside;
        RETURN_IF_ERROR(discover(sources, &records));
    }
    if (options.json)
        print_json(records, out);
    else
        print_text(records, out);
    return fault ? _errdesc_copy_to_thr(fault.get()) : nullptr;
}

}  // namespace mirador
