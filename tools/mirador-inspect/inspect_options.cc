// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <charconv>

#include "lib/command_options.h"
#include "tools/mirador-inspect/inspect.h"

namespace mirador {
namespace {

bool parse_sector(const std::string& text, std::optional<std::uint32_t>* sector) {
    std::uint32_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stopped != end)
        return false;
    *sector = value;
    return true;
}

const inspect_kind_t* find_kind(const std::string& name) {
    const auto& kinds = inspect_kinds();
    const auto found = std::find_if(kinds.begin(), kinds.end(), [&](const auto& kind) { return kind.name == name; });
    return found == kinds.end() ? nullptr : &*found;
}

// What the options and the words between them say as a whole; empty when it makes sense.
std::string check(const std::vector<std::string>& words, inspect_options_t* options) {
    if (options->help)
        return "";
    options->kind = words.empty() ? nullptr : find_kind(words[0]);
    const bool several = options->kind != nullptr && options->kind->takes_directories;
    if (words.size() < 2 || (words.size() > 2 && !several))
        return "a kind and a file are needed";
    if (several)
        options->directories.assign(words.begin() + 1, words.end());
    else
        options->path = words[1];
    if (options->kind == nullptr)
        return "unknown kind \"" + words[0] + "\"";
    if (options->grains && !options->kind->takes_grains)
        return "--grains is not for " + words[0];
    if (options->sector.has_value() && !options->kind->takes_sector)
        return "--sector is not for " + words[0];
    return "";
}

}  // namespace

bool inspect_parse_options(const std::vector<std::string>& args, inspect_options_t* options, std::string* fault) {
    const auto take_sector = [&](const std::string& value) { return parse_sector(value, &options->sector); };
    std::vector<std::string> words;
    if (!command_options_parse(args,
                               {command_flag("json", 0, &options->json),
                                command_flag("grains", 0, &options->grains),
                                command_flag("help", 'h', &options->help),
                                {.name = "sector", .value = "a number", .take = take_sector}},
                               &words, fault))
        return false;
    *fault = check(words, options);
    return fault->empty();
}

}  // namespace mirador
