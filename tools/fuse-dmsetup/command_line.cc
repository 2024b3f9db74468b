// SPDX-License-Identifier: Apache-2.0
#include "tools/fuse-dmsetup/command_line.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <vector>

#include "lib/tool_paths.h"
#include "tools/fuse-dmsetup/mapper_fuse.h"
#include "tools/fuse-dmsetup/server.h"

namespace mirador {

const char command_usage[] =
    "usage: fuse-dmsetup create NAME [TABLE_FILE]\n"
    "       fuse-dmsetup remove [-f] NAME\n"
    "       fuse-dmsetup remove_all [-f]\n"
    "       fuse-dmsetup table [NAME]\n"
    "       fuse-dmsetup ls";

namespace {

constexpr int attempts = 5;  // a server may be ending just when it is asked

struct form_t {
    const char* word;
    command_t command;
    std::size_t min_arguments;
    std::size_t max_arguments;
    bool takes_force;
};

constexpr std::array<form_t, 5> forms = {{{"create", command_t::create, 1, 2, false},
                                          {"remove", command_t::remove, 1, 1, true},
                                          {"remove_all", command_t::remove_all, 0, 0, true},
                                          {"table", command_t::table, 0, 1, false},
                                          {"ls", command_t::list, 0, 0, false}}};

errdesc_t* copy_to_memory(int input, unique_fd* table_fd) {
    table_fd->reset(memfd_create("table", MFD_CLOEXEC));
    std::vector<char> part(1 << 20);
    for (;;) {
        const ssize_t size = read(input, part.data(), part.size());
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0 || (size > 0 && write(table_fd->get(), part.data(), static_cast<std::size_t>(size)) != size))
            return errdesc_set_str(errno, "standard input");
        if (size == 0)
            break;
    }
    lseek(table_fd->get(), 0, SEEK_SET);
    return nullptr;
}

errdesc_t* open_table(const char* path, int input, unique_fd* table_fd) {
    unique_fd opened(path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : fcntl(input, F_DUPFD_CLOEXEC, 0));
    struct stat status = {};
    if (!opened || fstat(opened.get(), &status) != 0)
        return errdesc_set_str(errno, path != nullptr ? path : "standard input");
    if (!S_ISREG(status.st_mode))
        return copy_to_memory(opened.get(), table_fd);
    *table_fd = std::move(opened);
    return nullptr;
}

std::string device_name(std::string_view word) {
    const std::string prefix = tool_paths().mapper_dir + "/";
    return std::string(word.starts_with(prefix) ? word.substr(prefix.size()) : word);
}

int complain(const char* text) {
    std::fprintf(stderr, "%s\n", text);
    return EXIT_FAILURE;
}

// What there is to say when no server runs: there are no devices.
int run_without_server(const request_t& request) {
    mapper_fuse_detach_dead();
    if (!request.name.empty()) {
        const char* what = request.command == command_t::remove ? "remove" : "table";
        return complain(ioctl_failed_text(what, request.name, errdesc_set(ENXIO)).c_str());
    }
    if (request.command != command_t::remove_all)
        std::puts("No devices found");
    return EXIT_SUCCESS;
}

bool is_without_server(const errdesc_t* e) {
    return e->number == ENOENT || e->number == ECONNREFUSED;
}

// Sends the request to the server. Errors: those of the connection; ECONNRESET when the server ended meanwhile.
errdesc_t* ask_server(const request_t& request, std::int32_t* status) {
    unique_fd connection;
    RETURN_IF_ERROR(server_connect(&connection));
    RETURN_IF_ERROR(send_request(connection.get(), request));
    return receive_reply(connection.get(), STDOUT_FILENO, STDERR_FILENO, status);
}

}  // namespace

errdesc_t* parse_command_line(std::span<const char* const> words, int input, request_t* request) {
    std::vector<const char*> plain;
    for (const char* word : words) {
        const std::string_view text = word;
        if (text == "-f" || text == "--force")
            request->force = true;
        else if (text.starts_with('-'))
            return errdesc_set(EINVAL);
        else
            plain.push_back(word);
    }
    for (const form_t& form : forms) {
        if (plain.empty() || std::string_view(plain[0]) != form.word)
            continue;
        const std::size_t count = plain.size() - 1;
        if (count < form.min_arguments || count > form.max_arguments || (request->force && !form.takes_force))
            break;
        request->command = form.command;
        request->name = count > 0 ? device_name(plain[1]) : "";
        if (form.command == command_t::create)
            return open_table(count > 1 ? plain[2] : nullptr, input, &request->table_fd);
        return nullptr;
    }
    return errdesc_set(EINVAL);
}

int run_command(const request_t& request) {
    const off_t begin = request.table_fd ? lseek(request.table_fd.get(), 0, SEEK_CUR) : 0;
    const errdesc_t* e = nullptr;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        std::int32_t status = EXIT_SUCCESS;
        e = ask_server(request, &status);
        if (e == nullptr)
            return status;
        if (request.table_fd)
            lseek(request.table_fd.get(), begin, SEEK_SET);
        if (is_without_server(e)) {
            if (request.command != command_t::create)
                return run_without_server(request);
            if ((e = server_start()) != nullptr)
                break;
        } else if (e->number != ECONNRESET && e->number != EPIPE) {
            break;
        }
    }
    return complain(e->string);
}

}  // namespace mirador
