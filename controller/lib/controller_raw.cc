// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/controller_raw.h"

#include <cerrno>

#include "controller/lib/controller_url.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/httpclnt.h"

namespace mirador {
namespace {

std::atomic<int> given_up = 0;

constexpr const char* json_content_type = "Content-Type: application/json; charset=UTF-8";

errdesc_t* make_url(const std::string& base, const std::string& object, std::string* url) {
    *url = cor_format("%s/api/%s", base.c_str(), object.c_str());
    if (url->size() >= controller_url_size)
        return errdesc_set_fmt(ENAMETOOLONG, "URL refused, longer than %zu characters: %s", controller_url_size - 1,
                               url->c_str());
    return nullptr;
}

errdesc_t* deliver(const http_response_t& response, const controller_reply_t& callback) {
    return response.body.empty() || !callback ? nullptr : callback(response.body);
}

}  // namespace

errdesc_t* controller_raw_do_get(const std::string& base, const std::string& object,
                                 const controller_reply_t& callback) {
    return controller_raw_do_get_ex(base, object, nullptr, callback);
}

errdesc_t* controller_raw_do_get_ex(const std::string& base, const std::string& object,
                                    const std::atomic<int>* interrupt, const controller_reply_t& callback) {
    cor_assert(callback != nullptr);
    std::string url;
    RETURN_IF_ERROR(make_url(base, object, &url));
    http_response_t response;
    http_handle_ptr connection;
    RETURN_IF_ERROR(httpclnt_open(&connection));
    RETURN_IF_ERROR(httpclnt_interrupt(*connection, interrupt != nullptr ? interrupt : &given_up));
    RETURN_IF_ERROR(httpclnt_get(*connection, url, &response));
    httpclnt_close(&connection);
    return deliver(response, callback);
}

errdesc_t* controller_raw_do_post_json(std::string base, const std::string& object, json_object* body,
                                       const controller_reply_t& callback) {
    cor_assert(body != nullptr);
    if (base.ends_with('/'))
        base.pop_back();
    std::string url;
    RETURN_IF_ERROR(make_url(base, object, &url));
    http_response_t response;
    http_handle_ptr connection;
    RETURN_IF_ERROR(httpclnt_open(&connection));
    RETURN_IF_ERROR(httpclnt_interrupt(*connection, &given_up));
    RETURN_IF_ERROR(httpclnt_set_content_type_in_header(*connection, json_content_type));
    RETURN_IF_ERROR(httpclnt_post(*connection, url, json_object_to_json_string(body), &response));
    httpclnt_close(&connection);
    return deliver(response, callback);
}

void controller_raw_give_up() {
    given_up = 1;
}

errdesc_t* controller_post_json(const std::string& object, json_object* body) {
    return controller_raw_do_post_json(controller_get_url(), object, body, nullptr);
}

}  // namespace mirador
