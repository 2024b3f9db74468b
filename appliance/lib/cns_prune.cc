// SPDX-License-Identifier: Apache-2.0
// Removal of nodes: of one directory with what it holds, and of what an update did not refresh.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "appliance/lib/cns_header.h"
#include "appliance/lib/cor_namespace.h"
#include "lib/file_tree.h"
#include "lib/log.h"

namespace mirador {
namespace {

struct prune_t {
    std::uint64_t owner;
    std::uint64_t generation;
    bool recursive;

    bool is_stale(const cns_attrs_t& attrs) const { return attrs.owner == owner && attrs.generation < generation; }
};

void log_failure(errdesc_t* e) {
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_ERROR);
}

// The paths of the visible entries of a directory.
errdesc_t* list_visible(const cns_handle_t* ns, const std::string& path, std::vector<std::string>* entries) {
    dir_ptr dir;
    RETURN_IF_ERROR(cns_opendir(ns, path, &dir));
    while (const std::optional<std::string> name = cns_readdir(ns, dir)) {
        if (*name != "." && *name != "..")
            entries->push_back(cor_format_path("%s/%s", path.c_str(), name->c_str()));
    }
    return nullptr;
}

// The type of what stands at a path, links not followed; 0 when nothing does.
mode_t type_of(const cns_handle_t* ns, const std::string& path) {
    cns_pbuf_t place;
    struct stat st {};
    return lstat(cns_translate_path(ns, path, &place), &st) == 0 ? st.st_mode & S_IFMT : 0;
}

// Removes what a directory holds, so that each header's blocks come off the count.
errdesc_t* remove_entries(cns_handle_t* ns, const std::vector<std::string>& entries) {
    for (const std::string& entry : entries) {
        if (S_ISDIR(type_of(ns, entry)))
            RETURN_IF_ERROR(cns_rmdir(ns, entry, true));
        else
            RETURN_IF_ERROR(cns_unlink(ns, entry));
    }
    return nullptr;
}

void log_removal(const std::string& path, const cns_attrs_t& attrs) {
    ts_printf("cns_prune: removing %s: owner %jd, generation %jd\n", path.c_str(),
              static_cast<std::intmax_t>(attrs.owner), static_cast<std::intmax_t>(attrs.generation));
}

errdesc_t* prune_directory(cns_handle_t* ns, const std::string& path, const prune_t& prune) {
    cns_attrs_t attrs{};
    if (cns_get_attrs(ns, path, &attrs, nullptr, 0) != nullptr)
        return nullptr;
    if (prune.is_stale(attrs)) {
        log_removal(path, attrs);
        return cns_rmdir(ns, path, true);
    }
    return prune.recursive ? cns_prune(ns, path, prune.owner, prune.generation, true) : nullptr;
}

errdesc_t* prune_node(cns_handle_t* ns, const std::string& path, const prune_t& prune) {
    cns_attrs_t attrs{};
    std::uint8_t application = 0;
    RETURN_IF_ERROR(cns_get_attrs(ns, path, &attrs, &application, sizeof application));
    if (prune.is_stale(attrs)) {
        log_removal(path, attrs);
        log_failure(cns_unlink(ns, path));
        return nullptr;
    }
    ts_dprintf(2, "cns_prune: preserving %s: owner %jd, generation %jd\n", path.c_str(),
               static_cast<std::intmax_t>(attrs.owner), static_cast<std::intmax_t>(attrs.generation));
    return nullptr;
}

void prune_link(cns_handle_t* ns, const std::string& path) {
    cns_pbuf_t place;
    struct stat st {};
    if (stat(cns_translate_path(ns, path, &place), &st) == 0 || errno != ENOENT)
        return;
    ts_printf("cns_prune: removing %s\n", path.c_str());
    errdesc_t* e = cns_unlink(ns, path);
    if (e != nullptr && e->number != ENOENT)
        log_failure(e);
}

}  // namespace

errdesc_t* cns_rmdir(cns_handle_t* ns, const std::string& path, bool force) {
    std::string place;
    RETURN_IF_ERROR(_cns_place(ns, path, &place));
    std::vector<std::string> entries;
    errdesc_t* e = list_visible(ns, path, &entries);
    if (e != nullptr && !(force && e->number == ENOENT))
        return e;
    if (!force && !entries.empty())
        return errdesc_set_str(ENOTEMPTY, place);
    ts_dprintf(3, "cns_rmdir: unlinking <%s>\n", place.c_str());
    RETURN_IF_ERROR(remove_entries(ns, entries));
    const int number = _cns_unlink_header(ns, _cns_dir_header(place));
    if (number != 0 && number != ENOENT)
        return errdesc_set_str(number, place);
    return rmdirr(place);
}

errdesc_t* cns_prune(cns_handle_t* ns, const std::string& path, std::uint64_t owner, std::uint64_t generation,
                     bool recursive) {
    const prune_t prune{.owner = owner, .generation = generation, .recursive = recursive};
    std::vector<std::string> entries;
    RETURN_IF_ERROR(list_visible(ns, path, &entries));
    std::vector<std::string> links;
    for (const std::string& entry : entries) {
        const mode_t type = type_of(ns, entry);
        if (S_ISLNK(type))
            links.push_back(entry);
        else if (S_ISDIR(type))
            RETURN_IF_ERROR(prune_directory(ns, entry, prune));
        else
            RETURN_IF_ERROR(prune_node(ns, entry, prune));
    }
    for (const std::string& link : links)
        prune_link(ns, link);
    return nullptr;
}

}  // namespace mirador
