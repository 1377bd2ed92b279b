// SPDX-License-Identifier: Apache-2.0
#include "library.h"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace mdencoder {
namespace {

constexpr char kLibraryName[] = "libmetadata_lib.so.1";

std::vector<std::string> Candidates(const std::string& path) {
  if (!path.empty()) {
    // Without a slash the loader would search its folders instead of opening the file.
    return {path.find('/') == std::string::npos ? "./" + path : path};
  }
  std::error_code ignored;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", ignored);
  std::vector<std::string> candidates;
  const auto beside = program.parent_path() / kLibraryName;
  if (!program.empty() && std::filesystem::exists(beside, ignored)) candidates.push_back(beside);
  candidates.emplace_back(kLibraryName);
  return candidates;
}

template <typename Function>
void Resolve(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  if (function == nullptr) throw std::runtime_error(std::string("the library does not export ") + name);
}

}  // namespace

Library LoadLibrary(const std::string& path) {
  void* handle = nullptr;
  std::string error;
  for (const std::string& candidate : Candidates(path)) {
    handle = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle != nullptr) break;
    const char* said = dlerror();
    error = said == nullptr ? candidate : said;
  }
  if (handle == nullptr) throw std::runtime_error("cannot load the library: " + error);
  Library library;
  Resolve(handle, "METADATALIB_Init", library.init);
  Resolve(handle, "METADATALIB_Shutdown", library.shutdown);
  Resolve(handle, "MetaData_OpenSource", library.openSource);
  Resolve(handle, "MetaData_CloseSource", library.closeSource);
  Resolve(handle, "MetaData_ReleaseBuffer", library.releaseBuffer);
  Resolve(handle, "MetaData_GetSourceStats", library.getSourceStats);
  Resolve(handle, "MetaData_ResetSourceStats", library.resetSourceStats);
  Resolve(handle, "MetaData_SetSourceStats", library.setSourceStats);
  return library;
}

}  // namespace mdencoder
