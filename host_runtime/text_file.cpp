// SPDX-License-Identifier: Apache-2.0
#include "text_file.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>

namespace host_runtime {
namespace {

struct CloseFile {
  void operator()(FILE* file) const { fclose(file); }
};

}  // namespace

std::string ReadTextFile(const std::string& path, std::string* text) {
  const std::unique_ptr<FILE, CloseFile> file(fopen(path.c_str(), "re"));
  if (file == nullptr) return "cannot read \"" + path + "\": " + strerror(errno);
  std::array<char, 4096> buffer;
  while (const size_t size = fread(buffer.data(), 1, buffer.size(), file.get())) text->append(buffer.data(), size);
  return ferror(file.get()) == 0 ? "" : "cannot read \"" + path + "\": it is no text file";
}

}  // namespace host_runtime
