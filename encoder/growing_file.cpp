// SPDX-License-Identifier: Apache-2.0
#include "growing_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace mdencoder {
namespace {

std::string Reason(int error) {
  return error == ELOOP ? "it is a symbolic link, which is not followed" : std::strerror(error);
}

}  // namespace

size_t GrowingFile::Append(const void* data, size_t length) const {
  const auto* bytes = static_cast<const uint8_t*>(data);
  size_t done = 0;
  while (done < length) {
    const ssize_t written = isRegular ? pwrite(fd.Get(), bytes + done, length - done, static_cast<off_t>(size + done))
                                      : write(fd.Get(), bytes + done, length - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    done += static_cast<size_t>(written);
  }
  return done;
}

void GrowingFile::Keep(size_t length) {
  size += length;
  // If it cannot be cut, the next write covers what is too much.
  if (isRegular && ftruncate(fd.Get(), static_cast<off_t>(size)) != 0) return;
}

// O_NONBLOCK: nobody waits for the reader of a FIFO.
GrowingFile MakeGrowingFile(const std::string& path, bool replace) {
  GrowingFile made;
  made.path = path;
  const int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (replace ? 0 : O_EXCL);
  made.fd.Reset(open(path.c_str(), flags, 0666));
  struct stat status {};
  if (!made.fd.IsOpen() || fstat(made.fd.Get(), &status) != 0) {
    throw std::runtime_error("cannot write " + path + ": " + Reason(errno));
  }
  made.isRegular = S_ISREG(status.st_mode);
  if (!made.isRegular && !S_ISCHR(status.st_mode)) {
    throw std::runtime_error("cannot write " + path + ": it is not a file");
  }
  if (made.isRegular && ftruncate(made.fd.Get(), 0) != 0) {
    throw std::runtime_error("cannot write " + path + ": " + Reason(errno));
  }
  return made;
}

}  // namespace mdencoder
