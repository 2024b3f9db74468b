// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmx/vmx_match.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <limits>
#include <set>

namespace mirador {
namespace {

using components_t = std::vector<std::string>;

constexpr std::size_t same_path = std::numeric_limits<std::size_t>::max();

components_t split(const std::string& path, const std::string& dirname) {
    const auto normal = std::filesystem::path(path.starts_with('/') ? path : dirname + "/" + path).lexically_normal();
    return {normal.begin(), normal.end()};
}

// In how many components, counted from the end, two paths agree.
std::size_t agreement(const components_t& a, const components_t& b) {
    if (a == b)
        return same_path;
    const auto differ = std::mismatch(a.rbegin(), a.rend(), b.rbegin(), b.rend());
    return static_cast<std::size_t>(differ.first - a.rbegin());
}

class matcher_t {
  public:
    matcher_t(const std::vector<components_t>& names, const std::vector<components_t>& paths)
        : name_open_(names.size(), true), path_open_(paths.size(), true), partner_(names.size()) {
        for (const components_t& name : names) {
            agreements_.emplace_back();
            for (const components_t& path : paths)
                agreements_.back().push_back(agreement(name, path));
        }
    }

    std::vector<std::optional<std::size_t>> run() {
        std::set<std::size_t, std::greater<>> degrees;
        for (const auto& row : agreements_)
            degrees.insert(row.begin(), row.end());
        degrees.erase(0);
        for (const std::size_t degree : degrees) {
            while (settle(degree))
                continue;
            give_up(degree);
        }
        return partner_;
    }

  private:
    bool agree(std::size_t name, std::size_t path, std::size_t degree) const {
        return name_open_[name] && path_open_[path] && agreements_[name][path] == degree;
    }

    std::optional<std::size_t> only_path(std::size_t name, std::size_t degree) const {
        std::optional<std::size_t> found;
        for (std::size_t path = 0; path < path_open_.size(); ++path) {
            if (!agree(name, path, degree))
                continue;
            if (found)
                return degree == same_path ? found : std::nullopt;  // the same path twice is as good as once
            found = path;
        }
        return found;
    }

    bool only_name(std::size_t path, std::size_t degree) const {
        std::size_t names = 0;
        for (std::size_t name = 0; name < name_open_.size(); ++name)
            names += agree(name, path, degree) ? 1U : 0U;
        return names == 1;
    }

    // Pairs what has one partner only; whether there was any.
    bool settle(std::size_t degree) {
        bool settled = false;
        for (std::size_t name = 0; name < name_open_.size(); ++name) {
            const auto path = name_open_[name] ? only_path(name, degree) : std::nullopt;
            if (!path || !only_name(*path, degree))
                continue;
            partner_[name] = path;
            name_open_[name] = path_open_[*path] = false;
            settled = true;
        }
        return settled;
    }

    // What still agrees to this degree has several partners and may not fall to a worse one.
    void give_up(std::size_t degree) {
        std::vector<std::pair<std::size_t, std::size_t>> undecided;
        for (std::size_t name = 0; name < name_open_.size(); ++name)
            for (std::size_t path = 0; path < path_open_.size(); ++path)
                if (agree(name, path, degree))
                    undecided.emplace_back(name, path);
        for (const auto& [name, path] : undecided)
            name_open_[name] = path_open_[path] = false;
    }

    std::vector<std::vector<std::size_t>> agreements_;  // by name and path
    std::vector<bool> name_open_;
    std::vector<bool> path_open_;
    std::vector<std::optional<std::size_t>> partner_;
};

std::vector<components_t> split_all(const std::vector<std::string>& paths, const std::string& dirname) {
    std::vector<components_t> result;
    result.reserve(paths.size());
    for (const std::string& path : paths)
        result.push_back(split(path, dirname));
    return result;
}

}  // namespace

std::vector<std::optional<std::size_t>> vmx_match(const std::vector<std::string>& names,
                                                  const std::vector<std::string>& paths, const std::string& dirname) {
    return matcher_t(split_all(names, dirname), split_all(paths, dirname)).run();
}

}  // namespace mirador
