// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/controller.h"

#include <gmock/gmock.h>
#include <poll.h>

#include <cerrno>
#include <functional>
#include <thread>
#include <vector>

#include "controller/lib/controller_raw.h"
#include "controller/lib/controller_url.h"
#include "tests/lib/error_number.h"
#include "tests/support/fake_controller.h"

namespace mirador {
namespace {

constexpr errnum_t curl_aborted = 42;

class controller : public testing::Test {
  protected:
    std::vector<std::string> targets() const {
        std::vector<std::string> all;
        for (const http_request_t& request : fake_.received())
            all.push_back(request.method + " " + request.target);
        return all;
    }

    fake_controller_t& fake_ = fake_controller_t::fresh(controller_get_url);
};

struct request_case_t {
    std::function<errdesc_t*()> request;
    const char* object;
};

TEST_F(controller, AsksForEachObjectAtItsPlace) {
    record_list_ptr<ks_hypervisor_config_t> hypervisors;
    record_list_ptr<ks_vm_config_t> vms;
    record_list_ptr<ks_vm_folder_t> folders;
    record_list_ptr<ks_vdisk_t> disks;
    record_list_ptr<ks_nfs_datastore_config_t> nfs;
    record_list_ptr<ks_ds_config_t> datastores;
    std::unique_ptr<ks_vm_config_t> vm;
    std::string text;
    const std::optional<std::string> none;
    const request_case_t cases[] = {
        {[&] { return controller_get_hypervisors(&hypervisors); }, "hvconfig"},
        {[&] { return controller_get_vm(&vm, "u-1"); }, "vhost?vm_uuid=u-1"},
        {[&] { return controller_get_vms({.hostname = "esx.1"}, &vms); }, "vhost?hv_hostname=esx.1"},
        {[&] { return controller_get_user_defined_folders(&folders); }, "folder"},
        {[&] { return controller_get_vdisks("u", &disks); }, "vdisk?vhost_uuid=u"},
        {[&] { return controller_get_vdisks(none, &disks); }, "vdisk"},
        {[&] { return controller_get_corcbt_vdisks("u", "a b&c.vmdk", &disks); },
         "vdisk?vhost_uuid=u&name=a%20b%26c.vmdk"},
        {[&] { return controller_get_corcbt_vdisks("u", none, &disks); }, "vdisk?vhost_uuid=u"},
        {[&] { return controller_get_corcbt_vdisks(none, "a", &disks); }, "vdisk"},
        {[&] { return controller_get_nfs_datastores(&nfs); }, "nfs_datastore"},
        {[&] { return controller_get_datastores(&datastores); }, "datastore"},
        {[&] { return controller_get_master_uuid(&text, 64); }, "node?get_master"},
        {[&] { return controller_fs_sync_query("dsfs", &text); }, "fs_sync?target=dsfs&type=query"},
        {[&] { return controller_fs_sync_set("vmfs", "3-4"); }, "fs_sync?target=vmfs&type=set&genId=3-4"},
        {[&] { return controller_fs_sync_wait("dsfs", "0-0", 0, nullptr, &text); },
         "fs_sync?target=dsfs&genId=0-0&type=wait"},
        {[&] { return controller_fs_sync_wait("dsfs", "0-0", 30, nullptr, &text); },
         "fs_sync?target=dsfs&genId=0-0&type=wait&timeout=30"},
    };
    for (const request_case_t& c : cases) {
        fake_controller_t::fresh(controller_get_url).answer(c.object, "");
        EXPECT_EQ(number_of(c.request()), 0) << c.object;  // a reply without a body brings nothing
        EXPECT_THAT(targets(), testing::ElementsAre("GET /api/" + std::string(c.object)));

        fake_.answer(c.object, "{\"x\"");
        const bool is_raw = std::string(c.object) == "node?get_master";
        EXPECT_EQ(number_of(c.request()), is_raw ? 0 : ERR_JSON_PARSE_ERROR) << c.object;
    }
    EXPECT_EQ(hypervisors, nullptr);
}

TEST_F(controller, FindsOneRecord) {
    fake_.answer("hvconfig", R"([{"hostname":"a"},{"hostname":"b","hv_port":1},{"hostname":"b","hv_port":2}])");
    ks_hypervisor_config_t hvc;
    ASSERT_EQ(number_of(controller_get_hypervisor(&hvc, "b")), 0);
    EXPECT_EQ(hvc.hv_port, 1U);
    const errdesc_t* e = controller_get_hypervisor(&hvc, "c");
    EXPECT_EQ(number_of(e), ENOENT);
    EXPECT_STREQ(e->string, "c: No such file or directory");

    fake_.answer("vhost?vm_uuid=u", R"([{"uuid":"first"},{"uuid":"second"}])");
    std::unique_ptr<ks_vm_config_t> vm;
    ASSERT_EQ(number_of(controller_get_vm(&vm, "u")), 0);
    EXPECT_EQ(vm->uuid, "first");
    fake_.answer("vhost?vm_uuid=u", "[]");
    ASSERT_EQ(number_of(controller_get_vm(&vm, "u")), 0);
    EXPECT_EQ(vm, nullptr);
}

TEST_F(controller, SaysThatItPostsJson) {
    fake_.answer("registry", R"({"error_code":0,"result":"value"})");
    std::string value;
    ASSERT_EQ(number_of(controller_get_registry_string("a.key", &value, 9)), 0);
    EXPECT_EQ(fake_.received().at(0).value_of("Content-Type"), "application/json; charset=UTF-8");
}

TEST_F(controller, TakesTheMasterOutOfItsQuotes) {
    const auto master = [&](const std::string& body) {
        fake_.answer("node?get_master", body);
        std::string uuid = "before";
        EXPECT_EQ(number_of(controller_get_master_uuid(&uuid, 5)), 0);
        return uuid;
    };
    for (const char* body : {"\"abc\"", "\"abc\"\n"})
        EXPECT_EQ(master(body), "abc");
    EXPECT_EQ(master("\"abcdef\""), "abcd");
    for (const char* empty : {"", "\"", "\"\"", "null", "<html>none</html>"})
        EXPECT_EQ(master(empty), "");
}

TEST_F(controller, TakesGenerationsThatCanBeSentBack) {
    const auto generation = [&](const std::string& body) {
        fake_.answer("fs_sync?target=dsfs&type=query", body);
        std::string gen_id = "before";
        const errdesc_t* e = controller_fs_sync_query("dsfs", &gen_id);
        return e == nullptr ? gen_id : std::to_string(e->number);
    };
    EXPECT_EQ(generation(R"({"genId":"12-7"})"), "12-7");
    EXPECT_EQ(generation(R"({"genId":5})"), "5");
    EXPECT_EQ(generation(R"({"genId":")" + std::string(127, 'g') + "\"}"), std::string(127, 'g'));
    for (const char* none : {"{}", "[]", R"({"genId":null})", R"({"genId":""})"})
        EXPECT_EQ(generation(none), "") << none;
    for (const char* bad : {"a b", "a&b", "a#", "%41", "+", "a\\n", "\\u00e9"})
        EXPECT_EQ(generation(std::string(R"({"genId":")") + bad + "\"}"), std::to_string(EINVAL)) << bad;
    EXPECT_EQ(generation(R"({"genId":")" + std::string(128, 'g') + "\"}"), std::to_string(EINVAL));

