// SPDX-License-Identifier: Apache-2.0
// The files that clients hold open: FUSE keeps a number for each, the handle stands here. A client that still holds one
// when the file system ends is not heard of again, so what is left is released then; a mapping would outlive the daemon
// otherwise.
//
// Thread-safe. A handle stays where it is until it is taken, so a number may be turned into a pointer without the lock.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "appliance/exporter/vm_proxy_table.h"
#include "lib/thread_annotations.h"

namespace mirador {

class open_files_t {
  public:
    // Keeps a handle and returns its number, which is never 0.
    std::uint64_t add(std::unique_ptr<fuse_fh_t> fh);
    // Gives a handle back to the caller; null for a number that stands for none.
    std::unique_ptr<fuse_fh_t> take(std::uint64_t number);
    // Releases every handle left; failures are logged. No thread may use one any more.
    void release_all();

    // The handle behind a number that add() returned and take() has not seen.
    static const fuse_fh_t* get(std::uint64_t number);

  private:
    mutex_t mutex_;
    std::unordered_map<std::uint64_t, std::unique_ptr<fuse_fh_t>> files_ GUARDED_BY(mutex_);
};

}  // namespace mirador
