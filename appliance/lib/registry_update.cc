// SPDX-License-Identifier: Apache-2.0
// The settings as the controller's registry has them.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>

#include "appliance/lib/registry.h"
#include "controller/lib/controller.h"
#include "lib/cor_string.h"
#include "lib/log.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr std::size_t value_size = 256;  // terminator included
constexpr const char* default_vendor_id = "Corvantis";

// A reply without a body brings no text; taken for one it would read as 0.
errdesc_t* get_text(const char* key, std::string* text, std::size_t size = value_size) {
    RETURN_IF_ERROR(controller_get_registry_string(key, text, size));
    return text->empty() ? errdesc_set_fmt(ERR_JSON_MISSING_FIELD, "Missing %s in json string", "result") : nullptr;
}

// The leading decimal number, cut to its type; 0 where there is none.
errdesc_t* get_long(const char* key, long* number) {
    std::string text;
    RETURN_IF_ERROR(get_text(key, &text));
    *number = std::strtol(text.c_str(), nullptr, 10);
    return nullptr;
}

errdesc_t* get_int(const char* key, int* number) {
    long value = 0;
    RETURN_IF_ERROR(get_long(key, &value));
    *number =
        static_cast<int>(std::clamp<long>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
    return nullptr;
}

template <typename T>
void store(const char* key, reg_value_t<T>* setting, T value) {
    if (value == setting->get())
        return;
    ts_printf("reg: changing %s from %d to %d\n", key, static_cast<int>(setting->get()), static_cast<int>(value));
    *setting = value;
}

// Every text but "0" switches on.
errdesc_t* update_flag(const char* key, reg_value_t<bool>* setting) {
    std::string text;
    RETURN_IF_ERROR(get_text(key, &text));
    store(key, setting, text != "0");
    return nullptr;
}

errdesc_t* update_int(const char* key, reg_value_t<int>* setting) {
    int value = 0;
    RETURN_IF_ERROR(get_int(key, &value));
    store(key, setting, value);
    return nullptr;
}

// Turns a negative number down: the setting keeps its value.
errdesc_t* update_count(const char* key, reg_value_t<int>* setting) {
    int value = 0;
    RETURN_IF_ERROR(get_int(key, &value));
    if (value >= 0)
        store(key, setting, value);
    return nullptr;
}

errdesc_t* update_debug_level(reg_settings_t* settings) {
    constexpr const char* key = "appliance.debug.level";
    int level = 0;
    RETURN_IF_ERROR(get_int(key, &level));
    if (level != settings->debug_level)
        set_debug_level(level);
    store(key, &settings->debug_level, level);
    return nullptr;
}

errdesc_t* update_readahead(reg_settings_t* settings) {
    constexpr const char* key = "feature.read_ahead.size";
    long value = 0;
    RETURN_IF_ERROR(get_long(key, &value));
    const auto size = static_cast<std::size_t>(value);
    if (value < 0 || size == settings->readahead_size)
        return nullptr;
    ts_printf("reg: changing %s from %zd to %zd\n", key, static_cast<ssize_t>(settings->readahead_size.get()),
              static_cast<ssize_t>(size));
    settings->readahead_size = size;
    return nullptr;
}

// A controller that tells no master is the master itself.
errdesc_t* update_uuids(reg_settings_t* settings) {
    reg_names_t names = settings->names();
    RETURN_IF_ERROR(get_text("controller.uuid", &names.appliance_uuid, reg_names_t::uuid_length + 1));
    const errdesc_t* e = controller_get_master_uuid(&names.master_uuid, reg_names_t::uuid_length + 1);
    if (e != nullptr || names.master_uuid.empty())
        names.master_uuid = names.appliance_uuid;
    settings->publish_names(names);
    return nullptr;
}

errdesc_t* update_vendor_id(reg_settings_t* settings) {
    reg_names_t names = settings->names();
    RETURN_IF_ERROR(controller_get_registry_string("vendor.id", &names.vendor_id, reg_names_t::vendor_id_length + 1));
    if (names.vendor_id.empty())
        names.vendor_id = default_vendor_id;
    settings->publish_names(names);
    return nullptr;
}

errdesc_t* update_snapshot_settings(reg_settings_t* settings) {
    RETURN_IF_ERROR(update_int("snapshot.max_idle", &settings->snapshot_max_idle));
    RETURN_IF_ERROR(update_int("snapshot.max_life", &settings->snapshot_max_life));
    RETURN_IF_ERROR(update_int("snapshot.retry_limit", &settings->snapshot_retry_limit));
    return update_flag("snapshot.blocking_removal", &settings->snapshot_blocking_removal);
}

}  // namespace

errdesc_t* registry_settings_update() {
    reg_settings_t* const settings = get_reg_settings();
    RETURN_IF_ERROR(update_uuids(settings));
    RETURN_IF_ERROR(update_flag("smartread.enabled", &settings->smartread_optimize));
    RETURN_IF_ERROR(update_flag("smartread.lvm.enabled", &settings->smartread_lvm_enabled));
    RETURN_IF_ERROR(update_flag("directio.enabled", &settings->directio));
    RETURN_IF_ERROR(update_int("export.cache.ttl", &settings->cache_ttl));
    RETURN_IF_ERROR(update_flag("export.ondemand.enabled", &settings->ondemand_refresh));
    RETURN_IF_ERROR(update_flag("export.vm_uuid.enabled", &settings->export_vm_uuid_enabled));
    RETURN_IF_ERROR(update_debug_level(settings));
    RETURN_IF_ERROR(update_flag("appliance.cbt.debug", &settings->cbt_debug_enabled));
    RETURN_IF_ERROR(update_flag("recover.automount.enabled", &settings->recover_automount_enabled));
    RETURN_IF_ERROR(update_int("appliance.cbt.percent", &settings->cbt_percent));
    RETURN_IF_ERROR(update_vendor_id(settings));
    static_cast<void>(update_readahead(settings));  // the one key that may be missing
    RETURN_IF_ERROR(update_snapshot_settings(settings));
    RETURN_IF_ERROR(update_count("nfc.session.reserved", &settings->nfc_session_reserved));
    return update_count("export.max_session", &settings->max_session);
}

void set_cbt_debug() {
    const std::string mark = tool_paths().tmp_dir + "/cbt_debug";
    struct stat st {};
    const bool enabled = stat(mark.c_str(), &st) == 0;
    if (enabled)
        ts_printf("enabling cbt_debug\n");
    get_reg_settings()->cbt_debug_enabled = enabled;
}

}  // namespace mirador
