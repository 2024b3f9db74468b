// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/controller.h"

#include <cerrno>
#include <utility>

#include "controller/lib/controller_raw.h"
#include "controller/lib/controller_url.h"
#include "controller/lib/json_parse.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/httpclnt.h"

namespace mirador {
namespace {

// A new list of what `decode` makes of the reply.
template <typename record_t, typename decode_t>
errdesc_t* get_list(const std::string& object, const decode_t& decode, record_list_ptr<record_t>* list) {
    cor_assert(list != nullptr);
    list->reset();
    auto records = list_new<record_t>();
    RETURN_IF_ERROR(controller_raw_do_get(controller_get_url(), object,
                                          [&](const std::string& body) { return decode(body, records.get()); }));
    *list = std::move(records);
    return nullptr;
}

errdesc_t* decode_vms(const std::string& body, list_t<ks_vm_config_t>* list) {
    int n_added = 0;
    return json_parse_vm_config(body, list, &n_added);
}

// Moves the first record that matches out of the list.
template <typename record_t, typename match_t>
std::optional<record_t> take_first(list_t<record_t>& list, const match_t& match) {
    while (std::optional<record_t> record = list_pop(list))
        if (match(*record))
            return record;
    return std::nullopt;
}

errdesc_t* escape(const std::string& name, std::string* escaped) {
    http_handle_ptr connection;
    RETURN_IF_ERROR(httpclnt_open(&connection));
    if (errdesc_t* e = httpclnt_escape_str(*connection, name, escaped))
        return errdesc_set_str(e->number, name);
    return nullptr;
}

errdesc_t* get_vdisks(const std::string& object, bool include_corcbt, record_list_ptr<ks_vdisk_t>* list) {
    const auto decode = [&](const std::string& body, list_t<ks_vdisk_t>* disks) {
        return json_parse_vdisk(body, include_corcbt, disks);
    };
    return get_list(object, decode, list);
}

}  // namespace

errdesc_t* controller_get_hypervisors(record_list_ptr<ks_hypervisor_config_t>* list) {
    const auto decode = [](const std::string& body, list_t<ks_hypervisor_config_t>* hypervisors) {
        int n_added = 0;
        return json_parse_hv_config(body, hypervisors, &n_added);
    };
    return get_list("hvconfig", decode, list);
}

errdesc_t* controller_get_hypervisor(ks_hypervisor_config_t* hvc, const std::string& hvname) {
    cor_assert(hvc != nullptr);
    record_list_ptr<ks_hypervisor_config_t> list;
    RETURN_IF_ERROR(controller_get_hypervisors(&list));
    auto found = take_first(*list, [&](const ks_hypervisor_config_t& record) { return record.hostname == hvname; });
    if (!found)
        return errdesc_set_str(ENOENT, hvname);
    *hvc = std::move(*found);
    return nullptr;
}

errdesc_t* controller_get_vm(std::unique_ptr<ks_vm_config_t>* vmc, const std::string& vm_uuid) {
    cor_assert(vmc != nullptr);
    vmc->reset();
    record_list_ptr<ks_vm_config_t> list;
    RETURN_IF_ERROR(get_list("vhost?vm_uuid=" + vm_uuid, decode_vms, &list));
    if (std::optional<ks_vm_config_t> first = list_pop(*list))
        *vmc = std::make_unique<ks_vm_config_t>(std::move(*first));
    return nullptr;
}

errdesc_t* controller_get_vms(const ks_hypervisor_config_t& hvc, record_list_ptr<ks_vm_config_t>* list) {
    return get_list("vhost?hv_hostname=" + ks_text(hvc.hostname), decode_vms, list);
}

errdesc_t* controller_get_user_defined_folders(record_list_ptr<ks_vm_folder_t>* list) {
    return get_list("folder", json_parse_folders, list);
}

errdesc_t* controller_get_vdisks(const std::optional<std::string>& vm_uuid, record_list_ptr<ks_vdisk_t>* list) {
    return get_vdisks(vm_uuid ? "vdisk?vhost_uuid=" + *vm_uuid : "vdisk", false, list);
}

errdesc_t* controller_get_corcbt_vdisks(const std::optional<std::string>& vm_uuid,
                                        const std::optional<std::string>& name, record_list_ptr<ks_vdisk_t>* list) {
    std::string object = "vdisk";
    if (vm_uuid)
        object += "?vhost_uuid=" + *vm_uuid;
    if (vm_uuid && name) {
        std::string escaped;
        RETURN_IF_ERROR(escape(*name, &escaped));
        object += "&name=" + escaped;
    }
    return get_vdisks(object, true, list);
}

errdesc_t* controller_get_nfs_datastores(record_list_ptr<ks_nfs_datastore_config_t>* list) {
    const auto decode = [](const std::string& body, list_t<ks_nfs_datastore_config_t>* datastores) {
        int n_added = 0;
        return json_parse_nfs_datastores_config(body, datastores, &n_added);
    };
    return get_list("nfs_datastore", decode, list);
}

errdesc_t* controller_get_datastores(record_list_ptr<ks_ds_config_t>* list) {
    return get_list("datastore", json_parse_datastores_config, list);
}

errdesc_t* controller_get_datastore(std::unique_ptr<ks_ds_config_t>* dsc, const std::string& name_or_uuid,
                                    const std::optional<std::string>& datacenter) {
    cor_assert(dsc != nullptr);
    dsc->reset();
    record_list_ptr<ks_ds_config_t> list;
    RETURN_IF_ERROR(controller_get_datastores(&list));
    auto found = take_first(*list, [&](const ks_ds_config_t& record) {
        return (record.uuid == name_or_uuid || record.name == name_or_uuid) && (!datacenter || record.dc == datacenter);
    });
    if (!found && datacenter)
        return errdesc_set_fmt(ENOENT, "Cannot find datastore %s in datacenter %s", name_or_uuid.c_str(),
                               datacenter->c_str());
    if (!found)
        return errdesc_set_fmt(ENOENT, "Cannot find datastore %s", name_or_uuid.c_str());
    *dsc = std::make_unique<ks_ds_config_t>(std::move(*found));
    return nullptr;
}

}  // namespace mirador
