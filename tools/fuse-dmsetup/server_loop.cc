// SPDX-License-Identifier: Apache-2.0
#include "tools/fuse-dmsetup/server_loop.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include "lib/cor_string.h"
#include "lib/tool_paths.h"
#include "tools/fuse-dmsetup/mapper.h"
#include "tools/fuse-dmsetup/mapper_fuse.h"
#include "tools/fuse-dmsetup/protocol.h"

namespace mirador {
namespace {

constexpr char lock_path[] = "/run/fuse-dmsetup.lock";
constexpr std::chrono::seconds predecessor_limit(10);  // for a server that is ending to be gone
constexpr std::chrono::milliseconds predecessor_poll(10);
constexpr int idle_limit = 10000;  // milliseconds that a server without a device stays, for its starter's request

struct reply_t {
    int status = 0;
    std::string text;
};

reply_t failed(const char* what, const std::string& name, const errdesc_t* e) {
    return {EXIT_FAILURE, ioctl_failed_text(what, name, e) + "\n"};
}

// Another mapping is reached through its table: the server that read its own files would wait for itself.
errdesc_t* open_target(mapper_t* mapper, const std::string& name, dm_device_t* device) {
    const std::string prefix = tool_paths().mapper_dir + "/";
    if (!name.starts_with(prefix))
        return dm_device_open(name, device);
    auto table = mapper->hold(name.substr(prefix.size()));
    if (table == nullptr)
        return errdesc_set_str(ENOENT, name);
    device->name = name;
    device->sectors = table->sectors();
    device->table = std::move(table);
    return nullptr;
}

reply_t create(mapper_t* mapper, const request_t& request) {
    if (const errdesc_t* e = mapper_t::check_name(request.name))
        return failed("create", request.name, e);
    if (mapper->find(request.name))
        return failed("create", request.name, errdesc_set(EBUSY));
    dm_table_t table;
    const auto opener = [mapper](const std::string& name, dm_device_t* device) {
        return open_target(mapper, name, device);
    };
    if (const errdesc_t* e = dm_table_read(request.table_fd.get(), opener, &table))
        return failed("reload", request.name, e);
    if (const errdesc_t* e = mapper->create(request.name, std::move(table)))
        return failed("create", request.name, e);
    return {};
}

reply_t remove(mapper_t* mapper, const request_t& request) {
    if (const errdesc_t* e = mapper->remove(request.name, request.force))
        return failed("remove", request.name, e);
    return {};
}

// A line for each device: its name and its place among the others, as there are no device numbers to tell.
reply_t list(mapper_t* mapper) {
    reply_t reply;
    for (const mapper_entry_t& entry : mapper->list())
        reply.text += cor_format("%s\t(fuse:%ju)\n", entry.name.c_str(), static_cast<std::uintmax_t>(entry.inode));
    if (reply.text.empty())
        reply.text = "No devices found\n";
    return reply;
}

// Sends its reply itself: it can be hundreds of megabytes.
void send_tables(mapper_t* mapper, const request_t& request, int connection) {
    if (!request.name.empty() && !mapper->find(request.name)) {
        const reply_t reply = failed("table", request.name, errdesc_set(ENXIO));
        if (send_status(connection, reply.status))
            send_text(connection, reply.text);
        return;
    }
    bool is_heard = send_status(connection, 0);
    for (const mapper_entry_t& entry : mapper->list()) {
        const auto table = mapper->table(entry.inode);
        if (!is_heard || (!request.name.empty() && request.name != entry.name))
            continue;
        const std::string prefix = request.name.empty() ? entry.name + ": " : "";
        if (table != nullptr)
            table->print(prefix, [&](std::string_view text) { return is_heard = send_text(connection, text); });
        else
            is_heard = send_text(connection, cor_format("%s0 %ju error \n", prefix.c_str(),
                                                        static_cast<std::uintmax_t>(entry.size / sector_size)));
    }
}

reply_t obey(mapper_t* mapper, const request_t& request) {
    switch (request.command) {
        case command_t::create:
            return create(mapper, request);
        case command_t::remove:
            return remove(mapper, request);
        case command_t::remove_all:
            mapper->remove_all(request.force);
            return {};
        case command_t::list:
        case command_t::table:
            break;
    }
    return list(mapper);
}

// Ends the server: whoever asks from here on finds none. Its threads go with the process.
[[noreturn]] void end(int connection, const reply_t& reply) {
    mapper_fuse_stop();
    unlink(server_socket);
    if (connection >= 0 && send_status(connection, reply.status))
        send_text(connection, reply.text);
    _exit(EXIT_SUCCESS);
}

void serve(mapper_t* mapper, int connection) {
    request_t request;
    if (receive_request(connection, &request) != nullptr)
        return;
    if (request.command == command_t::table) {
        send_tables(mapper, request, connection);
        return;
    }
    const reply_t reply = obey(mapper, request);
    if (mapper->is_empty())
        end(connection, reply);
    if (send_status(connection, reply.status))
        send_text(connection, reply.text);
}

// Waits until no other server is left: one that was asked to end may still be at it.
errdesc_t* take_lock() {
    static unique_fd lock(open(lock_path, O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    const auto deadline = std::chrono::steady_clock::now() + predecessor_limit;
    while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() > deadline)
            return errdesc_set_str(errno, lock_path);
        std::this_thread::sleep_for(predecessor_poll);
    }
    return nullptr;
}

errdesc_t* set_up(mapper_t* mapper, unique_fd* listener) {
    RETURN_IF_ERROR(take_lock());
    RETURN_IF_ERROR(mapper_fuse_start(mapper));
    return server_listen(listener);
}

// Blocks SIGTERM in this and every later thread and makes it readable.
unique_fd catch_sigterm() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return unique_fd(signalfd(-1, &signals, SFD_CLOEXEC));
}

}  // namespace

void server_loop(int report) {
    static mapper_t mapper;  // FUSE's threads use it to the very end
    const unique_fd terminated = catch_sigterm();
    unique_fd listener;
    const errdesc_t* e = set_up(&mapper, &listener);
    const char* text = e == nullptr ? server_is_ready : e->string;
    if (write(report, text, std::strlen(text)) < 0 || e != nullptr)
        _exit(EXIT_FAILURE);
    close(report);

    std::array<pollfd, 2> sources = {pollfd{listener.get(), POLLIN, 0}, pollfd{terminated.get(), POLLIN, 0}};
    for (;;) {
        const int ready = poll(sources.data(), sources.size(), mapper.is_empty() ? idle_limit : -1);
        if (ready == 0 || sources[1].revents != 0)
            end(-1, {});
        const unique_fd connection(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (connection)
            serve(&mapper, connection.get());
    }
}

}  // namespace mirador
