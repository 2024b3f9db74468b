// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/webservices/ws_session.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string_view>
#include <vector>

#include "controller/lib/inventory_check.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/jrpcclnt_pool.h"
#include "lib/thread_annotations.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr std::uint32_t max_port = 65535;

struct vendor_t {
    mutex_t mutex;
    std::string id GUARDED_BY(mutex) = "Corvantis";
};

vendor_t& vendor() {
    static vendor_t the_vendor;
    return the_vendor;
}

std::string vendor_id() {
    const mutex_lock_t lock(vendor().mutex);
    return vendor().id;
}

errdesc_t* refuse(const ks_hypervisor_config_t& hvc, const char* fault) {
    return errdesc_set_fmt(EINVAL, "Hypervisor '%.300s' refused, %s", ks_text(hvc.hostname).c_str(), fault);
}

// The record's host name becomes an argument of the agent's and part of a file name.
errdesc_t* check(const ks_hypervisor_config_t& hvc) {
    RETURN_IF_ERROR(ks_hypervisor_config_check(hvc));
    if (hvc.hostname->front() == '-')
        return refuse(hvc, "host name begins with a dash");
    if (hvc.hv_port == 0 || hvc.hv_port > max_port)
        return refuse(hvc, "port missing");
    if (!ks_is_set(hvc.login_name))
        return refuse(hvc, "login name missing");
    return hvc.password ? nullptr : refuse(hvc, "password missing");
}

std::vector<std::string> agent_command(const ks_hypervisor_config_t& hvc) {
    return {tool_paths().jrpc_agent, "--hypervisor", *hvc.hostname, "--portnumber", cor_format("%u", hvc.hv_port)};
}

errdesc_t* log_in(const ks_hypervisor_config_t& hvc, jrpc_handle_t& handle) {
    const std::string session_file =
        cor_format("%s-%s-%u", tool_paths().jrpc_session_file.c_str(), hvc.hostname->c_str(), hvc.hv_port);
    RETURN_IF_ERROR(jrpc_call_raw(handle, {"set_vendor_id", vendor_id()}, nullptr));
    return jrpc_call_raw(handle, {"connect", *hvc.login_name, hvc.password->reveal(), session_file}, nullptr);
}

// How many bytes at the end of an error's text are the beginning of the password, whose rest was cut off with what the
// text has no room for.
std::size_t cut_password(const std::string& text, const std::string& password) {
    if (text.size() + 1 < sizeof(errdesc_t::string))
        return 0;
    std::size_t length = std::min(password.size() - 1, text.size());
    while (length > 0 && !text.ends_with(std::string_view(password).substr(0, length)))
        length--;
    return length;
}

// Puts asterisks in the place of the password, should the error's text repeat it.
errdesc_t* hide_password(const ks_hypervisor_config_t& hvc, errdesc_t* e) {
    const std::string& password = hvc.password->reveal();
    if (e == nullptr || password.empty())
        return e;
    std::string text = e->string;
    text.resize(text.size() - cut_password(text, password));
    std::string shown;
    std::size_t from = 0;
    for (std::size_t at = text.find(password); at != std::string::npos; at = text.find(password, from)) {
        shown.append(text, from, at - from).append(secret_t::shown());
        from = at + password.size();
    }
    shown.append(text, from);
    cor_safe_strncpy(e->string, shown.c_str(), sizeof e->string);
    return e;
}

}  // namespace

void ws_set_vendor_id(const std::string& vendor_id) {
    const mutex_lock_t lock(vendor().mutex);
    vendor().id = vendor_id;
}

errdesc_t* ws_connect(const ks_hypervisor_config_t& hvc, jrpc_handle_t** handle) {
    cor_assert(handle != nullptr && *handle == nullptr);
    RETURN_IF_ERROR(check(hvc));
    RETURN_IF_ERROR(jrpcclnt_pool_get(agent_command(hvc), handle));
    errdesc_t* const e = hide_password(hvc, log_in(hvc, **handle));
    if (e != nullptr)
        (void)ws_disconnect(handle);
    return e;
}

errdesc_t* ws_disconnect(jrpc_handle_t** handle) {
    return jrpcclnt_pool_release(handle);
}

errdesc_t* jrpc_single_call_raw(const ks_hypervisor_config_t& hvc, const jrpc_args_t& args, json_ptr* result) {
    if (result != nullptr)
        result->reset();
    jrpc_handle_t* handle = nullptr;
    RETURN_IF_ERROR(ws_connect(hvc, &handle));
    errdesc_t* const e = hide_password(hvc, jrpc_call_raw(*handle, args, result));
    (void)ws_disconnect(&handle);
    return e;
}

}  // namespace mirador
