// SPDX-License-Identifier: Apache-2.0
// Counts how many times in a row the same path is looked up, opened or closed, for diagnosis at higher debug levels.
#pragma once

#include <string>

#include "lib/thread_annotations.h"

namespace mirador {

class call_tracker_t {
  public:
    // `handler` and `verb` ("opened", "closed") go into the printed line, `initial` stands for the path before the
    // first.
    call_tracker_t(const char* handler, const char* verb, const char* initial)
        : handler_(handler), verb_(verb), path_(initial) {}

    // Notes a call. A path that differs from the last one prints how often that was repeated (one less than its calls).
    void track(const std::string& path) EXCLUDES(mutex_);

  private:
    const char* handler_;
    const char* verb_;
    mutex_t mutex_;
    std::string path_ GUARDED_BY(mutex_);
    int count_ GUARDED_BY(mutex_) = 0;
};

}  // namespace mirador
