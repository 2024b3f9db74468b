// SPDX-License-Identifier: Apache-2.0
#include "lib/httpclnt.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/lib/error_number.h"
#include "tests/lib/in_child.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/http_server.h"

namespace mirador {
namespace {

using testing::StartsWith;

// libcurl's result codes.
constexpr errnum_t no_http = 1;
constexpr errnum_t ends_early = 18;
constexpr errnum_t interrupted = 42;
constexpr errnum_t bad_argument = 43;
constexpr errnum_t no_reply = 52;

void answer_ok(const http_request_t& request, http_connection_t& connection) {
    connection.reply(200, request.target);
}

http_handle_ptr new_handle() {
    http_handle_ptr hndl;
    EXPECT_EQ(httpclnt_open(&hndl), nullptr);
    return hndl;
}

std::chrono::milliseconds duration_of(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

// All that must hold over HTTP and over HTTPS under a certificate that nobody vouches for.
class httpclnt_test : public testing::TestWithParam<bool> {
  protected:
    static bool tls() { return GetParam(); }

    // One request on a handle of its own.
    errdesc_t* get(const std::string& url) {
        response = {};
        http_handle_ptr hndl = new_handle();
        errdesc_t* e = httpclnt_get(*hndl, url, &response);
        httpclnt_close(&hndl);
        return e;
    }

    http_response_t response;
};
INSTANTIATE_TEST_SUITE_P(, httpclnt_test, testing::Bool(),
                         [](const auto& scheme) { return scheme.param ? "https" : "http"; });

TEST_P(httpclnt_test, StatusDecidesTheOutcome) {
    int status = 0;
    http_server_t server(
        [&](const http_request_t&, http_connection_t& connection) {
            connection.reply(status, status == 204 ? "" : "{}", "Location: /elsewhere\r\n");
        },
        tls());
    struct {
        int status;
        errnum_t number;
    } const cases[] = {{200, 0},   {201, 0},   {204, 0},      {299, 0},      {300, EIO}, {302, EIO},
                       {400, EIO}, {401, 127}, {403, EIO},    {404, EAGAIN}, {409, EIO}, {500, EAGAIN},
                       {501, EIO}, {502, EIO}, {503, EAGAIN}, {504, EIO}};
    for (const auto& c : cases) {
        status = c.status;
        const errdesc_t* e = get(server.url() + "/x");
        EXPECT_EQ(number_of(e), c.number) << c.status;
        EXPECT_EQ(response.status, c.status);
        if (c.number != 0) {
            EXPECT_THAT(e->string, StartsWith("HTTP error status " + std::to_string(c.status) + ": " + server.url() +
                                              "/x: HTTP/1.1 " + std::to_string(c.status) + " Status\r\n"));
        }
    }
    EXPECT_EQ(server.requests().size(), std::size(cases));  // no redirect was followed
}

TEST_P(httpclnt_test, BodyArrivesWholeHoweverItIsSent) {
    const std::string text = "{\"genId\": \"17\"}";
    std::string big(50'000'000, ' ');
    for (std::size_t i = 0; i < big.size(); i += 97)
        big[i] = static_cast<char>('a' + i % 23);
    struct {
        std::string what;
        std::string head;
        std::vector<std::string> pieces;
        std::string body;
        std::int64_t content_length;
    } const cases[] = {
        {"length", "Content-Length: 15\r\n\r\n", {text}, text, 15},
        {"chunked",
         "Transfer-Encoding: chunked\r\n\r\n",
         {"5\r\n{\"gen\r\n", "A\r\nId\": \"17\"}\r\n", "0\r\n\r\n"},
         text,
         -1},
        {"chunked, trailer", "Transfer-Encoding: chunked\r\n\r\n", {"2\r\n{}\r\n0\r\nSum: 7\r\n\r\n"}, "{}", -1},
        {"zero byte", "Content-Length: 3\r\n\r\n", {std::string("a\0b", 3)}, std::string("a\0b", 3), 3},
        {"header in pieces", "Content-", {"Length: 2\r", "\n\r\n{", "}"}, "{}", 2},
        {"50 MB", "Content-Length: 50000000\r\n\r\n", {big}, big, 50'000'000},
    };
    for (const auto& c : cases) {
        http_server_t server(
            [&](const http_request_t&, http_connection_t& connection) {
                connection.send("HTTP/1.1 200 OK\r\n" + c.head);
                for (const std::string& piece : c.pieces) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                    connection.send(piece);
                }
            },
            tls());
        EXPECT_EQ(number_of(get(server.url())), 0) << c.what;
        EXPECT_TRUE(response.body == c.body) << c.what << ": " << response.body.size() << " bytes";
        EXPECT_EQ(response.content_length, c.content_length) << c.what;
        EXPECT_THAT(response.header, StartsWith("HTTP/1.1 200 OK\r\n"));
    }
}

TEST_P(httpclnt_test, BrokenReplyIsAnError) {
    struct {
        std::string reply;
        errnum_t number;
    } const cases[] = {
        {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf of it", ends_early},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\n", ends_early},
        {"HTTP/1.1 200 OK\r\nContent-", ends_early},
        {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-", ends_early},
        {"", no_reply},
        {"SSH-2.0-OpenSSH\r\n", no_http},
    };
    for (const auto& c : cases) {
        http_server_t server(
            [&](const http_request_t&, http_connection_t& connection) {
                connection.send(c.reply);
                connection.close_after();
            },
            tls());
        const errdesc_t* e = get(server.url() + "/a?b");
        EXPECT_EQ(number_of(e), c.number) << c.reply;
        if (e != nullptr) {
            EXPECT_THAT(e->string, StartsWith("Cannot perform operations on " + server.url() + "/a?b: "));
        }
    }
}

TEST_P(httpclnt_test, FlagInterruptsAWaitAndAFlow) {
    const auto wait = [](const http_request_t&, http_connection_t& connection) { connection.wait_until_gone(); };
    const auto flow = [](const http_request_t&, http_connection_t& connection) {
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 1000000000\r\n\r\n");
        while (connection.send("more "))
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    };
    for (const http_server_t::handler_t& handler : {http_server_t::handler_t(wait), http_server_t::handler_t(flow)}) {
        http_server_t server(handler, tls());
        http_handle_ptr hndl = new_handle();
        std::atomic<int> flag = 0;
        EXPECT_EQ(httpclnt_interrupt(*hndl, &flag), nullptr);
        std::thread interrupter([&flag] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            flag = 1;
        });
        const auto took =
            duration_of([&] { EXPECT_EQ(number_of(httpclnt_get(*hndl, server.url(), &response)), interrupted); });
        interrupter.join();
        EXPECT_GE(took.count(), 250);
        EXPECT_LT(took.count(), 4000);
        httpclnt_close(&hndl);
    }
}

TEST_P(httpclnt_test, HandleServesOnAfterAnInterruption) {
    http_server_t server(answer_ok, tls());
    http_handle_ptr hndl = new_handle();
    std::atomic<int> flag = 1;
    EXPECT_EQ(httpclnt_interrupt(*hndl, &flag), nullptr);
    EXPECT_EQ(number_of(httpclnt_get(*hndl, server.url() + "/a", &response)), interrupted);
    flag = 0;
    EXPECT_EQ(number_of(httpclnt_get(*hndl, server.url() + "/b", &response)), 0);
    flag = 1;
    EXPECT_EQ(httpclnt_interrupt(*hndl, nullptr), nullptr);
    EXPECT_EQ(number_of(httpclnt_get(*hndl, server.url() + "/c", &response)), 0);
    EXPECT_THAT(response.body, testing::HasSubstr("/c"));
}

TEST_P(httpclnt_test, ThreadsShareAHandleOneAtATime) {
    std::atomic<int> under_way = 0;
    http_server_t server(
        [&under_way](const http_request_t& request, http_connection_t& connection) {
            EXPECT_EQ(++under_way, 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            under_way--;
            connection.reply(200, request.body);
        },
        tls());
    http_handle_ptr hndl = new_handle();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10; i++) {
                const std::string body = std::to_string(t) + "/" + std::to_string(i);
                http_response_t own;
                EXPECT_EQ(number_of(httpclnt_post(*hndl, server.url(), body, &own)), 0);
                EXPECT_EQ(own.body, body);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

// What goes over the wire, for which one scheme says enough.

TEST(httpclnt, RequestsAsTheServerSeesThem) {
    http_server_t server(answer_ok);
    const std::string url = server.url() + "/api/x?y=%20z";
    http_handle_ptr hndl = new_handle();
    http_response_t response;
    EXPECT_EQ(number_of(httpclnt_get(*hndl, url, &response)), 0);
    for (const std::string& body : {std::string(2'000'000, '1'), std::string()}) {
        EXPECT_EQ(number_of(httpclnt_post(*hndl, url, body, &response)), 0);
        EXPECT_EQ(server.requests().back().method, "POST");
        EXPECT_TRUE(server.requests().back().body == body);
    }
    EXPECT_EQ(server.requests().front().method, "GET");
    EXPECT_EQ(server.requests().front().target, "/api/x?y=%20z");
}

TEST(httpclnt, RefusedPasswordStaysSecret) {
    http_handle_ptr hndl = new_handle();
    http_response_t response;
    const std::string too_long(9'000'000, 'p');
    httpclnt_user_password(*hndl, "user", secret_t(too_long));
    const errdesc_t* e = httpclnt_get(*hndl, "http://127.0.0.1:1", &response);
    EXPECT_EQ(number_of(e), bad_argument);
    EXPECT_STREQ(e->string, "Cannot set CURLOPT_PASSWORD ******: A libcurl function was given a bad argument");
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they need the address space for themselves
// An inventory that did not fit must not read as an empty one.
TEST(httpclnt, BodyBeyondMemoryIsAnError) {
    constexpr std::size_t body_size = 200'000'000;
    constexpr rlim_t room = 64'000'000;
    http_server_t server([](const http_request_t&, http_connection_t& connection) {
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body_size) + "\r\n\r\n");
        const std::string piece(1'000'000, ' ');
        for (std::size_t sent = 0; sent < body_size; sent += piece.size())
            connection.send(piece);
    });
    EXPECT_EQ(in_child([&] {
                  const std::string statm = read_file("/proc/self/statm");
                  const rlim_t used = std::strtoul(statm.c_str(), nullptr, 10) * static_cast<rlim_t>(getpagesize());
                  const rlimit limit{used + room, used + room};
                  http_handle_ptr hndl = new_handle();
                  http_response_t response;
                  if (setrlimit(RLIMIT_AS, &limit) != 0)
                      return 1;
                  const errdesc_t* e = httpclnt_get(*hndl, server.url(), &response);
                  return response.body.empty() && response.status == 200 ? number_of(e) : 2;
              }),
              ENOMEM);
}
#endif

TEST(httpclnt, ProxiesOfTheEnvironmentAreNotAsked) {
    http_server_t server(answer_ok);
    EXPECT_EQ(in_child([&] {
                  setenv("http_proxy", "http://127.0.0.1:1", 1);
                  setenv("ALL_PROXY", "http://127.0.0.1:1", 1);
                  http_handle_ptr hndl = new_handle();
                  http_response_t response;
                  return number_of(httpclnt_get(*hndl, server.url(), &response));
              }),
              0);
}

}  // namespace
}  // namespace mirador
