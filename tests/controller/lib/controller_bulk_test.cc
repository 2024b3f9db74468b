// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string>

#include "controller/lib/controller.h"
#include "controller/lib/controller_url.h"
#include "tests/support/fake_controller.h"

namespace mirador {
namespace {

TEST(controller_bulk, ReadsFiftyMegabytes) {
    constexpr std::size_t size = 50 << 20;
    std::string body = "[";
    std::size_t count = 0;
    while (body.size() < size) {
        body += R"({"name":"vm)" + std::to_string(count++) + R"(","vmx_path":")" + std::string(400, 'x') + "\"},";
    }
    body.back() = ']';
    fake_controller_t::fresh(controller_get_url).answer("vhost?hv_hostname=h", body);
    record_list_ptr<ks_vm_config_t> list;
    ASSERT_EQ(controller_get_vms({.hostname = "h"}, &list), nullptr);
    EXPECT_EQ(static_cast<std::size_t>(list_count(*list)), count);
}

}  // namespace
}  // namespace mirador
