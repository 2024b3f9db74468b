// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/managed_alert.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <vector>

#include "controller/lib/controller_url.h"
#include "controller/lib/json_fields.h"
#include "lib/clock.h"
#include "tests/lib/error_number.h"
#include "tests/support/fake_controller.h"

namespace mirador {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* node = "node-1";

ks_vm_config_t vm_of(const std::string& uuid, const std::string& name = "vm") {
    return {.hv_hostname = "esx", .vm_name = name, .uuid = uuid};
}

class alerts : public testing::Test {
  protected:
    alerts() { fake_.answer("alert", ""); }
    // The table outlives the test.
    ~alerts() override { (void)managed_alert_clear_all(node); }

    // What was sent since the last look: "<action> <kind> <object> <message>".
    std::vector<std::string> sent() {
        std::vector<std::string> all;
        const std::vector<http_request_t> requests = fake_.received();
        for (; seen_ < requests.size(); seen_++) {
            const json_ptr body = json_parse_text(requests[seen_].body);
            std::string line = ks_text(json_text_member(body.get(), "action")).substr(6);
            for (const char* member : {"alert_id", "object_id", "message"})
                if (const ks_string_t text = json_text_member(body.get(), member))
                    line += " " + *text;
            all.push_back(line);
        }
        return all;
    }

    errnum_t raise(const std::string& object, const ks_string_t& message, const ks_vm_config_t& vm, int defer = 0) {
        return number_of(managed_alert_post("kind", object, node, "warning", message, vm, defer));
    }

    fake_controller_t& fake_ = fake_controller_t::fresh(controller_get_url);
    manual_clock_t clock_{1700000000};
    std::size_t seen_ = 0;
};

TEST_F(alerts, AreSentWhenNewOrChanged) {
    const ks_vm_config_t vm = vm_of("u");
    EXPECT_EQ(raise("o", "one", vm), 0);
    EXPECT_EQ(raise("o", "one", vm), 0);
    EXPECT_THAT(sent(), ElementsAre("post kind o one"));
    EXPECT_EQ(raise("o", "two", vm), 0);
    EXPECT_EQ(raise("o", "two", vm_of("u", "renamed")), 0);
    EXPECT_EQ(raise("p", "two", vm), 0);
    EXPECT_THAT(sent(), ElementsAre("post kind o two", "post kind o two", "post kind p two"));
    EXPECT_EQ(number_of(managed_alert_clear("kind", "o", node, vm)), 0);
    EXPECT_EQ(number_of(managed_alert_clear("kind", "o", node, vm)), 0);
    EXPECT_THAT(sent(), ElementsAre("clear kind o"));
    EXPECT_EQ(number_of(managed_alert_post("kind", "p", node, "error", "two", vm, 0)), 0);
    EXPECT_EQ(number_of(managed_alert_post("kind", "p", node, std::nullopt, "two", vm, 0)), 0);
    EXPECT_THAT(sent(), ElementsAre("post kind p two"));
}

TEST_F(alerts, WaitForTheirGracePeriod) {
    const ks_vm_config_t vm = vm_of("u");
    EXPECT_EQ(raise("o", "m", vm, 300), 0);
    clock_.advance(300);
    EXPECT_EQ(raise("o", "m", vm, 300), 0);
    EXPECT_THAT(sent(), IsEmpty());
    clock_.advance(1);
    EXPECT_EQ(raise("o", "m", vm, 300), 0);
    EXPECT_EQ(raise("o", "m", vm, 300), 0);
    EXPECT_THAT(sent(), ElementsAre("post kind o m"));
}

TEST_F(alerts, AreNotSentAgainBySayingTheSame) {
    fake_.answer("alert", "", 503);
    EXPECT_EQ(raise("o", "m", vm_of("u")), EAGAIN);
    EXPECT_EQ(raise("o", "m", vm_of("u")), 0);
    EXPECT_EQ(sent().size(), 1U);
}

TEST_F(alerts, GoWithTheirVm) {
    EXPECT_EQ(raise("a", "m", vm_of("1")), 0);
    EXPECT_EQ(raise("b", "m", vm_of("1")), 0);
    EXPECT_EQ(raise("c", std::nullopt, vm_of("1")), 0);
    EXPECT_EQ(raise("d", "m", vm_of("2")), 0);
    EXPECT_EQ(raise("e", "m", vm_of("2")), 0);
    EXPECT_EQ(raise("e", "m", vm_of("1")), 0);  // another VM's now
    sent();
    EXPECT_EQ(number_of(managed_alert_clear_vm("1", node)), 0);
    EXPECT_THAT(sent(), testing::UnorderedElementsAre("clear kind a", "clear kind b", "clear kind e"));
    EXPECT_EQ(number_of(managed_alert_clear_vm("1", node)), 0);
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_EQ(raise("a", "m", vm_of("1")), 0);
    EXPECT_THAT(sent(), ElementsAre("post kind a m"));  // forgotten, so new
    EXPECT_EQ(number_of(managed_alert_clear_vm("2", node)), 0);
    EXPECT_THAT(sent(), ElementsAre("clear kind d"));
}

TEST_F(alerts, GoWithTheirHypervisorAndWithTime) {
    ks_vm_config_t elsewhere = vm_of("3");
    elsewhere.hv_hostname = "esx2";
    EXPECT_EQ(raise("a", "m", vm_of("1")), 0);
    EXPECT_EQ(raise("b", "m", elsewhere), 0);
    sent();
    EXPECT_EQ(number_of(managed_alert_clear_hv("esx2", node)), 0);
    EXPECT_THAT(sent(), ElementsAre("clear kind b"));

    clock_.advance(10);
    EXPECT_EQ(raise("c", "m", vm_of("1")), 0);
    EXPECT_EQ(number_of(managed_alert_post("other", "o", node, "warning", "m", vm_of("1"), 0)), 0);
    clock_.advance(10);
    EXPECT_EQ(raise("c", "m", vm_of("1")), 0);  // said again: not old
    sent();
    EXPECT_EQ(number_of(managed_alert_clear_old(node, "kind", 1700000020)), 0);
    EXPECT_THAT(sent(), ElementsAre("clear kind a"));
    EXPECT_EQ(number_of(managed_alert_clear_old(node, std::nullopt, 1700000020)), 0);
    EXPECT_THAT(sent(), ElementsAre("clear other o"));
}

TEST_F(alerts, GoAllEvenIfTheControllerIsGone) {
    EXPECT_EQ(raise("a", "m", vm_of("1")), 0);
    EXPECT_EQ(raise("b", "m", vm_of("2")), 0);
    fake_.answer("alert", "", 500);
    EXPECT_EQ(number_of(managed_alert_clear_all(node)), EAGAIN);
    sent();
    fake_.answer("alert", "");
    EXPECT_EQ(number_of(managed_alert_clear_all(node)), 0);
    EXPECT_THAT(sent(), IsEmpty());
}

}  // namespace
}  // namespace mirador
