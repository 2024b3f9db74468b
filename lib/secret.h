// SPDX-License-Identifier: Apache-2.0
// A text that must not be seen: a password, a session token. It travels like a value and prints as asterisks; the text
// itself comes out only where it is asked for by name, and is wiped from memory when the value goes.
#pragma once

#include <ostream>
#include <string>
#include <utility>

namespace mirador {

class secret_t {
  public:
    secret_t() = default;
    explicit secret_t(std::string value) : value_(std::move(value)) {}
    secret_t(const secret_t&) = default;
    secret_t& operator=(const secret_t& other);
    ~secret_t() { _wipe(); }

    // The text: for the one place that hands it to its receiver, never for a log line, an error or a command line.
    const std::string& reveal() const { return value_; }

    // What stands in its place wherever it would be printed.
    static const char* shown() { return "******"; }

    bool operator==(const secret_t&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const secret_t&) { return out << shown(); }

  private:
    void _wipe();

    std::string value_;
};

}  // namespace mirador
