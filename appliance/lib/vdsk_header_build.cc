// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/vdsk_header_build.h"

#include <cstdlib>
#include <string_view>

namespace mirador {
namespace {

constexpr std::int64_t sector_bytes = 512;
constexpr std::string_view volumes_dir = "/vmfs/volumes/";

// The id that a text stands for; zeros for a malformed text, which would give the beginning of some other id.
cor_uuid_t uuid_or_zero(std::string_view text) {
    cor_uuid_t uuid{};
    return uuid_str_to_value(text, &uuid) ? uuid : cor_uuid_t{};
}

std::uint8_t attributes_of(const vdsk_header_input_t& input) {
    unsigned attributes = COR_VDSK_PERSISTENT;
    if (input.extent_count > 1)
        attributes |= COR_VDSK_SPLIT;
    if (input.thin_provisioned)
        attributes |= COR_VDSK_THIN;
    if (input.change_tracking)
        attributes |= COR_VDSK_CBT_ENABLED;
    return static_cast<std::uint8_t>(attributes);
}

// A disk's place: its datastore, and its directory in there.
struct location_t {
    std::string_view datastore;
    std::string directory;
};

location_t location_of(std::string_view path) {
    const std::size_t volumes = path.find(volumes_dir);
    if (volumes == std::string_view::npos)
        return {};
    path.remove_prefix(volumes + volumes_dir.size());
    const std::size_t datastore_end = path.find('/');
    location_t location{.datastore = path.substr(0, datastore_end), .directory = {}};
    if (datastore_end != std::string_view::npos) {
        const std::string_view rest = path.substr(datastore_end + 1);
        const std::size_t directory_end = rest.rfind('/');
        if (directory_end != std::string_view::npos)
            location.directory = rest.substr(0, directory_end);
    }
    return location;
}

void set_change_id(const std::string& change_id, cor_vdsk_header_t* h) {
    const std::size_t slash = change_id.rfind('/');
    h->change_id = uuid_or_zero(std::string_view(change_id).substr(0, slash));
    if (slash != std::string::npos)
        h->tail.v2.change_suffix = static_cast<std::uint32_t>(std::strtoul(change_id.c_str() + slash + 1, nullptr, 10));
}

}  // namespace

std::unique_ptr<cor_vdsk_header_t> vdsk_header_build(const vdsk_header_input_t& input) {
    auto h = new_cor_vdsk_header();
    h->type = COR_VDSK_VMDK;
    h->attributes = attributes_of(input);
    h->cid = input.cid;
    h->size = static_cast<std::uint32_t>(input.size / sector_bytes);
    h->createtype = static_cast<std::uint8_t>(input.createtype);
    h->tail.v2.snapshot_time = static_cast<std::uint32_t>(input.snapshot_time);
    h->disk_uuid = uuid_or_zero(input.disk_uuid);
    h->vm_uuid = uuid_or_zero(input.vm_uuid);
    const location_t location = location_of(input.path);
    h->ds_uuid = uuid_or_zero(location.datastore);
    if (input.change_tracking && !input.change_id.empty())
        set_change_id(input.change_id, h.get());
    // Texts that do not fit are cut: the header still tells the rest.
    static_cast<void>(set_vmdk_variable_strings(h.get(), location.directory.c_str(), "", input.hv_name.c_str(),
                                                input.vm_name.c_str()));
    return h;
}

}  // namespace mirador
