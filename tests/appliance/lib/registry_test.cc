// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <limits>
#include <map>
#include <thread>
#include <vector>

#include "controller/lib/controller_url.h"
#include "controller/lib/json_fields.h"
#include "lib/cor_string.h"
#include "lib/log.h"
#include "tests/support/fake_controller.h"

namespace mirador {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// In the order in which they are asked for, with values that change nothing in a new record.
const std::vector<std::pair<std::string, std::string>> defaults = {
    {"controller.uuid", "appliance"},
    {"smartread.enabled", "1"},
    {"smartread.lvm.enabled", "0"},
    {"directio.enabled", "0"},
    {"export.cache.ttl", "120"},
    {"export.ondemand.enabled", "0"},
    {"export.vm_uuid.enabled", "0"},
    {"appliance.debug.level", "0"},
    {"appliance.cbt.debug", "0"},
    {"recover.automount.enabled", "0"},
    {"appliance.cbt.percent", "0"},
    {"vendor.id", "Vendor"},
    {"feature.read_ahead.size", "1048576"},
    {"snapshot.max_idle", "300"},
    {"snapshot.max_life", "172800"},
    {"snapshot.retry_limit", "12"},
    {"snapshot.blocking_removal", "1"},
    {"nfc.session.reserved", "0"},
    {"export.max_session", "50"},
};

class registry_update : public testing::Test {
  protected:
    registry_update() {
        fake_.answer("registry", [this](const http_request_t& request, http_connection_t& connection) {
            const json_ptr call = json_parse_text(request.body);
            const std::string key = ks_text(json_text_member(call.get(), "method_args"));
            asked_.push_back(key);
            const auto found = values_.find(key);
            if (found == values_.end())
                connection.reply(200, R"({"error_code":1,"result":""})");
            else if (found->second == "<no body>")
                connection.reply(200, "");
            else
                connection.reply(200, cor_format(R"({"error_code":0,"result":"%s"})", found->second.c_str()));
        });
        fake_.answer("node?get_master", "\"master\"");
        values_.insert(defaults.begin(), defaults.end());
        EXPECT_EQ(update(), 0);
    }
    // The settings are one record for all tests.
    ~registry_update() override {
        values_.clear();
        values_.insert(defaults.begin(), defaults.end());
        EXPECT_EQ(update(), 0);
    }

    errnum_t update() {
        asked_.clear();
        testing::internal::CaptureStdout();
        const errdesc_t* e = registry_settings_update();
        log_ = testing::internal::GetCapturedStdout();
        return e == nullptr ? 0 : e->number;
    }

