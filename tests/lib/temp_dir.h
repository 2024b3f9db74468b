// SPDX-License-Identifier: Apache-2.0
// A directory of a test's own, removed with all it holds, and files in it.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace mirador {

class temp_dir_t {
  public:
    temp_dir_t() : path_(testing::TempDir() + "mirador.XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr)
            std::abort();
    }
    ~temp_dir_t() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    temp_dir_t(const temp_dir_t&) = delete;
    temp_dir_t& operator=(const temp_dir_t&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

inline std::string write_file(const std::string& path, const std::string& content) {
    std::ofstream(path) << content;
    return path;
}

inline std::string read_file(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

// An executable shell script with the body given.
inline std::string write_script(const std::string& path, const std::string& body) {
    write_file(path, "#!/bin/sh\n" + body);
    chmod(path.c_str(), 0755);
    return path;
}

}  // namespace mirador
