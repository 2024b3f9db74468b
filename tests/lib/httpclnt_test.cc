// SPDX-License-Identifier: Apache-2.0
#include "lib/httpclnt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/lib/in_child.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/http_server.h"

namespace mirador {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// libcurl's result codes.
constexpr errnum_t no_http = 1;
constexpr errnum_t no_connection = 7;
constexpr errnum_t ends_early = 18;
constexpr errnum_t timed_out = 28;
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

errnum_t number_of(const errdesc_t* e) {
    return e == nullptr ? 0 : e->number;
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
        {"empty", "Content-Length: 0\r\n\r\n", {}, "", 0},
        {"chunked",
         "Transfer-Encoding: chunked\r\n\r\n",
         {"5\r\n{\"gen\r\n", "A\r\nId\": \"17\"}\r\n", "0\r\n\r\n"},
         text,
         -1},
        {"chunked, empty", "Transfer-Encoding: chunked\r\n\r\n", {"0\r\n\r\n"}, "", -1},
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

TEST_P(httpclnt_test, NobodyListens) {
    std::string url;
    {
        http_server_t server(answer_ok, tls());
        url = server.url();
    }
    const errdesc_t* e = get(url);
    EXPECT_EQ(number_of(e), no_connection);
    EXPECT_EQ(std::string(e->string), "Cannot perform operations on " + url + ": Couldn't connect to server");
    EXPECT_EQ(response.status, 0);
}

TEST_P(httpclnt_test, LongPollWaitsForItsReply) {
    http_server_t server(
        [](const http_request_t&, http_connection_t& connection) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            connection.reply(200, "late");
        },
        tls());
    http_handle_ptr hndl = new_handle();
    std::atomic<int> flag = 0;
    EXPECT_EQ(httpclnt_interrupt(*hndl, &flag), nullptr);
    EXPECT_EQ(number_of(httpclnt_get(*hndl, server.url(), &response)), 0);
    EXPECT_EQ(response.body, "late");
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
    EXPECT_THAT(response.body, HasSubstr("/c"));
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
    temp_dir_t dir;
    const std::string upload(300'000, 'u');
    const std::string file = write_file(dir / "upload", upload);
    http_server_t server(answer_ok);
    const std::string url = server.url() + "/api/x?y=%20z";
    const std::string json(2'000'000, '1');
    struct {
        std::function<errdesc_t*(http_handle_t&, http_response_t*)> run;
        std::string method;
        std::string body;
        std::string range;
    } const cases[] = {
        {[&](auto& h, auto* r) { return httpclnt_get(h, url, r); }, "GET", "", ""},
        {[&](auto& h, auto* r) { return httpclnt_head(h, url, r); }, "HEAD", "", ""},
        {[&](auto& h, auto* r) { return httpclnt_get_range(h, url, 100, 1, r); }, "GET", "", "bytes=100-100"},
        {[&](auto& h, auto* r) { return httpclnt_get_range(h, url, 1ULL << 62, UINT32_MAX, r); }, "GET", "",
         "bytes=4611686018427387904-4611686022722355198"},
        {[&](auto& h, auto* r) { return httpclnt_post(h, url, json, r); }, "POST", json, ""},
        {[&](auto& h, auto* r) { return httpclnt_post(h, url, "", r); }, "POST", "", ""},
        {[&](auto& h, auto* r) { return httpclnt_upload(h, url, file, r); }, "PUT", upload, ""},
    };
    http_handle_ptr hndl = new_handle();
    for (const auto& c : cases) {
        http_response_t response;
        EXPECT_EQ(number_of(c.run(*hndl, &response)), 0) << c.method;
        const http_request_t seen = server.requests().back();
        EXPECT_EQ(seen.method, c.method);
        EXPECT_EQ(seen.target, "/api/x?y=%20z");
        EXPECT_TRUE(seen.body == c.body) << c.method;
        EXPECT_EQ(seen.value_of("Range"), c.range);
        EXPECT_EQ(response.body, c.method == "HEAD" ? "" : seen.target);
        EXPECT_EQ(response.content_length, 13);
        httpclnt_reset(*hndl);
    }
}

TEST(httpclnt, HeaderLinesReplaceEachOther) {
    http_server_t server(answer_ok);
    http_handle_ptr hndl = new_handle();
    http_response_t response;
    const auto seen = [&] {
        EXPECT_EQ(number_of(httpclnt_post(*hndl, server.url(), "{}", &response)), 0);
        const http_request_t request = server.requests().back();
        return std::vector{request.value_of("Cache-Control"), request.value_of("Pragma"),
                           request.value_of("Content-Type")};
    };
    const std::string form = "application/x-www-form-urlencoded";
    const std::string json = "application/json; charset=UTF-8";
    EXPECT_THAT(seen(), ElementsAre("", "", form));
    EXPECT_EQ(httpclnt_no_cache(*hndl), nullptr);
    EXPECT_THAT(seen(), ElementsAre("no-cache,no-store,max-age=0", "no-cache", form));
    EXPECT_EQ(httpclnt_set_content_type_in_header(*hndl, "Content-Type: " + json), nullptr);
    EXPECT_THAT(seen(), ElementsAre("", "", json));
    const errdesc_t* e = httpclnt_set_content_type_in_header(*hndl, "");
    EXPECT_EQ(number_of(e), EINVAL);
    EXPECT_THAT(e->string, StartsWith("Cannot set Content-Type to NULL"));
    EXPECT_THAT(seen(), ElementsAre("", "", json));
    httpclnt_reset(*hndl);
    EXPECT_THAT(seen(), ElementsAre("", "", form));
}

TEST(httpclnt, CredentialsAreHandedOverOnce) {
    http_server_t server(answer_ok);
    http_handle_ptr hndl = new_handle();
    http_response_t response;
    const auto seen = [&] {
        EXPECT_EQ(number_of(httpclnt_get(*hndl, server.url(), &response)), 0);
        return server.requests().back().value_of("Authorization");
    };
    EXPECT_EQ(seen(), "");
    httpclnt_user_password(*hndl, "user", secret_t("first"));
    EXPECT_EQ(seen(), "Basic dXNlcjpmaXJzdA==");
    httpclnt_user_password(*hndl, "user", secret_t("second"));
    EXPECT_EQ(seen(), "Basic dXNlcjpmaXJzdA==");
    httpclnt_reset(*hndl);
    EXPECT_EQ(seen(), "");
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

TEST(httpclnt, CookiesLastBeyondTheHandle) {
    temp_dir_t dir;
    http_server_t server([](const http_request_t&, http_connection_t& connection) {
        connection.reply(200, "", "Set-Cookie: kept=1; Max-Age=1000\r\nSet-Cookie: session=2\r\n");
    });
    http_response_t response;
    const auto cookies_with = [&](bool session) {
        http_handle_ptr hndl = new_handle();
        EXPECT_EQ(httpclnt_enable_cookies(*hndl, dir / "jar", session), nullptr);
        EXPECT_EQ(number_of(httpclnt_get(*hndl, server.url(), &response)), 0);
        EXPECT_EQ(httpclnt_flush(*hndl), nullptr);
        EXPECT_THAT(read_file(dir / "jar"), HasSubstr("kept\t1"));
        return server.requests().back().value_of("Cookie");
    };
    EXPECT_EQ(cookies_with(false), "");
    EXPECT_THAT(cookies_with(false), testing::AllOf(HasSubstr("kept=1"), HasSubstr("session=2")));
    EXPECT_EQ(cookies_with(true), "kept=1");
}

TEST(httpclnt, BodyGoesToAFile) {
    temp_dir_t dir;
    http_server_t server(answer_ok);
    http_handle_ptr hndl = new_handle();
    http_response_t response;
    httpclnt_output_file(*hndl, dir / "out");
    EXPECT_EQ(number_of(httpclnt_get(*hndl, server.url() + "/a/long/target", &response)), 0);
    EXPECT_EQ(number_of(httpclnt_get(*hndl, server.url() + "/short", &response)), 0);
    EXPECT_EQ(response.body, "");
    EXPECT_EQ(httpclnt_flush(*hndl), nullptr);
    EXPECT_EQ(read_file(dir / "out"), "/short");

    EXPECT_EQ(number_of(httpclnt_get(*hndl, server.url() + "/memory", &response)), 0);
    EXPECT_EQ(response.body, "/memory");
    EXPECT_EQ(read_file(dir / "out"), "/short");

    httpclnt_output_file(*hndl, dir / "none/out");
    const errdesc_t* e = httpclnt_get(*hndl, server.url(), &response);
    EXPECT_EQ(number_of(e), ENOENT);
    EXPECT_EQ(std::string(e->string), "Cannot open file " + (dir / "none/out") + " for writing");
    e = httpclnt_upload(*hndl, server.url(), dir / "absent", &response);
    EXPECT_EQ(number_of(e), ENOENT);
    EXPECT_EQ(std::string(e->string), "Cannot access file " + (dir / "absent") + " for upload");
    EXPECT_EQ(server.requests().size(), 3U);
}

TEST(httpclnt, TimeLimitEndsARequest) {
    http_server_t server([](const http_request_t&, http_connection_t& connection) { connection.wait_until_gone(); });
    http_handle_ptr hndl = new_handle();
    http_response_t response;
    EXPECT_EQ(httpclnt_set_timeout(*hndl, 1), nullptr);
    const auto took =
        duration_of([&] { EXPECT_EQ(number_of(httpclnt_get(*hndl, server.url(), &response)), timed_out); });
    EXPECT_GE(took.count(), 950);
    EXPECT_LT(took.count(), 5000);
}

// 0: another thread finds the handle locked after the refusal. Runs in a process that ends with the lock held.
int lock_after_refused_time_limit() {
    http_handle_t& hndl = *new_handle().release();
    const std::string text = "Cannot set CURLOPT_TIMEOUT -1: A libcurl function was given a bad argument";
    const errdesc_t* e = httpclnt_set_timeout(hndl, -1);
    if (number_of(e) != bad_argument || e->string != text)
        return 1;
    int outcome = 0;
    std::thread([&hndl, &outcome] {
        if (hndl.mutex.try_lock()) {
            hndl.mutex.unlock();
            outcome = 2;
        }
    }).join();
    return outcome;
}

TEST(httpclnt, RefusedTimeLimitLeavesTheHandleLocked) {
    EXPECT_EQ(in_child(lock_after_refused_time_limit), 0);
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

TEST(httpclnt, EscapesWhatAUrlDoesNotTake) {
    http_handle_ptr hndl = new_handle();
    struct {
        std::string text;
        std::string escaped;
    } const cases[] = {
        {"", ""},
        {"disk-1_flat.vmdk~", "disk-1_flat.vmdk~"},
        {"a b/c?d&e=f%+#", "a%20b%2Fc%3Fd%26e%3Df%25%2B%23"},
        {"b\xc3\xbc"
         "cher",
         "b%C3%BCcher"},
        {std::string("\0x", 2), "%00x"},
    };
    for (const auto& c : cases) {
        std::string escaped = "old";
        EXPECT_EQ(httpclnt_escape_str(*hndl, c.text, &escaped), nullptr);
        EXPECT_EQ(escaped, c.escaped);
    }
}

}  // namespace
}  // namespace mirador
