// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/runtime_alerts.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "appliance/lib/registry.h"
#include "appliance/lib/vm_proxy_header.h"
#include "controller/lib/alertlib.h"
#include "lib/startup.h"
#include "lib/thread_annotations.h"

namespace mirador {
namespace {

constexpr std::size_t max_waiting = 100;

struct runtime_alert_t {
    std::string path;
    std::string shadow_path;
    std::unique_ptr<errdesc_t> error;
};

struct runtime_alerts_t {
    mutex_t mutex;  // a leaf
    std::condition_variable_any cond;
    std::deque<runtime_alert_t> waiting GUARDED_BY(mutex);
    bool runs GUARDED_BY(mutex) = false;
    std::thread thr;
};

runtime_alerts_t& runtime_alerts() {
    static runtime_alerts_t the_alerts;
    return the_alerts;
}

// The next alert to send; none when the thread is to end.
std::optional<runtime_alert_t> next_alert() {
    runtime_alerts_t& alerts = runtime_alerts();
    const mutex_lock_t lock(alerts.mutex);
    while (alerts.runs && alerts.waiting.empty())
        alerts.cond.wait(alerts.mutex);
    if (!alerts.runs)
        return std::nullopt;
    runtime_alert_t alert = std::move(alerts.waiting.front());
    alerts.waiting.pop_front();
    return alert;
}

void send(const runtime_alert_t& alert) {
    ks_string_t hv_name;
    ks_string_t vm_uuid;
    std::unique_ptr<vm_proxy_header_t> header;
    if (vm_proxy_read_header_checked(alert.shadow_path, &header) == nullptr) {
        hv_name = header->hv_name;
        vm_uuid = header->vm_uuid;
    }
    alert_post_runtime(alert.path, alert.error.get(), get_reg_settings()->names().appliance_uuid, hv_name, vm_uuid);
}

void send_alerts() {
    block_signals();
    while (const std::optional<runtime_alert_t> alert = next_alert())
        send(*alert);
}

}  // namespace

void runtime_alerts_start() {
    runtime_alerts_t& alerts = runtime_alerts();
    {
        const mutex_lock_t lock(alerts.mutex);
        alerts.runs = true;
    }
    alerts.thr = std::thread(send_alerts);
}

void runtime_alerts_stop() {
    runtime_alerts_t& alerts = runtime_alerts();
    {
        const mutex_lock_t lock(alerts.mutex);
        alerts.runs = false;
        alerts.waiting.clear();
        alerts.cond.notify_all();
    }
    alerts.thr.join();
}

void raise_runtime_alert(const std::string& path, const std::string& shadow_path, const errdesc_t* e) {
    runtime_alerts_t& alerts = runtime_alerts();
    const mutex_lock_t lock(alerts.mutex);
    const auto is_waiting = [&](const runtime_alert_t& alert) {
        return alert.path == path && alert.error->number == e->number;
    };
    if (!alerts.runs || alerts.waiting.size() >= max_waiting || std::ranges::any_of(alerts.waiting, is_waiting))
        return;
    alerts.waiting.push_back({path, shadow_path, std::make_unique<errdesc_t>(*e)});
    alerts.cond.notify_all();
}

}  // namespace mirador
