// SPDX-License-Identifier: Apache-2.0
// A real HTTP or HTTPS server on a port of its own, within the test: each request goes to the test's handler, which
// answers with a whole reply or with raw bytes, as broken as it likes, and when it likes.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "lib/file_io.h"
#include "lib/thread_annotations.h"

namespace mirador {

struct http_request_t {
    std::string method;
    std::string target;  // as in the request line: path and query, not unescaped
    std::string header;  // the lines behind the request line, as received
    std::string body;

    // The value of a header line, its name in any letter case; empty when there is none.
    std::string value_of(std::string_view name) const;
};

// One client's connection, as a handler sees it.
class http_connection_t {
  public:
    virtual ~http_connection_t() = default;

    // False when the client is gone.
    virtual bool send(std::string_view raw) = 0;

    // Up to `size` bytes; 0 at the end.
    virtual std::size_t receive(char* data, std::size_t size) = 0;

    // A whole reply with its Content-Length; `header_lines` each with "\r\n".
    void reply(int status, std::string_view body, std::string_view header_lines = "");

    // Blocks until the client has gone or the server ends.
    void wait_until_gone();

    // No further request on this connection: it is closed when the handler returns.
    void close_after() { keep_ = false; }
    bool keeps() const { return keep_; }

  private:
    bool keep_ = true;
};

class http_server_t {
  public:
    // Called for one request of each connection at a time, on a thread of the connection.
    using handler_t = std::function<void(const http_request_t&, http_connection_t&)>;

    // Listens on 127.0.0.1. With `tls`, under a self-signed certificate made for it.
    explicit http_server_t(handler_t handler, bool tls = false);
    // Closes all connections under way and waits for their handlers.
    ~http_server_t();
    http_server_t(const http_server_t&) = delete;
    http_server_t& operator=(const http_server_t&) = delete;

    // "http://127.0.0.1:<port>" or "https://127.0.0.1:<port>".
    const std::string& url() const { return url_; }
    int port() const { return port_; }

    // All requests so far, in the order in which they were read.
    std::vector<http_request_t> requests() const;

  private:
    struct tls_context_t;

    void _accept();
    void _serve(int fd);
    void _serve_requests(http_connection_t& connection);

    const handler_t handler_;
    const std::unique_ptr<tls_context_t> tls_;  // null: plain
    unique_fd listener_;
    int port_ = 0;
    std::string url_;

    mutable mutex_t mutex_;
    std::vector<int> open_ GUARDED_BY(mutex_);  // sockets of the connections under way
    std::vector<std::thread> connections_ GUARDED_BY(mutex_);
    std::vector<http_request_t> requests_ GUARDED_BY(mutex_);
    std::thread acceptor_;
};

}  // namespace mirador
