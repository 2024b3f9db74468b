// SPDX-License-Identifier: Apache-2.0
// A controller of the test program's own: a real server behind the address that the branding script gives. One per
// process, since the address is found once; tests say what it answers and look at what it got.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/thread_annotations.h"
#include "lib/tool_paths.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/http_server.h"

namespace mirador {

class fake_controller_t {
  public:
    using handler_t = http_server_t::handler_t;

    // The controller, with nothing to answer (404) and nothing received. `find_url` asks for the base URL, before the
    // test can put a clock of its own in the way of the script.
    static fake_controller_t& fresh(std::string (*find_url)()) {
        static fake_controller_t controller(find_url);
        const mutex_lock_t lock(controller.mutex_);
        controller.answers_.clear();
        controller.seen_ = controller.server_.requests().size();
        return controller;
    }

    // Answers requests for "/api/<object>", the query included, from now on. "POST <object>": posts alone, which
    // otherwise get the same answer; "": all that have none.
    void answer(const std::string& object, const std::string& body, int status = 200) {
        answer(object, [=](const http_request_t&, http_connection_t& connection) { connection.reply(status, body); });
    }
    void answer(const std::string& object, handler_t handler) {
        const mutex_lock_t lock(mutex_);
        answers_[object] = std::move(handler);
    }

    // The requests since fresh().
    std::vector<http_request_t> received() const {
        const mutex_lock_t lock(mutex_);
        std::vector<http_request_t> requests = server_.requests();
        requests.erase(requests.begin(), requests.begin() + static_cast<std::ptrdiff_t>(seen_));
        return requests;
    }
    // The bodies that were posted to an object since fresh(), in order.
    std::vector<std::string> posted(const std::string& object) const {
        std::vector<std::string> bodies;
        for (const http_request_t& request : received())
            if (request.method == "POST" && request.target == std::string(prefix) + object)
                bodies.push_back(request.body);
        return bodies;
    }

  private:
    explicit fake_controller_t(std::string (*find_url)())
        : server_(
              [this](const http_request_t& request, http_connection_t& connection) { _serve(request, connection); }) {
        tool_paths().brand_reader = write_script(dir_ / "brand", cor_format("printf '%d\\n0\\n'\n", server_.port()));
        cor_assert(find_url() == cor_format("http://localhost:%d", server_.port()));
    }

    void _serve(const http_request_t& request, http_connection_t& connection) {
        const std::string object = request.target.substr(std::min(request.target.size(), prefix.size()));
        for (const std::string& name : {request.method + " " + object, object, std::string()})
            if (const handler_t handler = _handler(name))
                return handler(request, connection);
        connection.reply(404, "no such object");
    }
    handler_t _handler(const std::string& name) const {
        const mutex_lock_t lock(mutex_);
        const auto found = answers_.find(name);
        return found == answers_.end() ? handler_t() : found->second;
    }

    static constexpr std::string_view prefix = "/api/";

    const temp_dir_t dir_;
    mutable mutex_t mutex_;
    std::map<std::string, handler_t> answers_ GUARDED_BY(mutex_);
    std::size_t seen_ GUARDED_BY(mutex_) = 0;  // requests of earlier tests
    http_server_t server_;
};

}  // namespace mirador
