// SPDX-License-Identifier: Apache-2.0
#include "tools/fuse-dmsetup/protocol.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "lib/cor_string.h"

namespace mirador {
namespace {

constexpr std::uint32_t request_magic = 0x464d4451;
constexpr timeval patience = {.tv_sec = 10, .tv_usec = 0};  // for the other side to send or take something
constexpr int backlog = 128;

struct wire_request_t {
    std::uint32_t magic;
    command_t command;
    std::uint32_t force;
    std::array<char, mapper_t::max_name + 1> name;  // with a terminator
};

// Room for one descriptor beside the data.
union ancillary_t {
    cmsghdr header;
    char room[CMSG_SPACE(sizeof(int))];
};

sockaddr_un server_address() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    static_assert(sizeof server_socket <= sizeof address.sun_path);
    std::memcpy(address.sun_path, server_socket, sizeof server_socket);
    return address;
}

const sockaddr* plain(const sockaddr_un* address) {
    return reinterpret_cast<const sockaddr*>(address);
}

// The descriptor that came with a message, if any.
unique_fd attached_fd(msghdr* message) {
    const cmsghdr* header = CMSG_FIRSTHDR(message);
    if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
        return {};
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
    return unique_fd(fd);
}

bool write_all(int fd, const char* data, std::size_t size, bool is_socket) {
    while (size > 0) {
        const ssize_t done = is_socket ? send(fd, data, size, MSG_NOSIGNAL) : write(fd, data, size);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        data += done;
        size -= static_cast<std::size_t>(done);
    }
    return true;
}

ssize_t receive(int fd, void* buffer, std::size_t size, int flags) {
    ssize_t done;
    do
        done = recv(fd, buffer, size, flags);
    while (done < 0 && errno == EINTR);
    return done;
}

}  // namespace

std::string ioctl_failed_text(const char* what, const std::string& name, const errdesc_t* e) {
    return cor_format("device-mapper: %s ioctl on %s failed: %s", what, name.c_str(), e->string);
}

errdesc_t* server_connect(unique_fd* connection) {
    const sockaddr_un address = server_address();
    connection->reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!*connection || connect(connection->get(), plain(&address), sizeof address) != 0)
        return errdesc_set_str(errno, server_socket);
    return nullptr;
}

errdesc_t* server_listen(unique_fd* listener) {
    const sockaddr_un address = server_address();
    unlink(server_socket);
    listener->reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!*listener || bind(listener->get(), plain(&address), sizeof address) != 0 ||
        chmod(server_socket, S_IRUSR | S_IWUSR) != 0 || listen(listener->get(), backlog) != 0)
        return errdesc_set_str(errno, server_socket);
    return nullptr;
}

errdesc_t* send_request(int connection, const request_t& request) {
    wire_request_t wire = {.magic = request_magic, .command = request.command, .force = request.force, .name = {}};
    if (request.name.size() >= wire.name.size())
        return errdesc_set_str(ENAMETOOLONG, request.name);
    request.name.copy(wire.name.data(), request.name.size());
    iovec data = {.iov_base = &wire, .iov_len = sizeof wire};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    ancillary_t ancillary = {};
    if (request.table_fd) {
        const int fd = request.table_fd.get();
        message.msg_control = ancillary.room;
        message.msg_controllen = sizeof ancillary.room;
        ancillary.header.cmsg_level = SOL_SOCKET;
        ancillary.header.cmsg_type = SCM_RIGHTS;
        ancillary.header.cmsg_len = CMSG_LEN(sizeof fd);
        std::memcpy(CMSG_DATA(&ancillary.header), &fd, sizeof fd);
    }
    if (sendmsg(connection, &message, MSG_NOSIGNAL) != sizeof wire)
        return errdesc_set_str(errno, "request");
    return nullptr;
}

errdesc_t* receive_request(int connection, request_t* request) {
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    wire_request_t wire = {};
    iovec data = {.iov_base = &wire, .iov_len = sizeof wire};
    ancillary_t ancillary = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = ancillary.room;
    message.msg_controllen = sizeof ancillary.room;
    const ssize_t size = recvmsg(connection, &message, MSG_WAITALL | MSG_CMSG_CLOEXEC);
    if (size < 0)
        return errdesc_set_str(errno, "request");
    request->table_fd = attached_fd(&message);
    if (size != sizeof wire || wire.magic != request_magic || wire.command > command_t::list)
        return errdesc_set_str(EPROTO, "request");
    request->command = wire.command;
    request->force = wire.force != 0;
    wire.name.back() = '\0';
    request->name = wire.name.data();
    return nullptr;
}

bool send_status(int connection, std::int32_t status) {
    char bytes[sizeof status];
    std::memcpy(bytes, &status, sizeof status);
    return write_all(connection, bytes, sizeof bytes, true);
}

bool send_text(int connection, std::string_view text) {
    return write_all(connection, text.data(), text.size(), true);
}

errdesc_t* receive_reply(int connection, int out, int err, std::int32_t* status) {
    if (receive(connection, status, sizeof *status, MSG_WAITALL) != sizeof *status)
        return errdesc_set_str(ECONNRESET, server_socket);
    std::array<char, 64 << 10> text;
    for (;;) {
        const ssize_t size = receive(connection, text.data(), text.size(), 0);
        if (size < 0)
            return errdesc_set_str(errno, server_socket);
        if (size == 0 || !write_all(*status == 0 ? out : err, text.data(), static_cast<std::size_t>(size), false))
            return nullptr;
    }
}

}  // namespace mirador
