// SPDX-License-Identifier: Apache-2.0
// Real loop devices in tests: whether they are to be had, what is bound, and taking back what a test made. Loop devices
// are the whole machine's, so nothing here touches one that it did not see come.
#pragma once

#include <string>
#include <vector>

namespace mirador {

class loop_guard_t {
  public:
    loop_guard_t();
    // Takes back the devices that the kernel made since; one that somebody uses by now stays.
    ~loop_guard_t();
    loop_guard_t(const loop_guard_t&) = delete;
    loop_guard_t& operator=(const loop_guard_t&) = delete;

    // Whether this process may bind loop devices: root, with /dev/loop-control.
    static bool available();

    // The file that a loop device is bound to, as the kernel tells; empty: none.
    static std::string backing_file(const std::string& loopdev);

    // The loop devices bound to a file in `directory`.
    static std::vector<std::string> bound_below(const std::string& directory);

    // Those that are left there: one that another process of the machine looks at just then goes with that look.
    static std::vector<std::string> left_below(const std::string& directory);

  private:
    int first_new_;
};

}  // namespace mirador
