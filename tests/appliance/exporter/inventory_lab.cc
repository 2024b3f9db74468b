// SPDX-License-Identifier: Apache-2.0
#include "tests/appliance/exporter/inventory_lab.h"

#include <algorithm>
#include <filesystem>

#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/vm_proxy_evict.h"
#include "appliance/exporter/vm_state.h"
#include "appliance/lib/registry.h"
#include "controller/lib/json_parse.h"
#include "controller/lib/managed_alert.h"
#include "lib/cor_string.h"
#include "lib/json_tools.h"
#include "lib/tool_paths.h"
#include "vmware/lib/vmdk/datastore_path.h"

namespace mirador {
namespace {

std::string text_field(const std::string& body, const char* name) {
    const json_ptr object(json_tokener_parse(body.c_str()));
    const char* text = json_object_get_string(json_object_object_get(object.get(), name));
    return text == nullptr ? "" : text;
}

void set(json_object* object, const char* name, const std::string& text) {
    json_object_object_add(object, name, json_object_new_string(text.c_str()));
}

void set(json_object* object, const char* name, std::int64_t number) {
    json_object_object_add(object, name, json_object_new_int64(number));
}

std::string flat_name(const std::string& vmdk) {
    return vmdk.substr(0, vmdk.rfind('.')) + "-flat.vmdk";
}

std::string extent_name(const lab_disk_t& disk, const std::string& vmdk) {
    return disk.extent.empty() || vmdk != disk.name ? flat_name(vmdk) : disk.extent;
}

}  // namespace

inventory_lab_t::inventory_lab_t() {
    std::filesystem::create_directories(shadow_);
    std::filesystem::create_directories(datastore_);
    datastore_mount_points = {dir_ / "volumes"};
    tool_paths().cache_dir = dir_ / "cache";
    cnt_thr_set_up(shadow_, false);
    answer("", "[]");
}

inventory_lab_t::~inventory_lab_t() {
    vm_stop_old(~std::uint64_t{0});
    EXPECT_TRUE(vm_state_get_keys().empty());
    EXPECT_EQ(get_fs_blocks_used(), 0);
    EXPECT_EQ(managed_alert_clear_all(""), nullptr);
    vm_proxy_release_all();
}

void inventory_lab_t::make_disk(const lab_disk_t& disk) const {
    const std::string in_dir = datastore_ + "/" + disk.dir + "/";
    std::filesystem::create_directories(in_dir);
    for (const std::string& name : {disk.name, disk.head.empty() ? disk.name : disk.head})
        write_file(in_dir + name, cor_format("# Disk DescriptorFile\nversion=1\nCID=0000ffff\nparentCID=ffffffff\n"
                                             "createType=\"vmfs\"\nRW %d VMFS \"%s\" 0\n",
                                             static_cast<int>(disk_bytes / 512), extent_name(disk, name).c_str()));
    write_file(in_dir + extent_name(disk, disk.name), std::string(disk_bytes, 'd'));
    if (!disk.head.empty())
        write_file(in_dir + flat_name(disk.head), "");
}

void inventory_lab_t::make_files(const lab_vm_t& vm) const {
    std::string vmx = "displayName = \"" + vm.name + "\"\n";
    for (std::size_t i = 0; i < vm.disks.size(); i++) {
        const lab_disk_t& disk = vm.disks[i];
        make_disk(disk);
        vmx += cor_format("scsi0:%zu.present = \"TRUE\"\nscsi0:%zu.fileName = \"%s/%s/%s\"\n", i, i, datastore_.c_str(),
                          disk.dir.c_str(), (disk.head.empty() ? disk.name : disk.head).c_str());
    }
    std::filesystem::create_directories(datastore_ + "/vm");
    write_file(datastore_ + "/vm/vm.vmx", vmx);
}

std::string inventory_lab_t::vm_json(const lab_vm_t& vm) const {
    const json_ptr object(json_object_new_object());
    json_object* json = object.get();
    set(json, "hv_hostname", vm.host);
    set(json, "name", vm.name);
    set(json, "uuid", vm.uuid);
    if (!vm.folder.empty())
        set(json, "folder", vm.folder);
    set(json, "vmx_path", std::string("vm/vm.vmx"));
    set(json, "datastore_name", std::string("ds1"));
    set(json, "host_system", std::string("host"));
    set(json, "resource_pool", std::string("pool"));
    set(json, "export_enabled", vm.exported ? 1 : 0);
    set(json, "controller_export_enabled", 1);
    set(json, "use_cbt", vm.use_cbt ? 1 : 0);
    set(json, "cbt_reset_pending", vm.cbt_reset_pending ? 1 : 0);
    set(json, "cbt_reset_time", vm.cbt_reset_time);
    set(json, "cbt_reset_time_prev", vm.cbt_reset_time_prev);
    set(json, "snap_exists", vm.snap_exists);
    set(json, "quiesce_enabled", vm.quiesce ? 1 : 0);
    set(json, "snap_suffix", vm.suffix);
    set(json, "last_discover_time", vm.discovered);
    return json_object_to_json_string(json);
}

std::string inventory_lab_t::disks_json(const lab_vm_t& vm) const {
    const json_ptr array(json_object_new_array());
    for (const lab_disk_t& disk : vm.disks) {
        const std::string in_dir = datastore_ + "/" + disk.dir + "/";
        const std::string head = disk.head.empty() ? disk.name : disk.head;
        json_object* json = json_object_new_object();
        set(json, "vhost_uuid", vm.uuid);
        set(json, "name", disk.name);
        set(json, "flat_file_size", disk_bytes);
        set(json, "base_ascii_path", in_dir + disk.name);
        set(json, "base_extent_path", in_dir + extent_name(disk, disk.name));
        if (head != "-") {
            set(json, "head_ascii_path", in_dir + head);
            set(json, "head_extent_path", in_dir + extent_name(disk, head));
        }
        set(json, "independent", disk.independent ? 1 : 0);
        set(json, "thin_provisioned", disk.thin ? 1 : 0);
        json_object_array_add(array.get(), json);
    }
    return json_object_to_json_string(array.get());
}

void inventory_lab_t::list(const std::vector<lab_vm_t>& vms) {
    std::map<std::string, std::string> hosts;
    for (const lab_vm_t& vm : vms) {
        std::string& of_host = hosts[vm.host];
        of_host += (of_host.empty() ? "" : ",") + vm_json(vm);
        answer("vdisk?vhost_uuid=" + vm.uuid, disks_json(vm));
        answer("vhost?vm_uuid=" + vm.uuid, "[" + vm_json(vm) + "]");
    }
    std::string hvconfig;
    for (const auto& [host, text] : hosts) {
        answer("vhost?hv_hostname=" + host, "[" + text + "]");
        hvconfig += (hvconfig.empty() ? "" : ",") +
                    cor_format(R"({"hostname": "%s", "hv_type": "ESXi", "hv_port": 443, "login_name": "root", )"
                               R"("password": "secret"})",
                               host.c_str());
    }
    answer("hvconfig", "[" + hvconfig + "]");
}

ks_vm_config_t inventory_lab_t::config(const lab_vm_t& vm) const {
    list_t<ks_vm_config_t> list;
    int added = 0;
    EXPECT_EQ(json_parse_vm_config(vm_json(vm), &list, &added), nullptr);
    EXPECT_EQ(added, 1);
    return *list_pop(list);
}

ks_hypervisor_config_t inventory_lab_t::host(const lab_vm_t& vm) {
    ks_hypervisor_config_t hvc;
    hvc.hostname = vm.host;
    hvc.hv_type = "ESXi";
    return hvc;
}

std::vector<std::string> inventory_lab_t::alerts() {
    const std::vector<std::string> bodies = posted("alert");
    std::vector<std::string> seen;
    for (; alerts_seen_ < bodies.size(); alerts_seen_++) {
        const std::string& body = bodies[alerts_seen_];
        seen.push_back(text_field(body, "action") + " " + text_field(body, "alert_id") + " " +
                       text_field(body, "object_id"));
    }
    return seen;
}

std::string inventory_lab_t::names(const std::string& dir) const {
    const std::string path = shadow_ + "/" + dir;
    if (!std::filesystem::exists(path))
        return "-";
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(path))
        found.push_back(entry.path().filename());
    std::ranges::sort(found);
    std::string text;
    for (const std::string& name : found)
        text += (text.empty() ? "" : " ") + name;
    return text;
}

}  // namespace mirador
