// SPDX-License-Identifier: Apache-2.0
#include "lib/jrpc.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "lib/clock.h"
#include "tests/lib/children.h"
#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

constexpr const char* no_response = "Failed to get response to JRPC request: ";
constexpr const char* transport_failure = "JRPC Transport Failure: ";

std::string text_of(const json_ptr& value) {
    return json_object_to_json_string_ext(value.get(), JSON_C_TO_STRING_PLAIN);
}

// Each test ends with neither process nor descriptor more than it began with.
class jrpc_test : public testing::Test {
  protected:
    jrpc_test() { survive_broken_pipes(); }
    ~jrpc_test() override {
        disconnect();
        EXPECT_FALSE(leaves_children());
        EXPECT_EQ(open_descriptors(), descriptors);
    }

    jrpc_handle_t& connect() {
        EXPECT_EQ(jrpc_connect({UNRULY_AGENT}, &handle), nullptr);
        return *handle;
    }
    void disconnect() {
        if (handle != nullptr)
            (void)jrpc_disconnect(&handle);
    }
    // The text of a call's result.
    std::string result_of(const jrpc_args_t& args) {
        json_ptr result;
        errdesc_t* const error = jrpc_call_raw(*handle, args, &result);
        return error != nullptr ? error->string : text_of(result);
    }

    std::ptrdiff_t descriptors = open_descriptors();
    fast_clock_t clock{100};
    std::unique_ptr<jrpc_handle_t> handle;
};

// What an agent that answers this way leaves: it can be called again, or never again.
enum after_t { USABLE, BROKEN };

TEST_F(jrpc_test, EachWayToFailHasItsNumberAndText) {
    const std::string remote = R"("err_string":"x","linenumber":5,"filename":"f")";
    struct {
        jrpc_args_t args;
        errnum_t number;
        std::string text;
        after_t after;
    } const cases[] = {
        {{"say", "hello\n"}, ERR_JSON_PARSE_ERROR, "json parse error", BROKEN},
        {{"say", "{\"response_data\": nul}\n"}, ERR_JSON_PARSE_ERROR, "json parse error", BROKEN},
        {{"say", std::string("{\"a\0\": 1}\n", 10)}, ERR_JSON_PARSE_ERROR, "json parse error", BROKEN},
        {{"say", "null\n"}, ERR_JSON_PARSE_ERROR, "json parse error", BROKEN},
        {{"say", "[{}]\n"}, ERR_JSON_PARSE_ERROR, "json parse error", BROKEN},
        {{"say", "0 errors\n"}, ERR_JSON_PARSE_ERROR, "json parse error", BROKEN},
        {{"say", "{\"errdesc\": 7}\n"}, ERR_JSON_PARSE_ERROR, "json parse error", USABLE},
        {{"say", "{\"errdesc\": null}\n"}, ERR_JSON_PARSE_ERROR, "json parse error", USABLE},
        {{"say", "{\"errdesc\": {\"err_num\": 2}}\n"}, ERR_JSON_PARSE_ERROR, "json parse error", USABLE},
        {{"say", "{\"errdesc\": {\"err_num\": 2," + remote + "}}\n"}, ENOENT, "x", USABLE},
        {{"say", "{\"errdesc\": {\"err_num\": 0," + remote + "}}\n"}, ERR_UNKNOWN, "x", USABLE},
        {{"say", "{\"errdesc\": {\"err_num\": -1," + remote + "}}\n"}, ERR_UNKNOWN, "x", USABLE},
        {{"say_and_die", ""}, EPIPE, std::string(no_response) + "Broken pipe", BROKEN},
        {{"say_and_die", "{\"response_da"}, EPIPE, std::string(no_response) + "Broken pipe", BROKEN},
    };
    for (const auto& c : cases) {
        connect();
        errdesc_t* const error = jrpc_call_raw(*handle, c.args, nullptr);
        ASSERT_EQ(number_of(error), c.number) << c.args[1];
        EXPECT_STREQ(error->string, c.text.c_str()) << c.args[1];
        EXPECT_EQ(jrpc_is_alive(handle.get()), c.after == USABLE) << c.args[1];
        EXPECT_EQ(result_of({"echo", "1"}),
                  c.after == USABLE ? "[\"1\"]" : std::string(transport_failure) + "Broken pipe")
            << c.args[1];
        disconnect();
    }
}

// A reply that nobody waits for any more must not become the answer to the next request.
TEST_F(jrpc_test, OutputThatNobodyAskedForEndsTheHandle) {
    connect();
    EXPECT_EQ(result_of({"say", "{\"response_data\": 1} \r\n\n \t\n"}), "1");  // white space is nothing
    EXPECT_EQ(result_of({"echo", "2"}), "[\"2\"]");
    EXPECT_EQ(result_of({"say", "{\"response_data\": 3}\n{\"response_data\": 4}\n"}), "3");
    EXPECT_EQ(result_of({"echo", "5"}), std::string(transport_failure) + "Protocol error");
    EXPECT_FALSE(jrpc_is_alive(handle.get()));
}

