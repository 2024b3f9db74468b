// SPDX-License-Identifier: Apache-2.0
#include <cerrno>

#include "appliance/lib/vmcfg.h"
#include "appliance/lib/vmcfgparser.h"
#include "tools/mirador-inspect/inspect.h"
#include "tools/mirador-inspect/inspect_json.h"

namespace mirador {
namespace {

// Whether a text said anything that belongs into a VM's description.
bool says_anything(const vmcfg_t& cfg) {
    return cfg.vmname || cfg.vmuuid || cfg.servername || cfg.directory || cfg.dsname || cfg.vmxname ||
           cfg.vdsk_count != 0;
}

json_ptr optional_json(const std::optional<std::string>& text) {
    return text ? json_text(*text) : json_null();
}

json_ptr disk_json(std::size_t index, const vmcfg_vd_t& disk) {
    json_ptr json = json_map();
    json_add(json, "index", json_number(index));
    json_add(json, "name", optional_json(disk.name));
    json_add(json, "rename", optional_json(disk.rename));
    json_add(json, "extentname", optional_json(disk.extentname));
    json_add(json, "extentrename", optional_json(disk.extentrename));
    json_add(json, "fpath", optional_json(disk.fpath));
    json_add(json, "directory", optional_json(disk.directory));
    json_add(json, "dsname", optional_json(disk.dsname));
    json_add(json, "size", json_number(disk.size));
    json_add(json, "type", json_text(cfg_vdsk_type_to_string(disk.type)));
    return json;
}

json_ptr disks_json(const vmcfg_t& cfg) {
    json_ptr disks = json_array();
    for (std::size_t i = 0; i < cfg.vdsk.size(); i++) {
        if (cfg.vdsk[i] != nullptr)
            json_append(disks, disk_json(i, *cfg.vdsk[i]));
    }
    return disks;
}

json_ptr cfg_json(const vmcfg_t& cfg, const errdesc_t* fault) {
    json_ptr json = json_map();
    json_add(json, "version", json_number(cfg.version));
    json_add(json, "vmname", optional_json(cfg.vmname));
    json_add(json, "vmuuid", optional_json(cfg.vmuuid));
    json_add(json, "directory", optional_json(cfg.directory));
    json_add(json, "servername", optional_json(cfg.servername));
    json_add(json, "hostsystem", optional_json(cfg.hostsystem));
    json_add(json, "resourcepool", optional_json(cfg.resourcepool));
    json_add(json, "dsname", optional_json(cfg.dsname));
    json_add(json, "vmxname", optional_json(cfg.vmxname));
    json_add(json, "vmxrename", optional_json(cfg.vmxrename));
    json_add(json, "on_conflict", json_text(cfg_conflict_type_to_string(cfg.on_conflict)));
    json_add(json, "access_time", json_signed(cfg.access_time));
    json_add(json, "line_count", json_signed(cfg.line_count));
    json_add(json, "err_count", json_signed(cfg.err_count));
    json_add(json, "disks", disks_json(cfg));
    json_add(json, "fault", fault != nullptr ? json_text(fault->string) : json_null());
    return json;
}

}  // namespace

errdesc_t* inspect_cfg(inspect_file_t& file, const inspect_options_t& options, std::FILE* out) {
    const file_ptr in(fdopen(file.fd.get(), "r"));
    if (in == nullptr)
        return errdesc_set_str(errno, file.path);
    (void)file.fd.release();
    vmcfg_t cfg;
    errdesc_t* const fault = cfg_parse_file_contents(in.get(), &cfg);
    if (fault != nullptr && !says_anything(cfg))
        return fault;
    if (options.json)
        json_print(cfg_json(cfg, fault), out);
    else if (fault == nullptr)
        cfg_parse_dump(&cfg, out);
    return fault;
}

}  // namespace mirador
