// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/vmcfg.h"

#include <cerrno>
#include <string_view>
#include <vector>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

using text_t = std::optional<std::string>;

constexpr std::uint32_t first_version_with_host = 2;

struct field_t {
    const char* key;
    const text_t* text;
};

void check_magics(const vmcfg_t* vmcfg) {
    cor_assert(vmcfg != nullptr);
    cor_assert(vmcfg->magic == vmcfg_t::magic_value);
    for (const auto& disk : vmcfg->vdsk)
        cor_assert(disk == nullptr || disk->magic == vmcfg_vd_t::magic_value);
}

// The first of them that must be there and is not; null when all are.
const char* first_missing(const std::vector<field_t>& fields) {
    for (const field_t& field : fields) {
        if (!*field.text)
            return field.key;
    }
    return nullptr;
}

errdesc_t* verify_fields(const std::vector<field_t>& fields) {
    const char* key = first_missing(fields);
    return key == nullptr ? nullptr : errdesc_set_str(EINVAL, std::string("missing `") + key + "'");
}

errdesc_t* verify_disk(int index, const vmcfg_vd_t& disk) {
    const char* key = first_missing({{"name", &disk.name},
                                     {"extent-name", &disk.extentname},
                                     {"directory", &disk.directory},
                                     {"dsname", &disk.dsname}});
    if (key == nullptr && disk.size == 0)
        key = "size";
    if (key != nullptr)
        return errdesc_set_fmt(EINVAL, "missing `%s' for disk %d", key, index);
    if (disk.type != VDSK_THICK && disk.type != VDSK_THIN)
        return errdesc_set_fmt(EINVAL, "invalid disk `type' for disk %d: `thin' or `thick'", index);
    return nullptr;
}

errdesc_t* refuse(const char* fault, const char* key) {
    return errdesc_set_fmt(EINVAL, "VM configuration refused, %s: %s", fault, key);
}

errdesc_t* check_text(const field_t& field) {
    if (!*field.text)
        return nullptr;
    std::size_t escaped = 0;
    for (const char c : **field.text) {
        if (c == '\0')
            return refuse("a text with a zero byte", field.key);
        escaped += c == '\\' || c == '"' ? 2 : 1;
    }
    return escaped + 2 >= path_size ? refuse("a text that is too long", field.key) : nullptr;
}

errdesc_t* check_texts(const std::vector<field_t>& fields) {
    for (const field_t& field : fields)
        RETURN_IF_ERROR(check_text(field));
    return nullptr;
}

void default_to(text_t* text, const text_t& other) {
    if (!*text)
        *text = other;
}

}  // namespace

vmcfg_vd_t* malloc_vdsk(vmcfg_t* vmcfg, std::size_t index) {
    cor_assert(vmcfg != nullptr && index < vmcfg_t::max_disks);
    auto& slot = vmcfg->vdsk[index];
    if (slot == nullptr) {
        cor_assert_text(vmcfg->vdsk_count < vmcfg_t::max_disks, "vmcfg->vdsk_count < 184");
        slot = std::make_unique<vmcfg_vd_t>();
        vmcfg->vdsk_count++;
    }
    cor_assert(slot->magic == vmcfg_vd_t::magic_value);
    return slot.get();
}

errdesc_t* cfg_parse_verify(const vmcfg_t* vmcfg) {
    check_magics(vmcfg);
    if (vmcfg->version > vmcfg_t::version_value)
        return errdesc_set_str(EINVAL, "Unsupported version number");
    RETURN_IF_ERROR(verify_fields({{"vmname", &vmcfg->vmname}, {"servername", &vmcfg->servername}}));
    // The uuid is in no version's duties, though it came with the third.
    if (vmcfg->version >= first_version_with_host)
        RETURN_IF_ERROR(verify_fields({{"hostsystem", &vmcfg->hostsystem}, {"resourcepool", &vmcfg->resourcepool}}));
    RETURN_IF_ERROR(
        verify_fields({{"directory", &vmcfg->directory}, {"dsname", &vmcfg->dsname}, {"vmx-name", &vmcfg->vmxname}}));
    for (std::size_t i = 0; i < vmcfg->vdsk.size(); i++) {
        if (vmcfg->vdsk[i] != nullptr)
            RETURN_IF_ERROR(verify_disk(static_cast<int>(i), *vmcfg->vdsk[i]));
    }
    return nullptr;
}

errdesc_t* cfg_check_record(const vmcfg_t* vmcfg) {
    check_magics(vmcfg);
    RETURN_IF_ERROR(check_texts({{"vmname", &vmcfg->vmname},
                                 {"vmuuid", &vmcfg->vmuuid},
                                 {"servername", &vmcfg->servername},
                                 {"hostsystem", &vmcfg->hostsystem},
                                 {"resourcepool", &vmcfg->resourcepool},
                                 {"directory", &vmcfg->directory},
                                 {"dsname", &vmcfg->dsname},
                                 {"vmx-name", &vmcfg->vmxname},
                                 {"vmx-rename", &vmcfg->vmxrename}}));
    if (vmcfg->vmuuid && vmcfg->vmuuid->find_first_of("\"\\") != std::string::npos)
        return refuse("quotes or backslashes", "vmuuid");
    if (vmcfg->on_conflict > VMCFG_CONFLICT_SNAPSHOT)
        return refuse("an unknown value", "on-conflict");
    if (vmcfg->access_time < 0)
        return refuse("a time before the epoch", "access-time");
    for (const auto& disk : vmcfg->vdsk) {
        if (disk != nullptr)
            RETURN_IF_ERROR(check_texts({{"name", &disk->name},
                                         {"rename", &disk->rename},
                                         {"extent-name", &disk->extentname},
                                         {"extent-rename", &disk->extentrename},
                                         {"fpath", &disk->fpath},
                                         {"directory", &disk->directory},
                                         {"dsname", &disk->dsname}}));
    }
    return nullptr;
}

void cfg_normalize(vmcfg_t* vmcfg) {
    check_magics(vmcfg);
    default_to(&vmcfg->vmxrename, vmcfg->vmxname);
    for (const auto& disk : vmcfg->vdsk) {
        if (disk == nullptr)
            continue;
        default_to(&disk->rename, disk->name);
        default_to(&disk->extentrename, disk->extentname);
    }
}

void cfg_parse_free(vmcfg_t* vmcfg) {
    cor_assert(vmcfg != nullptr);
    if (vmcfg->magic == 0)
        return;
    check_magics(vmcfg);
    *vmcfg = {};
}

}  // namespace mirador
