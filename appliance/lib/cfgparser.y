// SPDX-License-Identifier: Apache-2.0
// Lines of a VM's description. A pair does not include its line end, which counts as a line of its own; a line that
// cannot be read is passed over with its end. The list is left-recursive, so the parser's stack holds one pair at most.
%skeleton "lalr1.cc"
%require "3.8"
%define api.namespace {mirador}
%define api.parser.class {cfg_parser_t}
%define api.value.type {mirador::cfg_token_t}
%parse-param { const cfg_parse_state_t state }
%lex-param { const cfg_parse_state_t& state }

%code requires {
#include "appliance/lib/cfg_parse_state.h"
}

%code {
namespace mirador {

static int yylex(cfg_token_t* value, const cfg_parse_state_t& state) {
    *value = {};
    return cfglex(value, state.scanner);
}

void cfg_parser_t::error(const std::string& text) {
    cfgerror(state.vmcfg, text);
}

}  // namespace mirador

// What the actions below fill, and what turns a line down whose number means nothing.
#define CFG (*state.vmcfg)
#define DISK(index) (*cfg_disk(state.vmcfg, index))
#define DEMAND(condition) \
    do { \
        if (!(condition)) { \
            error("syntax error"); \
            YYERROR; \
        } \
    } while (false)
}

%token NEWLINE EQUAL "=" DOT "."
%token VERSION ACCESS_TIME SERVERNAME HOSTSYSTEM RESOURCEPOOL VMNAME VMUUID DIRECTORY DSNAME VMX_NAME VMX_RENAME
%token ON_CONFLICT VMDK NAME RENAME EXTENT_NAME EXTENT_RENAME FPATH SIZE TYPE
%token CONFLICT DISK_TYPE             // quoted words, as they are written
%token BARE_CONFLICT BARE_DISK_TYPE   // and without quotes
%token NUM NUMSTR STRING
%token INVALID  // stands in no line

%%

input
    : %empty
    | input line
    ;

line
    : NEWLINE                           { CFG.line_count++; }
    | pair
    | error NEWLINE                     { yyerrok; }
    ;

// A text may be a word or a number by chance.
text
    : STRING
    | NUMSTR
    | CONFLICT
    | DISK_TYPE
    ;

number
    : NUM
    | NUMSTR
    ;

conflict
    : CONFLICT
    | BARE_CONFLICT
    | RENAME
    ;

disk_type
    : DISK_TYPE
    | BARE_DISK_TYPE
    ;

disk
    : VMDK "." NUM "."                  { $$ = $3; DEMAND(cfg_disk(state.vmcfg, $3) != nullptr); }
    ;

pair
    : VERSION "=" NUMSTR                { DEMAND(cfg_set_version(state.vmcfg, $3)); }
    | ACCESS_TIME "=" number            { DEMAND(cfg_number($3, &CFG.access_time)); }
    | SERVERNAME "=" text               { CFG.servername = strdup_quote($3); }
    | HOSTSYSTEM "=" text               { CFG.hostsystem = strdup_quote($3); }
    | RESOURCEPOOL "=" text             { CFG.resourcepool = strdup_quote($3); }
    | VMNAME "=" text                   { CFG.vmname = strdup_quote($3); }
    | VMUUID "=" text                   { CFG.vmuuid = strdup_quote($3); }
    | DIRECTORY "=" text                { CFG.directory = strdup_quote($3); }
    | DSNAME "=" text                   { CFG.dsname = strdup_quote($3); }
    | VMX_NAME "=" text                 { CFG.vmxname = strdup_quote($3); }
    | VMX_RENAME "=" text               { CFG.vmxrename = strdup_quote($3); }
    | ON_CONFLICT "=" conflict          { CFG.on_conflict = static_cast<vmcfg_conflict_type_t>($3.number); }
    | disk NAME "=" text                { DISK($1).name = strdup_quote($4); }
    | disk RENAME "=" text              { DISK($1).rename = strdup_quote($4); }
    | disk EXTENT_NAME "=" text         { DISK($1).extentname = strdup_quote($4); }
    | disk EXTENT_RENAME "=" text       { DISK($1).extentrename = strdup_quote($4); }
    | disk FPATH "=" text               { DISK($1).fpath = strdup_quote($4); }
    | disk DIRECTORY "=" text           { DISK($1).directory = strdup_quote($4); }
    | disk DSNAME "=" text              { DISK($1).dsname = strdup_quote($4); }
    | disk SIZE "=" number              { DEMAND(cfg_number($4, &DISK($1).size)); }
    | disk TYPE "=" disk_type           { DISK($1).type = static_cast<vmcfg_vd_type_t>($4.number); }
    ;
