// SPDX-License-Identifier: Apache-2.0
// Any disk in the place of a backup copy whose virtual disk header is read; any record printed; any texts stored.
#include <cstring>

#include "appliance/lib/cor_vdsk_header.h"
#include "tests/fuzz/memory_file.h"

using namespace mirador;

namespace {

void check_view(const cor_vdsk_header_t& h, std::string_view text) {
    const char* const begin = reinterpret_cast<const char*>(&h);
    cor_assert(text.data() >= begin && text.data() + text.size() <= begin + offsetof(cor_vdsk_header_t, magic_end));
    cor_assert(text.find('\0') == std::string_view::npos);
}

// Any record: what is found lies inside it.
void use_record(const cor_vdsk_header_t& h) {
    dump_cor_vdsk_header(h, null_stream());
    std::string_view texts[4];
    static_cast<void>(get_vmdk_variable_strings(h, &texts[0], &texts[1], &texts[2], &texts[3]));
    for (const std::string_view text : texts)
        if (text.data() != nullptr)
            check_view(h, text);
}

// Stores the input's first texts: nothing beside the area changes, and what fits comes back.
void store_texts(const std::string& input) {
    std::string texts[4];
    std::size_t at = 0;
    for (std::string& text : texts) {
        text = at < input.size() ? input.c_str() + at : "";
        at += text.size() + 1;
    }
    const auto h = new_cor_vdsk_header();
    const bool stored =
        set_vmdk_variable_strings(h.get(), texts[0].c_str(), texts[1].c_str(), texts[2].c_str(), texts[3].c_str());
    cor_assert(is_cor_vdsk_header(*h) && h->tail.v2.snapshot_time == 0);
    std::string_view views[4];
    const bool complete = get_vmdk_variable_strings(*h, &views[0], &views[1], &views[2], &views[3]);
    std::size_t total = 0;
    for (const std::string& text : texts)
        total += text.size() + 1;
    if (total > sizeof h->tail.v2.varstrings)
        return;
    cor_assert(stored && complete);
    for (std::size_t i = 0; i < std::size(texts); i++)
        cor_assert(views[i] == texts[i]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static memory_file_t file;
    file.fill(data, size);
    cor_vdsk_header_t h{};
    if (!read_cor_vdsk_header(file.fd(), &h)) {
        cor_assert(is_cor_vdsk_header(h));
        use_record(h);
    }
    if (size >= sizeof h) {
        std::memcpy(&h, data, sizeof h);
        use_record(h);
    }
    store_texts(std::string(data, data + size));
    return 0;
}
