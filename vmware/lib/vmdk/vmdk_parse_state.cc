// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/vmdk_parse_state.h"

#include <memory>
#include <string>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

constexpr std::size_t quotes = 2;

// The text of a cut token is short of its name, so the length counts as written.
std::size_t name_length(const vmdk_token_t& token) {
    return token.length - quotes;
}

void count_overlong(vmdk_parse_faults_t* faults, const vmdk_token_t& name) {
    if (faults && name_length(name) > vmdk_max_name)
        ++faults->overlong_names;
}

std::uint64_t end_of_last_extent(const vmdkdesc_t& desc) {
    if (desc.extentdesc.empty())
        return 0;
    const extentdesc_t& last = *desc.extentdesc.back();
    return last.extentoffset + last.extentsize;
}

}  // namespace

std::string_view vmdk_unquoted(const vmdk_token_t& token) {
    const std::size_t open = token.text.find('"');
    if (open == std::string_view::npos)
        return token.text;
    const std::string_view rest = token.text.substr(open + 1);
    return rest.substr(0, rest.find('"'));
}

void vmdk_set_content_id(const vmdk_token_t& token, std::uint32_t* id) {
    const auto value = vmdk_number<std::uint64_t>(token, 16);
    if (value <= std::numeric_limits<std::uint32_t>::max())
        *id = static_cast<std::uint32_t>(value);
}

void vmdk_set_parent_hint(const vmdk_parse_state_t& state, const vmdk_token_t& hint) {
    count_overlong(state.faults, hint);
    state.desc->parentfilenamehint = vmdk_unquoted(hint);
}

bool vmdk_add_extent(const vmdk_parse_state_t& state, const vmdk_extent_line_t& line, std::uint32_t start) {
    vmdkdesc_t& desc = *state.desc;
    if (desc.extentdesc.size() >= vmdkdesc_t::max_extents) {
        if (state.faults)
            state.faults->too_many_extents = true;
        return false;
    }
    count_overlong(state.faults, line.name);
    cor_assert(state.faults || name_length(line.name) <= vmdk_max_name);

    auto extent = std::make_unique<extentdesc_t>();
    extent->version = start;
    extent->mode = static_cast<extentmode_t>(line.access.number);
    extent->extentsize = vmdk_number<std::uint64_t>(line.size);
    extent->extenttype = static_cast<extenttype_t>(line.type.number);
    extent->extentname = vmdk_unquoted(line.name);
    extent->extentoffset = end_of_last_extent(desc);
    desc.extentdesc.push_back(std::move(extent));
    return true;
}

}  // namespace mirador
