// SPDX-License-Identifier: Apache-2.0
#include "geoid_grid.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

#include "ini_file.h"
#include "owned_fd.h"

namespace mdencoder {
namespace {

constexpr size_t kNumbers = size_t{721} * 1441;  // 90 N to 90 S and 0 to 360 E, 0.25 degrees apart

bool IsBlank(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

bool IsOfNumber(char character) {
  return (character >= '0' && character <= '9') || character == '-' || character == '+' || character == '.' ||
         character == 'e' || character == 'E';
}

// Counts the numbers of a text that comes in pieces.
class NumberCount {
 public:
  // Returns false at a character that is not part of a number.
  bool Push(const char* text, size_t size) {
    for (size_t i = 0; i < size; ++i) {
      const bool isBlank = IsBlank(text[i]);
      if (!isBlank && !IsOfNumber(text[i])) return false;
      if (!isBlank && m_afterBlank) ++m_count;
      m_afterBlank = isBlank;
    }
    return true;
  }
  size_t Count() const { return m_count; }

 private:
  bool m_afterBlank = true;
  size_t m_count = 0;
};

}  // namespace

std::string GeoidGridFault(const std::string& path) {
  const common::OwnedFD fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd.IsOpen()) return errno == ENOENT ? "is missing" : std::string("cannot be read: ") + std::strerror(errno);
  struct stat info {};
  if (fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return "is not a file";
  NumberCount numbers;
  std::vector<char> piece(1 << 16);
  for (;;) {
    const ssize_t size = read(fd.Get(), piece.data(), piece.size());
    if (size < 0) return std::string("cannot be read: ") + std::strerror(errno);
    if (size == 0) break;
    if (!numbers.Push(piece.data(), static_cast<size_t>(size))) return "is not a text of numbers";
  }
  if (numbers.Count() >= kNumbers) return {};
  return "has " + std::to_string(numbers.Count()) + " of " + std::to_string(kNumbers) + " numbers";
}

void RequireGeoidGrid(const Config& config, const std::string& path) {
  const auto isCot = [](const SourceSettings& source) { return source.record.enDataType == MDATA_DATA_COT; };
  const auto source = std::find_if(config.sources.begin(), config.sources.end(), isCot);
  if (config.encoder.heightsOptional || source == config.sources.end()) return;
  const std::string fault = GeoidGridFault(path);
  if (fault.empty()) return;
  throw ConfigError("[" + source->name + "] data = cot needs the geoid grid, but " + path + " " + fault +
                    "; make it with make_geoid_grid, or do without heights with heights = optional in [encoder]");
}

}  // namespace mdencoder
