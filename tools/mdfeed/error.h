// SPDX-License-Identifier: Apache-2.0
// Two kinds of failure. main() reports each as one line on standard error and an exit code.
#ifndef MDFEED_ERROR_H
#define MDFEED_ERROR_H

#include <stdexcept>
#include <string>

namespace mdfeed {

// The command line is not valid: exit code 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The run failed: exit code 1.
struct RunError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws RunError with "what: reason of errno".
[[noreturn]] void ThrowErrno(const std::string& what);

}  // namespace mdfeed

#endif  // MDFEED_ERROR_H
