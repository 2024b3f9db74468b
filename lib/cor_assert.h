// SPDX-License-Identifier: Apache-2.0
// Fatal assertions, on in every build: for programming errors and for corruption of the program's own state.
// What arrives from outside (datastore files, controller, agent) is answered with an error descriptor instead.
#pragma once

namespace mirador {

// Prints "ASSERT: <text>, <file>:<line> (<function>)" to standard error and aborts (a core file follows).
[[noreturn]] void cor_assert_failed(const char* text, const char* file, unsigned line, const char* function);

}  // namespace mirador

// NOLINTBEGIN(bugprone-macro-parentheses)
// Aborts, naming `expr` as written, unless it holds.
#define cor_assert(expr) cor_assert_text(expr, #expr)

// As cor_assert, with the text to print where it differs from the expression.
#define cor_assert_text(expr, text) \
    (static_cast<bool>(expr) ? void(0) : ::mirador::cor_assert_failed(text, __FILE__, __LINE__, __func__))
// NOLINTEND(bugprone-macro-parentheses)