    fake_.answer("fs_sync?target=dsfs&type=query", "<html>");
    std::string gen_id;
    EXPECT_STREQ(controller_fs_sync_query("dsfs", &gen_id)->string, "couldn't parse json_string: <html>");
}

TEST_F(controller, EndsAWaitThatIsInterrupted) {
    std::atomic<int> interrupt = 0;
    fake_.answer("fs_sync?target=dsfs&genId=0-0&type=wait", [&](const http_request_t&, http_connection_t& connection) {
        interrupt = 1;
        connection.wait_until_gone();
    });
    std::string gen_id;
    EXPECT_EQ(number_of(controller_fs_sync_wait("dsfs", "0-0", 0, &interrupt, &gen_id)), curl_aborted);
}

// A controller that takes requests and never answers, and one that still does. The end is for the whole process, so it
// takes place in another one, begun anew: a forked child's threads are beyond ThreadSanitizer.
TEST_F(controller, ThatNeverAnswersDoesNotHoldUpTheEndOfTheProcess) {
    fake_.answer("hvconfig",
                 [](const http_request_t&, http_connection_t& connection) { connection.wait_until_gone(); });
    fake_.answer("vhost?vm_uuid=u", R"([{"uuid":"first"}])");
    const auto outcome = [] {
        ks_hypervisor_config_t hvc;
        return number_of(controller_get_hypervisor(&hvc, "h"));
    };
    const auto end = [&] {
        _controller_raw_shutdown_limit = 1;
        errnum_t early = 0;
        std::jthread request([&] { early = outcome(); });
        poll(nullptr, 0, 500);  // it is under way
        controller_raw_begin_shutdown();
        std::unique_ptr<ks_vm_config_t> vm;
        if (number_of(controller_get_vm(&vm, "u")) != 0)
            return 1;
        if (outcome() != 28)
            return 2;
        request.join();
        if (early != 42 || number_of(controller_get_vm(&vm, "u")) != 0)
            return 3;
        for (int i = 0; i < 3; i++)
            if (outcome() != 28)
                return 4;
        return outcome() == 42 && number_of(controller_get_vm(&vm, "u")) == 42 ? 0 : 5;
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exit(end()), testing::ExitedWithCode(0), "");
}

TEST_F(controller, RefusesAUrlThatIsTooLong) {
    const std::string fits(1023 - controller_get_url().size() - std::string("/api/vhost?vm_uuid=").size(), 'u');
    fake_.answer("vhost?vm_uuid=" + fits, "[]");
    std::unique_ptr<ks_vm_config_t> vm;
    EXPECT_EQ(number_of(controller_get_vm(&vm, fits)), 0);
    const errdesc_t* e = controller_get_vm(&vm, fits + "u");
    EXPECT_EQ(number_of(e), ENAMETOOLONG);
    EXPECT_THAT(e->string, testing::HasSubstr("URL refused, longer than 1023 characters: http://localhost:"));
    EXPECT_EQ(targets().size(), 1U);
}

}  // namespace
}  // namespace mirador
