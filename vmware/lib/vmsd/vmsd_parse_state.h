// SPDX-License-Identifier: Apache-2.0
// What the snapshot database's scanner and grammar share with the code that runs them: the token, the state of one
// parse, and the actions that store what a line says. No other module includes this.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "vmware/lib/vmsd/vmsd_parse.h"
#include "vmware/lib/vmsd/vmsddesc.h"

namespace mirador {

// The value of a token. The text of a quoted token has its quotes and is cut at max_text; it points into the scanner's
// buffer and lives as long as the scanner.
struct vmsd_token_t {
    static constexpr std::size_t max_text = 1024;  // bytes

    std::uint64_t number = 0;
    std::string_view text;
    std::size_t length = 0;  // of the text as written
};

// What a text says about the room that its record takes, and what of it was cut.
struct vmsd_seen_t {
    vmsd_line_t kind = vmsd_line_t::other;  // of the last line
    std::uint64_t snapshots = 0;            // sum of all snapshot counts
    std::uint64_t disks = 0;                // sum of all disk counts
    bool bad_count = false;                 // one of them is negative or beyond its bound
    bool cut_name = false;                  // a file name longer than a token
};

struct vmsd_parse_state_t {
    void* scanner = nullptr;
    vmsddesc_t* desc = nullptr;   // null: only look
    vmsd_seen_t* seen = nullptr;  // null: what it would tell is asserted on
    bool any_text = false;        // texts may look like numbers and truth values
};

// The scanner: the kind of the next token of vmsd_parse_state_t::scanner, its value in *value; 0 at the end.
int vmsdlex(vmsd_token_t* value, void* scanner);

// The number at the start of a text, behind its opening quote if it has one. Of a negative one the complement; one too
// large is the largest.
std::uint64_t vmsd_number(std::string_view text);

// The text without its first and last character.
std::string vmsd_unquoted(const vmsd_token_t& token);

// Counts: make room for as many records, all new.
void vmsd_set_numsnapshots(const vmsd_parse_state_t& state, const vmsd_token_t& count);
void vmsd_set_numdisks(const vmsd_parse_state_t& state, const vmsd_token_t& snapshot, const vmsd_token_t& count);

void vmsd_set_disk_filename(const vmsd_parse_state_t& state, const vmsd_token_t& snapshot, const vmsd_token_t& disk,
                            const vmsd_token_t& name);

// The record of a number; null when there is no such record, or nothing is to be stored.
vmsdsnapshot_t* vmsd_snapshot(const vmsd_parse_state_t& state, const vmsd_token_t& snapshot);
vmsddisk_t* vmsd_disk(const vmsd_parse_state_t& state, const vmsd_token_t& snapshot, const vmsd_token_t& disk);

}  // namespace mirador
