// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/vmcfgparser.h"

#include <cerrno>
#include <string>

#include "appliance/lib/cfg_parse_state.h"
#include "cfgparser.h"
#include "cfgscanner.h"
#include "lib/cor_assert.h"
#include "lib/file_io.h"

namespace mirador {
namespace {

constexpr const char* null_device = "/dev/null";
constexpr std::size_t read_size = std::size_t{64} << 10;
constexpr std::size_t error_text_size = 1024;

errdesc_t* read_text(std::FILE* in, std::string* text) {
    std::size_t got = 0;
    do {
        const std::size_t begin = text->size();
        text->resize(begin + read_size);
        got = std::fread(text->data() + begin, 1, read_size, in);
        if (std::ferror(in))
            return errdesc_set_str(errno, "vmcfg: cannot read the file");
        text->resize(begin + got);
    } while (got == read_size && text->size() <= vmcfg_max_text);
    return nullptr;
}

// One pass over the text; *parsed tells whether it could be parsed to its end.
errdesc_t* scan_and_parse(yyscan_t scanner, const std::string& text, vmcfg_t* vmcfg, bool* parsed) {
    const file_ptr echo(std::fopen(null_device, "we"));
    if (!echo)
        return errdesc_set_str(errno, null_device);
    cfgset_out(echo.get(), scanner);
    cfg_scan_bytes(text.data(), static_cast<int>(text.size()), scanner);
    cfg_parser_t parser({.scanner = scanner, .vmcfg = vmcfg});
    *parsed = parser.parse() == 0;
    return nullptr;
}

errdesc_t* parse_text(const std::string& text, vmcfg_t* vmcfg, bool* parsed) {
    yyscan_t scanner = nullptr;
    if (cfglex_init(&scanner) != 0)
        return errdesc_set_str(EINVAL, "vmcfg: cannot initialize the scanner");
    errdesc_t* e = scan_and_parse(scanner, text, vmcfg, parsed);
    if (cfglex_destroy(scanner) != 0)
        return errdesc_set_str(EINVAL, "%vmcfg: cannot free the scanner");
    return e;
}

}  // namespace

std::string strdup_quote(const cfg_token_t& token) {
    std::string text;
    const std::string_view quoted = token.text.substr(1, token.text.size() - 2);
    for (std::size_t i = 0; i < quoted.size(); i++) {
        if (quoted[i] == '\\')
            i++;
        text.push_back(quoted[i]);
    }
    return text;
}

bool cfg_set_version(vmcfg_t* vmcfg, const cfg_token_t& token) {
    if (!cfg_number(token, &vmcfg->version))
        return false;
    if (vmcfg->version == 1) {
        vmcfg->hostsystem = "";
        vmcfg->resourcepool = "";
    }
    return true;
}

vmcfg_vd_t* cfg_disk(vmcfg_t* vmcfg, const cfg_token_t& index) {
    std::size_t slot = 0;
    if (!cfg_number(index, &slot) || slot >= vmcfg_t::max_disks)
        return nullptr;
    return malloc_vdsk(vmcfg, slot);
}

void cfgerror(vmcfg_t* vmcfg, const std::string& text) {
    vmcfg->err_count++;
    vmcfg->line_count++;
    if (!vmcfg->err_string)
        vmcfg->err_string = cor_format("%s at line %d", text.c_str(), vmcfg->line_count).substr(0, error_text_size);
}

errdesc_t* cfg_parse_file_contents(std::FILE* in, vmcfg_t* vmcfg) {
    cor_assert(in != nullptr && vmcfg != nullptr);
    vmcfg->magic = vmcfg_t::magic_value;
    vmcfg->version = vmcfg_t::version_value;
    vmcfg->on_conflict = VMCFG_CONFLICT_STOP;

    std::string text;
    RETURN_IF_ERROR(read_text(in, &text));
    bool parsed = false;
    if (text.size() <= vmcfg_max_text)
        RETURN_IF_ERROR(parse_text(text, vmcfg, &parsed));
    if (!parsed)
        return errdesc_set_str(EINVAL, "vmcfg: invalid file");
    if (vmcfg->err_string)
        return errdesc_set_str(EINVAL, *vmcfg->err_string);
    return cfg_parse_verify(vmcfg);
}

}  // namespace mirador
