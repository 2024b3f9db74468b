// SPDX-License-Identifier: Apache-2.0
// Options of a command that a person types, in any order among its words; getopt_long(3) takes them apart.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace mirador {

struct command_option_t {
    const char* name;             // the long one, without its dashes
    char letter = 0;              // the short one; 0: there is none
    const char* value = nullptr;  // what must follow, as in "a number"; nullptr: nothing may
    // Takes the value, which is empty for an option without one. False: the value is not what must follow.
    std::function<bool(const std::string& value)> take;
};

// An option that is there or not.
command_option_t command_flag(const char* name, char letter, bool* flag);

// Takes the options of a command line without the program's name, and adds what is none to *words. False, with a text
// for the user in *fault, when an option is unknown, or its value is missing or not taken. Not for two threads at once.
[[nodiscard]] bool command_options_parse(const std::vector<std::string>& args,
                                         const std::vector<command_option_t>& options, std::vector<std::string>* words,
                                         std::string* fault);

}  // namespace mirador
