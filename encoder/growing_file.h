// SPDX-License-Identifier: Apache-2.0
// A file of a run that grows by whole pieces, also on a disk that is full.
#ifndef MDENCODER_GROWING_FILE_H
#define MDENCODER_GROWING_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "owned_fd.h"

namespace mdencoder {

struct GrowingFile {
  common::OwnedFD fd;
  std::string path;
  uint64_t size = 0;       // bytes of whole pieces
  bool isRegular = false;  // has a size, and can be cut

  // Writes as much as the file takes and returns how many bytes that is; errno tells why it is not all.
  size_t Append(const void* data, size_t length) const;
  // Keeps so many of the bytes that were appended.
  void Keep(size_t length);
};

// Makes an empty file, in the place of one that exists if `replace` is set. Symbolic links are not followed, and nobody
// waits for the reader of a FIFO, which is refused. Throws std::runtime_error.
GrowingFile MakeGrowingFile(const std::string& path, bool replace);

}  // namespace mdencoder

#endif  // MDENCODER_GROWING_FILE_H
