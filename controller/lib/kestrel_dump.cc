// SPDX-License-Identifier: Apache-2.0
#include <cinttypes>

#include "controller/lib/kestrel_types.h"
#include "lib/cor_assert.h"

namespace mirador {
namespace {

const char* text_or(const ks_string_t& text, const char* absent) {
    return text ? text->c_str() : absent;
}

const char* text_of(const ks_string_t& text) {
    return text_or(text, "(null)");
}

void dump_text(std::FILE* stream, const char* name, const ks_string_t& text, const char* absent = "(null)") {
    std::fprintf(stream, "vmc->%s = %s\n", name, text_or(text, absent));
}

void dump_set(std::FILE* stream, const char* name, const ks_string_t& text) {
    if (text)
        dump_text(stream, name, text);
}

void dump_number(std::FILE* stream, const char* name, std::int64_t number) {
    std::fprintf(stream, "vmc->%s = %" PRId64 "\n", name, number);
}

void dump_vm_numbers(const ks_vm_config_t& vmc, std::FILE* stream) {
    dump_number(stream, "last_discover_time", vmc.last_discover_time);
    dump_number(stream, "is_template", vmc.is_template);
    dump_number(stream, "controller_export_enabled", vmc.controller_export_enabled);
    dump_number(stream, "export_enabled", vmc.export_enabled);
    dump_number(stream, "discover_enabled", vmc.discover_enabled);
    dump_number(stream, "alerts_enabled", vmc.alerts_enabled);
    dump_number(stream, "quiesce_enabled", vmc.quiesce_enabled);
    dump_number(stream, "use_cbt", vmc.use_cbt);
    dump_number(stream, "cbt_reset_pending", vmc.cbt_reset_pending);
    dump_number(stream, "cbt_reset_time", vmc.cbt_reset_time);
    dump_number(stream, "cbt_reset_time_prev", vmc.cbt_reset_time_prev);
    dump_number(stream, "snap_exists", vmc.snap_exists);
}

void dump_disk_file(std::FILE* stream, const char* name, const ks_string_t& path, std::uint64_t size) {
    if (path)
        std::fprintf(stream, "vd->%s = %s (%jd)\n", name, path->c_str(), static_cast<std::intmax_t>(size));
}

}  // namespace

void ks_hypervisor_config_dump(const ks_hypervisor_config_t* hvc, std::FILE* stream) {
    cor_assert(hvc != nullptr);
    std::fprintf(stream, "hvc->hostname     = %s\n", text_of(hvc->hostname));
    std::fprintf(stream, "hvc->login_name   = %s\n", text_of(hvc->login_name));
    std::fprintf(stream, "hvc->password     = %s\n", hvc->password ? hvc->password->reveal().c_str() : "(null)");
    std::fprintf(stream, "hvc->hv_port      = %d\n", static_cast<int>(hvc->hv_port));
    std::fprintf(stream, "hvc->hv_data_port = %d\n", static_cast<int>(hvc->hv_data_port));
    std::fprintf(stream, "hvc->hv_type      = %s\n", text_of(hvc->hv_type));
}

void ks_vm_config_dump(const ks_vm_config_t* vmc, std::FILE* stream) {
    cor_assert(vmc != nullptr);
    dump_text(stream, "hv_hostname", vmc->hv_hostname);
    dump_text(stream, "vm_name", vmc->vm_name);
    dump_text(stream, "uuid", vmc->uuid);
    dump_text(stream, "fldr_name", vmc->fldr_name, "NULL");
    dump_text(stream, "snap_suffix", vmc->snap_suffix, "NULL");
    dump_text(stream, "vmx_path", vmc->vmx_path);
    dump_text(stream, "snapshot_directory", vmc->snapshot_directory);
    dump_text(stream, "datastore_name", vmc->datastore_name);
    dump_set(stream, "datastore_path", vmc->datastore_path);
    dump_set(stream, "datastore_uuid", vmc->datastore_uuid);
    dump_text(stream, "datacenter", vmc->datacenter);
    dump_text(stream, "vm_folder", vmc->vm_folder);
    dump_text(stream, "host_system", vmc->host_system);
    dump_text(stream, "resource_pool", vmc->resource_pool);
    dump_vm_numbers(*vmc, stream);
    dump_text(stream, "error", vmc->error);
}

void ks_vm_folder_dump(const ks_vm_folder_t* fldr, std::FILE* stream) {
    cor_assert(fldr != nullptr);
    std::fprintf(stream, "    folder->numVMs = %" PRIu32 "\n", fldr->numVMs);
    std::fprintf(stream, "            fldr_name = %s\n", text_of(fldr->fldr_name));
    std::fprintf(stream, "            fldr_uuid = %s\n", text_of(fldr->fldr_uuid));
}

void ks_vdisk_dump(const ks_vdisk_t* vd, std::FILE* stream) {
    cor_assert(vd != nullptr);
    std::fprintf(stream, "vd->vhost_uuid = %s\n", text_of(vd->vhost_uuid));
    std::fprintf(stream, "vd->name = %s\n", text_of(vd->name));
    std::fprintf(stream, "vd->changeid = %s\n", text_of(vd->changeid));
    std::fprintf(stream, "vd->changeid_prev = %s\n", text_of(vd->changeid_prev));
    std::fprintf(stream, "vd->changeid_incr = %s\n", text_of(vd->changeid_incr));
    std::fprintf(stream, "vd->changeid_base = %s\n", text_of(vd->changeid_base));
    std::fprintf(stream, "vd->corcbt_size_percentage = %" PRIu32 "\n", vd->corcbt_size_percentage);
    std::fprintf(stream, "vd->cbt_reset_time_vdisk = %" PRIu32 "\n", vd->cbt_reset_time_vdisk);
    std::fprintf(stream, "vd->flat_file_size = %" PRIu64 "\n", vd->flat_file_size);
    dump_disk_file(stream, "base_ascii", vd->base_ascii_path, vd->base_ascii_size);
    dump_disk_file(stream, "base_extent", vd->base_extent_path, vd->base_extent_size);
    dump_disk_file(stream, "head_ascii", vd->head_ascii_path, vd->head_ascii_size);
    dump_disk_file(stream, "head_extent", vd->head_extent_path, vd->head_extent_size);
    std::fprintf(stream, "vd->independent = %d\n", static_cast<int>(vd->independent));
    std::fprintf(stream, "vd->thinprovisioned = %d\n", static_cast<int>(vd->thinprovisioned));
}

}  // namespace mirador
