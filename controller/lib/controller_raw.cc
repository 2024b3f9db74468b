// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/controller_raw.h"

#include <cerrno>
#include <mutex>
#include <thread>

#include "controller/lib/controller_url.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/httpclnt.h"
#include "lib/startup.h"

namespace mirador {

std::atomic<unsigned> _controller_raw_shutdown_limit = 10;

namespace {

std::atomic<int> given_up = 0;        // requests that began while the process ends
std::atomic<int> early_given_up = 0;  // those that began before
std::atomic<bool> shutting_down = false;

constexpr errnum_t timed_out = 28;  // libcurl's
constexpr int max_unanswered = 3;   // requests in a row
std::atomic<int> unanswered = 0;

constexpr const char* json_content_type = "Content-Type: application/json; charset=UTF-8";

errdesc_t* make_url(const std::string& base, const std::string& object, std::string* url) {
    *url = cor_format("%s/api/%s", base.c_str(), object.c_str());
    if (url->size() >= controller_url_size)
        return errdesc_set_fmt(ENAMETOOLONG, "URL refused, longer than %zu characters: %s", controller_url_size - 1,
                               url->c_str());
    return nullptr;
}

// What ends a request, for one that has no interruption of its own.
errdesc_t* limit_request(http_handle_t& connection) {
    if (!shutting_down)
        return httpclnt_interrupt(connection, &early_given_up);
    RETURN_IF_ERROR(httpclnt_set_timeout(connection, _controller_raw_shutdown_limit));
    return httpclnt_interrupt(connection, &given_up);
}

// At the end of the process each request may take its time, but not hundreds of them: a controller that has let several
// run into their limit is asked nothing more.
errdesc_t* judge(errdesc_t* e) {
    if (e == nullptr || e->number != timed_out)
        unanswered = 0;
    else if (shutting_down && ++unanswered >= max_unanswered)
        controller_raw_give_up();
    return e;
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
    RETURN_IF_ERROR(interrupt != nullptr ? httpclnt_interrupt(*connection, interrupt) : limit_request(*connection));
    RETURN_IF_ERROR(judge(httpclnt_get(*connection, url, &response)));
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
    RETURN_IF_ERROR(limit_request(*connection));
    RETURN_IF_ERROR(httpclnt_set_content_type_in_header(*connection, json_content_type));
    RETURN_IF_ERROR(judge(httpclnt_post(*connection, url, json_object_to_json_string(body), &response)));
    httpclnt_close(&connection);
    return deliver(response, callback);
}

void controller_raw_begin_shutdown() {
    static std::once_flag once;
    std::call_once(once, [] {
        shutting_down = true;
        std::thread([] {
            block_signals();
            clock_sleep(_controller_raw_shutdown_limit);
            early_given_up = 1;
        }).detach();  // touches nothing that the end of the process destroys
    });
}

void controller_raw_give_up() {
    shutting_down = true;
    early_given_up = 1;
    given_up = 1;
}

errdesc_t* controller_post_json(const std::string& object, json_object* body) {
    return controller_raw_do_post_json(controller_get_url(), object, body, nullptr);
}

}  // namespace mirador
