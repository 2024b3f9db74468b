// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/vmdk_names.h"

#include <fcntl.h>
#include <regex.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <limits>
#include <string_view>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "lib/text_file.h"
#include "vmware/lib/vmdk/datastore_containment.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_open.h"
#include "vmware/lib/vmdk/vmdk_parse.h"

namespace mirador {
namespace {

constexpr mode_t copy_mode = 0644;

errdesc_t* unreadable(const errdesc_t* e, const std::string& path) {
    return errdesc_set_fmt(e->number, "Failed to read vmdkdesc from %s", path.c_str());
}

errdesc_t* not_a_text(const std::string& path) {
    return errdesc_set_fmt(EINVAL, "%s is not a plain descriptor text", path.c_str());
}

// A descriptor's text, without the zeros that some programs fill its file up with.
errdesc_t* read_text(const std::string& path, std::string* text, struct stat* st) {
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd || fstat(fd.get(), st) != 0)
        return errdesc_set_str(errno, path);
    RETURN_IF_ERROR(datastore_check_opened(path, fd.get(), path));
    if (!S_ISREG(st->st_mode) || static_cast<std::uint64_t>(st->st_size) > vmdk_max_text)
        return not_a_text(path);
    text->resize(static_cast<std::size_t>(st->st_size));
    std::size_t done = 0;
    if (errdesc_t* e = cor_pread(fd.get(), text->data(), text->size(), 0, &done))
        return errdesc_set_str(e->number, path);
    text->resize(done);
    text->erase(text->find_last_not_of('\0') + 1);
    return text->find('\0') == std::string::npos ? nullptr : not_a_text(path);
}

void replace_name(std::string* text, const std::string& old_name, const std::string& new_name) {
    const std::string old_quoted = '"' + old_name + '"';
    const std::string new_quoted = '"' + new_name + '"';
    for (std::size_t at = text->find(old_quoted); at != std::string::npos; at = text->find(old_quoted, at)) {
        text->replace(at, old_quoted.size(), new_quoted);
        at += new_quoted.size();
    }
}

// A disk name taken apart by the pattern of counters and kinds in front of ".vmdk".
class name_pattern_t {
  public:
    name_pattern_t() {
        const char* pattern = "(\\([0-9]*\\))*(-flat)*(-rdm)*(-rdmp)*\\.vmdk";
        cor_assert(regcomp(&regex_, pattern, REG_EXTENDED | REG_ICASE) == 0);
    }
    ~name_pattern_t() { regfree(&regex_); }
    name_pattern_t(const name_pattern_t&) = delete;
    name_pattern_t& operator=(const name_pattern_t&) = delete;

    bool match(const std::string& name) {
        return regexec(&regex_, name.c_str(), groups_.size(), groups_.data(), 0) == 0;
    }

    std::string before(const std::string& name) const {
        return name.substr(0, static_cast<std::size_t>(groups_[0].rm_so));
    }
    // "(n)"; empty: the name has no counter.
    std::string counter(const std::string& name) const { return group(name, 1); }
    std::string kind(const std::string& name) const {
        for (std::size_t i = 2; i < groups_.size(); ++i) {
            if (groups_[i].rm_so >= 0)
                return group(name, i);
        }
        return "";
    }

  private:
    std::string group(const std::string& name, std::size_t index) const {
        const regmatch_t& g = groups_[index];
        if (g.rm_so < 0)
            return "";
        return name.substr(static_cast<std::size_t>(g.rm_so), static_cast<std::size_t>(g.rm_eo - g.rm_so));
    }

    regex_t regex_{};
    std::array<regmatch_t, 5> groups_{};
};

// The counter after "(n)", where a name without one is number 0; false when it cannot grow.
bool next_counter(const std::string& counter, int* next) {
    errno = 0;
    const long old = counter.empty() ? 0 : std::strtol(counter.c_str() + 1, nullptr, 10);
    if (errno != 0 || old >= std::numeric_limits<int>::max())
        return false;
    *next = static_cast<int>(old) + 1;
    return true;
}

}  // namespace

errdesc_t* vmdk_get_basename(const std::string& path, std::string* basename) {
    std::string root;
    bool thin = false;
    if (errdesc_t* e = vmdk_get_root_vmdk(path, &root, &thin))
        return unreadable(e, path);
    *basename = last_component(root);
    return nullptr;
}

errdesc_t* vmdk_get_extentname(const std::string& path, std::string* extentname) {
    vmdkdesc_t disk;
    if (errdesc_t* e = vmdk_open_checked(path, descriptor_role_t::head, &disk))
        return unreadable(e, path);
    *extentname = disk.extentdesc.front()->extentname;
    return nullptr;
}

errdesc_t* vmdk_copy_descfiles(const std::string& path, const std::string& copy_path, const std::string& old_extentname,
                               const std::string& new_extentname, std::int64_t* size) {
    std::string text;
    struct stat original {};
    RETURN_IF_ERROR(read_text(path, &text, &original));
    replace_name(&text, old_extentname, new_extentname);
    RETURN_IF_ERROR(replace_text_file(copy_path, text, copy_mode, original));
    *size = static_cast<std::int64_t>(text.size());
    return nullptr;
}

errdesc_t* vmdk_rename(std::string* name) {
    name_pattern_t pattern;
    int next = 0;
    if (!pattern.match(*name) || !next_counter(pattern.counter(*name), &next))
        return errdesc_set_str(EINVAL, *name);
    *name = pattern.before(*name) + cor_format("(%d)%s.vmdk", next, pattern.kind(*name).c_str());
    return nullptr;
}

}  // namespace mirador