// Nothing would be told of what the request did, so it is not sent.
TEST_F(jrpc_test, NothingIsAskedOfAnAgentThatCannotAnswer) {
    temp_dir_t dir;
    connect();
    EXPECT_EQ(result_of({"hang_up", dir / "done"}), "null");
    while (!std::filesystem::exists(dir / "done"))
        clock_sleep(1);
    EXPECT_EQ(result_of({"act_and_die", dir / "acted"}), std::string(transport_failure) + "Broken pipe");
    disconnect();
    EXPECT_FALSE(std::filesystem::exists(dir / "acted"));
}

TEST_F(jrpc_test, DeathAfterActingIsAnError) {
    temp_dir_t dir;
    connect();
    EXPECT_EQ(result_of({"act_and_die", dir / "acted"}), std::string(no_response) + "Broken pipe");
    EXPECT_TRUE(std::filesystem::exists(dir / "acted"));
}

TEST_F(jrpc_test, RepliesMayBeLongButNotEndless) {
    connect();
    json_ptr result;
    ASSERT_EQ(jrpc_call_raw(*handle, {"big", "10000000"}, &result), nullptr);
    EXPECT_EQ(json_object_array_length(result.get()), 10000000U / 94);
    EXPECT_EQ(result_of({"echo", std::string(300000, 'r')}).size(), 300004U);  // more than a pipe holds
    EXPECT_EQ(result_of({"big", std::to_string(jrpc_max_reply + 1000000)}),
              std::string(no_response) + "Message too long");
    EXPECT_FALSE(jrpc_is_alive(handle.get()));
}

TEST_F(jrpc_test, ThreadsTakeTurnsAndGetTheirOwnReplies) {
    constexpr int calls = 100;
    connect();
    std::atomic<int> right = 0;
    {
        std::vector<std::jthread> threads;
        for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h"})
            threads.emplace_back([this, name, &right] {
                for (int i = 0; i < calls; i++)
                    right += result_of({"echo", name, std::to_string(i)}) ==
                             "[\"" + std::string(name) + "\",\"" + std::to_string(i) + "\"]";
            });
    }
    EXPECT_EQ(right, 8 * calls);
}

// A silent agent, and one that does not even read.
TEST_F(jrpc_test, AWatchEndsCallsThatWouldLastForEver) {
    connect();
    EXPECT_EQ(result_of({"slow", "0.2"}), "[\"late\"]");  // 20 seconds of this clock
    const jrpc_watch_t watch(120);
    const std::time_t begin = clock_now();
    EXPECT_EQ(result_of({"slow", "0.2"}), "[\"late\"]");
    EXPECT_EQ(result_of({"silence"}), std::string(no_response) + "Broken pipe");
    EXPECT_GE(clock_now() - begin, 120);
    EXPECT_FALSE(jrpc_is_alive(handle.get()));
    disconnect();

    ASSERT_EQ(jrpc_connect({"/bin/sleep", "100"}, &handle), nullptr);
    EXPECT_EQ(result_of({"echo", std::string(1 << 20, 'r')}), std::string(transport_failure) + "Broken pipe");
}

// A removal that takes minutes is no silent agent: it has the whole limit yet when the watch begins.
TEST_F(jrpc_test, AWatchDoesNotCountWhatACallTookBeforeIt) {
    connect();
    std::string result;
    std::jthread caller([&] { result = result_of({"slow", "3"}); });  // 300 seconds of this clock
    clock_sleep(250);
    const jrpc_watch_t watch(200);
    caller.join();
    EXPECT_EQ(result, "[\"late\"]");
}

TEST_F(jrpc_test, AnAgentsDeathIsSeenThoughItsChildHoldsThePipes) {
    connect();
    const pid_t grandchild = std::stoi(result_of({"leave_child"}));
    EXPECT_EQ(result_of({"say_and_die", "{\"respon"}), std::string(no_response) + "Broken pipe");
    EXPECT_EQ(kill(grandchild, SIGKILL), 0);
}

TEST_F(jrpc_test, AnAgentThatDoesNotEndIsKilled) {
    connect();
    EXPECT_EQ(result_of({"ignore_end"}), "null");
    errdesc_t* const error = jrpc_disconnect(&handle);
    ASSERT_EQ(number_of(error), ETIME);
    EXPECT_THAT(error->string, testing::HasSubstr("cmd failed"));
    EXPECT_EQ(handle, nullptr);
}

TEST_F(jrpc_test, WhatCannotRunIsNoAgent) {
    temp_dir_t dir;
    const std::string data = write_file(dir / "data", "x");
    EXPECT_FALSE(jrpc_is_alive(nullptr));
    errdesc_t* error = jrpc_connect({data}, &handle);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->string, data + ": Permission denied");
    error = jrpc_connect({"/nowhere/agent", "x"}, &handle);
    ASSERT_NE(error, nullptr);
    EXPECT_STREQ(error->string, "/nowhere/agent: No such file or directory");
    EXPECT_EQ(handle, nullptr);

    std::fflush(stdout);  // under TSan a child that cannot exec prints its copy of what is buffered, down the pipe
    ASSERT_EQ(jrpc_connect({dir.path()}, &handle), nullptr);
    errdesc_t* const dead = jrpc_call(*handle, {"echo"});
    ASSERT_EQ(number_of(dead), EPIPE);
}

}  // namespace
}  // namespace mirador
