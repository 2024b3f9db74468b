// SPDX-License-Identifier: Apache-2.0
#include "lib/fault_point.h"

#ifdef MIRADOR_DEBUG_BUILD

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/log.h"
#include "lib/thread_annotations.h"

namespace mirador {
namespace {

std::string_view environment(const char* name) {
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing changes the environment
    return value == nullptr ? "" : value;
}

std::string_view cut_word(std::string_view* text, char end) {
    const std::size_t at = text->find(end);
    const std::string_view word = text->substr(0, at);
    text->remove_prefix(at == std::string_view::npos ? text->size() : at + 1);
    return word;
}

class actions_t {
  public:
    actions_t() {
        for (std::string_view rest = environment("MIRADOR_FAULT_POINTS"); !rest.empty();) {
            std::string_view action = cut_word(&rest, ',');
            const std::string_view name = cut_word(&action, '=');
            actions_.emplace(name, action);
        }
    }

    // The next action of a point, which is then done with.
    std::optional<std::string> take(const std::string& name) {
        const mutex_lock_t lock(mutex_);
        const auto found = actions_.find(name);
        if (found == actions_.end())
            return std::nullopt;
        std::string action = found->second;
        actions_.erase(found);
        return action;
    }

  private:
    mutex_t mutex_;
    std::multimap<std::string, std::string> actions_ GUARDED_BY(mutex_);
};

}  // namespace

errdesc_t* fault_point(const char* name) {
    static actions_t actions;
    const std::optional<std::string> action = actions.take(name);
    if (!action)
        return nullptr;
    ts_printf("fault_point: %s: %s\n", name, action->c_str());
    const int number = std::atoi(action->c_str() + action->find(':') + 1);
    if (*action == "kill")
        kill(getpid(), SIGKILL);
    else if (*action == "assert")
        cor_assert_failed(name, __FILE__, __LINE__, __func__);
    else if (action->starts_with("error:"))
        return errdesc_set_str(number, name);
    else if (action->starts_with("wait:"))
        clock_sleep(static_cast<unsigned>(number));
    else
        cor_assert_failed("a fault point's action is kill, assert, error:N or wait:N", __FILE__, __LINE__, __func__);
    return nullptr;
}

void fault_moment(const char* name) {
    if (errdesc_t* e = fault_point(name))
        _errdesc_log(e, ERRDESC_ERROR);
}

void fast_clock_from_environment() {
    const std::string factor(environment("MIRADOR_CLOCK_FACTOR"));
    if (!factor.empty())
        static const fast_clock_t clock(static_cast<unsigned>(std::atoi(factor.c_str())));
}

}  // namespace mirador

#else

namespace mirador {

errdesc_t* fault_point(const char*) {
    return nullptr;
}

void fault_moment(const char*) {}

void fast_clock_from_environment() {}

}  // namespace mirador

#endif
