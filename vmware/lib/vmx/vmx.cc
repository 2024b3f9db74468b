// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmx/vmx.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <optional>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "vmware/lib/vmx/vmx_encoding.h"
#include "vmware/lib/vmx/vmx_scan.h"

namespace mirador {
namespace {

constexpr std::array<const char*, 4> bus_names = {"scsi", "ide", "sata", "nvme"};
constexpr std::string_view template_suffix = ".vmtx";
constexpr std::string_view disk_suffix = ".vmdk";

constexpr const char* file_kind = "VMX file";

using settings_t = std::map<std::string, std::string>;  // keys in lower case

// The text at the keys that the description keeps; the first key of a field that the file has.
struct text_field_t {
    const char* key;
    std::string vmxdesc_t::*field;
};
constexpr text_field_t text_fields[] = {
    {"uuid.bios", &vmxdesc_t::uuid_bios}, {"uuid.location", &vmxdesc_t::uuid_location},
    {"vc.uuid", &vmxdesc_t::vc_uuid},     {"displayname", &vmxdesc_t::displayname},
    {"guestos", &vmxdesc_t::guestos},     {"workingdir", &vmxdesc_t::workingdir},
};

bool is_true(std::string_view value) {
    const std::string word = vmx_lower(value);
    constexpr std::array<std::string_view, 6> words = {"true", "t", "yes", "y", "on", "1"};
    return std::find(words.begin(), words.end(), word) != words.end();
}

// The number at the start of *text, taken off it; nothing when there is none below `limit`.
std::optional<unsigned> take_number(std::string_view* text, unsigned limit) {
    unsigned number = 0;
    const auto [stopped, error] = std::from_chars(text->data(), text->data() + text->size(), number);
    if (error != std::errc() || number >= limit)
        return std::nullopt;
    text->remove_prefix(static_cast<std::size_t>(stopped - text->data()));
    return number;
}

bool take(std::string_view* text, std::string_view prefix) {
    if (!text->starts_with(prefix))
        return false;
    text->remove_prefix(prefix.size());
    return true;
}

// Takes "<bus><number>" off a key in lower case.
bool take_controller(std::string_view* key, vmx_bus_t* bus, unsigned* controller) {
    for (std::size_t i = 0; i < bus_names.size(); ++i) {
        if (!take(key, bus_names[i]))
            continue;
        const auto number = take_number(key, vmx_max_controllers);
        *bus = static_cast<vmx_bus_t>(i);
        *controller = number.value_or(0);
        return number.has_value();
    }
    return false;
}

void store_device(const std::string& property, const std::string& value, vmx_device_t* device) {
    if (property == "present")
        device->present = is_true(value);
    else if (property == "filename")
        device->filename = value;
    else if (property == "mode")
        device->mode = value;
    else if (property == "devicetype")
        device->device_type = value;
    else if (property == "ctkenabled")
        device->ctk_enabled = is_true(value);
}

void store_controller(std::string_view key, const std::string& value, vmxdesc_t* desc) {
    vmx_bus_t bus = VMX_SCSI;
    unsigned controller = 0;
    if (take_controller(&key, &bus, &controller) && key == ".present")
        desc->controllers[{bus, controller}] = is_true(value);
}

bool is_kept(const std::string& key) {
    const auto names = [&](const text_field_t& field) { return field.key == key; };
    vmx_address_t address;
    std::string property;
    return std::any_of(std::begin(text_fields), std::end(text_fields), names) ||
           vmx_split_device_key(key, &address, &property);
}

void store(const settings_t& settings, vmxdesc_t* desc) {
    const auto value_of = [&](const char* key) {
        const auto found = settings.find(key);
        return found == settings.end() ? std::string() : found->second;
    };
    for (const text_field_t& field : text_fields)
        desc->*field.field = value_of(field.key);
    desc->ctk_enabled = is_true(value_of("ctkenabled"));
    desc->is_template =
        desc->filename.ends_with(template_suffix) || is_true(value_of("template")) || is_true(value_of("templatevm"));
    for (const auto& [key, value] : settings) {
        vmx_address_t address;
        std::string property;
        if (vmx_split_device_key(key, &address, &property))
            store_device(property, value, &desc->devices[address]);
        else
            store_controller(key, value, desc);
    }
}

// The values as bytes, the last one of each key.
settings_t scan(std::string_view text, unsigned* lost_lines) {
    settings_t settings;
    *lost_lines = vmx_scan(
        text, [&](const vmx_setting_t& setting) { settings[vmx_lower(setting.key)] = std::string(setting.value); });
    return settings;
}

std::string declared_encoding(const settings_t& settings) {
    for (const char* key : {".encoding", "encoding"}) {
        const auto found = settings.find(key);
        if (found != settings.end())
            return found->second;
    }
    return "";
}

errdesc_t* refuse(const std::string& path, const std::string& fault) {
    return errdesc_set_fmt(EINVAL, "%s refused, %s: %s", file_kind, fault.c_str(), path.c_str());
}

errdesc_t* parse(const std::string& path, const std::string& text, vmxdesc_t* desc) {
    settings_t settings = scan(text, &desc->lost_lines);
    if (settings.empty())
        return refuse(path, "no setting in it");
    desc->encoding = declared_encoding(settings);
    desc->encoding_known = vmx_encoding_name(desc->encoding) != nullptr;
    for (auto& [key, value] : settings) {
        if (value.size() > vmx_max_value && is_kept(key))
            return refuse(path, "the value of " + key.substr(0, path_size / 16) + " is too long");
        value = vmx_decode(value, desc->encoding);
    }
    store(settings, desc);
    return nullptr;
}

bool switched_off(const vmxdesc_t& desc, const vmx_address_t& address) {
    const auto found = desc.controllers.find({address.bus, address.controller});
    return found != desc.controllers.end() && !found->second;
}

void dump_device(const vmx_address_t& address, const vmx_device_t& device, std::FILE* stream) {
    const std::string name = vmx_address_str(address);
    std::fprintf(stream, "vmxdesc->%s.present = %d\n", name.c_str(), device.present ? 1 : 0);
    std::fprintf(stream, "vmxdesc->%s.disk = %d\n", name.c_str(), vmx_is_disk(device) ? 1 : 0);
    std::fprintf(stream, "vmxdesc->%s.filename = %s\n", name.c_str(), device.filename.c_str());
    std::fprintf(stream, "vmxdesc->%s.mode = %s\n", name.c_str(), device.mode.c_str());
    std::fprintf(stream, "vmxdesc->%s.device_type = %s\n", name.c_str(), device.device_type.c_str());
    std::fprintf(stream, "vmxdesc->%s.ctk_enabled = %d\n", name.c_str(), device.ctk_enabled ? 1 : 0);
}

}  // namespace

const char* vmx_bus_name(vmx_bus_t bus) {
    return bus_names.at(bus);
}

std::string vmx_address_str(const vmx_address_t& address) {
    return cor_format("%s%u:%u", vmx_bus_name(address.bus), address.controller, address.unit);
}

bool vmx_split_device_key(std::string_view key, vmx_address_t* address, std::string* property) {
    const std::string lower = vmx_lower(key);
    std::string_view rest = lower;
    if (!take_controller(&rest, &address->bus, &address->controller) || !take(&rest, ":"))
        return false;
    const auto unit = take_number(&rest, vmx_max_units);
    if (!unit || !take(&rest, "."))
        return false;
    address->unit = *unit;
    *property = rest;
    return true;
}

errdesc_t* vmx_read_text(const std::string& path, std::string* text, const opened_file_check_t& check) {
    return read_text_file(path, file_kind, vmx_max_text, text, check);
}

errdesc_t* vmx_open(const std::string& path, vmxdesc_t* vmxdesc) {
    cor_assert(vmxdesc);
    *vmxdesc = {};
    std::string text;
    RETURN_IF_ERROR(vmx_read_text(path, &text));
    return vmx_parse_text(path, text, vmxdesc);
}

errdesc_t* vmx_parse_text(const std::string& path, const std::string& text, vmxdesc_t* vmxdesc) {
    cor_assert(vmxdesc);
    *vmxdesc = {};
    vmxdesc->filename = path;
    const std::string dirname = std::filesystem::path(path).parent_path();
    vmxdesc->dirname = dirname.empty() ? "." : dirname;
    if (errdesc_t* e = parse(path, text, vmxdesc)) {
        vmx_close(vmxdesc);
        return e;
    }
    vmxdesc->magic = vmxdesc_t::magic_value;
    return nullptr;
}

void vmx_close(vmxdesc_t* vmxdesc) {
    *vmxdesc = {};
}

bool vmx_is_disk(const vmx_device_t& device) {
    const std::string type = vmx_lower(device.device_type);
    for (const char* none : {"cdrom", "floppy", "passthru"})
        if (type.find(none) != std::string::npos)
            return false;
    if (type == "disk" || type.ends_with("disk"))
        return !device.filename.empty();
    return vmx_lower(device.filename).ends_with(disk_suffix);
}

std::vector<std::pair<vmx_address_t, const vmx_device_t*>> vmx_disks(const vmxdesc_t& vmxdesc) {
    std::vector<std::pair<vmx_address_t, const vmx_device_t*>> disks;
    for (const auto& [address, device] : vmxdesc.devices)
        if (device.present && vmx_is_disk(device) && !switched_off(vmxdesc, address))
            disks.emplace_back(address, &device);
    return disks;
}

std::string vmx_working_dir(const vmxdesc_t& vmxdesc) {
    const std::string& dir = vmxdesc.workingdir;
    if (dir.empty() || dir == "." || dir == "./")
        return vmxdesc.dirname;
    return dir.starts_with('/') ? dir : vmxdesc.dirname + "/" + dir;
}

void vmx_dump(const vmxdesc_t& vmxdesc, std::FILE* stream) {
    std::fprintf(stream, "vmxdesc->filename = %s\n", vmxdesc.filename.c_str());
    std::fprintf(stream, "vmxdesc->encoding = %s%s\n", vmxdesc.encoding.c_str(),
                 vmxdesc.encoding.empty() || vmxdesc.encoding_known ? "" : " (unknown)");
    for (const text_field_t& field : text_fields)
        std::fprintf(stream, "vmxdesc->%s = %s\n", field.key, (vmxdesc.*field.field).c_str());
    std::fprintf(stream, "vmxdesc->is_template = %d\n", vmxdesc.is_template ? 1 : 0);
    std::fprintf(stream, "vmxdesc->ctk_enabled = %d\n", vmxdesc.ctk_enabled ? 1 : 0);
    for (const auto& [controller, present] : vmxdesc.controllers)
        std::fprintf(stream, "vmxdesc->%s%u.present = %d\n", vmx_bus_name(controller.first), controller.second,
                     present ? 1 : 0);
    for (const auto& [address, device] : vmxdesc.devices)
        dump_device(address, device, stream);
    std::fprintf(stream, "vmxdesc->lost_lines = %u\n", vmxdesc.lost_lines);
}

}  // namespace mirador
