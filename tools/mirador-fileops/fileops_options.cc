// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "lib/command_options.h"
#include "tools/mirador-fileops/fileops.h"

namespace mirador {
namespace {

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
    const auto take_datacenter = [&](const std::string& value) {
        options->datacenter = value;
        return !value.empty();
    };
    std::vector<std::string> words;
    if (!command_options_parse(args,
                               {command_flag("help", 0, &options->help),
                                command_flag("human", 'h', &options->human),
                                command_flag("json", 0, &options->json),
                                command_flag("verbose", 'v', &options->verbose),
                                command_flag("force", 'f', &options->force),
                                command_flag("parents", 'p', &options->parents),
                                {.name = "datacenter", .value = "a name", .take = take_datacenter}},
                               &words, fault))
        return false;
    *fault = check(words, options);
    return fault->empty();
}

}  // namespace mirador
