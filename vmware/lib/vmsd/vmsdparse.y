// SPDX-License-Identifier: Apache-2.0
// Lines of a snapshot database. There is no error recovery: a line that fits none of them fails the parse. The list is
// left-recursive, so the parser's stack holds one line at most. A text may be empty, and its last line need not end.
%skeleton "lalr1.cc"
%require "3.8"
%define api.namespace {mirador}
%define api.parser.class {vmsd_parser_t}
%define api.value.type {mirador::vmsd_token_t}
%parse-param { const vmsd_parse_state_t& state }
%lex-param { const vmsd_parse_state_t& state }

%code requires {
#include "vmware/lib/vmsd/vmsd_parse_state.h"
}

%code {
namespace mirador {

static int yylex(vmsd_token_t* value, const vmsd_parse_state_t& state) {
    *value = {};
    return vmsdlex(value, state.scanner);
}

void vmsd_parser_t::error(const std::string&) {}

static std::uint32_t half(const vmsd_token_t& token) {
    return static_cast<std::uint32_t>(token.number);
}

}  // namespace mirador

// The record of a snapshot or of one of its disks, unless the database has none of that number.
#define IN_SNAPSHOT(number) if (vmsdsnapshot_t* const record = vmsd_snapshot(state, number)) record
#define IN_DISK(snapshot, number) if (vmsddisk_t* const record = vmsd_disk(state, snapshot, number)) record
}

%token NEWLINE DOT "." EQUAL "="
%token SNAPSHOT LAST_UID NUM_SNAPSHOTS CURRENT MRU NEED_CONSOLIDATE
%token UID PARENT FILENAME DISPLAY_NAME DESCRIPTION TYPE CREATE_TIME_HIGH CREATE_TIME_LOW
%token NUM_DISKS DISK NODE
%token TRUTH NUMBER NUMSTRING QUOTED

%%

input
    : lines
    | lines setting
    ;

lines
    : %empty
    | lines NEWLINE
    | lines setting NEWLINE
    ;

setting
    : SNAPSHOT "." database_setting
    | SNAPSHOT NUMBER "." UID "=" NUMSTRING
        {
            if (vmsdsnapshot_t* const record = vmsd_snapshot(state, $2)) {
                record->magic = vmsdsnapshot_t::magic_value;
                record->version = 1;
                record->uid = $6.number;
            }
        }
    | SNAPSHOT NUMBER "." PARENT "=" NUMSTRING              { IN_SNAPSHOT($2)->parentuid = $6.number; }
    | SNAPSHOT NUMBER "." FILENAME "=" text                 { IN_SNAPSHOT($2)->filename = vmsd_unquoted($6); }
    | SNAPSHOT NUMBER "." DISPLAY_NAME "=" text             { IN_SNAPSHOT($2)->displayname = vmsd_unquoted($6); }
    | SNAPSHOT NUMBER "." DESCRIPTION "=" text              { IN_SNAPSHOT($2)->description = vmsd_unquoted($6); }
    | SNAPSHOT NUMBER "." TYPE "=" NUMSTRING
    | SNAPSHOT NUMBER "." CREATE_TIME_HIGH "=" NUMSTRING    { IN_SNAPSHOT($2)->createtimehigh = half($6); }
    | SNAPSHOT NUMBER "." CREATE_TIME_LOW "=" NUMSTRING     { IN_SNAPSHOT($2)->createtimelow = half($6); }
    | SNAPSHOT NUMBER "." NUM_DISKS "=" NUMSTRING           { vmsd_set_numdisks(state, $2, $6); }
    | SNAPSHOT NUMBER "." DISK NUMBER "." FILENAME "=" text { vmsd_set_disk_filename(state, $2, $5, $9); }
    | SNAPSHOT NUMBER "." DISK NUMBER "." NODE "=" text     { IN_DISK($2, $5)->node = vmsd_unquoted($9); }
    ;

database_setting
    : LAST_UID "=" NUMSTRING
        {
            if (state.desc)
                state.desc->lastuid = $3.number;
        }
    | NUM_SNAPSHOTS "=" NUMSTRING                           { vmsd_set_numsnapshots(state, $3); }
    | CURRENT "=" NUMSTRING
        {
            if (state.desc)
                state.desc->currentuid = $3.number;
        }
    | MRU NUMBER "." UID "=" NUMSTRING
    | NEED_CONSOLIDATE "=" TRUTH
    ;

text
    : QUOTED
    | other_text
        {
            if (!state.any_text)
                YYABORT;
            $$ = $1;
        }
    ;

other_text
    : NUMSTRING
    | TRUTH
    ;
