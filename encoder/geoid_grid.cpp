// SPDX-License-Identifier: Apache-2.0
#include "geoid_grid.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <ios>
#include <system_error>
#include <vector>

#include "ini_file.h"
#include "owned_fd.h"

namespace mdencoder {
namespace {

constexpr size_t kRows = 721;      // 90 N to 90 S, 0.25 degrees apart
constexpr size_t kColumns = 1441;  // 0 to 360 E
constexpr size_t kNumbers = kRows * kColumns;
constexpr double kStep = 0.25;
constexpr size_t kMostText = size_t{64} << 20;  // bytes; the grid of make_geoid_grid has 11 million

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

// The last column is the first one again.
std::optional<gtx::Grid> LoadGeoidGrid(const std::string& path) {
  if (!GeoidGridFault(path).empty()) return std::nullopt;
  std::ifstream file(path, std::ios::binary);
  std::string text(kMostText, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(file.gcount()));
  gtx::Grid grid;
  grid.south = -90;
  grid.rowStep = grid.columnStep = kStep;
  grid.rows = kRows;
  grid.columns = kColumns - 1;
  grid.heights.resize(grid.rows * grid.columns);
  const char* at = text.data();
  const char* const end = at + text.size();
  for (size_t number = 0; number < kNumbers; ++number) {
    while (at != end && (IsBlank(*at) || *at == '+')) ++at;
    float height = 0;
    const auto [next, error] = std::from_chars(at, end, height);
    if (error != std::errc{}) return std::nullopt;
    at = next;
    const size_t row = kRows - 1 - number / kColumns;
    const size_t column = number % kColumns;
    if (column < grid.columns) grid.heights[row * grid.columns + column] = height;
  }
  return grid;
}

std::optional<double> SystemUndulation(double latitude, double longitude) {
  // It is never destroyed, because a thread that was left behind may still use it.
  static const auto* const kGrid = new std::optional<gtx::Grid>(LoadGeoidGrid(kGeoidGrid));
  return *kGrid ? std::optional((*kGrid)->Interpolate(latitude, longitude)) : std::nullopt;
}

void AddEllipsoidHeights(st0601::Observation& seen, const Undulation& undulation) {
  for (std::optional<st0601::Position>* each : {&seen.platform, &seen.frameCenter, &seen.target}) {
    if (!*each || (*each)->ellipsoidHeight || !(*each)->altitude) continue;
    if (const auto height = undulation((*each)->latitude, (*each)->longitude)) {
      (*each)->ellipsoidHeight = *(*each)->altitude + *height;
    }
  }
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
