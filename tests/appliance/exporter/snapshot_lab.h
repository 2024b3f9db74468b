// SPDX-License-Identifier: Apache-2.0
// A VM with one disk whose snapshots an agent of the test's own makes, at a time that stands still unless somebody
// sleeps: a test sees in what order the hypervisor was asked, what was logged, and how long was waited.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "appliance/exporter/vm_state.h"
#include "appliance/exporter/vm_update.h"
#include "appliance/lib/registry.h"
#include "lib/clock.h"
#include "tests/appliance/exporter/inventory_lab.h"
#include "tests/support/scripted_agent.h"

namespace mirador {

class snapshot_lab_t : public inventory_lab_t {
  protected:
    static constexpr std::time_t start = 1'000'000;
    static constexpr const char* name = "V+x: m-1";  // of this appliance's snapshots

    snapshot_lab_t() {
        get_reg_settings()->publish_names({.appliance_uuid = "node", .master_uuid = "m-1", .vendor_id = "V+x"});
        tool_paths().controller_watchdog = write_script(dir_ / "watchdog", "echo stopped\n");
        agent_.answer_data("list_snapshot", "[]");
        agent_.answer_data("remove_snapshot", "0");
        agent_.answer_data("create_top_snapshot", "0");
        make_files(vm_);
        show(0);
        EXPECT_EQ(vm_update(vm_dir(), false, false), nullptr);
        clock_.emplace(start, true);
    }
    ~snapshot_lab_t() override {
        reg_settings_t& settings = *get_reg_settings();
        settings.snapshot_max_idle = 300;
        settings.snapshot_retry_limit = 12;
        settings.snapshot_blocking_removal = true;
        set_debug_level(0);
    }

    // One cycle's worth: the controller shows so many snapshots on the VM.
    void show(int snapshots) {
        vm_.snap_exists = snapshots;
        bool updated = false;
        list({vm_});
        EXPECT_EQ(vm_state_update(config(vm_), host(vm_), shadow_, 1, &updated), nullptr);
    }

    // Makes `call`, and `change` while the agent holds its answer to `method`, if it is asked.
    void during(const std::string& method, const std::function<void()>& change, const std::function<void()>& call) {
        agent_.hold(method);
        std::jthread other([&](const std::stop_token& stop) {
            while (!agent_.holds(method) && !stop.stop_requested())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (agent_.holds(method))
                change();
            agent_.release(method);
        });
        call();
    }

    // What the agent was asked since the last look, without its sessions and the space.
    std::vector<std::string> asked() {
        std::vector<std::string> seen = agent_.seen();
        std::erase_if(seen, [](const std::string& line) {
            return line.starts_with(R"(["start")") || line.starts_with(R"(["connect")") ||
                   line.starts_with(R"(["set_vendor_id")") || line == R"(["df"])";
        });
        return seen;
    }
    std::string request(const std::string& method, const std::string& last) const {
        return R"([")" + method + R"(", "vm", "564d0001", ")" + name + R"(", ")" + last + R"("])";
    }

    // What was logged since testing::internal::CaptureStdout(), errors and times left out.
    static std::vector<std::string> logged() {
        std::vector<std::string> lines;
        std::istringstream text(testing::internal::GetCapturedStdout());
        for (std::string line; std::getline(text, line);)
            if (const std::size_t time = line.find(": ");
                time != std::string::npos && line.find(" [thread:") == std::string::npos)
                lines.push_back(line.substr(time + 2));
        return lines;
    }

    std::string vm_dir() const { return shadow_ + "/esx1/vm"; }
    std::string disk_path() const { return "/esx1/vm/disk-flat.vmdk"; }

    lab_vm_t vm_;
    scripted_agent_t agent_;
    std::optional<manual_clock_t> clock_;
};

// One entry of what the agent lists.
inline std::string listed(const std::string& name, const std::string& vm_uuid = "564d0001", std::time_t ctime = 0) {
    return R"({"name":")" + name + R"(","vmname":"vm","vmuuid":")" + vm_uuid + R"(","createTime":)" +
           std::to_string(ctime) + R"(,"quiesced":0})";
}

}  // namespace mirador
