// SPDX-License-Identifier: Apache-2.0
// Any bytes in the place of the controller's replies: decoded, checked, and what passed a check put to use. The first
// byte chooses the kind of reply.
#include <cstddef>
#include <cstdint>
#include <string>

#include "controller/lib/inventory_check.h"
#include "controller/lib/json_parse.h"
#include "controller/lib/json_records.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/tool_paths.h"

using namespace mirador;

namespace {

bool is_component(const std::string& name) {
    return !name.empty() && name.size() <= 255 && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool stays_below(const std::string& path) {
    return ("/" + path + "/").find("/../") == std::string::npos;
}

void use_hypervisors(const std::string& text) {
    list_t<ks_hypervisor_config_t> list;
    int n_added = 0;
    if (json_parse_hv_config(text, &list, &n_added) == nullptr)
        cor_assert(n_added == list_count(list));
    while (const auto hvc = list_pop(list)) {
        if (ks_hypervisor_config_check(*hvc) != nullptr)
            continue;
        cor_assert(is_component(*hvc->hostname) && hvc->hostname->front() != '.');
        ks_hypervisor_config_t copy;
        ks_hypervisor_config_copy(&copy, &*hvc);
    }
}

void use_vm(const ks_vm_config_t& vm) {
    cor_assert(is_component(*vm.uuid) && vm.uuid->size() < 64);
    cor_assert(is_component(*vm.hv_hostname) && is_component(vm.fldr_name.value_or("").empty() ? "x" : *vm.fldr_name));
    const std::string key = ks_is_set(vm.datastore_uuid) ? *vm.datastore_uuid : ks_text(vm.datastore_name);
    cor_assert(key.empty() || is_component(key));
    cor_assert(stays_below(*vm.vmx_path) && vm.vmx_path->size() > 4);
    const std::string cached =
        cor_format_path("%s/%s/%s", tool_paths().cache_dir.c_str(), key.c_str(), vm.vmx_path->c_str());
    cor_assert(cached.size() <= 512 && cached.ends_with(vm.is_template ? ".vmtx" : ".vmx"));
    ks_vm_config_t copy;
    ks_vm_config_copy(&copy, &vm);
    cor_assert(!ks_vm_config_diff(&copy, &vm));
}

void use_vms(const std::string& text) {
    list_t<ks_vm_config_t> list;
    int n_added = 0;
    static_cast<void>(json_parse_vm_config(text, &list, &n_added));
    while (const auto vm = list_pop(list))
        if (ks_vm_config_check(*vm) == nullptr)
            use_vm(*vm);
}

void use_folders(const std::string& text) {
    list_t<ks_vm_folder_t> list;
    static_cast<void>(json_parse_folders(text, &list));
    while (const auto folder = list_pop(list))
        if (ks_vm_folder_check(*folder) == nullptr)
            cor_assert(is_component(*folder->fldr_name) && !folder->fldr_uuid->empty());
}

void use_disks(const std::string& text) {
    list_t<ks_vdisk_t> list;
    static_cast<void>(json_parse_vdisk(text, false, &list));
    const bool few = ks_vdisk_count_check(list, "vm") == nullptr;
    int exported = 0;
    while (const auto disk = list_pop(list)) {
        exported += disk->independent ? 0 : 1;
        cor_assert(disk->corcbt_size_percentage >= 1 && disk->corcbt_size_percentage <= 100);
        cor_assert(ks_vdisk_to_json_object(&*disk) != nullptr);
        if (ks_vdisk_check(*disk) != nullptr)
            continue;
        cor_assert(stays_below(*disk->base_ascii_path) && stays_below(*disk->base_extent_path));
        for (const auto path : {&ks_vdisk_t::base_ascii_path, &ks_vdisk_t::base_extent_path,
                                &ks_vdisk_t::head_ascii_path, &ks_vdisk_t::head_extent_path})
            cor_assert(is_component(std::string(last_component(*((*disk).*path)))));
    }
    cor_assert(few == (exported <= max_exported_disks));
}

void use_datastores(const std::string& text) {
    list_t<ks_ds_config_t> datastores;
    static_cast<void>(json_parse_datastores_config(text, &datastores));
    while (const auto datastore = list_pop(datastores)) {
        std::unique_ptr<ks_ds_config_t> copy;
        cor_assert(ks_ds_config_copy(&*datastore, &copy) == nullptr && copy->paths != nullptr);
    }
    list_t<ks_nfs_datastore_config_t> nfs;
    int n_added = 0;
    static_cast<void>(json_parse_nfs_datastores_config(text, &nfs, &n_added));
    cor_assert(n_added == list_count(nfs));
}

void use_values(const std::string& text) {
    std::string value;
    if (json_parse_registry_value(text, "key", &value, 11) == nullptr)
        cor_assert(!value.empty() && value.size() <= 10);
    static_cast<void>(json_parse_gen_id(text, &value));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr void (*uses[])(const std::string&) = {use_hypervisors, use_vms,        use_folders,
                                                    use_disks,       use_datastores, use_values};
    if (size == 0)
        return 0;
    uses[data[0] % std::size(uses)](std::string(data + 1, data + size));
    return 0;
}
