// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/options.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

namespace fs = std::filesystem;

fuse_opt text_option(const char* templ, unsigned long offset) {
    return {templ, offset, 0};
}

fuse_opt flag_option(const char* templ, unsigned long offset, int value) {
    return {templ, offset, value};
}

const fuse_opt mirador_opts[] = {
    text_option("-L %s", offsetof(mirador_options_t, log_dir)),
    text_option("--log-dir %s", offsetof(mirador_options_t, log_dir)),
    text_option("-P %s", offsetof(mirador_options_t, tmpfs_mount_point)),
    text_option("--tmpfs-path=%s", offsetof(mirador_options_t, tmpfs_mount_point)),
    text_option("-O %s", offsetof(mirador_options_t, tmpfs_mount_options)),
    text_option("--tmpfs-opts=%s", offsetof(mirador_options_t, tmpfs_mount_options)),
    flag_option("-W", offsetof(mirador_options_t, is_readonly), 0),
    flag_option("--writable", offsetof(mirador_options_t, is_readonly), 0),
    flag_option("-D", offsetof(mirador_options_t, use_existing_dir), 1),
    flag_option("--use-dir", offsetof(mirador_options_t, use_existing_dir), 1),
    flag_option("--no-threads", offsetof(mirador_options_t, start_cnt_threads), 0),
    flag_option("-h", offsetof(mirador_options_t, show_help), 1),
    flag_option("--help", offsetof(mirador_options_t, show_help), 1),
    flag_option("-V", offsetof(mirador_options_t, show_version), 1),
    flag_option("--version", offsetof(mirador_options_t, show_version), 1),
    FUSE_OPT_END,
};

// What no template matches: the first plain argument is the mount point, and everything stays FUSE's as well.
int mirador_parse_opt(void* data, const char* arg, int key, fuse_args* outargs) {
    constexpr int keep = 1;
    auto* options = static_cast<mirador_options_t*>(data);
    switch (key) {
        case FUSE_OPT_KEY_NONOPT:
            if (options->proxy_mount_point == nullptr) {
                options->proxy_mount_point = strdup(arg);
                cor_assert(options->proxy_mount_point != nullptr);
            }
            return keep;
        case FUSE_OPT_KEY_OPT:
            return keep;
        default:
            std::fprintf(stderr, "Unknown option: %s\n", arg);
            usage(outargs->argv[0]);
            std::exit(1);
    }
}

void set_text(char** field, const std::string& text) {
    std::free(*field);
    *field = strdup(text.c_str());
    cor_assert(*field != nullptr);
}

// An empty text says nothing: a start script's variable that is not set.
void drop_empty(char** field) {
    if (*field == nullptr || **field != '\0')
        return;
    std::free(*field);
    *field = nullptr;
}

// The path as it reads from any working directory, without slashes at its end.
fs::path absolute_path(const fs::path& given) {
    std::error_code failed;
    const fs::path path = fs::absolute(given, failed);
    if (failed)
        return given;
    return path.has_filename() ? path : path.parent_path();
}

// The path with its links resolved; what does not exist stays as it is named. Asks no file system that is mounted at
// the path itself: a mount point whose daemon died resolves as well.
fs::path resolved(const fs::path& path) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
    if (real != nullptr)
        return real.get();
    if (!path.has_relative_path())
        return path;
    return (resolved(path.parent_path()) / path.filename()).lexically_normal();
}

// The path with the links of its directory resolved, its own name kept.
fs::path named(const fs::path& path) {
    const fs::path name = path.filename();
    return name == "." || name == ".." ? resolved(path) : resolved(path.parent_path()) / name;
}

bool is_within(const fs::path& path, const fs::path& directory) {
    return std::mismatch(directory.begin(), directory.end(), path.begin(), path.end()).first == directory.end();
}

// Puts `path` in the place of FUSE's argument `given`. The last one that reads so: options with texts stand in front.
void replace_argument(fuse_args* args, const std::string& given, const std::string& path) {
    for (int i = args->argc - 1; i > 0; i--) {
        if (given != args->argv[i])
            continue;
        set_text(&args->argv[i], path);
        return;
    }
}

}  // namespace

mirador_options_t& fs_options() {
    static mirador_options_t options{
        .proxy_mount_point = nullptr,
        .tmpfs_mount_point = nullptr,
        .tmpfs_mount_options = nullptr,
        .log_dir = nullptr,
        .start_cnt_threads = 1,
        .is_readonly = 1,
        .use_existing_dir = 0,
        .show_help = 0,
        .show_version = 0,
    };
    return options;
}

bool mirador_parse_options(fuse_args* args) {
    mirador_options_t& options = fs_options();
    const bool passed = fuse_opt_parse(args, &options, mirador_opts, mirador_parse_opt) == 0;
    for (char** field :
         {&options.proxy_mount_point, &options.tmpfs_mount_point, &options.tmpfs_mount_options, &options.log_dir})
        drop_empty(field);
    return passed;
}

void options_settle_log_dir() {
    if (fs_options().log_dir != nullptr)
        set_text(&fs_options().log_dir, absolute_path(fs_options().log_dir).string());
}

void options_settle_mount_points(fuse_args* args) {
    mirador_options_t& options = fs_options();
    cor_assert(options.proxy_mount_point != nullptr);
    const std::string given = options.proxy_mount_point;
    const fs::path mount_point = named(absolute_path(given));
    const fs::path shadow = options.tmpfs_mount_point != nullptr
                                ? absolute_path(options.tmpfs_mount_point)
                                : fs::path(cor_format_path("%s.shadow", mount_point.c_str()));
    set_text(&options.proxy_mount_point, resolved(mount_point).string());
    set_text(&options.tmpfs_mount_point, resolved(shadow).string());
    replace_argument(args, given, options.proxy_mount_point);
}

bool options_check_mount_points() {
    const mirador_options_t& options = fs_options();
    const fs::path mount_point = options.proxy_mount_point;
    const fs::path shadow = options.tmpfs_mount_point;
    if (!is_within(mount_point, shadow) && !is_within(shadow, mount_point))
        return true;
    std::fprintf(stderr, "mirador: %s, %s: mount point and shadow tree must not lie in one another\n",
                 mount_point.c_str(), shadow.c_str());
    return false;
}

void usage(const char* progname) {
    std::printf(
        "usage: %s [-L log-dir] [-P tmpfs-mount-point] [-O tmpfs-mount-options] [-W] [-D] mountpoint [options]\n\n"
        "   Exports a newly-created tmpfs file system\n\n"
        "general options:\n"
        "   -L log-dir          log directory\n"
        "   -P path             tmpfs-mount-point (default: \"mountpoint\".shadow)\n"
        "   --tmpfs-path=path   tmpfs-mount-point (default: \"mountpoint\".shadow)\n"
        "   -O options          tmpfs-mount-options\n"
        "   -W --writable       allow write operations\n"
        "   -D --use-dir        use an existing tmpfs-mount-point\n"
        "   -o opt,[opt...]     (FUSE) mount options\n"
        "   -h  --help          print help\n"
        "   -V  --version       print version\n\n",
        progname);
}

}  // namespace mirador
