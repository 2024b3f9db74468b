// SPDX-License-Identifier: Apache-2.0
#include "tests/support/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <optional>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

template <auto free_function>
struct freer_t {
    template <typename T>
    void operator()(T* object) const {
        free_function(object);
    }
};
using ssl_context_ptr = std::unique_ptr<SSL_CTX, freer_t<SSL_CTX_free>>;
using ssl_ptr = std::unique_ptr<SSL, freer_t<SSL_free>>;
using key_ptr = std::unique_ptr<EVP_PKEY, freer_t<EVP_PKEY_free>>;
using certificate_ptr = std::unique_ptr<X509, freer_t<X509_free>>;

certificate_ptr self_signed(EVP_PKEY* key) {
    constexpr long one_day_s = 24 * 3600;
    certificate_ptr certificate(X509_new());
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -one_day_s);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), one_day_s);
    X509_set_pubkey(certificate.get(), key);
    X509_NAME* const name = X509_get_subject_name(certificate.get());
    const auto* common_name = reinterpret_cast<const unsigned char*>("nobody knows this host");
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, common_name, -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    cor_assert(X509_sign(certificate.get(), key, EVP_sha256()) > 0);
    return certificate;
}

class plain_connection_t : public http_connection_t {
  public:
    explicit plain_connection_t(int fd) : fd_(fd) {}

    bool send(std::string_view raw) override {
        while (!raw.empty()) {
            const ssize_t sent = ::send(fd_, raw.data(), raw.size(), MSG_NOSIGNAL);
            if (sent <= 0)
                return false;
            raw.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }
    std::size_t receive(char* data, std::size_t size) override {
        const ssize_t got = recv(fd_, data, size, 0);
        return got > 0 ? static_cast<std::size_t>(got) : 0;
    }

  private:
    int fd_;
};

class tls_connection_t : public http_connection_t {
  public:
    tls_connection_t(SSL_CTX* context, int fd) : ssl_(SSL_new(context)) {
        SSL_set_fd(ssl_.get(), fd);
        open_ = SSL_accept(ssl_.get()) == 1;
    }

    bool send(std::string_view raw) override {
        if (open_ && !raw.empty())
            open_ = SSL_write(ssl_.get(), raw.data(), static_cast<int>(raw.size())) > 0;
        return open_;
    }
    std::size_t receive(char* data, std::size_t size) override {
        const int got = open_ ? SSL_read(ssl_.get(), data, static_cast<int>(size)) : 0;
        return got > 0 ? static_cast<std::size_t>(got) : 0;
    }

  private:
    const ssl_ptr ssl_;
    bool open_ = false;
};

// Reads from the connection until `text` holds the end of a header; false when the client goes before.
bool read_header(http_connection_t& connection, std::string* text) {
    std::array<char, 4096> chunk{};
    while (text->find("\r\n\r\n") == std::string::npos) {
        const std::size_t got = connection.receive(chunk.data(), chunk.size());
        if (got == 0)
            return false;
        text->append(chunk.data(), got);
    }
    return true;
}

bool read_body(http_connection_t& connection, std::size_t size, std::string* body) {
    std::array<char, 65536> chunk{};
    while (body->size() < size) {
        const std::size_t got = connection.receive(chunk.data(), std::min(chunk.size(), size - body->size()));
        if (got == 0)
            return false;
        body->append(chunk.data(), got);
    }
    return true;
}

std::optional<http_request_t> read_request(http_connection_t& connection, std::string* ahead) {
    if (!read_header(connection, ahead))
        return std::nullopt;
    http_request_t request;
    const std::size_t line_end = ahead->find("\r\n");
    const std::size_t header_end = ahead->find("\r\n\r\n");
    const std::string line = ahead->substr(0, line_end);
    request.method = line.substr(0, line.find(' '));
    request.target = line.substr(line.find(' ') + 1, line.rfind(' ') - line.find(' ') - 1);
    request.header = ahead->substr(line_end + 2, header_end - line_end);
    request.body = ahead->substr(header_end + 4);
    ahead->clear();
    if (!request.value_of("Expect").empty())
        connection.send("HTTP/1.1 100 Continue\r\n\r\n");
    const std::size_t size = std::strtoul(request.value_of("Content-Length").c_str(), nullptr, 10);
    if (!read_body(connection, size, &request.body))
        return std::nullopt;
    return request;
}

}  // namespace

