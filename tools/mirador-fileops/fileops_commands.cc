// SPDX-License-Identifier: Apache-2.0
#include <json-c/json_object.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "lib/cor_string.h"
#include "lib/jdr.h"
#include "tools/mirador-fileops/fileops.h"
#include "tools/mirador-fileops/fileops_text.h"
#include "vmware/lib/webservices/ws_datastore.h"
#include "vmware/lib/webservices/ws_fileops.h"

namespace mirador {
namespace {

constexpr std::string_view volumes_roots[] = {"/vmfs/volumes/", "/vmfs.direct/volumes/"};

// The datastore that a path begins with; empty when it begins with none.
std::string_view datastore_of(std::string_view path) {
    if (path.starts_with('['))
        return path.substr(1, path.find(']') - 1);
    for (const std::string_view root : volumes_roots)
        if (path.starts_with(root))
            return path.substr(root.size(), path.find('/', root.size()) - root.size());
    return {};
}

// The datacenter of a path's datastore: what was told, or the agent's own word. Error: ENOENT for a datastore that it
// does not name.
errdesc_t* find_datacenter(const ks_hypervisor_config_t& hvc, const fileops_options_t& options, const std::string& path,
                           std::string* datacenter) {
    *datacenter = options.datacenter;
    if (!datacenter->empty())
        return nullptr;
    std::vector<datastore_info_t> list;
    RETURN_IF_ERROR(ws_df(hvc, &list));
    const auto found = std::ranges::find_if(list, [&](const auto& info) { return info.name == datastore_of(path); });
    if (found == list.end())
        return errdesc_set_fmt(ENOENT, "%s: on no datastore of %s; a path is \"[datastore] folder/file\"", path.c_str(),
                               options.hypervisor.c_str());
    *datacenter = found->dc;
    return nullptr;
}

// What a marshaller makes of a record.
template <typename record_t, typename marshal_t>
std::string json_text(record_t record, marshal_t marshal) {
    json_object* value = nullptr;
    (void)marshal(JDR_ENCODE, &value, nullptr, &record);
    const json_ptr owner(value);
    constexpr int flags = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE;
    return std::string(json_object_to_json_string_ext(value, flags)) + "\n";
}

// The marshaller of a list of records, made of that of one.
template <typename marshal_t>
auto list_of(marshal_t marshal) {
    return [=](jdr_op_t op, json_object** obj, const char* key, auto* list) {
        return jdr_array(op, obj, key, list, marshal);
    };
}

std::string file_size(const esx_file_desc_t& fd, bool human) {
    return fd.file_type == FDESC_DIRECTORY || fd.file_bytes < 0
               ? "-"
               : size_text(static_cast<std::uint64_t>(fd.file_bytes), human);
}

std::string full_path(const esx_file_desc_t& fd) {
    const char* const slash = fd.file_folder.empty() ? "" : "/";
    return "[" + fd.ds_name + "] " + fd.file_folder + slash + fd.file_name;
}

std::string files_text(const std::vector<esx_file_desc_t>& list, bool human) {
    std::vector<std::vector<std::string>> rows;
    for (const esx_file_desc_t& fd : list)
        rows.push_back(
            {printable(fd.file_type_str), file_size(fd, human), time_text(fd.file_mtime), printable(fd.file_name)});
    return table_text(rows, "lrll");
}

std::string file_text(const esx_file_desc_t& fd, bool human) {
    std::vector<std::vector<std::string>> rows = {{"path", printable(full_path(fd))},
                                                  {"datacenter", printable(fd.dc_name)},
                                                  {"type", printable(fd.file_type_str)},
                                                  {"size", file_size(fd, human)},
                                                  {"modified", time_text(fd.file_mtime)}};
    if (fd.vm_moref)
        rows.push_back({"VM", printable(*fd.vm_moref)});
    return table_text(rows, "ll");
}

std::vector<std::string> datastore_row(const datastore_info_t& info, bool human) {
    const bool known = info.accessible != 0;
    const auto size = [&](std::uint64_t bytes) { return known ? size_text(bytes, human) : "-"; };
    const std::uint64_t used = info.capacity - std::min(info.free_space, info.capacity);
    const double share = info.capacity == 0 ? 0 : static_cast<double>(used) / static_cast<double>(info.capacity);
    return {printable(info.name),
            printable(info.type),
            size(info.capacity),
            size(info.free_space),
            known ? cor_format("%.0f%%", share * 100) : "not accessible",
            printable(info.dc),
            printable(info.url)};
}

errdesc_t* run_ls(const ks_hypervisor_config_t& hvc, const fileops_options_t& options, std::string* text) {
    std::string datacenter;
    RETURN_IF_ERROR(find_datacenter(hvc, options, options.paths[0], &datacenter));
    std::vector<esx_file_desc_t> list;
    RETURN_IF_ERROR(ws_ls(hvc, datacenter, options.paths[0], &list));
    if (options.verbose)
        for (const esx_file_desc_t& fd : list)
            fdesc_dump("ls", fd);
    *text = options.json ? json_text(list, list_of(jdr_fdesc)) : files_text(list, options.human);
    return nullptr;
}

errdesc_t* run_stat(const ks_hypervisor_config_t& hvc, const fileops_options_t& options, std::string* text) {
    std::string datacenter;
    RETURN_IF_ERROR(find_datacenter(hvc, options, options.paths[0], &datacenter));
    esx_file_desc_t fd;
    RETURN_IF_ERROR(ws_stat(hvc, datacenter, options.paths[0], &fd));
    if (options.verbose)
        fdesc_dump("stat", fd);
    *text = options.json ? json_text(fd, jdr_fdesc) : file_text(fd, options.human);
    return nullptr;
}

errdesc_t* run_mkdir(const ks_hypervisor_config_t& hvc, const fileops_options_t& options, std::string*) {
    std::string datacenter;
    RETURN_IF_ERROR(find_datacenter(hvc, options, options.paths[0], &datacenter));
    return ws_mkdir(hvc, datacenter, options.paths[0], options.parents);
}

errdesc_t* run_rm(const ks_hypervisor_config_t& hvc, const fileops_options_t& options, std::string*) {
    std::string datacenter;
    RETURN_IF_ERROR(find_datacenter(hvc, options, options.paths[0], &datacenter));
    return ws_unlink(hvc, datacenter, options.paths[0]);
}

// cp and mv.
template <errdesc_t* (*call)(const ks_hypervisor_config_t&, const std::string&, const std::string&, const std::string&,
                             const std::string&, bool)>
errdesc_t* run_transfer(const ks_hypervisor_config_t& hvc, const fileops_options_t& options, std::string*) {
    std::string from;
    std::string to;
    RETURN_IF_ERROR(find_datacenter(hvc, options, options.paths[0], &from));
    RETURN_IF_ERROR(find_datacenter(hvc, options, options.paths[1], &to));
    return call(hvc, from, options.paths[0], to, options.paths[1], options.force);
}

errdesc_t* run_df(const ks_hypervisor_config_t& hvc, const fileops_options_t& options, std::string* text) {
    std::vector<datastore_info_t> list;
    RETURN_IF_ERROR(ws_df(hvc, &list));
    if (options.verbose)
        for (const datastore_info_t& info : list)
            datastore_info_dump("df", info);
    std::vector<std::vector<std::string>> rows = {
        {"DATASTORE", "TYPE", "CAPACITY", "FREE", "USED", "DATACENTER", "URL"}};
    for (const datastore_info_t& info : list)
        rows.push_back(datastore_row(info, options.human));
    *text = options.json ? json_text(list, list_of(jdr_datastore_info)) : table_text(rows, "llrrrll");
    return nullptr;
}

}  // namespace

const std::vector<fileops_command_t>& fileops_commands() {
    static const std::vector<fileops_command_t> commands = {
        {.name = "ls",
         .operands = "PATH",
         .help = "list a folder: type, size, time of change and name",
         .run = run_ls,
         .paths = 1,
         .prints = true},
        {.name = "stat", .operands = "PATH", .help = "tell of one file", .run = run_stat, .paths = 1, .prints = true},
        {.name = "mkdir",
         .operands = "PATH",
         .help = "make a folder",
         .run = run_mkdir,
         .paths = 1,
         .takes_parents = true},
        {.name = "rm", .operands = "PATH", .help = "remove a file or an empty folder", .run = run_rm, .paths = 1},
        {.name = "cp",
         .operands = "FROM TO",
         .help = "copy a file; TO is its new path, not a folder",
         .run = run_transfer<ws_cp>,
         .paths = 2,
         .takes_force = true},
        {.name = "mv",
         .operands = "FROM TO",
         .help = "move a file or a folder likewise",
         .run = run_transfer<ws_mv>,
         .paths = 2,
         .takes_force = true},
        {.name = "df",
         .operands = "",
         .help = "list the datastores and their space",
         .run = run_df,
         .paths = 0,
         .prints = true},
    };
    return commands;
}

}  // namespace mirador
