// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmsd/vmsd.h"

#include <cerrno>
#include <filesystem>
#include <vector>

#include "lib/cor_assert.h"
#include "lib/text_file.h"
#include "vmware/lib/vmsd/vmsd_parse.h"
#include "vmware/lib/vmsd/vmsd_reader.h"

namespace mirador {
namespace {

constexpr std::string_view suffix = ".vmsd";

// The names of all snapshot databases in a directory.
errdesc_t* list_databases(const std::string& directory, std::vector<std::string>* names) {
    std::error_code failed;
    const std::filesystem::directory_iterator end;
    for (std::filesystem::directory_iterator entry(directory, failed); !failed && entry != end;
         entry.increment(failed)) {
        const std::string name = entry->path().filename();
        if (name.size() > suffix.size() && name.ends_with(suffix))
            names->push_back(name);
    }
    return failed ? errdesc_set_str(failed.value(), directory) : nullptr;
}

std::string best_name(const std::vector<std::string>& names, const std::string& disk) {
    if (names.size() == 1)
        return names.front();
    std::string best;
    for (const std::string& name : names)
        if (disk.starts_with(name.substr(0, name.size() - suffix.size())) && name.size() > best.size())
            best = name;
    return best;
}

}  // namespace

errdesc_t* vmsd_read_vmsddesc(const std::string& path, vmsddesc_t* vmsddesc) {
    cor_assert(vmsddesc);
    *vmsddesc = {};
    std::string text;
    vmsd_filtered_t filtered;
    vmsd_reader_t reader;
    RETURN_IF_ERROR(read_text_file(path, vmsd_file_kind, vmsd_max_text, &text));
    RETURN_IF_ERROR(vmsd_filter(text, &filtered));
    RETURN_IF_ERROR(vmsd_check(path, filtered.text));
    RETURN_IF_ERROR(reader.open());
    cor_assert(reader.parse(filtered.text, {.desc = vmsddesc, .any_text = true}));
    vmsddesc->encoding = filtered.encoding;
    vmsddesc->lost_lines = filtered.lost_lines;
    return nullptr;
}

errdesc_t* vmsd_open(const std::string& path, vmsddesc_t* vmsddesc) {
    if (errdesc_t* e = vmsd_read_vmsddesc(path, vmsddesc)) {
        vmsd_close(vmsddesc);
        return e;
    }
    vmsddesc->magic = vmsddesc_t::magic_value;
    vmsddesc->version = vmsddesc_t::version_value;
    vmsddesc->filename = path;
    return nullptr;
}

void vmsd_close(vmsddesc_t* vmsddesc) {
    *vmsddesc = {};
}

errdesc_t* vmsd_vmdk_to_vmsd(const std::string& vmdk_path, std::string* vmsd_path) {
    const std::filesystem::path disk(vmdk_path);
    const std::string directory = disk.has_parent_path() ? disk.parent_path().string() : ".";
    std::vector<std::string> names;
    RETURN_IF_ERROR(list_databases(directory, &names));
    const std::string name = best_name(names, disk.filename());
    if (name.empty())
        return errdesc_set_fmt(ENOENT, "No snapshot database for %s", vmdk_path.c_str());
    *vmsd_path = directory + "/" + name;
    return nullptr;
}

errdesc_t* vmsd_open_by_vmdk(const std::string& vmdk_path, vmsddesc_t* vmsddesc) {
    std::string path;
    vmsd_close(vmsddesc);
    RETURN_IF_ERROR(vmsd_vmdk_to_vmsd(vmdk_path, &path));
    return vmsd_open(path, vmsddesc);
}

}  // namespace mirador
