// SPDX-License-Identifier: Apache-2.0
// The files of the page, which are part of the program. Nothing else is served: no name of a request reaches a folder.
#ifndef MDENCODER_HTTP_ASSETS_H
#define MDENCODER_HTTP_ASSETS_H

#include <cstddef>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "http/answer.h"

namespace mdencoder::http {

// A file as the build puts it into the program.
struct BundledFile {
  const char* path;  // "/page.js"
  const unsigned char* begin;
  const unsigned char* end;
};
// Made by the build from the lists of encoder/page/CMakeLists.txt.
std::span<const BundledFile> BundledFiles();

class Assets {
 public:
  // Compresses what becomes smaller by it.
  explicit Assets(std::span<const BundledFile> files = BundledFiles());

  // Returns whether there is such a file; "/" is index.html.
  bool Has(std::string_view path) const { return m_files.contains(path); }
  // Answers a request for it. Throws Refusal if there is none.
  Answer Get(std::string_view path, const Request& request) const;

 private:
  struct File {
    std::string type;
    std::string tag;
    std::string_view plain;
    std::string compressed;  // empty: not smaller
  };

  std::map<std::string, File, std::less<>> m_files;
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_ASSETS_H
