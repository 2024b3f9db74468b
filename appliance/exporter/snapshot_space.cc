// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_space.h"

#include <algorithm>
#include <cinttypes>
#include <string>
#include <vector>

#include "appliance/lib/registry.h"
#include "controller/lib/managed_alert.h"
#include "lib/cor_string.h"
#include "lib/log.h"
#include "vmware/lib/webservices/ws_datastore.h"

namespace mirador {
namespace {

constexpr const char* alert_id = "snapshot_space";
constexpr std::uint64_t mib = 1 << 20;
constexpr std::uint64_t least_free = 1024 * mib;
constexpr std::uint64_t least_share = 100;  // of the capacity: the hundredth part

bool is_short(const datastore_info_t& datastore) {
    return datastore.free_space < std::max(least_free, datastore.capacity / least_share);
}

errdesc_t* tell(const datastore_info_t& datastore, const ks_vm_config_t& vmc) {
    const std::string& node_uuid = get_reg_settings()->names().appliance_uuid;
    const std::string object_id = ks_text(vmc.hv_hostname) + ':' + ks_text(vmc.vm_name);
    if (!is_short(datastore))
        return managed_alert_clear(alert_id, object_id, node_uuid, vmc);
    const std::string text = cor_format("Datastore '%s' on server '%s' has only %" PRIu64
                                        " MiB free. A snapshot of virtual machine '%s' grows "
                                        "there while its disks are read.",
                                        datastore.name.c_str(), ks_text(vmc.hv_hostname).c_str(),
                                        datastore.free_space / mib, ks_text(vmc.vm_name).c_str());
    ts_printf("WARNING: %s\n", text.c_str());
    return managed_alert_post(alert_id, object_id, node_uuid, "warning", text, vmc, 0);
}

}  // namespace

void snapshot_check_space(const ks_hypervisor_config_t& hvc, const ks_vm_config_t& vmc) {
    const errdesc_keeper_t keeper;
    std::vector<datastore_info_t> datastores;
    if (errdesc_t* e = ws_df(hvc, &datastores)) {
        _errdesc_log(e, ERRDESC_DEBUG);
        return;
    }
    const auto found = std::ranges::find_if(
        datastores, [&](const datastore_info_t& datastore) { return datastore.name == ks_text(vmc.datastore_name); });
    if (found == datastores.end())
        return;
    if (errdesc_t* e = tell(*found, vmc))
        _errdesc_log(e, ERRDESC_WARNING);
}

}  // namespace mirador
