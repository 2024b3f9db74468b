// SPDX-License-Identifier: Apache-2.0
// Lines of a disk's text descriptor. A line that fits none of them is passed over with its NEWLINE. The lists are
// left-recursive, so the parser's stack holds one line at most.
%skeleton "lalr1.cc"
%require "3.8"
%define api.namespace {mirador}
%define api.parser.class {vmdk_parser_t}
%define api.value.type {mirador::vmdk_token_t}
%define parse.trace
%parse-param { const vmdk_parse_state_t& state }
%lex-param { const vmdk_parse_state_t& state }

%code requires {
#include "vmware/lib/vmdk/vmdk_parse_state.h"
}

%code {
#include <cstdio>

namespace mirador {

static int yylex(vmdk_token_t* value, const vmdk_parse_state_t& state) {
    *value = {};
    return vmdklex(value, state.scanner);
}

void vmdk_parser_t::error(const std::string& text) {
    if (vmdkdebug)
        std::fprintf(stderr, "%s\n", text.c_str());
}

}  // namespace mirador

// What the actions below fill.
#define DESC (*state.desc)
#define DB (state.desc->diskdb)
}

%token NEWLINE EQUAL "="
%token VERSION CID PARENT_CID CREATE_TYPE PARENT_FILE_NAME_HINT ENCODING CHANGE_TRACK_PATH
%token DDB_TOOLS_VERSION DDB_ADAPTER_TYPE DDB_BIOS_GEOMETRY DDB_SECTORS DDB_HEADS DDB_CYLINDERS
%token DDB_HW_VERSION DDB_ENCODING DDB_UUID DDB_LONG_CONTENT_ID DDB_THIN_PROVISIONED
%token DISK_KIND ACCESS EXTENT_TYPE ADAPTER UTF8
%token NUMBER HEXNUMBER NUMSTRING STRING
%token INVALID  // stands in no line

%%

input
    : line
    | input line
    ;

line
    : NEWLINE
    | descriptor_line
    | extent_line
    | change_tracking_line
    | diskdb_line
    | error NEWLINE
    ;

content_id
    : HEXNUMBER
    | NUMBER
    ;

descriptor_line
    : VERSION "=" NUMBER NEWLINE                { DESC.version = vmdk_number<std::uint32_t>($3); }
    | ENCODING "=" UTF8 NEWLINE                 { DESC.encoding = $3.number; }
    | CID "=" content_id NEWLINE                { vmdk_set_content_id($3, &DESC.cid); }
    | PARENT_CID "=" content_id NEWLINE         { vmdk_set_content_id($3, &DESC.pcid); }
    | CREATE_TYPE "=" DISK_KIND NEWLINE         { DESC.createtype = static_cast<createtype_t>($3.number); }
    | PARENT_FILE_NAME_HINT "=" STRING          { vmdk_set_parent_hint(state, $3); }
    ;

extent_line
    : ACCESS NUMBER EXTENT_TYPE STRING NEWLINE
        {
            if (!vmdk_add_extent(state, {$1, $2, $3, $4}, 0))
                YYABORT;
        }
    | ACCESS NUMBER EXTENT_TYPE STRING NUMBER NEWLINE
        {
            if (!vmdk_add_extent(state, {$1, $2, $3, $4}, vmdk_number<std::uint32_t>($5)))
                YYABORT;
        }
    | ACCESS error NEWLINE
        {
            if (state.faults)
                ++state.faults->lost_extents;
        }
    ;

change_tracking_line
    : CHANGE_TRACK_PATH "=" STRING NEWLINE      { DESC.change_track_path = $3.text; }
    ;

diskdb_line
    : DDB_HW_VERSION "=" NUMSTRING NEWLINE
        {
            DB.magicnumber = 0;
            DB.hwversion = vmdk_number<std::uint32_t>($3);
        }
    | DDB_CYLINDERS "=" NUMSTRING NEWLINE       { DB.cylinders = vmdk_number<std::uint32_t>($3); }
    | DDB_HEADS "=" NUMSTRING NEWLINE           { DB.heads = vmdk_number<std::uint32_t>($3); }
    | DDB_SECTORS "=" NUMSTRING NEWLINE         { DB.sectors = vmdk_number<std::uint32_t>($3); }
    | DDB_TOOLS_VERSION "=" NUMSTRING NEWLINE   { DB.toolsversion = vmdk_number<std::uint32_t>($3); }
    | DDB_BIOS_GEOMETRY "=" NUMSTRING NEWLINE
    | DDB_ADAPTER_TYPE "=" ADAPTER NEWLINE      { DB.adaptertype = static_cast<adaptertype_t>($3.number); }
    | DDB_ENCODING "=" UTF8                     { DB.encoding = $3.number; }
    | DDB_UUID "=" STRING                       { DB.uuid = $3.text.substr(0, diskdb_t::text_size); }
    | DDB_LONG_CONTENT_ID "=" STRING            { DB.longcontentid = $3.text.substr(0, diskdb_t::text_size); }
    | DDB_THIN_PROVISIONED "=" NUMSTRING NEWLINE
        {
            DESC.thin_provisioned = vmdk_number<std::uint32_t>($3) != 0;
        }
    ;
