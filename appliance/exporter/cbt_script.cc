// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cbt_script.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <optional>
#include <vector>

#include "appliance/exporter/cbt_vdisk.h"
#include "appliance/lib/registry.h"
#include "controller/lib/controller.h"
#include "lib/clock.h"
#include "lib/cor_string.h"
#include "lib/fault_point.h"
#include "lib/file_io.h"
#include "lib/spawn.h"
#include "lib/tool_paths.h"
#include "vmware/lib/vmdk/datastore_path.h"

namespace mirador {
namespace {

constexpr const char* reseed = "reseed";  // the controller's word for a change id to pass over
constexpr int reaping_limit = 1;          // seconds that a killed script has to end

std::atomic<bool> _hurries = false;

// The change id since which changes are asked for, if any.
std::optional<std::string> since(const ks_vdisk_t* vdisk) {
    if (vdisk == nullptr)
        return std::nullopt;
    if (cbt_has_changeid(vdisk->changeid_incr) && *vdisk->changeid_incr != reseed)
        return *vdisk->changeid_incr;
    return cbt_has_changeid(vdisk->changeid_base) ? vdisk->changeid_base : std::nullopt;
}

std::vector<std::string> command(const cbt_request_t& request, const ks_hypervisor_config_t& hvc,
                                 const std::string& results_path) {
    const reg_settings_t& settings = *get_reg_settings();
    std::vector<std::string> argv = {
        tool_paths().cbt_getblocklist,
        "--server",
        request.hv_name,
        "--portnumber",
        cor_format("%u", hvc.hv_port),
        "--username",
        ks_text(hvc.login_name),
        "--password",
        "******",
        "--vmuuid",
        request.vm_uuid,
        "--vmdkpath",
        translate_to_datastore_fs_path(request.vmdk_path),
        "--vmdksize",
        cor_format("%jd", static_cast<std::intmax_t>(request.size)),
        "--changeid_only",
        request.changeid_only ? "y" : "n",
        "--resultsfile",
        results_path,
        "--vendor_id",
        settings.names().vendor_id,
        "--appliance_uuid",
        settings.names().appliance_uuid,
    };
    if (settings.cbt_debug_enabled)
        argv.insert(argv.end(), {"--debug", "1"});
    if (const std::optional<std::string> changeid = since(request.vdisk))
        argv.insert(argv.end(), {"--changeid_incr", *changeid});
    return argv;
}

std::string joined(const std::vector<std::string>& argv) {
    std::string text;
    for (const std::string& argument : argv)
        text += argument + ' ';
    return text;
}

// As spawn_wait, but for the daemon's end.
errdesc_t* wait_for_script(pid_t pid, const std::string& text) {
    for (int left = cbt_script_time_limit; left > 0 && !_hurries && spawn_is_alive(pid); left--)
        clock_poll(1);
    if (!_hurries || !spawn_is_alive(pid))
        return spawn_wait(pid, 0, text, reaping_limit);
    (void)spawn_kill(pid, SIGKILL);
    (void)spawn_wait(pid, 0, text, reaping_limit);
    return errdesc_set_str(ERR_CANCELLED, text);
}

// Two numbers mean something when the script gives them, and only then.
errdesc_t* not_the_scripts(errdesc_t* e) {
    if (e == nullptr || (e->number != cbt_no_changeid && e->number != cbt_needs_reset))
        return e;
    const std::string text = e->string;
    return errdesc_set_fmt(ERR_IO, "%s", text.c_str());
}

// What the kernel does not take for a program (a script that a crash has emptied, say) ends with the kernel's ENOEXEC,
// which is 8 as well.
bool is_program(const std::string& path) {
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::array<char, 2> magic{};
    if (!fd || read(fd.get(), magic.data(), magic.size()) != static_cast<ssize_t>(magic.size()))
        return false;
    return magic == std::array{'#', '!'} || magic == std::array{'\x7f', 'E'};
}

errdesc_t* run(const std::vector<std::string>& argv, const std::optional<secret_t>& password) {
    if (_hurries)
        return errdesc_set_str(ERR_CANCELLED, joined(argv));
    const std::vector<std::string> environment = {"password=" + (password ? password->reveal() : std::string())};
    pid_t pid = -1;
    RETURN_IF_ERROR(spawn_env(argv, 0, nullptr, nullptr, &pid, 0, &environment));
    errdesc_t* e = wait_for_script(pid, joined(argv));
    return is_program(argv[0]) ? e : not_the_scripts(e);
}

// The file is there before the script is, so that nobody else can put one in its place.
errdesc_t* make_results_file(const std::string& path) {
    const unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    return fd ? nullptr : errdesc_set_str(errno, path);
}

}  // namespace

errdesc_t* cbt_get_block_list(const cbt_request_t& request, std::string* results_path) {
    *results_path = cor_format_path("%s/%s.query_results", tool_paths().tmp_dir.c_str(), request.dm_name.c_str());
    ks_hypervisor_config_t hvc;
    RETURN_IF_ERROR(not_the_scripts(controller_get_hypervisor(&hvc, request.hv_name)));
    RETURN_IF_ERROR(not_the_scripts(make_results_file(*results_path)));
    RETURN_IF_ERROR(fault_point("cbt.script"));
    return run(command(request, hvc, *results_path), hvc.password);
}

void cbt_remove_work_file(const std::string& path) {
    if (!get_reg_settings()->cbt_debug_enabled)
        (void)unlink(path.c_str());
}

void cbt_script_hurry() {
    _hurries = true;
}

bool cbt_hurries() {
    return _hurries;
}

void _cbt_script_unhurry() {
    _hurries = false;
}

}  // namespace mirador
