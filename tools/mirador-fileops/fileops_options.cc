// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "tools/mirador-fileops/fileops.h"

namespace mirador {
namespace {

struct flag_t {
    const char* name;
    const char* letter;  // empty: none
    bool fileops_options_t::*member;
};

constexpr flag_t flags[] = {
    {"--help", "", &fileops_options_t::help},     {"--human", "-h", &fileops_options_t::human},
    {"--json", "", &fileops_options_t::json},     {"--verbose", "-v", &fileops_options_t::verbose},
    {"--force", "-f", &fileops_options_t::force}, {"--parents", "-p", &fileops_options_t::parents},
};

bool set_flag(const std::string& arg, fileops_options_t* options) {
    const auto found =
        std::ranges::find_if(flags, [&](const flag_t& flag) { return arg == flag.name || arg == flag.letter; });
    if (found == std::end(flags))
        return false;
    options->*found->member = true;
    return true;
}

const fileops_command_t* find_command(const std::string& name) {
    const auto& commands = fileops_commands();
    const auto found = std::ranges::find_if(commands, [&](const auto& command) { return command.name == name; });
    return found == commands.end() ? nullptr : &*found;
}

// What the options and the words between them say as a whole; empty when it makes sense.
std::string check(const std::vector<std::string>& words, fileops_options_t* options) {
    if (options->help)
        return "";
    if (words.size() < 2)
        return "a hypervisor and a command are needed";
    options->hypervisor = words[0];
    options->command = find_command(words[1]);
    options->paths.assign(words.begin() + 2, words.end());
    if (options->command == nullptr)
        return "unknown command \"" + words[1] + "\"";
    const fileops_command_t& command = *options->command;
    if (options->paths.size() != command.paths)
        return words[1] + (command.paths == 0 ? " takes nothing" : std::string(" needs ") + command.operands);
    if (options->force && !command.takes_force)
        return "--force is not for " + words[1];
    if (options->parents && !command.takes_parents)
        return "--parents is not for " + words[1];
    if ((options->human || options->json) && !command.prints)
        return std::string(options->json ? "--json" : "--human") + " is not for " + words[1];
    return "";
}

}  // namespace

bool fileops_parse_options(const std::vector<std::string>& args, fileops_options_t* options, std::string* fault) {
    std::vector<std::string> words;
    bool only_words = false;
    for (auto arg = args.begin(); arg != args.end(); ++arg) {
        if (only_words || arg->empty() || arg->front() != '-') {
            words.push_back(*arg);
        } else if (*arg == "--") {
            only_words = true;
        } else if (*arg == "--datacenter") {
            if (arg + 1 == args.end() || (++arg)->empty()) {
                *fault = "--datacenter needs a name";
                return false;
            }
            options->datacenter = *arg;
        } else if (!set_flag(*arg, options)) {
            *fault = "unknown option \"" + *arg + "\"";
            return false;
        }
    }
    *fault = check(words, options);
    return fault->empty();
}

}  // namespace mirador
