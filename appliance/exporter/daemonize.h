// SPDX-License-Identifier: Apache-2.0
// Going to the background before any thread exists, with the foreground process waiting for the outcome of the
// start-up.
#pragma once

#include <optional>

#include "lib/file_io.h"

namespace mirador {

class background_t {
  public:
    // Forks. In the child, a session of its own, returns nothing; in the parent waits until the child serves (status 0)
    // or ends (its status; 1 for an end by signal) and returns that status. 1 also when it cannot fork, after a line on
    // standard error.
    std::optional<int> enter();

    // In the child, once it serves: lets the parent go, changes to "/" and leaves the terminal. Standard output and
    // error stay where they are if they go to a log file.
    void serving(bool has_log_file);

  private:
    unique_fd ready_;
};

}  // namespace mirador
