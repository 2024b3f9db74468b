// SPDX-License-Identifier: Apache-2.0
// An agent that answers as a test tells it and notes what it was asked: a real child process, in the agent's place
// while one of these lives. Each has a command line of its own, so that the pool gives no earlier test's agent.
#pragma once

#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

#include "lib/tool_paths.h"
#include "tests/lib/temp_dir.h"

namespace mirador {

class scripted_agent_t {
  public:
    scripted_agent_t() {
        tool_paths().jrpc_agent = write_file(dir_ / "agent", program);
        chmod(tool_paths().jrpc_agent.c_str(), 0755);
        std::signal(SIGPIPE, [](int) {});  // as the daemon's start-up does
    }
    ~scripted_agent_t() { tool_paths() = {}; }
    scripted_agent_t(const scripted_agent_t&) = delete;
    scripted_agent_t& operator=(const scripted_agent_t&) = delete;

    // What the agent prints for a method from now on, "{}" unless told; it ends without an answer for "".
    void answer(const std::string& method, const std::string& reply) { write_file(dir_ / "answer-" + method, reply); }
    void answer_data(const std::string& method, const std::string& data) {
        answer(method, R"({"response_type":"x","response_data":)" + data + "}");
    }
    void answer_error(const std::string& method, int number, const std::string& text) {
        answer(method, error_reply(number, text));
    }
    static std::string error_reply(int number, const std::string& text) {
        return R"({"errdesc":{"err_num":)" + std::to_string(number) + R"(,"err_string":")" + text +
               R"(","linenumber":7,"filename":"agent"}})";
    }
    // One line, printed once instead, after those that were given before it.
    void answer_once(const std::string& method, const std::string& reply) {
        std::ofstream(dir_ / "once-" + method, std::ios::app) << reply << '\n';
    }

    // A held method is noted, but answered only when it is released; whether the agent waits for that.
    void hold(const std::string& method) { write_file(dir_ / "hold-" + method, ""); }
    void release(const std::string& method) { unlink((dir_ / "hold-" + method).c_str()); }
    bool holds(const std::string& method) const { return access((dir_ / "held-" + method).c_str(), F_OK) == 0; }

    // Since the last look: "start" and its arguments for an agent that was started, and requests, as JSON arrays.
    std::vector<std::string> seen() {
        std::ifstream file(dir_ / "seen");
        file.seekg(static_cast<std::streamoff>(looked_at_));
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line); looked_at_ += line.size() + 1)
            lines.push_back(line);
        return lines;
    }

  private:
    static constexpr const char* program = R"(#!/usr/bin/python3
import json, pathlib, sys, time
home = pathlib.Path(__file__).parent
def note(what):
    with open(home / "seen", "a") as seen:
        print(json.dumps(what, ensure_ascii=False), file=seen)
note(["start"] + sys.argv[1:])
for line in sys.stdin:
    request = json.loads(line)
    note(request)
    hold, held, once, answer = (home / (kind + request[0]) for kind in ("hold-", "held-", "once-", "answer-"))
    if hold.exists():
        held.touch()
        while hold.exists():
            time.sleep(0.002)
        held.unlink()
    if once.exists():
        reply, *rest = once.read_text().splitlines()
        once.write_text("".join(line + "\n" for line in rest)) if rest else once.unlink()
    else:
        reply = answer.read_text() if answer.exists() else "{}"
    if not reply:
        break
    print(reply, flush=True)
)";

    const temp_dir_t dir_;
    std::size_t looked_at_ = 0;  // bytes
};

}  // namespace mirador
