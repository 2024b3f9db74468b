// SPDX-License-Identifier: Apache-2.0
// The controller's settings and generations.
#include <algorithm>
#include <cerrno>

#include "controller/lib/controller.h"
#include "controller/lib/controller_raw.h"
#include "controller/lib/controller_url.h"
#include "controller/lib/json_parse.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/json_tools.h"

namespace mirador {
namespace {

// Ids travel in URLs as they are: one that would not come through is turned down here, or every later request with it
// would fail.
errdesc_t* check_gen_id(const std::string& gen_id) {
    const auto travels = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte > ' ' && byte < 0x7f && std::string_view("\"#%&+<>").find(c) == std::string_view::npos;
    };
    if (gen_id.size() >= controller_gen_id_size || !std::all_of(gen_id.begin(), gen_id.end(), travels))
        return errdesc_set_fmt(EINVAL, "Generation id refused: %s", gen_id.c_str());
    return nullptr;
}

errdesc_t* get_gen_id(const std::string& object, const std::atomic<int>* interrupt, std::string* gen_id) {
    cor_assert(gen_id != nullptr);
    gen_id->clear();
    std::string sent;
    RETURN_IF_ERROR(controller_raw_do_get_ex(controller_get_url(), object, interrupt,
                                             [&](const std::string& body) { return json_parse_gen_id(body, &sent); }));
    RETURN_IF_ERROR(check_gen_id(sent));
    *gen_id = sent;
    return nullptr;
}

}  // namespace

errdesc_t* controller_get_registry_string(const std::string& key, std::string* value, std::size_t size) {
    cor_assert(value != nullptr);
    value->clear();
    const json_ptr call(json_object_new_object());
    json_add_string_field(call.get(), "method_name", "get_value");
    json_add_string_field(call.get(), "method_args", key);
    return controller_raw_do_post_json(controller_get_url(), "registry", call.get(), [&](const std::string& body) {
        return json_parse_registry_value(body, key, value, size);
    });
}

errdesc_t* controller_get_master_uuid(std::string* uuid, std::size_t size) {
    cor_assert(uuid != nullptr);
    cor_assert(size > 0);
    uuid->clear();
    return controller_raw_do_get(controller_get_url(), "node?get_master", [&](std::string body) {
        body.erase(body.find_last_not_of(" \t\r\n") + 1);
        const bool is_quoted = body.size() >= 2 && body.front() == '"' && body.back() == '"';
        if (is_quoted)
            *uuid = body.substr(1, std::min(body.size() - 2, size - 1));
        return nullptr;
    });
}

errdesc_t* controller_fs_sync_query(const std::string& target, std::string* gen_id) {
    return get_gen_id(cor_format("fs_sync?target=%s&type=query", target.c_str()), nullptr, gen_id);
}

errdesc_t* controller_fs_sync_set(const std::string& target, const std::string& gen_id) {
    return controller_raw_do_get(controller_get_url(),
                                 cor_format("fs_sync?target=%s&type=set&genId=%s", target.c_str(), gen_id.c_str()),
                                 [](const std::string& body) {
                                     std::string discarded;
                                     return json_parse_gen_id(body, &discarded);
                                 });
}

errdesc_t* controller_fs_sync_wait(const std::string& target, const std::string& current_gen, int timeout,
                                   const std::atomic<int>* interrupt, std::string* new_gen) {
    std::string object = cor_format("fs_sync?target=%s&genId=%s&type=wait", target.c_str(), current_gen.c_str());
    if (timeout != 0)
        object += cor_format("&timeout=%d", timeout);
    return get_gen_id(object, interrupt, new_gen);
}

}  // namespace mirador
