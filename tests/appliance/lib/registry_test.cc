// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/registry.h"

#include <gmock/gmock.h>

#include <atomic>
#include <limits>
#include <map>
#include <thread>
#include <vector>

#include "controller/lib/controller_url.h"
#include "controller/lib/json_fields.h"
#include "lib/cor_string.h"
#include "lib/log.h"
#include "tests/lib/error_number.h"
#include "tests/support/fake_controller.h"

namespace mirador {
namespace {

using testing::HasSubstr;
using testing::Not;

template <auto member>
std::string stored(const reg_settings_t& settings) {
    return std::to_string((settings.*member).get());
}

struct setting_t {
    const char* key;
    const char* usual;  // changes nothing in a new record
    const char* other;
    std::string (*shown)(const reg_settings_t&);  // null: a name
};

// In the order in which they are asked for.
const setting_t all_settings[] = {
    {"controller.uuid", "appliance", "other", nullptr},
    {"smartread.enabled", "1", "0", stored<&reg_settings_t::smartread_optimize>},
    {"smartread.lvm.enabled", "0", "yes", stored<&reg_settings_t::smartread_lvm_enabled>},
    {"directio.enabled", "0", "1", stored<&reg_settings_t::directio>},
    {"export.cache.ttl", "120", "11", stored<&reg_settings_t::cache_ttl>},
    {"export.ondemand.enabled", "0", "1", stored<&reg_settings_t::ondemand_refresh>},
    {"export.vm_uuid.enabled", "0", "1", stored<&reg_settings_t::export_vm_uuid_enabled>},
    {"appliance.debug.level", "0", "1", stored<&reg_settings_t::debug_level>},
    {"appliance.cbt.debug", "0", "1", stored<&reg_settings_t::cbt_debug_enabled>},
    {"recover.automount.enabled", "0", "1", stored<&reg_settings_t::recover_automount_enabled>},
    {"appliance.cbt.percent", "0", "12", stored<&reg_settings_t::cbt_percent>},
    {"vendor.id", "Vendor", "Other", nullptr},
    {"feature.read_ahead.size", "1048576", "4294967296", stored<&reg_settings_t::readahead_size>},
    {"snapshot.max_idle", "300", "13", stored<&reg_settings_t::snapshot_max_idle>},
    {"snapshot.max_life", "172800", "14", stored<&reg_settings_t::snapshot_max_life>},
    {"snapshot.retry_limit", "12", "15", stored<&reg_settings_t::snapshot_retry_limit>},
    {"snapshot.blocking_removal", "1", "0", stored<&reg_settings_t::snapshot_blocking_removal>},
    {"nfc.session.reserved", "0", "16", stored<&reg_settings_t::nfc_session_reserved>},
    {"export.max_session", "50", "17", stored<&reg_settings_t::max_session>},
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
        tell_usual_values();
    }
    // The settings are one record for all tests.
    ~registry_update() override {
        values_.clear();
        tell_usual_values();
    }

    void tell_usual_values() {
        for (const setting_t& setting : all_settings)
            values_[setting.key] = setting.usual;
        EXPECT_EQ(update(), 0);
    }

    errnum_t update() {
        asked_.clear();
        testing::internal::CaptureStdout();
        const errdesc_t* e = registry_settings_update();
        log_ = testing::internal::GetCapturedStdout();
        return number_of(e);
    }

    fake_controller_t& fake_ = fake_controller_t::fresh(controller_get_url);
    std::map<std::string, std::string> values_;
    std::vector<std::string> asked_;
    std::string log_;
    reg_settings_t& settings_ = *get_reg_settings();
};

TEST_F(registry_update, AsksInOrderAndStoresAndLogsChanges) {
    std::vector<std::string> keys;
    for (const setting_t& setting : all_settings) {
        keys.push_back(setting.key);
        values_[setting.key] = setting.other;
    }
    values_["controller.uuid"] = std::string(70, 'a');
    values_["vendor.id"] = "A vendor of a long name";
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(asked_, keys);
    EXPECT_EQ(settings_.names().appliance_uuid, std::string(63, 'a'));
    EXPECT_EQ(settings_.names().vendor_id, "A vendor o");
    EXPECT_THAT(log_, testing::AllOf(Not(HasSubstr("uuid from")), Not(HasSubstr("vendor"))));
    EXPECT_EQ(get_debug_level(), 1);
    for (const auto& [key, usual, other, shown] : all_settings) {
        if (shown == nullptr)
            continue;
        const std::string now = std::string(other) == "yes" ? "1" : other;
        EXPECT_EQ(shown(settings_), now) << key;
        EXPECT_THAT(log_, HasSubstr(cor_format(": reg: changing %s from %s to %s\n", key, usual, now.c_str())));
    }
}

TEST_F(registry_update, EndsAtTheFirstKeyThatIsMissingButForTheReadAheadSize) {
    values_.erase("feature.read_ahead.size");
    values_["snapshot.max_idle"] = "60";
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(settings_.snapshot_max_idle, 60);

    values_.erase("directio.enabled");
    values_["smartread.lvm.enabled"] = "1";
    values_["export.cache.ttl"] = "5";
    EXPECT_EQ(update(), ERR_REGISTRY_KEY_NOT_FOUND);
    EXPECT_EQ(asked_.back(), "directio.enabled");
    EXPECT_TRUE(settings_.smartread_lvm_enabled);
    EXPECT_EQ(settings_.cache_ttl, 120);

    for (const char* key : {"directio.enabled", "controller.uuid"}) {
        for (const char* nothing : {"", "<no body>"}) {
            values_[key] = nothing;
            EXPECT_EQ(update(), ERR_JSON_MISSING_FIELD);
            EXPECT_EQ(asked_.back(), key);
        }
    }
}

TEST_F(registry_update, TakesWhatIsNoNumberAsZero) {
    values_["export.cache.ttl"] = "soon";
    values_["snapshot.max_life"] = "12 hours";
    values_["snapshot.max_idle"] = "99999999999999999999";
    values_["snapshot.retry_limit"] = "-7";
    values_["smartread.enabled"] = "false";
    for (const char* key : {"nfc.session.reserved", "export.max_session", "feature.read_ahead.size"})
        values_[key] = "-3";
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(settings_.nfc_session_reserved, 0) << "negative counts are passed over";
    EXPECT_EQ(settings_.max_session, 50);
    EXPECT_EQ(settings_.readahead_size, 1048576U);
    EXPECT_EQ(settings_.cache_ttl, 0);
    EXPECT_EQ(settings_.snapshot_max_life, 12);
    EXPECT_EQ(settings_.snapshot_max_idle, std::numeric_limits<int>::max());
    EXPECT_EQ(settings_.snapshot_retry_limit, -7);
    EXPECT_TRUE(settings_.smartread_optimize);
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