struct http_server_t::tls_context_t {
    tls_context_t() : key(EVP_EC_gen("P-256")), certificate(self_signed(key.get())) {
        cor_assert(SSL_CTX_use_certificate(context.get(), certificate.get()) == 1);
        cor_assert(SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1);
    }
    ssl_context_ptr context{SSL_CTX_new(TLS_server_method())};
    key_ptr key;
    certificate_ptr certificate;
};

std::string http_request_t::value_of(std::string_view name) const {
    for (std::size_t at = 0; at < header.size();) {
        const std::size_t end = header.find("\r\n", at);
        if (header.size() > at + name.size() && header[at + name.size()] == ':' &&
            strncasecmp(header.c_str() + at, name.data(), name.size()) == 0) {
            const std::size_t value = header.find_first_not_of(' ', at + name.size() + 1);
            return header.substr(value, end - value);
        }
        at = end == std::string::npos ? end : end + 2;
    }
    return {};
}

void http_connection_t::reply(int status, std::string_view body, std::string_view header_lines) {
    std::string text = cor_format("HTTP/1.1 %d Status\r\nContent-Length: %zu\r\n", status, body.size());
    send(text.append(header_lines).append("\r\n").append(body));
}

void http_connection_t::wait_until_gone() {
    std::array<char, 256> ignored{};
    while (receive(ignored.data(), ignored.size()) > 0)
        continue;
    close_after();
}

http_server_t::http_server_t(handler_t handler, bool tls)
    : handler_(std::move(handler)),
      tls_(tls ? std::make_unique<tls_context_t>() : nullptr),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    std::signal(SIGPIPE, SIG_IGN);  // TLS writes raise it when the client has gone
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    cor_assert(bind(listener_.get(), generic, size) == 0);
    cor_assert(listen(listener_.get(), SOMAXCONN) == 0);
    cor_assert(getsockname(listener_.get(), generic, &size) == 0);
    port_ = ntohs(address.sin_port);
    url_ = cor_format("%s://127.0.0.1:%d", tls ? "https" : "http", port_);
    acceptor_ = std::thread([this] { _accept(); });
}

http_server_t::~http_server_t() {
    shutdown(listener_.get(), SHUT_RDWR);
    acceptor_.join();
    std::vector<std::thread> connections;
    {
        const mutex_lock_t lock(mutex_);
        for (const int fd : open_)
            shutdown(fd, SHUT_RDWR);
        connections.swap(connections_);
    }
    for (std::thread& connection : connections)
        connection.join();
}

std::vector<http_request_t> http_server_t::requests() const {
    const mutex_lock_t lock(mutex_);
    return requests_;
}

void http_server_t::_accept() {
    for (;;) {
        const int fd = accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return;
        const mutex_lock_t lock(mutex_);
        open_.push_back(fd);
        connections_.emplace_back([this, fd] { _serve(fd); });
    }
}

void http_server_t::_serve(int fd) {
    if (tls_ != nullptr) {
        tls_connection_t connection(tls_->context.get(), fd);
        _serve_requests(connection);
    } else {
        plain_connection_t connection(fd);
        _serve_requests(connection);
    }
    const mutex_lock_t lock(mutex_);
    std::erase(open_, fd);
    close(fd);
}

void http_server_t::_serve_requests(http_connection_t& connection) {
    std::string ahead;
    while (connection.keeps()) {
        const std::optional<http_request_t> request = read_request(connection, &ahead);
        if (!request)
            return;
        {
            const mutex_lock_t lock(mutex_);
            requests_.push_back(*request);
        }
        handler_(*request, connection);
    }
}

}  // namespace mirador
