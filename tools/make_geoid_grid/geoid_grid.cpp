// SPDX-License-Identifier: Apache-2.0
#include "geoid_grid.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <system_error>

#include "gtx_grid.h"
#include "owned_fd.h"

namespace geoid {
namespace {

constexpr int kGtxColumns = 1440;
constexpr int kGtxGreenwich = 720;  // column of longitude 0; the first column is 180 W
constexpr size_t kGtxSize = 40 + size_t{kRows} * kGtxColumns * sizeof(float);

// All geoid heights of EGM96 lie within these limits.
constexpr float kLowest = -110.0f;
constexpr float kHighest = 90.0f;

// Returns whether the data begins with the latitude of the first row of such a GTX grid, -90 as a big-endian double. No
// text begins so.
bool IsGtx(std::string_view data) {
  return data.starts_with(std::string_view("\xC0\x56\x80\0\0\0\0\0", 8));
}

Grid ParseGtx(std::string_view data) {
  if (data.size() != kGtxSize) {
    throw GridError("the GTX grid has " + std::to_string(data.size()) + " bytes instead of " +
                    std::to_string(kGtxSize));
  }
  const std::optional<gtx::Grid> input = gtx::Parse(data);
  if (!input || input->south != -90.0 || input->west != -180.0 || input->rowStep != 0.25 || input->columnStep != 0.25 ||
      input->rows != kRows || input->columns != kGtxColumns) {
    throw GridError("the GTX grid is not 721 rows of 1440 columns from 90 S, 180 W, 0.25 degrees apart");
  }
  Grid grid{.form = "GTX grid", .values = {}};
  grid.values.reserve(kValues);
  for (int row = 0; row < kRows; ++row) {
    for (int column = 0; column < kColumns; ++column) {
      const int from = (kRows - 1 - row) * kGtxColumns + (column + kGtxGreenwich) % kGtxColumns;
      grid.values.push_back(input->heights[static_cast<size_t>(from)]);
    }
  }
  return grid;
}

std::vector<float> ParseNumbers(std::string_view data) {
  constexpr std::string_view kBlanks = " \t\r\n\v\f";
  std::vector<float> numbers;
  numbers.reserve(kValues + 6);
  for (size_t at = data.find_first_not_of(kBlanks); at != std::string_view::npos;) {
    const size_t end = std::min(data.find_first_of(kBlanks, at), data.size());
    const std::string_view token = data.substr(at, end - at);
    float number = 0;
    const auto [stop, error] = std::from_chars(token.data(), token.data() + token.size(), number);
    if (error != std::errc() || stop != token.data() + token.size()) {
      throw GridError("\"" + std::string(token.substr(0, 40)) + "\", after " + std::to_string(numbers.size()) +
                      " numbers, is not a number");
    }
    numbers.push_back(number);
    at = data.find_first_not_of(kBlanks, end);
  }
  return numbers;
}

Grid ParseText(std::string_view data) {
  constexpr std::array<float, 6> kHeader = {-90, 90, 0, 360, 0.25, 0.25};
  Grid grid{.form = "text grid without header", .values = ParseNumbers(data)};
  if (grid.values.size() == kValues + kHeader.size()) {
    if (!std::equal(kHeader.begin(), kHeader.end(), grid.values.begin())) {
      throw GridError("the header line is not \"-90 90 0 360 0.25 0.25\"");
    }
    grid.values.erase(grid.values.begin(), grid.values.begin() + kHeader.size());
    grid.form = "text grid with header";
  }
  if (grid.values.size() != kValues) {
    throw GridError("the text has " + std::to_string(grid.values.size()) + " numbers instead of " +
                    std::to_string(kValues) + " (and six in front, with a header)");
  }
  return grid;
}

void Check(const Grid& grid) {
  for (int i = 0; i < kValues; ++i) {
    const float value = grid.values[static_cast<size_t>(i)];
    if (!(value >= kLowest && value <= kHighest)) {
      throw GridError("row " + std::to_string(i / kColumns) + ", column " + std::to_string(i % kColumns) + " is " +
                      std::to_string(value) + ": no height of this geoid");
    }
  }
  for (size_t row = 0; row < kRows; ++row) {
    if (grid.values[row * kColumns] != grid.values[row * kColumns + kColumns - 1]) {
      throw GridError("row " + std::to_string(row) + " does not repeat its first value at 360 E");
    }
  }
}

[[noreturn]] void ThrowSystemError(const std::string& what) {
  throw GridError(what + ": " + std::strerror(errno));
}

void WriteAll(int fd, const std::string& text, const std::string& path) {
  for (size_t written = 0; written < text.size();) {
    const ssize_t step = write(fd, text.data() + written, text.size() - written);
    if (step < 0 && errno == EINTR) continue;
    if (step < 0) ThrowSystemError(path);
    written += static_cast<size_t>(step);
  }
  if (fchmod(fd, 0644) != 0 || fsync(fd) != 0) ThrowSystemError(path);
}

}  // namespace

Grid ParseGrid(std::string_view data) {
  Grid grid = IsGtx(data) ? ParseGtx(data) : ParseText(data);
  Check(grid);
  return grid;
}

std::string FormatGrid(const Grid& grid) {
  constexpr int kPerLine = 8;
  std::string text;
  text.reserve(grid.values.size() * 13);
  for (size_t i = 0; i < grid.values.size(); ++i) {
    std::array<char, 32> number;
    const auto end =
        std::to_chars(number.begin(), number.end(), static_cast<double>(grid.values[i]), std::chars_format::general, 9)
            .ptr;
    text.append(number.data(), end);
    const size_t column = i % kColumns;
    text += column % kPerLine == kPerLine - 1 || column == kColumns - 1 ? '\n' : ' ';
    if (column == kColumns - 1) text += '\n';
  }
  return text;
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) ThrowSystemError(path);
  std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (file.bad()) ThrowSystemError(path);
  return text;
}

void ReplaceFile(const std::string& path, const std::string& text) {
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  std::error_code error;
  if (!folder.empty()) std::filesystem::create_directories(folder, error);
  if (error) throw GridError(folder.string() + ": " + error.message());
  std::string temporary = path + ".XXXXXX";
  const common::OwnedFD file(mkstemp(temporary.data()));
  if (!file.IsOpen()) ThrowSystemError(temporary);
  try {
    WriteAll(file.Get(), text, temporary);
    if (rename(temporary.c_str(), path.c_str()) != 0) ThrowSystemError(path);
  } catch (...) {
    unlink(temporary.c_str());
    throw;
  }
}

}  // namespace geoid
