// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/webservices/ws_snapshot.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "lib/cor_assert.h"
#include "vmware/lib/webservices/ws_marshal.h"

namespace mirador {
namespace {

// No number at all is none.
template <typename T>
int cut_count(T number) {
    return number > 0 ? static_cast<int>(std::min(number, static_cast<T>(ws_max_count))) : 0;
}

int decode_count(json_object* data) {
    if (json_object_is_type(data, json_type_string))
        return cut_count(std::strtoll(json_object_get_string(data), nullptr, 10));
    return cut_count(json_object_get_double(data));
}

errdesc_t* call_for_count(const ks_hypervisor_config_t& hvc, const jrpc_args_t& args, int* count) {
    json_ptr data;
    RETURN_IF_ERROR(jrpc_single_call_raw(hvc, args, &data));
    if (count != nullptr)
        *count = decode_count(data.get());
    return nullptr;
}

bool decode_entry(json_object* entry, ws_snapshot_desc_t* desc) {
    using time_limits_t = std::numeric_limits<std::int32_t>;
    std::int32_t quiesced = 0;
    if (jdr_text(JDR_DECODE, &entry, "name", &desc->name) < 0 ||
        jdr_text(JDR_DECODE, &entry, "vmname", &desc->vmname) < 0 ||
        jdr_text(JDR_DECODE, &entry, "vmuuid", &desc->vmuuid) < 0 ||
        jdr_time_t(JDR_DECODE, &entry, "createTime", &desc->ctime) < 0 ||
        jdr_int32(JDR_DECODE, &entry, "quiesced", &quiesced) < 0)
        return false;
    desc->ctime = std::clamp<std::time_t>(desc->ctime, time_limits_t::min(), time_limits_t::max());
    desc->quiesced = quiesced != 0;
    return true;
}

void decode_list(json_object* data, std::vector<ws_snapshot_desc_t>* list) {
    if (!json_object_is_type(data, json_type_array))
        return;
    const std::size_t count = json_object_array_length(data);
    std::size_t unread = 0;
    for (std::size_t i = 0; i < count; i++) {
        ws_snapshot_desc_t desc;
        if (decode_entry(json_object_array_get_idx(data, i), &desc))
            list->push_back(std::move(desc));
        else
            unread++;
    }
    if (unread > 0)
        _errdesc_log(errdesc_set_fmt(ERR_JSON_MISSING_FIELD, "left out %zu of %zu snapshots that the agent lists",
                                     unread, count),
                     ERRDESC_WARNING);
}

}  // namespace

errdesc_t* ws_create_snapshot(const ks_hypervisor_config_t& hvc, const std::string& vmname, const std::string& vmuuid,
                              const std::string& snapshotname, bool quiesce) {
    return jrpc_single_call_raw(hvc, {"create_snapshot", vmname, vmuuid, snapshotname, ws_flag(quiesce)}, nullptr);
}

errdesc_t* ws_create_top_snapshot(const ks_hypervisor_config_t& hvc, const std::string& vmname,
                                  const std::string& vmuuid, const std::string& snapshotname, bool quiesce,
                                  int* create_count) {
    cor_assert(create_count != nullptr);
    return call_for_count(hvc, {"create_top_snapshot", vmname, vmuuid, snapshotname, ws_flag(quiesce)}, create_count);
}

errdesc_t* ws_remove_snapshot(const ks_hypervisor_config_t& hvc, const std::string& vmname, const std::string& vmuuid,
                              const std::string& snapshotname, bool blocking, int* remove_count) {
    return call_for_count(hvc, {"remove_snapshot", vmname, vmuuid, snapshotname, ws_flag(blocking)}, remove_count);
}

errdesc_t* ws_list_snapshot(const ks_hypervisor_config_t& hvc, const std::string& snapshotname_regex,
                            std::vector<ws_snapshot_desc_t>* list) {
    cor_assert(list != nullptr);
    json_ptr data;
    RETURN_IF_ERROR(jrpc_single_call_raw(hvc, {"list_snapshot", snapshotname_regex}, &data));
    decode_list(data.get(), list);
    return nullptr;
}

}  // namespace mirador