    fake_controller_t& fake_ = fake_controller_t::fresh(controller_get_url);
    std::map<std::string, std::string> values_;
    std::vector<std::string> asked_;
    std::string log_;
    reg_settings_t& settings_ = *get_reg_settings();
};

TEST_F(registry_update, AsksForEveryKeyInOrder) {
    EXPECT_EQ(update(), 0);
    std::vector<std::string> keys;
    for (const auto& [key, value] : defaults)
        keys.push_back(key);
    EXPECT_EQ(asked_, keys);
    EXPECT_THAT(log_, Not(HasSubstr("reg: changing")));  // nothing changed
    EXPECT_EQ(settings_.names().appliance_uuid, "appliance");
    EXPECT_EQ(settings_.names().master_uuid, "master");
    EXPECT_EQ(settings_.names().vendor_id, "Vendor");
}

TEST_F(registry_update, StoresAndLogsChanges) {
    values_ = {{"controller.uuid", std::string(70, 'a')},
               {"smartread.enabled", "0"},
               {"smartread.lvm.enabled", "yes"},
               {"directio.enabled", "1"},
               {"export.cache.ttl", "11"},
               {"export.ondemand.enabled", "1"},
               {"export.vm_uuid.enabled", "1"},
               {"appliance.debug.level", "1"},
               {"appliance.cbt.debug", "1"},
               {"recover.automount.enabled", "1"},
               {"appliance.cbt.percent", "12"},
               {"vendor.id", "A vendor of a long name"},
               {"feature.read_ahead.size", "4294967296"},
               {"snapshot.max_idle", "13"},
               {"snapshot.max_life", "14"},
               {"snapshot.retry_limit", "15"},
               {"snapshot.blocking_removal", "0"},
               {"nfc.session.reserved", "16"},
               {"export.max_session", "17"}};
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(settings_.names().appliance_uuid, std::string(63, 'a'));
    EXPECT_EQ(settings_.names().vendor_id, "A vendor o");
    EXPECT_FALSE(settings_.smartread_optimize);
    EXPECT_TRUE(settings_.smartread_lvm_enabled);
    EXPECT_TRUE(settings_.directio);
    EXPECT_EQ(settings_.cache_ttl, 11);
    EXPECT_TRUE(settings_.ondemand_refresh);
    EXPECT_TRUE(settings_.export_vm_uuid_enabled);
    EXPECT_EQ(settings_.debug_level, 1);
    EXPECT_EQ(get_debug_level(), 1);
    EXPECT_TRUE(settings_.cbt_debug_enabled);
    EXPECT_TRUE(settings_.recover_automount_enabled);
    EXPECT_EQ(settings_.cbt_percent, 12);
    EXPECT_EQ(settings_.readahead_size, 4294967296U);
    EXPECT_EQ(settings_.snapshot_max_idle, 13);
    EXPECT_EQ(settings_.snapshot_max_life, 14);
    EXPECT_EQ(settings_.snapshot_retry_limit, 15);
    EXPECT_FALSE(settings_.snapshot_blocking_removal);
    EXPECT_EQ(settings_.nfc_session_reserved, 16);
    EXPECT_EQ(settings_.max_session, 17);
    EXPECT_THAT(log_, AllOf(HasSubstr(": reg: changing smartread.enabled from 1 to 0\n"),
                            HasSubstr(": reg: changing export.cache.ttl from 120 to 11\n"),
                            HasSubstr(": reg: changing appliance.debug.level from 0 to 1\n"),
                            HasSubstr(": reg: changing feature.read_ahead.size from 1048576 to 4294967296\n"),
                            HasSubstr(": reg: changing export.max_session from 50 to 17\n"),
                            Not(HasSubstr("uuid from")), Not(HasSubstr("vendor"))));
}

TEST_F(registry_update, EndsAtTheFirstKeyThatIsMissing) {
    values_.erase("directio.enabled");
    values_["smartread.lvm.enabled"] = "1";
    values_["export.cache.ttl"] = "5";
    EXPECT_EQ(update(), ERR_REGISTRY_KEY_NOT_FOUND);
    EXPECT_EQ(asked_.back(), "directio.enabled");
    EXPECT_TRUE(settings_.smartread_lvm_enabled);
    EXPECT_EQ(settings_.cache_ttl, 120);

    for (const char* nothing : {"", "<no body>"}) {
        values_["directio.enabled"] = nothing;
        EXPECT_EQ(update(), ERR_JSON_MISSING_FIELD);
        EXPECT_EQ(asked_.back(), "directio.enabled");
    }
}

TEST_F(registry_update, GoesOnWithoutTheReadAheadSize) {
    values_.erase("feature.read_ahead.size");
    values_["snapshot.max_idle"] = "60";
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(settings_.readahead_size, 1048576U);
    EXPECT_EQ(settings_.snapshot_max_idle, 60);
}

TEST_F(registry_update, TakesWhatIsNoNumberAsZero) {
    values_["export.cache.ttl"] = "soon";
    values_["snapshot.max_life"] = "12 hours";
    values_["snapshot.max_idle"] = "99999999999999999999";
    values_["snapshot.retry_limit"] = "-7";
    values_["smartread.enabled"] = "false";
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(settings_.cache_ttl, 0);
    EXPECT_EQ(settings_.snapshot_max_life, 12);
    EXPECT_EQ(settings_.snapshot_max_idle, std::numeric_limits<int>::max());
    EXPECT_EQ(settings_.snapshot_retry_limit, -7);
    EXPECT_TRUE(settings_.smartread_optimize);
}

TEST_F(registry_update, PassesOverNegativeCounts) {
    for (const char* key : {"nfc.session.reserved", "export.max_session", "feature.read_ahead.size"})
        values_[key] = "-3";
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(settings_.nfc_session_reserved, 0);
    EXPECT_EQ(settings_.max_session, 50);
    EXPECT_EQ(settings_.readahead_size, 1048576U);
    EXPECT_THAT(log_, Not(HasSubstr("reg: changing")));
}

TEST_F(registry_update, IsItsOwnMasterWhereNoneIsTold) {
    fake_.answer("node?get_master", "", 500);
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(settings_.names().master_uuid, "appliance");
    fake_.answer("node?get_master", "\"\"");
    values_["controller.uuid"] = "other";
    values_["vendor.id"] = "<no body>";
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(settings_.names().master_uuid, "other");
    EXPECT_EQ(settings_.names().vendor_id, "Corvantis");
    fake_.answer("node?get_master", "\"master\"");
}

TEST(registry, ReadersMeetWholeNamesWhileTheyChange) {
    reg_settings_t* const settings = get_reg_settings();
    settings->publish_names({.appliance_uuid = "0", .master_uuid = "0", .vendor_id = "0"});
    std::atomic<bool> stop = false;
    std::atomic<unsigned> torn = 0;
    std::vector<std::jthread> readers;
    for (int i = 0; i < 3; i++)
        readers.emplace_back([&] {
            while (!stop) {
                const reg_names_t& names = settings->names();
                if (names.appliance_uuid != names.master_uuid || names.appliance_uuid != names.vendor_id ||
                    settings->max_session < 50)
                    torn++;
            }
        });
    for (int i = 0; i < 2000; i++) {
        const std::string text = std::to_string(i % 100);
        settings->publish_names({.appliance_uuid = text, .master_uuid = text, .vendor_id = text});
        settings->max_session = 50 + i;
    }
    stop = true;
    readers.clear();
    EXPECT_EQ(torn, 0U);
}

}  // namespace
}  // namespace mirador
