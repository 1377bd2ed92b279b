// SPDX-License-Identifier: Apache-2.0
// Writes to a descriptor that the process shares with others, such as the standard output, without waiting for its
// reader.
//
// O_NONBLOCK would belong to the open file, which the shell and other programs share, so it is never set there. A pipe
// or a terminal is opened once more, which makes an open file of our own; a socket is asked per call. Regular files and
// other devices are written as they are: nobody has to read them.
#ifndef COMMON_OUTLET_H
#define COMMON_OUTLET_H

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>

#include "owned_fd.h"

namespace common {

// Not thread-safe: one thread, or a lock.
class Outlet {
 public:
  // Does not own fd. If another file takes its number later, that one is written.
  explicit Outlet(int fd) : m_fd(fd) {}
  Outlet(const Outlet&) = delete;
  Outlet& operator=(const Outlet&) = delete;

  // Returns how many bytes were written, 0 if nothing fits at the moment, or -1 with errno.
  ssize_t Write(const char* data, size_t size) {
    if (!Follow()) return -1;
    ssize_t written = -1;
    do {
      written = WriteOnce(data, size);
    } while (written < 0 && errno == EINTR);
    return written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : written;
  }

  // Returns what to poll for POLLOUT after Write returned 0.
  int Descriptor() const { return m_own.IsOpen() ? m_own.Get() : m_fd; }

 private:
  enum class Kind { Unknown, Plain, Own, Socket, Shared };
  // A pipe that polls as writable takes PIPE_BUF bytes, and a terminal takes some.
  static constexpr size_t kSharedPiece = 256;

  ssize_t WriteOnce(const char* data, size_t size) const {
    switch (m_kind) {
      case Kind::Own:
        return write(m_own.Get(), data, size);
      case Kind::Socket:
        return send(m_fd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
      case Kind::Shared: {
        pollfd ready = {m_fd, POLLOUT, 0};
        if (poll(&ready, 1, 0) <= 0) return 0;
        return write(m_fd, data, std::min(size, kSharedPiece));
      }
      default:
        return write(m_fd, data, size);
    }
  }

  // Looks at the file behind the number, and prepares for it if it is not the one from before.
  bool Follow() {
    struct stat now {};
    if (fstat(m_fd, &now) != 0) return false;
    if (m_kind != Kind::Unknown && now.st_dev == m_seen.st_dev && now.st_ino == m_seen.st_ino) return true;
    m_seen = now;
    m_own.Reset();
    m_kind = Kind::Plain;
    if (S_ISSOCK(now.st_mode)) m_kind = Kind::Socket;
    if (S_ISFIFO(now.st_mode) || isatty(m_fd) == 1) {
      std::array<char, 32> name;
      std::snprintf(name.data(), name.size(), "/proc/self/fd/%d", m_fd);
      m_own.Reset(open(name.data(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
      m_kind = m_own.IsOpen() ? Kind::Own : Kind::Shared;
    }
    return true;
  }

  const int m_fd;
  Kind m_kind = Kind::Unknown;
  OwnedFD m_own;
  struct stat m_seen {};
};

}  // namespace common

#endif  // COMMON_OUTLET_H
