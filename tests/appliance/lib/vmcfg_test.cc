// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/vmcfg.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "appliance/lib/vmcfgparser.h"
#include "lib/file_io.h"
#include "tests/lib/error_number.h"
#include "tests/support/record_bytes.h"

namespace mirador {
namespace {

// A record with one disk, in slot 0, and nothing that is optional.
vmcfg_t plain_record() {
    vmcfg_t cfg;
    cfg.magic = vmcfg_t::magic_value;
    cfg.version = 3;
    cfg.vmname = "web";
    cfg.servername = "esx1";
    cfg.hostsystem = "host";
    cfg.resourcepool = "pool";
    cfg.directory = "dir";
    cfg.dsname = "ds1";
    cfg.vmxname = "web.vmx";
    vmcfg_vd_t* disk = malloc_vdsk(&cfg, 0);
    disk->name = "web.vmdk";
    disk->extentname = "web-flat.vmdk";
    disk->directory = "dir";
    disk->dsname = "ds1";
    disk->size = 1024;
    disk->type = VDSK_THIN;
    return cfg;
}

const std::string plain_text =
    "version = \"3\"\n"
    "vmname = \"web\"\n"
    "servername = \"esx1\"\n"
    "hostsystem = \"host\"\n"
    "resourcepool = \"pool\"\n"
    "directory = \"dir\"\n"
    "dsname = \"ds1\"\n"
    "vmx-name = \"web.vmx\"\n"
    "on-conflict = \"stop\"\n"
    "vmdk.0.name = \"web.vmdk\"\n"
    "vmdk.0.extent-name = \"web-flat.vmdk\"\n"
    "vmdk.0.directory = \"dir\"\n"
    "vmdk.0.dsname = \"ds1\"\n"
    "vmdk.0.size = 1024\n"
    "vmdk.0.type = \"thin\"\n";

std::string text_of(const vmcfg_t& cfg) {
    return printed([&](std::FILE* out) { EXPECT_EQ(cfg_print(out, &cfg), nullptr); });
}

errdesc_t* parse(const std::string& text, vmcfg_t* cfg) {
    std::string copy = text;
    const file_ptr in(copy.empty() ? std::fopen("/dev/null", "re") : fmemopen(copy.data(), copy.size(), "r"));
    return cfg_parse_file_contents(in.get(), cfg);
}

TEST(vmcfg, ItemsStandInTheirOrder) {
    vmcfg_t cfg = plain_record();
    cfg.version = 2;
    cfg.vmname = "a \"b\" \\c";
    cfg.vmuuid = "a\\b";  // as it is
    cfg.vmxrename = "other.vmx";
    cfg.on_conflict = VMCFG_CONFLICT_SNAPSHOT;
    cfg.access_time = 1'600'000'000;
    cfg.vdsk[183] = std::make_unique<vmcfg_vd_t>(*cfg.vdsk[0]);
    cfg.vdsk[0].reset();
    vmcfg_vd_t& disk = *cfg.vdsk[183];
    disk.rename = "(1)web.vmdk";
    disk.extentrename = "(1)web-flat.vmdk";
    disk.fpath = "/vmfs/volumes/ds1/dir/web.vmdk";
    disk.size = 5'000'000'000'000;
    disk.type = VDSK_THICK;
    EXPECT_EQ(text_of(cfg),
              "version = \"2\"\n"
              "vmname = \"a \\\"b\\\" \\\\c\"\n"
              "vmuuid = \"a\\b\"\n"
              "servername = \"esx1\"\n"
              "hostsystem = \"host\"\n"
              "resourcepool = \"pool\"\n"
              "directory = \"dir\"\n"
              "dsname = \"ds1\"\n"
              "vmx-name = \"web.vmx\"\n"
              "on-conflict = \"snapshot\"\n"
              "vmx-rename = \"other.vmx\"\n"
              "vmdk.183.name = \"web.vmdk\"\n"
              "vmdk.183.extent-name = \"web-flat.vmdk\"\n"
              "vmdk.183.rename = \"(1)web.vmdk\"\n"
              "vmdk.183.extent-rename = \"(1)web-flat.vmdk\"\n"
              "vmdk.183.fpath = \"/vmfs/volumes/ds1/dir/web.vmdk\"\n"
              "vmdk.183.directory = \"dir\"\n"
              "vmdk.183.dsname = \"ds1\"\n"
              "vmdk.183.size = 5000000000000\n"
              "vmdk.183.type = \"thick\"\n"
              "access-time = 1600000000\n");
}

TEST(vmcfg, IncompleteRecordsAreNotWritten) {
    struct {
        std::function<void(vmcfg_t&)> spoil;
        std::string text;
    } const cases[] = {
        {[](vmcfg_t& c) { c.version = 4; }, "Unsupported version number: Invalid argument"},
        {[](vmcfg_t& c) { c.vmname.reset(), c.servername.reset(); }, "missing `vmname': Invalid argument"},
        {[](vmcfg_t& c) { c.version = 1, c.hostsystem.reset(), c.resourcepool.reset(), c.directory.reset(); },
         "missing `directory': Invalid argument"},
        {[](vmcfg_t& c) { c.vdsk[0]->name.reset(); }, "missing `name' for disk 0"},
        {[](vmcfg_t& c) { malloc_vdsk(&c, 5)->name = c.vdsk[0]->dsname.value(), c.vdsk[0]->dsname.reset(); },
         "missing `dsname' for disk 0"},
        {[](vmcfg_t& c) { c.vdsk[0]->size = 0; }, "missing `size' for disk 0"},
    };
    for (const auto& c : cases) {
        vmcfg_t cfg = plain_record();
        c.spoil(cfg);
        const std::string nothing = printed([&](std::FILE* out) {
            const errdesc_t* e = cfg_print(out, &cfg);
            ASSERT_EQ(number_of(e), EINVAL) << c.text;
            EXPECT_EQ(std::string(e->string), c.text);
        });
        EXPECT_EQ(nothing, "");
    }
}

TEST(vmcfg, RecordsThatWouldNotReadBackAreRefused) {
    const std::string zero("a\0b", 3);
    struct {
        std::function<void(vmcfg_t&)> spoil;
        const char* fault;
    } const cases[] = {
        {[&](vmcfg_t& c) { c.vmname = zero; }, "a text with a zero byte: vmname"},
        {[&](vmcfg_t& c) { c.vdsk[0]->fpath = zero; }, "a text with a zero byte: fpath"},
        {[](vmcfg_t& c) { c.resourcepool = std::string(2047, '"'); }, "a text that is too long: resourcepool"},
        {[](vmcfg_t& c) { c.vmuuid = "a\"\nvmname = \"b"; }, "quotes or backslashes: vmuuid"},
        {[](vmcfg_t& c) { c.vmuuid = "a\\"; }, "quotes or backslashes: vmuuid"},
        {[](vmcfg_t& c) { c.on_conflict = static_cast<vmcfg_conflict_type_t>(4); }, "an unknown value: on-conflict"},
        {[](vmcfg_t& c) { c.access_time = -1; }, "a time before the epoch: access-time"},
    };
    for (const auto& c : cases) {
        vmcfg_t cfg = plain_record();
        EXPECT_EQ(cfg_check_record(&cfg), nullptr);
        c.spoil(cfg);
        const errdesc_t* e = cfg_check_record(&cfg);
        ASSERT_NE(e, nullptr) << c.fault;
        EXPECT_EQ(std::string(e->string), std::string("VM configuration refused, ") + c.fault);
    }
}

// Whatever a VM is called, its description reads back.
TEST(vmcfg, PrintedRecordsReadBack) {
    const std::string texts[] = {
        "",
        "stop",
        "007",
        "#",
        " = ",
        "\r\n\t",
        "\\\"",
        "a\\",
        "\xc3\xbc\xff\x01\x7f",
        "\"\nvmname = \"evil",
        "%s%n",
        std::string(4093, 'n'),
        std::string(2046, '"'),
    };
    for (const std::string& text : texts) {
        vmcfg_t cfg = plain_record();
        for (const auto field : {&vmcfg_t::vmname, &vmcfg_t::servername, &vmcfg_t::directory, &vmcfg_t::vmxrename,
                                 &vmcfg_t::hostsystem, &vmcfg_t::resourcepool, &vmcfg_t::dsname, &vmcfg_t::vmxname})
            cfg.*field = text;
        if (text.find_first_of("\"\\") == std::string::npos)
            cfg.vmuuid = text;
        cfg.access_time = std::time_t{1} << 56;
        *malloc_vdsk(&cfg, 183) = {.name = text,
                                   .rename = text,
                                   .extentname = text,
                                   .extentrename = text,
                                   .fpath = text,
                                   .directory = text,
                                   .dsname = text,
                                   .size = ~0ULL,
                                   .type = VDSK_THICK};
        ASSERT_EQ(cfg_check_record(&cfg), nullptr);
        vmcfg_t back;
        const errdesc_t* e = parse(text_of(cfg), &back);
        ASSERT_EQ(e, nullptr) << e->string << "\n" << text_of(cfg);
        EXPECT_EQ(text_of(back), text_of(cfg));
    }
}

TEST(vmcfg, ExportedFilesReadBackWithTheirTrailer) {
    vmcfg_t cfg;
    ASSERT_EQ(parse(plain_text + "access-time = 77\n" + std::string(183, ' '), &cfg), nullptr);
    EXPECT_EQ(cfg.access_time, 77);
    EXPECT_EQ(text_of(cfg), plain_text + "access-time = 77\n");
}

TEST(vmcfgparser, LinesThatCannotBeReadAreNoted) {
    struct {
        const char* text;
        int errors;
    } const cases[] = {
        {"nonsense\n", 1},
        {"vmname = web\n", 1},
        {"version = \"4294967296\"\n", 1},
        {"on-conflict = \"maybe\"\n", 1},
        {"vmdk.184.name = \"n\"\n", 1},
        {"vmdk.0.size = 18446744073709551616\n", 1},
        {"a\nb\n\nc\n", 3},
    };
    for (const auto& c : cases) {
        vmcfg_t cfg;
        const errdesc_t* e = parse("\n" + std::string(c.text) + plain_text, &cfg);
        ASSERT_EQ(number_of(e), EINVAL) << c.text;
        EXPECT_EQ(std::string(e->string), "syntax error at line 2: Invalid argument") << c.text;
        EXPECT_EQ(cfg.err_count, c.errors) << c.text;
        EXPECT_EQ(cfg.err_string, "syntax error at line 2");
        EXPECT_EQ(cfg.vmxname, "web.vmx") << c.text;  // what follows is read
    }
}

}  // namespace
}  // namespace mirador
