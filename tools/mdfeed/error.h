// The two ways to fail. main() turns them into one line on standard error and an exit code.
#ifndef MDFEED_ERROR_H
#define MDFEED_ERROR_H

#include <stdexcept>
#include <string>

namespace mdfeed {

// The command line asks for something impossible: exit code 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Something failed on the way: exit code 1.
struct RunError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// "what: reason of errno".
[[noreturn]] void ThrowErrno(const std::string& what);

}  // namespace mdfeed

#endif  // MDFEED_ERROR_H
