// SPDX-License-Identifier: Apache-2.0
#include "appliance/autodiscover/vhost.h"

#include <cerrno>
#include <string_view>

#include "appliance/autodiscover/vmware.h"
#include "lib/cor_assert.h"
#include "lib/walker.h"

namespace mirador {
namespace {

constexpr std::string_view vmware_suffix = ".vmx";

using fill_t = errdesc_t* (*)(const std::string& path, vhost_record_t* record);

errdesc_t* fill_and_validate(const std::string& path, fill_t fill, vhost_record_t* record) {
    RETURN_IF_ERROR(fill(path, record));
    return vhost_record_validate(path, *record);
}

errdesc_t* make_record(const std::string& path, fill_t fill, std::unique_ptr<vhost_record_t>* record) {
    cor_assert(*record == nullptr);
    *record = std::make_unique<vhost_record_t>();
    (*record)->magic = vhost_record_t::magic_value;
    (*record)->version = vhost_record_t::version_value;
    (*record)->type = VHOST_VMWARE;
    errdesc_t* const e = fill_and_validate(path, fill, record->get());
    if (e != nullptr)
        (*record)->err = std::make_unique<const errdesc_t>(*e);
    return e;
}

// What a walk found becomes a record, complete or not.
void add_record(const std::string& path, vhost_list_t* list) {
    std::unique_ptr<vhost_record_t> record;
    if (errdesc_t* e = vhost_record_new_any(path, &record))
        _errdesc_log(e, ERRDESC_WARNING);
    list_add(*list, std::move(record));
}

void dump_text(const char* name, const std::string& text, std::FILE* stream) {
    std::fprintf(stream, "vhost_record->%s = %s\n", name, text.c_str());
}

void dump_if_set(const char* name, const std::string& text, std::FILE* stream) {
    if (!text.empty())
        dump_text(name, text, stream);
}

}  // namespace

vhost_type_t vhost_get_type(const std::string& path) {
    return path.size() > vmware_suffix.size() && path.ends_with(vmware_suffix) ? VHOST_VMWARE : VHOST_UNKNOWN;
}

errdesc_t* vhost_record_new(const std::string& vhost_path, std::unique_ptr<vhost_record_t>* record) {
    cor_assert(vhost_get_type(vhost_path) == VHOST_VMWARE);
    return vhost_record_new_any(vhost_path, record);
}

errdesc_t* vhost_record_new_any(const std::string& vhost_path, std::unique_ptr<vhost_record_t>* record) {
    return make_record(vhost_path, vmware_get_vhost_record, record);
}

errdesc_t* vhost_record_new_at_once(const std::string& vhost_path, std::unique_ptr<vhost_record_t>* record) {
    return make_record(vhost_path, vmware_get_vhost_record_at_once, record);
}

errdesc_t* vhost_record_validate(const std::string& path, const vhost_record_t& record) {
    if (record.uuid.empty())
        return errdesc_set_fmt(EINVAL, "invalid uuid for %s", path.c_str());
    if (record.name.empty())
        return errdesc_set_fmt(EINVAL, "invalid name for %s", path.c_str());
    if (record.os.empty())
        return errdesc_set_fmt(EINVAL, "invalid operating system for %s", path.c_str());
    if (record.dirname.empty())
        return errdesc_set_fmt(EINVAL, "invalid directory for %s", path.c_str());
    if (record.vdskcount == 0)
        return errdesc_set_fmt(EINVAL, "no virtual disks for %s", path.c_str());
    for (int i = 0; i < record.vdskcount; ++i)
        if (record.vdsk.at(static_cast<std::size_t>(i)).name.empty())
            return errdesc_set_fmt(EINVAL, "invalid virtual disk %d for %s", i, path.c_str());
    return nullptr;
}

void vhost_record_free(vhost_record_t* record) {
    *record = {};
}

void vhost_record_dump(const vhost_record_t& record, std::FILE* stream) {
    dump_text("uuid", record.uuid, stream);
    dump_if_set("uuid2", record.uuid2, stream);
    dump_if_set("uuid3", record.uuid3, stream);
    dump_text("name", record.name, stream);
    dump_text("os", record.os, stream);
    dump_text("filename", record.filename, stream);
    dump_text("dirname", record.dirname, stream);
    std::fprintf(stream, "vhost_record->vdiskcount = %d\n", record.vdskcount);
    if (record.workingdir)
        dump_text("workingdir", *record.workingdir, stream);
    for (int i = 0; i < record.vdskcount; ++i) {
        const vdisk_record_t& disk = record.vdsk.at(static_cast<std::size_t>(i));
        std::fprintf(stream, "vhost_record->vdsk[%d].name = %s\n", i, disk.name.c_str());
        std::fprintf(stream, "vhost_record->vdsk[%d].snapshot_ok = %d\n", i, disk.snapshot_ok ? 1 : 0);
    }
}

errdesc_t* vhost_auto_discover(const std::vector<std::string>& paths, vhost_list_t* vhost_list) {
    const auto is_known = [](const std::string& path) { return vhost_get_type(path) == VHOST_VMWARE; };
    return vhost_auto_discover_if(paths, is_known, vhost_list);
}

errdesc_t* vhost_auto_discover_if(const std::vector<std::string>& paths,
                                  const std::function<bool(const std::string& path)>& accept,
                                  vhost_list_t* vhost_list) {
    const auto filter = [&](const walker_cb_desc_t& entry) { return accept(entry.path); };
    const auto callback = [&](const walker_cb_desc_t& entry) { add_record(entry.path, vhost_list); };
    std::vector<std::thread> threads;
    errdesc_t* e = nullptr;
    for (auto path = paths.begin(); e == nullptr && path != paths.end(); ++path) {
        std::thread thread;
        e = walker_start({*path, filter, callback}, &thread);
        if (e == nullptr)
            threads.push_back(std::move(thread));
    }
    walker_wait(&threads);
    while (e != nullptr && list_pop(*vhost_list))
        continue;
    return e;
}

}  // namespace mirador
