// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/webservices/ws_fileops.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "lib/cor_string.h"
#include "tests/support/scripted_agent.h"
#include "vmware/lib/webservices/ws_datastore.h"

namespace mirador {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

const ks_hypervisor_config_t hvc = {
    .hostname = "esx", .login_name = "root", .password = secret_t("secret"), .hv_port = 443};

constexpr const char* web_file =
    R"({"dc_name":"dc","ds_name":"ds","vm_moref":"vm-7","folder":"web","name":"web.vmx","type":"VMXfile",)"
    R"("mtime":1700000000,"size":1099511627776})";
constexpr const char* plain_file =
    R"({"size":-1,"mtime":4294967295,"type":"foo","name":"","folder":"","ds_name":"","dc_name":"","vm_moref":7})";
constexpr const char* datastore =
    R"({"hv":"esx","name":"ds","url":"ds://x","type":"NFS","dc":"dc","timestamp":1700000000,"accessible":1,)"
    R"("capacity":18446744073709551615,"freeSpace":5,"paths":["/a",3,"/b"]})";

// The object without one of its members.
std::string without(const char* object, const char* member) {
    const json_ptr value(json_tokener_parse(object));
    json_object_object_del(value.get(), member);
    return json_object_to_json_string(value.get());
}

std::string shown(const esx_file_desc_t& fd) {
    return cor_format("%x %u %s|%s|%s|%s|%s|%d|%s|%jd|%jd", fd.magic, fd.version, fd.dc_name.c_str(),
                      fd.ds_name.c_str(), fd.vm_moref.value_or("none").c_str(), fd.file_folder.c_str(),
                      fd.file_name.c_str(), fd.file_type, fd.file_type_str.c_str(), std::intmax_t{fd.file_mtime},
                      std::intmax_t{fd.file_bytes});
}

constexpr const char* web_shown = "20100120 2 dc|ds|vm-7|web|web.vmx|3|VMXfile|1700000000|1099511627776";
constexpr const char* plain_shown = "20100120 2 ||none|||0|foo|4294967295|-1";

std::string outcome(const errdesc_t* e) {
    return e == nullptr ? "ok" : cor_format("%d %s", e->number, e->string);
}

class ws_fileops : public testing::Test {
  protected:
    scripted_agent_t agent_;
};

TEST_F(ws_fileops, ListIsWholeOrNone) {
    std::vector<esx_file_desc_t> list(1);
    agent_.answer_data("ls", cor_format("[%s,%s]", web_file, plain_file));
    ASSERT_EQ(outcome(ws_ls(hvc, "dc", "a", &list)), "ok");
    ASSERT_EQ(list.size(), 3U);  // what the caller's list held stays
    EXPECT_EQ(shown(list[1]), web_shown);
    EXPECT_EQ(shown(list[2]), plain_shown);
    EXPECT_EQ(ws_ls(hvc, "dc", "a", nullptr), nullptr);

    std::vector<std::string> faults = {"null", "{}", "17", cor_format("[%s,null]", web_file),
                                       cor_format("[%s,[]]", web_file)};
    for (const char* member : {"dc_name", "ds_name", "folder", "name", "type", "mtime", "size"})
        faults.push_back(cor_format("[%s,%s]", web_file, without(web_file, member).c_str()));
    for (const std::string& data : faults) {
        list.resize(2);
        agent_.answer_data("ls", data);
        EXPECT_THAT(outcome(ws_ls(hvc, "dc", "a", &list)), HasSubstr("2 ls: ")) << data;
        EXPECT_THAT(list, IsEmpty()) << data;
        EXPECT_THAT(outcome(ws_ls(hvc, "dc", "a", nullptr)), HasSubstr("2 ls: ")) << data;
    }
    for (const std::string& reply : {std::string("{}"), scripted_agent_t::error_reply(5, "x"), std::string()}) {
        list.resize(2);
        agent_.answer("ls", reply);
        EXPECT_NE(ws_ls(hvc, "dc", "a", &list), nullptr) << reply;
        EXPECT_THAT(list, IsEmpty()) << reply;
    }
}

TEST_F(ws_fileops, DatastoresAreWholeOrNone) {
    std::vector<datastore_info_t> list(1);
    agent_.answer_data("df", cor_format("[%s,%s]", datastore, without(datastore, "paths").c_str()));
    ASSERT_EQ(outcome(ws_df(hvc, &list)), "ok");
    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(list[1].hv + list[1].name + list[1].url + list[1].type + list[1].dc, "esxdsds://xNFSdc");
    EXPECT_EQ(list[1].capacity, 18446744073709551615U);
    EXPECT_THAT(list[1].paths, testing::ElementsAre("/a", "/b"));
    EXPECT_THAT(list[2].paths, IsEmpty());

    for (const char* member : {"hv", "name", "url", "type", "dc", "timestamp", "accessible", "capacity", "freeSpace"}) {
        list.resize(1);
        agent_.answer_data("df", cor_format("[%s,%s]", datastore, without(datastore, member).c_str()));
        EXPECT_THAT(outcome(ws_df(hvc, &list)), HasSubstr("2 df: ")) << member;
        EXPECT_THAT(list, IsEmpty()) << member;
    }
    list.resize(1);
    agent_.answer_error("df", ENOSYS, "no such method");
    EXPECT_EQ(outcome(ws_df(hvc, &list)), "38 no such method");
    EXPECT_THAT(list, IsEmpty());
}

}  // namespace
}  // namespace mirador
