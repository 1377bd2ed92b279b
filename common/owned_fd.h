// SPDX-License-Identifier: Apache-2.0
// A descriptor that is closed with its owner.
#ifndef COMMON_OWNED_FD_H
#define COMMON_OWNED_FD_H

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace common {

class OwnedFD {
 public:
  OwnedFD() = default;
  // Owns fd. A negative value means none, so that the result of a system call can be passed without a check.
  explicit OwnedFD(int fd) : m_fd(fd) {}
  OwnedFD(OwnedFD&& other) noexcept : m_fd(other.Release()) {}
  OwnedFD& operator=(OwnedFD&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~OwnedFD() { Reset(); }

  int Get() const { return m_fd; }
  bool IsOpen() const { return m_fd >= 0; }
  // Closes the descriptor, if there is one, and owns fd from now on. It preserves errno, so that a failure can be
  // reported after its descriptors have been closed.
  void Reset(int fd = -1) {
    if (m_fd >= 0) {
      const int error = errno;
      close(m_fd);
      errno = error;
    }
    m_fd = fd;
  }
  // Gives up ownership: the caller closes the descriptor.
  [[nodiscard]] int Release() { return std::exchange(m_fd, -1); }

 private:
  int m_fd = -1;
};

}  // namespace common

#endif  // COMMON_OWNED_FD_H
